/// \file
/// What tests share that refuse a scenario's requests of memory in turn (CountingHooks.h).
#pragma once

#include "CountingHooks.h"

#include <vlmcore/memory.h>

#include <cstdio>
#include <new>
#include <string>

#include <gtest/gtest.h>

namespace TestSupport {

/// The heap that the scenario runs on, and what is refused of it.
struct SFaultMode {
    unsigned char heapFlags;
    bool isOnce; ///< one request is refused, not all from there on
};

/// All of them, for INSTANTIATE_TEST_SUITE_P.
[[nodiscard]] inline auto FaultModes()
{
    namespace EHeapFlag = Velmor::EHeapFlag;
    return ::testing::Values(SFaultMode{0, false}, SFaultMode{0, true}, SFaultMode{EHeapFlag::Passthrough, false},
                             SFaultMode{EHeapFlag::Passthrough, true});
}

[[nodiscard]] inline std::string NameOf(::testing::TestParamInfo<SFaultMode> const& test)
{
    return std::string(test.param.heapFlags == 0 ? "Normal" : "Passthrough") +
           (test.param.isOnce ? "Once" : "FromThere");
}

/// Whether the action got the memory it needed. What else it throws fails the test.
template <class Action>
bool IsServed(Action const& action)
{
    try {
        action();
        return true;
    }
    catch (std::bad_alloc const& error) {
        EXPECT_STREQ(error.what(), "bad allocation");
    }
    return false;
}

/// Runs the scenario on a heap of its own with its n-th request refused (0: none); false when it makes fewer requests
/// than that. Fails the test when anything is left behind, in the pools or with the hooks.
template <class Scenario>
bool IsRefusalReached(SFaultMode const& mode, Velmor::u64 failing, Scenario const& scenario)
{
    namespace Memory = Velmor::Memory;
    using CHooks = Velmor::Test::CCountingHooks;

    if (Memory::IsInitialized())
        Memory::Deinitialize(); // of a run that an exception ended
    CHooks::Reset();
    CHooks::Initialize(mode.heapFlags);
    EXPECT_TRUE(Memory::IsInitialized());
    Velmor::u64 const requests = CHooks::GetRequests();
    if (failing != 0)
        mode.isOnce ? CHooks::FailOnce(failing) : CHooks::FailFrom(failing);
    scenario();
    bool const isReached = CHooks::GetRequests() - requests >= failing;
    CHooks::FailFrom(0);

    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    for (auto const& pool : statistics.pools)
        EXPECT_EQ(pool.liveCount, 0u) << "request " << failing;
    if (mode.heapFlags == Velmor::EHeapFlag::Passthrough)
        EXPECT_EQ(statistics.liveCount, 0u) << "request " << failing;
    Memory::Deinitialize();
    EXPECT_LE(CHooks::GetLiveBlocks(), 1u) << "request " << failing; // the heap object
    EXPECT_EQ(CHooks::GetForeignBlocks(), 0u);
    return isReached;
}

/// Calls `run` with 1, 2 and so on, the request to refuse, while it answers that there was such a request. Requests
/// that the pools serve are not seen: `leastPassthrough` is how many there must be without pools.
template <class Run>
void RefuseEachInTurn(SFaultMode const& mode, Velmor::u64 leastPassthrough, Run const& run)
{
    Velmor::u64 failing = 1;
    while (run(failing) && !::testing::Test::HasFailure())
        ++failing;
    EXPECT_GT(failing, mode.heapFlags == 0 ? 10u : leastPassthrough);
    std::printf("%u requests refused in turn\n", static_cast<unsigned>(failing - 1));
}

} // namespace TestSupport
