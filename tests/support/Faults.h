/// \file
/// What tests share that refuse a scenario's requests of memory in turn (CountingHooks.h).
#pragma once

#include <vlmcore/memory.h>

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

} // namespace TestSupport
