// Labels: threads
// Random allocation, resizing and freeing of all kinds on eight threads, with blocks freed by other threads and purges
// meanwhile. Contents are checked, and the statistics are back where they were. VLMCORE_STRESS multiplies the length.
#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

using namespace Velmor;

namespace {

constexpr u64 ThreadCount = 8;
constexpr u64 SlotCount = 400;

u64 GetRounds()
{
    char const* const factor = std::getenv("VLMCORE_STRESS");
    return 20000 * (factor != nullptr ? std::strtoull(factor, nullptr, 10) : 1);
}

// The first bytes of a block say how it is filled: enough to notice any other owner.
struct SHeader {
    u64 size;
    u64 pattern;
};

class CWorker {
public:
    CWorker(u64 seed, std::vector<std::atomic<u8*>>& exchange)
        : m_state(seed * 0x9E3779B97F4A7C15u + 1), m_exchange(exchange)
    {
    }

    void Run(u64 rounds)
    {
        std::vector<u8*> slots(SlotCount);
        for (u64 round = 0; round < rounds; ++round) {
            u64 const number = Next();
            u8*& slot = slots[number % SlotCount];
            switch ((number >> 20) % 8) {
            case 0:
            case 1: // resize in place of a new block
                if (slot != nullptr)
                    slot = Resize(slot, GetRandomSize());
                break;
            case 2: // hand over to another thread, take what lies there
                slot = m_exchange[(number >> 32) % m_exchange.size()].exchange(slot, std::memory_order_acq_rel);
                break;
            default:
                if (slot != nullptr)
                    Release(slot);
                slot = Allocate(GetRandomSize(), static_cast<EHeap::Type>((number >> 40) % 5));
            }
        }
        for (u8* const slot : slots)
            if (slot != nullptr)
                Release(slot);
    }

    static void Release(u8* block)
    {
        Check(block, ReadHeader(block).size);
        Memory::Free(block);
    }

    static inline std::atomic<u64> damaged{0};

private:
    u64 Next()
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return m_state;
    }

    u64 GetRandomSize()
    {
        u64 const number = Next();
        u64 const range = number % 16 == 0 ? 20000 : number % 4 == 0 ? 2000 : 300;
        return sizeof(SHeader) + (number >> 8) % range;
    }

    static SHeader ReadHeader(u8 const* block)
    {
        SHeader header;
        std::memcpy(&header, block, sizeof header);
        return header;
    }

    static void Fill(u8* block, u64 size)
    {
        SHeader const header{size, reinterpret_cast<u64>(block) ^ size};
        std::memcpy(block, &header, sizeof header);
        std::memset(block + sizeof header, static_cast<u8>(header.pattern >> 4), size - sizeof header);
    }

    static void Check(u8 const* block, u64 size)
    {
        SHeader const header = ReadHeader(block);
        bool isWhole = header.size == size && header.pattern == (reinterpret_cast<u64>(block) ^ size);
        for (u64 index = sizeof header; isWhole && index < size; ++index)
            isWhole = block[index] == static_cast<u8>(header.pattern >> 4);
        if (!isWhole || Memory::GetSize(block) != size)
            ++damaged;
    }

    static u8* Allocate(u64 size, EHeap::Type kind)
    {
        u8* const block = static_cast<u8*>(Memory::Malloc(size, kind));
        if (block == nullptr)
            ++damaged;
        else
            Fill(block, size);
        return block;
    }

    static u8* Resize(u8* block, u64 size)
    {
        SHeader const before = ReadHeader(block);
        Check(block, before.size);
        u8* const moved = static_cast<u8*>(Memory::Realloc(block, size, EHeap::General));
        if (moved == nullptr) {
            ++damaged;
            return nullptr;
        }
        SHeader const after = ReadHeader(moved);
        if (after.size != before.size || after.pattern != before.pattern)
            ++damaged;
        Fill(moved, size);
        return moved;
    }

    u64 m_state;
    std::vector<std::atomic<u8*>>& m_exchange;
};

class MemoryStress : public ::testing::TestWithParam<unsigned char> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, MemoryStress, ::testing::Values(0, EHeapFlag::Passthrough),
                         [](auto const& test) { return std::string(test.param == 0 ? "Normal" : "Passthrough"); });

TEST_P(MemoryStress, EightThreadsLeaveNothingBehind)
{
    Memory::Initialize(GetParam(), 0);
    Memory::Purge(); // the thread pool's own chunks are there from here on
    Memory::SStatistics before{};
    ASSERT_TRUE(Memory::GetStatistics(before));
    CWorker::damaged = 0;
    {
        std::vector<std::atomic<u8*>> exchange(64);
        std::vector<std::thread> threads;
        std::atomic<u64> running{ThreadCount};
        for (u64 thread = 0; thread < ThreadCount; ++thread)
            threads.emplace_back([&, thread] {
                CWorker(thread + 1, exchange).Run(GetRounds());
                --running;
            });
        while (running != 0) {
            Memory::Purge();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        for (std::thread& thread : threads)
            thread.join();
        for (std::atomic<u8*>& block : exchange)
            if (block != nullptr)
                CWorker::Release(block);
    }
    EXPECT_EQ(CWorker::damaged, 0u);

    Memory::Purge();
    Memory::SStatistics after{};
    ASSERT_TRUE(Memory::GetStatistics(after));
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(after.pools[index].liveCount, 0u);
        u64 const worked = after.pools[index].allocationCount - before.pools[index].allocationCount;
        if (GetParam() == 0)
            EXPECT_GT(worked, 1000u);
        // A purge's own thread pool draws from EHeap::Pool; the other kinds end up without a single chunk.
        if (index != 0)
            for (auto const& entry : after.pools[index].classes)
                EXPECT_EQ(entry.chunkCount, 0u);
    }
    u64 chunks = 0;
    u64 chunkBytes = 0;
    u64 tables = 0;
    for (auto const& entry : after.pools[0].classes) {
        chunks += entry.chunkCount;
        chunkBytes += entry.chunkCount * (entry.blockSize * entry.blocksPerChunk + 8);
        tables += entry.chunkCount != 0 ? 1 : 0;
    }
    u64 const objects = GetParam() == 0 ? 4 : 0; // the allocators themselves
    EXPECT_EQ(after.liveCount, objects + chunks + tables);

    // What is left besides is the record store, which only grows: 2, 4, 8, ... chunks of 6,144 bytes and a pointer.
    u64 const store = after.bytesInUse - chunkBytes - 2144 - (GetParam() == 0 ? 1088 : 0);
    EXPECT_EQ(store % (2 * 6152), 0u);
    EXPECT_LE(store, 64u * 6152);
    Memory::Deinitialize();
}
