// Labels: threads
// A heap past 1,024 records or 4,096 allocations: what it counts, refuses and reports is what a small one would.
#include "support/CountingHooks.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <utility>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

constexpr u64 RecordChunk = 256 * 24 + 8; // and its place in the table

Memory::SStatistics GetStatistics()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics;
}

// Bytes in use but for the pools' chunks: the heap object and the record store.
u64 GetRecordBytes()
{
    Memory::SStatistics const statistics = GetStatistics();
    u64 bytes = statistics.bytesInUse;
    for (auto const& pool : statistics.pools)
        for (u64 index = 0; index < pool.classCount; ++index) {
            auto const& entry = pool.classes[index];
            bytes -= entry.chunkCount * (entry.blockSize * entry.blocksPerChunk + pool.alignment + 8);
        }
    return bytes;
}

// What it was told, in order.
class CEvents : public IMemoryLogger {
public:
    void OnAllocate(void const* block, u64 size) override { allocated.emplace_back(block, size); }
    void OnFree(void const* block) override { freed.push_back(block); }
    void OnRetain(void const*) override {}
    void OnRelease(void const*) override {}

    std::vector<std::pair<void const*, u64>> allocated;
    std::vector<void const*> freed;
};

class ExtendedHeap : public ::testing::Test {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        CCountingHooks::Initialize(0);
    }
    void TearDown() override
    {
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u) << "the heap object alone";
        CCountingHooks::Reset();
    }

    void Fill(u64 count, u64 size = 24, EHeap::Type kind = EHeap::Pool)
    {
        for (u64 index = 0; index < count; ++index) {
            m_blocks.push_back(Memory::Malloc(size, kind));
            ASSERT_NE(m_blocks.back(), nullptr);
        }
    }
    void Empty()
    {
        for (void* const block : m_blocks)
            Memory::Free(block);
        m_blocks.clear();
    }

    std::vector<void*> m_blocks;
};

// Frees of a container's elements come in the order of its keys, say; the next container is not to pay for it.
TEST_F(ExtendedHeap, BlocksAllocatedTogetherLieTogetherWhateverTheOrderOfTheReleasesWas)
{
    constexpr u64 Count = 20000;
    Fill(Count, 64);
    std::shuffle(m_blocks.begin(), m_blocks.end(), std::mt19937(3));
    Empty();
    Fill(Count, 64);
    u64 neighbours = 0;
    for (u64 index = 1; index < Count; ++index)
        neighbours += static_cast<u8*>(m_blocks[index]) == static_cast<u8*>(m_blocks[index - 1]) + 64 ? 1u : 0u;
    // All but those at the ends of the chunks and the few that a thread has at hand.
    EXPECT_GT(neighbours, Count * 95 / 100);
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, (Count + 255) / 256);
    Empty();
}

TEST_F(ExtendedHeap, PurgeGivesBackEveryChunkWithoutABlockInUse)
{
    constexpr u64 Count = 20000;
    Fill(Count, 64);
    // Every chunk of 256 blocks keeps one, then none.
    std::vector<void*> kept;
    for (u64 index = 100; index < Count; index += 256)
        kept.push_back(std::exchange(m_blocks[index], nullptr));
    std::shuffle(m_blocks.begin(), m_blocks.end(), std::mt19937(4));
    Empty();
    Memory::Purge();
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, kept.size());
    while (kept.size() > 10) {
        Memory::Free(kept.back());
        kept.pop_back();
    }
    Memory::Purge();
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, 10u);
    // What is left is whole: its other blocks are handed out before a new chunk is made.
    Fill(10 * 255, 64);
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, 10u);
    Fill(1, 64);
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, 11u);
    for (void* const block : kept)
        Memory::Free(block);
    Empty();
    Memory::Purge();
    EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, 0u);
}

// A class's chunks get their notes when a thread first needs a block after the heap was extended; a purge may hold the
// class's free list at that moment.
TEST_F(ExtendedHeap, ChunksMayGetTheirNotesWhileAPurgeHoldsTheirFreeBlocks)
{
    for (u32 round = 0; round < 150; ++round) {
        TearDown();
        SetUp();
        // Four chunks with some blocks in use, before the heap is extended; then another class extends it.
        Fill(1000, 64);
        std::vector<void*> kept;
        for (u64 index = 0; index < m_blocks.size(); index += 10)
            kept.push_back(std::exchange(m_blocks[index], nullptr));
        Empty();
        Fill(5000, 8);
        Empty();
        std::atomic<bool> isPurging{false};
        std::atomic<bool> isDone{false};
        std::thread purger([&] {
            while (!isDone) {
                isPurging = true;
                Memory::Purge();
            }
        });
        while (!isPurging)
            std::this_thread::yield();
        for (u32 wait = 0; wait < round * 1000; ++wait)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        Fill(1, 64);
        isDone = true;
        purger.join();
        for (void* const block : kept)
            Memory::Free(block);
        Memory::Purge();
        // No block comes from a chunk that has gone.
        Fill(2000, 64);
        EXPECT_GE(GetStatistics().pools[0].classes[3].chunkCount * 256, 2001u) << round;
        Empty();
        Memory::Purge();
        EXPECT_EQ(GetStatistics().pools[0].classes[3].chunkCount, 0u);
    }
}

TEST_F(ExtendedHeap, TheStoreGrowsWithTheRecordThatDoesNotFit)
{
    u64 const empty = GetRecordBytes();
    // The four pools have a record each.
    Fill(508);
    EXPECT_EQ(GetRecordBytes(), empty);
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), empty + 2 * RecordChunk);
    Fill(1024 - 513);
    EXPECT_EQ(GetRecordBytes(), empty + 2 * RecordChunk);
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), empty + 6 * RecordChunk);
    for (u64 capacity = 2048; capacity <= 32768; capacity *= 2) {
        Fill(capacity - 4 - m_blocks.size());
        EXPECT_EQ(GetRecordBytes(), empty + (capacity / 256 - 2) * RecordChunk) << capacity;
        Fill(1);
        EXPECT_EQ(GetRecordBytes(), empty + (capacity / 128 - 2) * RecordChunk) << capacity;
    }
    u64 const full = GetRecordBytes();
    Empty();
    EXPECT_EQ(GetRecordBytes(), full) << "records are kept";
}

TEST_F(ExtendedHeap, HookBlocksAndPoolBlocksDrawOnTheSameRecords)
{
    u64 const empty = GetRecordBytes();
    Fill(3000);
    std::vector<void*> const poolBlocks = m_blocks;
    m_blocks.clear();
    u64 generalBytes = 0;
    for (; 4 + poolBlocks.size() + m_blocks.size() < 4096; generalBytes += 40)
        Fill(1, 40, EHeap::General);
    EXPECT_EQ(GetRecordBytes(), empty + 14 * RecordChunk + generalBytes);
    Fill(1, 40, EHeap::General);
    EXPECT_EQ(GetRecordBytes(), empty + 30 * RecordChunk + generalBytes + 40);
    Empty();
    m_blocks = poolBlocks;
    Empty();
}

TEST_F(ExtendedHeap, TheStoreGrowsOnlyWhenNoThreadHasARecordToSpare)
{
    Fill(3000);
    u64 const before = GetRecordBytes();
    // Each leaves some records behind that nobody uses.
    for (u32 index = 0; index < 8; ++index)
        std::thread([] {
            Memory::Free(Memory::Malloc(24, EHeap::Pool));
            Memory::Free(Memory::Malloc(24, EHeap::General));
        }).join();
    Fill(4096 - 4 - 3000);
    EXPECT_EQ(GetRecordBytes(), before);
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), before + 16 * RecordChunk);
    Empty();
}

// What one thread calls in from the others does not look like records in use to the next.
TEST_F(ExtendedHeap, TheStoreDoesNotGrowWhileThreadsShareTheLastRecords)
{
    constexpr u64 ThreadCount = 16;
    constexpr u64 Count = 8;
    Fill(4096 - 4 - ThreadCount * Count);
    u64 const before = GetRecordBytes();
    for (u32 round = 0; round < 20; ++round) {
        std::atomic<u64> ready{0};
        std::vector<std::thread> threads;
        void* blocks[ThreadCount][Count];
        for (auto& own : blocks)
            threads.emplace_back([&ready, &own] {
                ++ready;
                while (ready != ThreadCount)
                    std::this_thread::yield();
                for (u64 index = 0; index < Count; ++index)
                    own[index] = Memory::Malloc(24, index % 2 == 0 ? EHeap::Pool : EHeap::General);
            });
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(GetRecordBytes(), before + ThreadCount * Count / 2 * 24) << round;
        for (auto& own : blocks)
            for (void* const block : own)
                Memory::Free(block);
    }
    Fill(ThreadCount * Count);
    EXPECT_EQ(GetRecordBytes(), before);
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), before + 16 * RecordChunk) << "these were the last ones";
    Empty();
}

// A block that moves leaves its record to the place that it moves to.
TEST_F(ExtendedHeap, TheStoreDoesNotGrowForABlockThatMoves)
{
    Fill(4096 - 4 - 1);
    void* block = Memory::Malloc(24, EHeap::Pool);
    u64 const full = GetRecordBytes();

    // To other classes, to the hooks and back.
    for (u64 const size : {u64{200}, u64{24}, u64{3000}, u64{5000}, u64{24}, u64{1000}, u64{2000}, u64{200}}) {
        u64 const largeBytes = size > 1024 ? size : 0;
        block = Memory::Realloc(block, size, EHeap::Pool);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(Memory::GetSize(block), size);
        EXPECT_EQ(GetRecordBytes(), full + largeBytes) << size;
    }
    // It needs nothing of the hooks then.
    CCountingHooks::FailFrom(1);
    block = Memory::Realloc(block, 24, EHeap::Pool);
    CCountingHooks::FailFrom(0);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 4096u - 4);
    EXPECT_EQ(GetRecordBytes(), full);
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), full + 16 * RecordChunk) << "it was full";
    Memory::Free(block);
    Empty();
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 0u);
}

// What other threads freed waits for them with records of its own; these count as free.
TEST_F(ExtendedHeap, TheStoreDoesNotGrowWhileBlocksThatNobodyUsesHaveRecords)
{
    constexpr u64 Sizes[] = {8, 24, 100, 1000};
    for (u64 index = 0; m_blocks.size() < 4096 - 4; ++index)
        Fill(1, Sizes[index % 4]);
    u64 const full = GetRecordBytes();
    for (u64 const freed : {u64{1}, u64{7}, u64{60}, u64{300}}) {
        std::thread([&] {
            for (u64 index = 0; index < freed; ++index) {
                Memory::Free(m_blocks.back());
                m_blocks.pop_back();
            }
        }).join();
        Fill(freed, 500, EHeap::Pool8);
        EXPECT_EQ(GetRecordBytes(), full) << freed;
    }
    Fill(1);
    EXPECT_EQ(GetRecordBytes(), full + 16 * RecordChunk);
    Empty();
}

// The usual cases look for the logger and the heap in one place.
TEST_F(ExtendedHeap, AMemoryLoggerSeesWhatIsAllocatedWhileItIsInstalled)
{
    Fill(3000);
    CEvents events;
    for (u32 round = 0; round < 3; ++round) {
        Memory::Free(Memory::Malloc(24, EHeap::Pool)); // nobody looks
        Memory::InitializeLog(&events);
        void* const block = Memory::Malloc(24, EHeap::Pool);
        Memory::Free(m_blocks.back());
        EXPECT_EQ(Memory::ReleaseLog(), &events);
        ASSERT_EQ(events.allocated.size(), round + 1);
        ASSERT_EQ(events.freed.size(), round + 1);
        EXPECT_EQ(events.allocated.back(), (std::pair<void const*, u64>(block, 24)));
        EXPECT_EQ(events.freed.back(), m_blocks.back());
        m_blocks.back() = block;
    }
    Empty();
    EXPECT_EQ(events.freed.size(), 3u);
}

// Reporting a leak of one kind, when another kind's memory is back with the hooks already.
TEST(ExtendedHeapAndLogger, ALoggerThatAllocatesWhileTheHeapGoesGetsNoBlockOfWhatIsGone)
{
    class CAllocatingLogger : public ILogger {
    public:
        void Write(Log::EMessage::Type, u64, CString const&) override
        {
            for (u64 size = 8; size <= 1024; size *= 2)
                blocks.push_back(Memory::Malloc(size, EHeap::Pool));
        }

        std::vector<void*> blocks;
    };
    CCountingHooks::Reset();
    CCountingHooks::Initialize(EHeapFlag::Report);
    std::vector<void*> blocks;
    for (u64 index = 0; index < 6000; ++index)
        blocks.push_back(Memory::Malloc(u64{8} << index % 8, EHeap::Pool));
    for (void* const block : blocks)
        Memory::Free(block);
    ASSERT_NE(Memory::Malloc(24, EHeap::Pool4), nullptr); // leaks
    CAllocatingLogger logger;
    Log::Initialize(&logger);
    ASSERT_EQ(logger.blocks.size(), 8u);
    for (void* const block : logger.blocks)
        Memory::Free(block);
    logger.blocks.clear();
    Memory::Deinitialize();
    ASSERT_GE(logger.blocks.size(), 8u) << "it was told of the leak";
    EXPECT_EQ(logger.blocks, std::vector<void*>(logger.blocks.size()));
    Log::Initialize(nullptr);
    EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    CCountingHooks::Reset();
}

TEST(ExtendedHeapAndLogger, AMemoryLoggerMayBeThereBeforeTheHeap)
{
    CEvents events;
    Memory::InitializeLog(&events);
    Memory::Initialize(0, 0);
    std::vector<void*> blocks;
    for (u32 index = 0; index < 2000; ++index)
        blocks.push_back(Memory::Malloc(24, EHeap::Pool));
    ASSERT_GE(events.allocated.size(), 2000u);
    EXPECT_EQ(events.allocated.back(), (std::pair<void const*, u64>(blocks.back(), 24)));
    EXPECT_EQ(Memory::ReleaseLog(), &events);
    for (void* const block : blocks)
        Memory::Free(block);
    Memory::Deinitialize();
    EXPECT_TRUE(events.freed.empty());
}

TEST_F(ExtendedHeap, SizesAndKindsAreKnownForEveryBlock)
{
    std::mt19937 random(3);
    struct SBlock {
        void* block;
        u64 size;
        EHeap::Type kind;
    };
    std::vector<SBlock> blocks;
    for (u32 index = 0; index < 6000; ++index) {
        u64 const size = 1 + random() % 1500;
        EHeap::Type const kind = static_cast<EHeap::Type>(random() % 5);
        blocks.push_back({Memory::Malloc(size, kind), size, kind});
        ASSERT_NE(blocks.back().block, nullptr);
    }
    for (SBlock const& entry : blocks) {
        ASSERT_EQ(Memory::GetSize(entry.block), entry.size);
        ASSERT_EQ(Memory::GetHeap(entry.block), entry.kind);
        ASSERT_EQ(Memory::GetSize(static_cast<u8*>(entry.block) + 1), 0u);
    }
    for (SBlock& entry : blocks) {
        u64 const size = 1 + random() % 1500;
        std::memset(entry.block, static_cast<int>(entry.size % 251), entry.size);
        u8* const moved = static_cast<u8*>(Memory::Realloc(entry.block, size, EHeap::General));
        ASSERT_NE(moved, nullptr);
        for (u64 index = 0; index < std::min(size, entry.size); ++index)
            ASSERT_EQ(moved[index], entry.size % 251);
        entry = {moved, size, entry.kind};
        ASSERT_EQ(Memory::GetSize(moved), size);
        ASSERT_EQ(Memory::GetHeap(moved), entry.kind);
    }
    for (SBlock const& entry : blocks) {
        Memory::Free(entry.block);
        ASSERT_EQ(Memory::GetSize(entry.block), 0u);
    }
    for (auto const& pool : GetStatistics().pools)
        EXPECT_EQ(pool.liveCount, 0u);
}

TEST_F(ExtendedHeap, ABlockThatIsFreedTwiceIsFreedOnce)
{
    Fill(5000);
    u64 const live = GetStatistics().pools[0].liveCount;
    void* const block = m_blocks[2500];
    Memory::Free(block);
    Memory::Free(block);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, live - 1);
    void* const first = Memory::Malloc(24, EHeap::Pool);
    void* const second = Memory::Malloc(24, EHeap::Pool);
    EXPECT_EQ(first, block);
    EXPECT_NE(second, block);
    Memory::Free(second);
    Empty(); // `first` among them
}

TEST_F(ExtendedHeap, OfManyThreadsThatFreeABlockAtOnceOneDoes)
{
    Fill(2000);
    constexpr std::pair<u64, EHeap::Type> Requests[] = {
        {64, EHeap::Pool}, {64, EHeap::General}, {64, EHeap::Pool}, {3000, EHeap::Pool}};
    constexpr u32 ThreadCount = 4;
    Memory::Free(Memory::Malloc(64, EHeap::Pool)); // the class has a chunk from here on
    u64 const live = GetStatistics().liveCount;
    for (u32 round = 0; round < 200; ++round) {
        auto const [size, kind] = Requests[round % 4];
        void* const block = Memory::Malloc(size, kind);
        std::atomic<u32> ready{0};
        std::vector<std::thread> threads;
        for (u32 index = 0; index < ThreadCount; ++index)
            threads.emplace_back([&] {
                ++ready;
                while (ready != ThreadCount) {
                }
                Memory::Free(block);
            });
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(GetStatistics().pools[0].liveCount, 2000u);
        ASSERT_EQ(GetStatistics().liveCount, live) << round;
    }
    Empty();
}

// The thread that allocated the block frees it without a locked instruction until others have come to its lane a few
// times; hence a new heap again and again.
TEST_F(ExtendedHeap, OfAnOwnerAndAnotherThatFreeABlockAtOnceOneDoes)
{
    constexpr u32 HeapCount = 200;
    constexpr u32 RoundCount = 8;
    constexpr u32 OtherCount = 1; // more than processors would come one after the other
    std::atomic<void*> block{nullptr};
    std::atomic<u32> turn{0}; // of the block, from 1
    std::atomic<u32> ready{0};
    std::atomic<u32> done{0};
    auto const freeAtOnce = [&](u32 current) {
        ++ready;
        while (ready != current * (OtherCount + 1)) {
        }
        Memory::Free(block);
        ++done;
    };
    std::vector<std::thread> others;
    for (u32 index = 0; index < OtherCount; ++index)
        others.emplace_back([&] {
            for (u32 current = 1; current <= HeapCount * RoundCount; ++current) {
                while (turn != current)
                    std::this_thread::yield();
                freeAtOnce(current);
            }
        });
    u32 current = 0;
    for (u32 heap = 0; heap < HeapCount; ++heap) {
        Fill(1500);
        for (u32 round = 0; round < RoundCount; ++round) {
            block = Memory::Malloc(64, EHeap::Pool);
            turn = ++current;
            freeAtOnce(current);
            while (done != current * (OtherCount + 1))
                std::this_thread::yield();
            EXPECT_EQ(GetStatistics().pools[0].liveCount, 1500u) << heap << ", " << round;
            void* const first = Memory::Malloc(64, EHeap::Pool);
            void* const second = Memory::Malloc(64, EHeap::Pool);
            EXPECT_NE(first, second);
            Memory::Free(first);
            Memory::Free(second);
        }
        Empty();
        TearDown();
        SetUp();
    }
    for (std::thread& other : others)
        other.join();
}

// Threads count for themselves; what they counted is told as if they had not.
TEST_F(ExtendedHeap, BlocksOfTheHooksAreCountedWhicheverThreadFreesThem)
{
    Fill(2000);
    Memory::SStatistics const before = GetStatistics();
    constexpr u64 ThreadCount = 4;
    constexpr u64 Count = 600;
    constexpr EHeap::Type Kinds[] = {EHeap::General, EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16};
    constexpr u64 Slack[] = {0, 0, 4, 8, 16};
    // A thread's blocks are of one size, and kinds by turns.
    void* blocks[ThreadCount][Count];
    auto const run = [&](auto&& work) {
        std::vector<std::thread> threads;
        for (u64 thread = 0; thread < ThreadCount; ++thread)
            threads.emplace_back([&, thread] {
                for (u64 index = 0; index < Count; ++index)
                    work(thread, index);
            });
        for (std::thread& thread : threads)
            thread.join();
    };
    u64 bytes = 0;
    for (u64 thread = 0; thread < ThreadCount; ++thread)
        for (u64 index = 0; index < Count; ++index)
            bytes += 1500 + thread + Slack[index % 5];

    run([&](u64 thread, u64 index) { blocks[thread][index] = Memory::Malloc(1500 + thread, Kinds[index % 5]); });
    Memory::SStatistics const full = GetStatistics();
    EXPECT_EQ(full.liveCount, before.liveCount + ThreadCount * Count);
    EXPECT_EQ(full.allocationCount, before.allocationCount + ThreadCount * Count);
    for (u64 pool = 0; pool < 4; ++pool) {
        EXPECT_EQ(full.pools[pool].liveCount, before.pools[pool].liveCount + ThreadCount * Count / 5);
        EXPECT_EQ(full.pools[pool].allocationCount, before.pools[pool].allocationCount + ThreadCount * Count / 5);
    }
    // The store grew from 2,048 to 8,192 records.
    EXPECT_EQ(full.bytesInUse, before.bytesInUse + bytes + 24 * RecordChunk);

    // Other threads than those that have them: half of them are resized, then all go.
    std::atomic<u64> wrong{0};
    run([&](u64 thread, u64 index) {
        void*& block = blocks[(thread + 1) % ThreadCount][index];
        if (Memory::GetHeap(block) != Kinds[index % 5] || Memory::GetSize(block) != 1500 + (thread + 1) % ThreadCount)
            ++wrong;
        if (index % 2 == 0)
            block = Memory::Realloc(block, 5000, EHeap::General);
        if (index % 2 == 0 && (Memory::GetHeap(block) != Kinds[index % 5] || Memory::GetSize(block) != 5000))
            ++wrong;
    });
    EXPECT_EQ(wrong, 0u);
    run([&](u64 thread, u64 index) { Memory::Free(blocks[(thread + 2) % ThreadCount][index]); });
    Memory::SStatistics const after = GetStatistics();
    EXPECT_EQ(after.liveCount, before.liveCount);
    EXPECT_EQ(after.bytesInUse, before.bytesInUse + 24 * RecordChunk);
    EXPECT_EQ(after.allocationCount, full.allocationCount + ThreadCount * Count / 2)
        << "a request each for the new place";
    for (u64 pool = 0; pool < 4; ++pool)
        EXPECT_EQ(after.pools[pool].liveCount, before.pools[pool].liveCount);
    Empty();
}

// Refused requests count; where they have brought the bytes in use to the end of their type, the last ones are given
// and refused to the byte, wherever the others were counted.
TEST_F(ExtendedHeap, BytesInUseEndWithTheirType)
{
    Fill(2000);
    std::vector<void*> blocks;
    for (u64 index = 0; index < 2000; ++index)
        blocks.push_back(Memory::Malloc(1000 + index, index % 2 == 0 ? EHeap::General : EHeap::Pool16));
    constexpr u64 Huge = (u64{1} << 61) - 1;
    constexpr u64 End = ~u64{0};
    u64 used = GetStatistics().bytesInUse;
    for (; Huge <= End - used; used += Huge)
        EXPECT_EQ(Memory::Malloc(Huge, EHeap::General), nullptr);
    EXPECT_EQ(Memory::Malloc(Huge, EHeap::General), nullptr) << "not counted: it would pass the end";
    EXPECT_EQ(Memory::Malloc(End - used - 50, EHeap::General), nullptr);
    EXPECT_EQ(GetStatistics().bytesInUse, End - 50);

    u64 const requests = CCountingHooks::GetRequests();
    EXPECT_EQ(Memory::Malloc(51, EHeap::General), nullptr);
    EXPECT_EQ(CCountingHooks::GetRequests(), requests) << "not even asked for";
    EXPECT_EQ(GetStatistics().bytesInUse, End - 50);
    void* const last = Memory::Malloc(50, EHeap::General);
    EXPECT_NE(last, nullptr);
    EXPECT_EQ(GetStatistics().bytesInUse, End);
    EXPECT_EQ(Memory::Malloc(1, EHeap::General), nullptr);
    Memory::Free(last);
    EXPECT_EQ(GetStatistics().bytesInUse, End - 50);
    for (void* const block : blocks)
        Memory::Free(block);
    Empty();
}

TEST_F(ExtendedHeap, AHeapOfTheHooksBlocksAloneIsExtended)
{
    u64 const requests = CCountingHooks::GetRequests();
    u64 const blocks = CCountingHooks::GetLiveBlocks();
    constexpr u64 Count = 4200;
    for (u64 index = 0; index < Count; ++index)
        Memory::Free(Memory::Malloc(100, EHeap::General));
    EXPECT_EQ(CCountingHooks::GetRequests(), requests + Count + 1) << "one more, for the extension";
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), blocks + 1);
    EXPECT_EQ(GetStatistics().liveCount, 4u) << "the pools";
    EXPECT_EQ(GetStatistics().allocationCount, Count + 4);
}

// Records that one thread has to spare serve another before it is refused.
TEST_F(ExtendedHeap, WithoutMemoryForRecordsThoseOfOtherThreadsAreUsed)
{
    Fill(2300, 32, EHeap::General); // the store has room for 4,096; memory for that is taken when it is needed
    constexpr u64 Freed = 40;
    auto const isGiven = [] {
        CCountingHooks::FailFrom(2);
        void* const block = Memory::Malloc(32, EHeap::General);
        CCountingHooks::FailFrom(0);
        return block;
    };
    while (void* const block = isGiven())
        m_blocks.push_back(block);
    ASSERT_LT(m_blocks.size(), 4096u - 4);
    for (u64 index = 0; index < Freed; ++index) {
        Memory::Free(m_blocks.back());
        m_blocks.pop_back();
    }
    for (u32 turn = 0; turn < 4; ++turn)
        std::thread([&] {
            for (u64 index = 0; index < Freed / 4; ++index) {
                m_blocks.push_back(isGiven());
                EXPECT_NE(m_blocks.back(), nullptr) << turn << ' ' << index;
            }
        }).join();
    EXPECT_EQ(isGiven(), nullptr) << "these were all";
    Empty();
}

// Hooks may answer what no machine has: addresses alone.
TEST(ExtendedHeapOfHugeBlocks, TheEndOfTheCountIsTheEnd)
{
    auto const allocate = [](u64 size) { return std::malloc(size > u64{1} << 30 ? 64 : size); };
    Memory::Initialize(allocate, nullptr, nullptr, EHeapFlag::Passthrough, 0);
    for (u32 index = 0; index < 5000; ++index)
        Memory::Free(Memory::Malloc(16, EHeap::General));
    u64 const empty = GetStatistics().bytesInUse;
    std::vector<void*> blocks;
    for (; blocks.size() < 15; blocks.push_back(Memory::Malloc(u64{1} << 60, EHeap::General)))
        ASSERT_EQ(GetStatistics().bytesInUse, empty + (blocks.size() << 60));
    EXPECT_EQ(std::count(blocks.begin(), blocks.end(), nullptr), 0);
    EXPECT_EQ(Memory::Malloc(u64{1} << 60, EHeap::General), nullptr);
    EXPECT_EQ(GetStatistics().bytesInUse, empty + (u64{15} << 60));
    EXPECT_EQ(GetStatistics().liveCount, 15u);
    for (void* const block : blocks)
        Memory::Free(block);
    EXPECT_EQ(GetStatistics().bytesInUse, empty);
    Memory::Deinitialize();
}

// Records move to the extension's table while other threads look for them, take them out and put them in.
TEST(ExtendedHeapFromSmall, BlocksInUseMeanwhileStayKnown)
{
    constexpr u32 ThreadCount = 4;
    constexpr u32 Steps = 2000; // the heap is extended at 4,096 allocations
    for (u32 round = 0; round < 60; ++round) {
        Memory::Initialize(0, 0);
        Memory::SStatistics const before = GetStatistics();
        std::atomic<u32> ready{0};
        std::atomic<u32> lost{0};
        std::vector<std::thread> threads;
        for (u32 thread = 0; thread < ThreadCount; ++thread)
            threads.emplace_back([&] {
                ++ready;
                while (ready != ThreadCount) {
                }
                void* block = Memory::Malloc(8, EHeap::General);
                for (u64 step = 1; step <= Steps; ++step) {
                    u64 const size = 8 + step % 100;
                    void* const other = Memory::Malloc(2000 + step, EHeap::Pool8);
                    block = Memory::Realloc(block, size, EHeap::General);
                    if (Memory::GetSize(block) != size || Memory::GetHeap(other) != EHeap::Pool8)
                        ++lost;
                    Memory::Free(other);
                }
                Memory::Free(block);
            });
        for (std::thread& thread : threads)
            thread.join();
        Memory::SStatistics const after = GetStatistics();
        Memory::Deinitialize();
        ASSERT_EQ(lost, 0u) << round;
        ASSERT_EQ(after.liveCount, before.liveCount) << round;
        ASSERT_EQ(after.bytesInUse, before.bytesInUse) << round;
        ASSERT_EQ(after.allocationCount, before.allocationCount + ThreadCount * (2 * Steps + 1)) << round;
        ASSERT_EQ(after.pools[2].allocationCount, ThreadCount * Steps) << round;
        ASSERT_EQ(after.pools[2].liveCount, 0u) << round;
    }
}

TEST_F(ExtendedHeap, ABlockWithoutARecordIsRefusedAndNotCounted)
{
    Fill(3000);
    constexpr std::pair<u64, EHeap::Type> Requests[] = {{40, EHeap::General}, {2000, EHeap::Pool8}};
    u64 refused = 0;
    std::vector<void*> blocks;
    for (u64 index = 0; index < 1200; ++index) {
        Memory::SStatistics const before = GetStatistics();
        u64 const hookBlocks = CCountingHooks::GetLiveBlocks();
        auto const [size, kind] = Requests[index % 2];
        CCountingHooks::FailFrom(2); // the first request is for the block
        void* block = Memory::Malloc(size, kind);
        CCountingHooks::FailFrom(0);
        if (block == nullptr) {
            ++refused;
            Memory::SStatistics const after = GetStatistics();
            ASSERT_EQ(after.liveCount, before.liveCount);
            ASSERT_EQ(after.bytesInUse, before.bytesInUse);
            ASSERT_EQ(after.pools[2].allocationCount, before.pools[2].allocationCount);
            ASSERT_EQ(after.pools[2].liveCount, before.pools[2].liveCount);
            ASSERT_EQ(CCountingHooks::GetLiveBlocks(), hookBlocks);
            block = Memory::Malloc(size, kind);
        }
        ASSERT_NE(block, nullptr);
        blocks.push_back(block);
    }
    EXPECT_GE(refused, 1u);
    for (void* const block : blocks)
        Memory::Free(block);
    Empty();
    EXPECT_EQ(GetStatistics().pools[2].liveCount, 0u);
}

TEST_F(ExtendedHeap, FewRecordsAreEnoughForAHeapThatIsUsedALot)
{
    u64 const empty = GetRecordBytes();
    for (u32 index = 0; index < 20000; ++index)
        Memory::Free(Memory::Malloc(1 + index % 1024, EHeap::Pool16));
    EXPECT_EQ(GetRecordBytes(), empty);
    EXPECT_EQ(GetStatistics().pools[3].allocationCount, 20000u);
    EXPECT_EQ(GetStatistics().pools[3].liveCount, 0u);
}

TEST_F(ExtendedHeap, NothingIsRefusedWhileAnotherThreadsLaneHasAFreeBlock)
{
    Fill(5000, 1024);
    // The other thread ends with free blocks in its lane, and the hooks give nothing any more.
    std::thread([&] {
        for (u32 index = 0; index < 8; ++index) {
            Memory::Free(m_blocks.back());
            m_blocks.pop_back();
        }
    }).join();
    u64 const chunks = GetStatistics().pools[0].classes[7].chunkCount;
    CCountingHooks::FailFrom(1);
    u64 taken = 0;
    for (; void* const block = Memory::Malloc(1024, EHeap::Pool); ++taken)
        m_blocks.push_back(block);
    CCountingHooks::FailFrom(0);
    EXPECT_GE(taken, 8u);
    EXPECT_EQ(m_blocks.size(), chunks * GetStatistics().pools[0].classes[7].blocksPerChunk) << "every block there is";
    Empty();
}

// In the class of 512 bytes: the thread pool of a purge lives in some of the others.
TEST_F(ExtendedHeap, APurgeFindsTheBlocksInEveryLane)
{
    Fill(4000, 400);
    std::thread other([&] {
        for (u64 index = 0; index < m_blocks.size(); index += 2)
            Memory::Free(m_blocks[index]);
    });
    other.join();
    for (u64 index = 1; index < m_blocks.size(); index += 2)
        Memory::Free(m_blocks[index]);
    m_blocks.clear();
    EXPECT_GT(GetStatistics().pools[0].classes[6].chunkCount, 0u);
    Memory::Purge();
    EXPECT_EQ(GetStatistics().pools[0].classes[6].chunkCount, 0u);
    // New chunks use what was known of the old ones.
    for (u32 round = 0; round < 3; ++round) {
        Fill(4000, 400);
        for (void* const block : m_blocks)
            ASSERT_EQ(Memory::GetSize(block), 400u);
        Empty();
        Memory::Purge();
        EXPECT_EQ(GetStatistics().pools[0].classes[6].chunkCount, 0u);
    }
}

// A lane that has no memory for what it would set aside hands blocks through, one at a time.
TEST_F(ExtendedHeap, WithoutMemoryForItsMagazinesALaneTakesBlocksFromTheirClass)
{
    constexpr EHeap::Type Kinds[] = {EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16};
    auto const fillAll = [&] {
        for (EHeap::Type const kind : Kinds)
            for (u64 size = 16; size <= 1024; size *= 2)
                Fill(2, size, kind);
    };
    std::vector<void*> records;
    while (records.size() < 1100) {
        records.push_back(Memory::Malloc(8, EHeap::General));
        ASSERT_NE(records.back(), nullptr);
    }
    fillAll(); // a chunk of every class, by this thread
    Memory::SStatistics const before = GetStatistics();

    constexpr u32 Rounds = 200; // more than a chunk has blocks, if one were lost in each
    CCountingHooks::FailFrom(1);
    std::thread([&] {
        for (u32 round = 0; round < Rounds; ++round) {
            Empty();
            fillAll();
        }
    }).join();
    ASSERT_EQ(m_blocks.size(), 56u);
    for (u64 index = 0; index < m_blocks.size(); ++index) {
        ASSERT_EQ(Memory::GetSize(m_blocks[index]), u64{16} << index / 2 % 7);
        ASSERT_EQ(Memory::GetHeap(m_blocks[index]), Kinds[index / 14]);
        std::memset(m_blocks[index], static_cast<int>(index), Memory::GetSize(m_blocks[index]));
    }
    for (u64 index = 0; index < m_blocks.size(); ++index)
        ASSERT_EQ(static_cast<u8*>(m_blocks[index])[(u64{16} << index / 2 % 7) - 1], index)
            << "two blocks share memory";
    for (u32 pool = 0; pool < 4; ++pool) {
        EXPECT_EQ(GetStatistics().pools[pool].allocationCount, before.pools[pool].allocationCount + Rounds * 14);
        EXPECT_EQ(GetStatistics().pools[pool].liveCount, 14u);
    }
    CCountingHooks::FailFrom(0);

    Empty();
    for (void* const block : records)
        Memory::Free(block);
    Memory::Purge();
    for (auto const& pool : GetStatistics().pools)
        EXPECT_EQ(pool.liveCount, 0u);
}

// At every request from the first that extends the heap on.
TEST_F(ExtendedHeap, WithoutMemoryForItTheHeapGoesOnAsItWas)
{
    for (u64 refused = 1; refused <= 40; ++refused) {
        Memory::Deinitialize();
        CCountingHooks::Reset();
        CCountingHooks::Initialize(0);
        m_blocks.clear();
        Fill(1020);
        CCountingHooks::FailOnce(refused);
        for (u32 index = 0; index < 3000; ++index)
            if (void* const block = Memory::Malloc(16 + index % 64, EHeap::Pool8))
                m_blocks.push_back(block);
        CCountingHooks::FailFrom(0);
        ASSERT_GE(m_blocks.size(), 4019u) << refused;
        for (void* const block : m_blocks)
            ASSERT_NE(Memory::GetSize(block), 0u) << refused;
        Empty();
        for (auto const& pool : GetStatistics().pools)
            ASSERT_EQ(pool.liveCount, 0u) << refused;
    }
}

} // namespace
