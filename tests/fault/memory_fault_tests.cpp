// A scenario of the whole memory manager, once for every request that its hooks can refuse: from the n-th on, and the
// n-th alone. Whatever is refused, the outcome is null or bad_alloc, contents stay, and nothing is lost to the hooks.
#include "../support/CountingHooks.h"

#include <vlmcore/containers.h>
#include <vlmcore/memory.h>
#include <vlmcore/resources.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

struct SBlock {
    u8* memory;
    u64 size;
    u8 fill;
};

class CScenario {
public:
    ~CScenario()
    {
        for (SBlock const& block : m_blocks)
            Memory::FreeQuietly(block.memory);
    }

    // Blocks of all kinds and classes, past the first growth of the record store, resized, purged and freed.
    void Run()
    {
        for (u64 index = 0; index < 540; ++index)
            Allocate(index % 8 == 0 ? 1 + index * 7 % 1400 : 1 + index % 60, static_cast<EHeap::Type>(index % 5));
        CheckAll();
        for (u64 index = 0; index < m_blocks.size(); index += 5)
            Resize(m_blocks[index], 1 + (m_blocks[index].size * 5 + 11) % 3000);
        CheckAll();
        for (u64 index = 0; index < m_blocks.size(); index += 2) {
            Memory::Free(m_blocks[index].memory);
            m_blocks[index].memory = nullptr;
        }
        try {
            Memory::Purge();
        }
        catch (std::bad_alloc const&) {
            // Without memory for its jobs.
        }
        CheckAll();
        RunObjects();
        for (u64 index = 0; index < 100; ++index)
            Allocate(1 + index * 13 % 900, static_cast<EHeap::Type>(index % 5));
        CheckAll();
    }

    [[nodiscard]] u64 GetLostBlocks() const { return m_lostBlocks; }

private:
    void Allocate(u64 size, EHeap::Type kind)
    {
        u8* const memory = static_cast<u8*>(Memory::Malloc(size, kind));
        if (memory == nullptr)
            return;
        u8 const fill = static_cast<u8>(m_blocks.size() * 31 + 1);
        std::memset(memory, fill, size);
        m_blocks.push_back({memory, size, fill});
    }

    void Resize(SBlock& block, u64 size)
    {
        u8* const memory = static_cast<u8*>(Memory::Realloc(block.memory, size, EHeap::General));
        if (memory == nullptr) {
            // Still allocated, no longer known.
            ASSERT_EQ(Memory::GetSize(block.memory), 0u);
            Check(block);
            ++m_lostBlocks;
            block.memory = nullptr;
            return;
        }
        u64 const kept = block.size < size ? block.size : size;
        for (u64 index = 0; index < kept; ++index)
            ASSERT_EQ(memory[index], block.fill);
        std::memset(memory, block.fill, size);
        block.memory = memory;
        block.size = size;
    }

    static void Check(SBlock const& block)
    {
        for (u64 index = 0; index < block.size; ++index)
            ASSERT_EQ(block.memory[index], block.fill);
    }

    void CheckAll() const
    {
        for (SBlock const& block : m_blocks)
            if (block.memory != nullptr) {
                ASSERT_EQ(Memory::GetSize(block.memory), block.size);
                Check(block);
            }
    }

    // The classes on top: bad_alloc, and as they were.
    static void RunObjects()
    {
        TVector<u64> vector;
        for (u64 index = 0; index < 50; ++index)
            try {
                vector.Append(index);
            }
            catch (std::bad_alloc const&) {
                break;
            }
        for (u64 index = 0; index < vector.GetCount(); ++index)
            ASSERT_EQ(vector[index], index);

        CBlockStorage storage(64);
        std::vector<char const*> texts;
        for (int index = 0; index < 20; ++index)
            try {
                texts.push_back(static_cast<char const*>(storage.StoreCopy("a text of some length", 22)));
            }
            catch (std::bad_alloc const&) {
            }
        for (char const* const text : texts)
            ASSERT_STREQ(text, "a text of some length");
    }

    std::vector<SBlock> m_blocks;
    u64 m_lostBlocks = 0;
};

class MemoryFaults : public ::testing::TestWithParam<unsigned char> {
protected:
    // Runs the scenario with the n-th request refused; false when it makes fewer requests than that.
    bool RunWith(u64 failing, bool once)
    {
        CCountingHooks::Reset();
        u64 lostBlocks = 0;
        bool isReached = false;
        if (once)
            CCountingHooks::FailOnce(failing);
        else
            CCountingHooks::FailFrom(failing);
        try {
            CCountingHooks::Initialize(GetParam());
        }
        catch (std::bad_alloc const&) {
            EXPECT_FALSE(Memory::IsInitialized());
        }
        if (Memory::IsInitialized()) {
            CScenario scenario;
            scenario.Run();
            lostBlocks = scenario.GetLostBlocks();
        }
        isReached = CCountingHooks::GetRequests() >= failing;
        CCountingHooks::FailFrom(0);
        bool const hadHeap = CCountingHooks::GetLiveBlocks() != 0;
        Memory::Deinitialize();
        // The heap object, and what a refused resize left to its owner: at most a block of the hooks each.
        EXPECT_LE(CCountingHooks::GetLiveBlocks(), (hadHeap ? 1u : 0u) + lostBlocks);
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
        return isReached;
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, MemoryFaults, ::testing::Values(0, EHeapFlag::Passthrough),
                         [](auto const& test) { return std::string(test.param == 0 ? "Normal" : "Passthrough"); });

TEST_P(MemoryFaults, EveryRequestMayBeTheLast)
{
    u64 failing = 1;
    while (RunWith(failing, false) && !HasFatalFailure())
        ++failing;
    EXPECT_GT(failing, GetParam() == 0 ? 100u : 500u);
}

TEST_P(MemoryFaults, EveryRequestMayBeRefusedAlone)
{
    u64 failing = 1;
    while (RunWith(failing, true) && !HasFatalFailure())
        ++failing;
    EXPECT_GT(failing, GetParam() == 0 ? 100u : 500u);
}
