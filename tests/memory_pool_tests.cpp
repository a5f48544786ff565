#include "support/CountingHooks.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/system.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

struct SKind {
    EHeap::Type heap;
    int pool;
    u64 alignment;
};
constexpr SKind Kinds[] = {{EHeap::Pool, 0, 0}, {EHeap::Pool4, 1, 4}, {EHeap::Pool8, 2, 8}, {EHeap::Pool16, 3, 16}};

Memory::SStatistics GetStatistics()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics;
}

// Index of the class with this block size.
int FindClass(Memory::SStatistics::SPool const& pool, u64 blockSize)
{
    for (u64 index = 0; index < pool.classCount; ++index)
        if (pool.classes[index].blockSize == blockSize)
            return static_cast<int>(index);
    ADD_FAILURE() << "no class of " << blockSize;
    return 0;
}

Memory::SStatistics::SClass GetClass(SKind const& kind, u64 blockSize)
{
    Memory::SStatistics const statistics = GetStatistics();
    auto const& pool = statistics.pools[kind.pool];
    return pool.classes[FindClass(pool, blockSize)];
}

// Bytes in use without the chunks of other classes than 512: the thread pool of a purge lives in some of them.
u64 GetOwnBytes()
{
    Memory::SStatistics const statistics = GetStatistics();
    u64 bytes = statistics.bytesInUse;
    for (auto const& pool : statistics.pools)
        for (auto const& entry : pool.classes)
            if (entry.blockSize != 512)
                bytes -= entry.chunkCount * (entry.blockSize * entry.blocksPerChunk + pool.alignment + 8);
    return bytes;
}

class Pools : public ::testing::Test {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        CCountingHooks::Initialize(0);
        ASSERT_TRUE(Memory::IsInitialized());
        m_start = GetStatistics();
    }

    void TearDown() override
    {
        CCountingHooks::FailFrom(0);
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u); // the heap object
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }

    // All blocks of one new chunk, in the order they are handed out.
    std::vector<void*> TakeChunk(SKind const& kind, u64 size)
    {
        std::vector<void*> blocks;
        u64 const count = GetClass(kind, size).blocksPerChunk;
        for (u64 index = 0; index < count; ++index)
            blocks.push_back(Memory::Malloc(size, kind.heap));
        return blocks;
    }

    static void FreeAll(std::vector<void*>& blocks)
    {
        for (void* const block : blocks)
            Memory::Free(block);
        blocks.clear();
    }

    Memory::SStatistics m_start{};
};

} // namespace

// ---- Classes ----

TEST_F(Pools, ClassesArePowersOfTwoUpTo1024)
{
    u64 const sizes[] = {8, 16, 32, 64, 128, 256, 512, 1024};
    for (int pool = 0; pool < 4; ++pool) {
        int const skipped = pool == 3 ? 1 : 0; // the 16-byte allocator has no 8-byte class
        for (int index = 0; index + skipped < 8; ++index)
            EXPECT_EQ(m_start.pools[pool].classes[index].blockSize, sizes[index + skipped]);
    }
}

TEST_F(Pools, ChunksFillHalfTheLevelOneCacheWithinBounds)
{
    System::SCPUInfo info{};
    System::GetCPUInfo(info);
    for (auto const& pool : m_start.pools)
        for (u64 index = 0; index < pool.classCount; ++index) {
            auto const& entry = pool.classes[index];
            EXPECT_GE(entry.blocksPerChunk, 4u);
            EXPECT_LE(entry.blocksPerChunk, 256u);
            EXPECT_EQ(entry.chunkCount, 0u);
            if (info.cacheSize[0] == 32768) {
                u64 const expected = entry.blockSize <= 64 ? 256 : 16384 / entry.blockSize;
                EXPECT_EQ(entry.blocksPerChunk, expected);
            }
        }
}

TEST_F(Pools, RequestsGoToTheSmallestClassThatHoldsThem)
{
    struct SCase {
        u64 size;
        u64 blockSize;
    } const cases[] = {{1, 8},     {7, 8},     {8, 8},     {9, 16},     {16, 16},     {17, 32},
                       {32, 32},   {33, 64},   {64, 64},   {65, 128},   {128, 128},   {129, 256},
                       {256, 256}, {257, 512}, {512, 512}, {513, 1024}, {1023, 1024}, {1024, 1024}};
    for (SKind const& kind : Kinds)
        for (SCase const& test : cases) {
            Memory::Deinitialize();
            CCountingHooks::Reset();
            CCountingHooks::Initialize(0);
            void* const block = Memory::Malloc(test.size, kind.heap);
            u64 const expected = kind.pool == 3 ? std::max<u64>(test.blockSize, 16) : test.blockSize;
            for (u64 index = 0; index < m_start.pools[kind.pool].classCount; ++index) {
                auto const entry = GetStatistics().pools[kind.pool].classes[index];
                EXPECT_EQ(entry.chunkCount, entry.blockSize == expected ? 1u : 0u)
                    << test.size << " bytes, class " << entry.blockSize;
            }
            EXPECT_EQ(Memory::GetSize(block), test.size);
            Memory::Free(block);
        }
}

TEST_F(Pools, A1024ByteRequestIsPooledA1025ByteRequestIsNot)
{
    for (SKind const& kind : Kinds) {
        void* const pooled = Memory::Malloc(1024, kind.heap);
        EXPECT_EQ(GetClass(kind, 1024).chunkCount, 1u);
        Memory::SStatistics const before = GetStatistics();
        u8* const large = static_cast<u8*>(Memory::Malloc(1025, kind.heap));
        Memory::SStatistics const after = GetStatistics();
        EXPECT_EQ(after.allocationCount, before.allocationCount + 1);
        EXPECT_EQ(after.liveCount, before.liveCount + 1);
        EXPECT_EQ(after.bytesInUse, before.bytesInUse + 1025 + kind.alignment);
        EXPECT_EQ(after.pools[kind.pool].liveCount, 2u);
        u64 const distance = kind.alignment == 0 ? 0 : large[-1];
        EXPECT_EQ(CCountingHooks::GetBlockSize(large - distance), 1025 + kind.alignment);
        Memory::Free(large);
        EXPECT_EQ(GetStatistics().bytesInUse, before.bytesInUse);
        EXPECT_EQ(GetStatistics().liveCount, before.liveCount);
        Memory::Free(pooled);
    }
}

TEST_F(Pools, BlocksAreAlignedWhateverTheHooksGive)
{
    CCountingHooks::SetShift(8); // hooks align to 8 bytes at least
    for (SKind const& kind : Kinds)
        for (u64 size = 1; size <= 3000; size += size < 100 ? 1 : 97) {
            void* const block = Memory::Malloc(size, kind.heap);
            if (kind.alignment != 0)
                ASSERT_EQ(reinterpret_cast<u64>(block) % kind.alignment, 0u);
            std::memset(block, 0xAB, size);
            EXPECT_EQ(Memory::GetHeap(block), kind.heap);
            Memory::Free(block);
        }
}

// ---- Growth ----

TEST_F(Pools, TheFirstBlockOfAClassBringsAChunkAndATable)
{
    for (SKind const& kind : Kinds) {
        Memory::SStatistics const before = GetStatistics();
        void* const block = Memory::Malloc(64, kind.heap);
        Memory::SStatistics const after = GetStatistics();
        u64 const blocksPerChunk = GetClass(kind, 64).blocksPerChunk;
        EXPECT_EQ(after.allocationCount, before.allocationCount + 2);
        EXPECT_EQ(after.liveCount, before.liveCount + 2);
        EXPECT_EQ(after.bytesInUse, before.bytesInUse + 8 + blocksPerChunk * 64 + kind.alignment);
        EXPECT_EQ(after.pools[kind.pool].allocationCount, 1u);
        EXPECT_EQ(after.pools[kind.pool].liveCount, 1u);
        Memory::Free(block);
        EXPECT_EQ(GetStatistics().bytesInUse, after.bytesInUse); // the chunk stays
        EXPECT_EQ(GetStatistics().pools[kind.pool].allocationCount, 1u);
        EXPECT_EQ(GetStatistics().pools[kind.pool].liveCount, 0u);
    }
}

TEST_F(Pools, AFullChunkIsFollowedByAnother)
{
    std::vector<void*> blocks = TakeChunk(Kinds[0], 256);
    EXPECT_EQ(GetClass(Kinds[0], 256).chunkCount, 1u);
    Memory::SStatistics const before = GetStatistics();
    blocks.push_back(Memory::Malloc(256, EHeap::Pool));
    EXPECT_EQ(GetClass(Kinds[0], 256).chunkCount, 2u);
    EXPECT_EQ(GetStatistics().allocationCount, before.allocationCount + 2); // table and chunk
    EXPECT_EQ(GetStatistics().liveCount, before.liveCount + 1);
    FreeAll(blocks);
}

TEST_F(Pools, BlocksComeInAscendingOrderAndTheLastFreedComesFirst)
{
    std::vector<void*> blocks = TakeChunk(Kinds[3], 128);
    for (u64 index = 1; index < blocks.size(); ++index)
        EXPECT_EQ(static_cast<u8*>(blocks[index]), static_cast<u8*>(blocks[index - 1]) + 128);
    Memory::Free(blocks[5]);
    Memory::Free(blocks[2]);
    EXPECT_EQ(Memory::Malloc(100, EHeap::Pool16), blocks[2]);
    EXPECT_EQ(Memory::Malloc(128, EHeap::Pool16), blocks[5]);
    FreeAll(blocks);
}

TEST_F(Pools, APoolThatCannotGrowMovesNoCounter)
{
    for (SKind const& kind : Kinds)
        for (u64 const failing : {1u, 2u}) {
            Memory::SStatistics const before = GetStatistics();
            u64 const live = CCountingHooks::GetLiveBlocks();
            CCountingHooks::FailFrom(failing);
            EXPECT_EQ(Memory::Malloc(64, kind.heap), nullptr);
            CCountingHooks::FailFrom(0);
            Memory::SStatistics const after = GetStatistics();
            EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
            EXPECT_EQ(CCountingHooks::GetLiveBlocks(), live);
        }
    for (SKind const& kind : Kinds) {
        Memory::SStatistics const before = GetStatistics();
        CCountingHooks::FailFrom(1);
        EXPECT_EQ(Memory::Malloc(5000, kind.heap), nullptr);
        CCountingHooks::FailFrom(0);
        Memory::SStatistics const after = GetStatistics();
        EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    }
}

TEST_F(Pools, ASecondChunkThatIsRefusedLeavesTheFirst)
{
    for (u64 const failing : {1u, 2u}) {
        std::vector<void*> blocks = TakeChunk(Kinds[1], 512);
        CCountingHooks::FailFrom(failing);
        EXPECT_EQ(Memory::Malloc(512, EHeap::Pool4), nullptr);
        EXPECT_EQ(GetClass(Kinds[1], 512).chunkCount, 1u);
        Memory::Free(blocks.back());
        EXPECT_EQ(Memory::Malloc(400, EHeap::Pool4), blocks.back());
        CCountingHooks::FailFrom(0);
        FreeAll(blocks);
    }
}

TEST(PoolBudget, APoolWithinABudgetRefusesTheChunkAndCountsNothing)
{
    CCountingHooks::Reset();
    CCountingHooks::Initialize(0, 16000); // the heap and its allocators take 15,536
    Memory::SStatistics const before = GetStatistics();
    EXPECT_EQ(before.bytesInUse, 15536u);
    EXPECT_EQ(Memory::Malloc(256, EHeap::Pool), nullptr);
    EXPECT_EQ(Memory::Malloc(2000, EHeap::Pool), nullptr);
    Memory::SStatistics const after = GetStatistics();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    Memory::Deinitialize();
}

// ---- Resize ----

TEST_F(Pools, ALargeBlockThatShrinksByLessThan1024Stays)
{
    for (SKind const& kind : Kinds) {
        u64 const bytes = GetStatistics().bytesInUse;
        void* const block = Memory::Malloc(5000, kind.heap);
        EXPECT_EQ(Memory::Realloc(block, 4000, kind.heap), block);
        EXPECT_EQ(Memory::GetSize(block), 4000u);
        EXPECT_EQ(GetStatistics().pools[kind.pool].allocationCount, 1u);
        Memory::Free(block);
        EXPECT_EQ(GetStatistics().bytesInUse, bytes);

        void* const other = Memory::Malloc(5000, kind.heap);
        void* const moved = Memory::Realloc(other, 3976, kind.heap);
        EXPECT_NE(moved, other);
        EXPECT_EQ(Memory::GetSize(moved), 3976u);
        EXPECT_EQ(Memory::GetSize(other), 0u);
        Memory::Free(moved);
        EXPECT_EQ(GetStatistics().bytesInUse, bytes);
        EXPECT_EQ(GetStatistics().pools[kind.pool].liveCount, 0u);
        EXPECT_EQ(GetStatistics().pools[kind.pool].allocationCount, 3u);
    }
}

TEST_F(Pools, AResizeWithinTheClassStays)
{
    void* const block = Memory::Malloc(33, EHeap::Pool);
    for (u64 const size : {64u, 33u, 50u, 50u}) {
        EXPECT_EQ(Memory::Realloc(block, size, EHeap::Pool), block);
        EXPECT_EQ(Memory::GetSize(block), size);
    }
    EXPECT_EQ(GetStatistics().pools[0].allocationCount, 1u);
    void* const moved = Memory::Realloc(block, 65, EHeap::Pool);
    EXPECT_NE(moved, block);
    EXPECT_EQ(GetStatistics().pools[0].allocationCount, 2u);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 1u);
    Memory::Free(moved);
}

TEST_F(Pools, The16ByteAllocatorsFirstClassHolds1To16Bytes)
{
    void* const block = Memory::Malloc(1, EHeap::Pool16);
    EXPECT_EQ(Memory::Realloc(block, 16, EHeap::Pool16), block);
    EXPECT_NE(Memory::Realloc(block, 17, EHeap::Pool16), block);
    void* const other = Memory::Malloc(1, EHeap::Pool8);
    EXPECT_EQ(Memory::Realloc(other, 8, EHeap::Pool8), other);
    EXPECT_NE(Memory::Realloc(other, 9, EHeap::Pool8), other);
}

TEST_F(Pools, ContentsSurviveEveryMove)
{
    u64 const sizes[] = {5, 9, 1000, 1024, 1025, 3000, 2999, 1500, 1024, 100, 7, 2000, 40};
    for (SKind const& kind : Kinds) {
        u8* block = static_cast<u8*>(Memory::Malloc(3, kind.heap));
        u64 filled = 3;
        for (u64 index = 0; index < filled; ++index)
            block[index] = static_cast<u8>(index * 7);
        for (u64 const size : sizes) {
            block = static_cast<u8*>(Memory::Realloc(block, size, kind.heap));
            ASSERT_NE(block, nullptr);
            for (u64 index = 0; index < std::min(filled, size); ++index)
                ASSERT_EQ(block[index], static_cast<u8>(index * 7));
            for (u64 index = 0; index < size; ++index)
                block[index] = static_cast<u8>(index * 7);
            filled = size;
        }
        Memory::Free(block);
        EXPECT_EQ(GetStatistics().pools[kind.pool].liveCount, 0u);
    }
}

TEST_F(Pools, AResizeThatCannotGetItsNewBlockLeavesTheOldOneUnknown)
{
    char* const block = static_cast<char*>(Memory::Malloc(20, EHeap::Pool));
    std::memcpy(block, "kept", 5);
    Memory::SStatistics const before = GetStatistics();
    CCountingHooks::FailFrom(1);
    EXPECT_EQ(Memory::Realloc(block, 700, EHeap::Pool), nullptr);
    EXPECT_EQ(Memory::GetSize(block), 0u);
    EXPECT_STREQ(block, "kept");
    Memory::SStatistics const after = GetStatistics();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);

    CCountingHooks::FailFrom(0);
    void* const other = Memory::Malloc(20, EHeap::Pool);
    EXPECT_EQ(Memory::Realloc(other, ~u64{0}, EHeap::Pool), nullptr);
    EXPECT_EQ(Memory::GetSize(other), 0u);
}

// ---- Purge ----

TEST_F(Pools, PurgeGivesWhollyFreeChunksBack)
{
    for (SKind const& kind : Kinds) {
        u64 const before = GetOwnBytes();
        std::vector<void*> first = TakeChunk(kind, 512);
        std::vector<void*> second = TakeChunk(kind, 512);
        std::vector<void*> third = TakeChunk(kind, 512);
        EXPECT_EQ(GetClass(kind, 512).chunkCount, 3u);
        u64 const chunkBytes = first.size() * 512 + kind.alignment;
        EXPECT_EQ(GetOwnBytes(), before + 3 * (chunkBytes + 8));

        void* const kept = second.back();
        second.pop_back();
        FreeAll(first);
        FreeAll(second);
        FreeAll(third);
        Memory::Purge();
        EXPECT_EQ(GetClass(kind, 512).chunkCount, 1u);
        EXPECT_EQ(GetOwnBytes(), before + chunkBytes + 8);
        EXPECT_EQ(Memory::GetSize(kept), 512u);

        Memory::Free(kept);
        Memory::Purge();
        EXPECT_EQ(GetClass(kind, 512).chunkCount, 0u);
        EXPECT_EQ(GetOwnBytes(), before);
    }
}

TEST_F(Pools, TheOrderOfTheFreeBlocksSurvivesAPurge)
{
    std::vector<void*> first = TakeChunk(Kinds[2], 32);
    std::vector<void*> second = TakeChunk(Kinds[2], 32);
    // Freed alternately; the first chunk keeps one block in use.
    void* const kept = first.back();
    first.pop_back();
    std::vector<void*> expected;
    for (u64 index = 0; index < second.size(); ++index) {
        Memory::Free(second[index]);
        if (index < first.size()) {
            Memory::Free(first[index]);
            expected.insert(expected.begin(), first[index]);
        }
    }
    Memory::Purge();
    EXPECT_EQ(GetClass(Kinds[2], 32).chunkCount, 1u);
    for (void* const block : expected)
        EXPECT_EQ(Memory::Malloc(32, EHeap::Pool8), block);
    EXPECT_EQ(GetClass(Kinds[2], 32).chunkCount, 1u);
    FreeAll(expected);
    Memory::Free(kept);
}

TEST_F(Pools, PurgeFindsEveryChunkWhateverTheOrderOfAddresses)
{
    // Many chunks, every third one with a block in use, freed from the back.
    std::vector<std::vector<void*>> chunks;
    for (int index = 0; index < 60; ++index)
        chunks.push_back(TakeChunk(Kinds[0], 512));
    std::vector<void*> kept;
    for (u64 index = chunks.size(); index > 0; --index) {
        std::vector<void*>& chunk = chunks[index - 1];
        if (index % 3 == 0) {
            kept.push_back(chunk[chunk.size() / 2]);
            chunk.erase(chunk.begin() + static_cast<std::ptrdiff_t>(chunk.size() / 2));
        }
        FreeAll(chunk);
    }
    for (void* const block : kept)
        std::memset(block, 0x5A, 512);
    Memory::Purge();
    EXPECT_EQ(GetClass(Kinds[0], 512).chunkCount, 20u);
    for (void* const block : kept)
        for (int index = 0; index < 512; ++index)
            ASSERT_EQ(static_cast<u8*>(block)[index], 0x5A);
    FreeAll(kept);
    Memory::Purge();
    EXPECT_EQ(GetClass(Kinds[0], 512).chunkCount, 0u);
}

TEST_F(Pools, APurgeWithoutWorkingMemoryLeavesThePoolWhole)
{
    std::vector<void*> blocks = TakeChunk(Kinds[0], 64);
    FreeAll(blocks);
    // The scratch is refused at different points of the purge, or the purge itself cannot start; never is a pool
    // harmed.
    for (u64 failing = 1; failing <= 40; ++failing) {
        CCountingHooks::FailOnce(failing);
        try {
            Memory::Purge();
        }
        catch (std::bad_alloc const& error) {
            EXPECT_STREQ(error.what(), "bad allocation");
        }
        CCountingHooks::FailFrom(0);
        blocks = TakeChunk(Kinds[0], 64);
        for (void* const block : blocks)
            ASSERT_NE(block, nullptr);
        FreeAll(blocks);
        EXPECT_EQ(GetStatistics().pools[0].liveCount, 0u);
    }
}

TEST_F(Pools, APurgeOfAnEmptyHeapChangesNothing)
{
    u64 const bytes = GetOwnBytes();
    Memory::Purge();
    EXPECT_EQ(GetOwnBytes(), bytes);
    Memory::SStatistics const after = GetStatistics();
    for (auto const& pool : after.pools)
        EXPECT_EQ(pool.liveCount, 0u);
}

TEST(PassthroughPurge, DoesNothing)
{
    CCountingHooks::Reset();
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    u64 const requests = CCountingHooks::GetRequests();
    Memory::Purge();
    EXPECT_EQ(CCountingHooks::GetRequests(), requests);
    Memory::Deinitialize();
}

// ---- Leak warnings ----

namespace {

// Keeps the warnings.
class CRecordingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const& message) override
    {
        if (type == Log::EMessage::Warning)
            lines.emplace_back(static_cast<char const*>(message.GetData()));
    }
    std::vector<std::string> lines;
};

class CThrowingLogger : public ILogger {
public:
    void Write(Log::EMessage::Type type, u64, CString const&) override
    {
        if (type == Log::EMessage::Warning)
            throw 5;
    }
};

} // namespace

TEST(LeakWarnings, NameEachPoolAndTheHeap)
{
    CCountingHooks::Reset();
    CRecordingLogger logger;
    Log::Initialize(&logger);
    CCountingHooks::Initialize(EHeapFlag::Report);
    std::vector<void*> leaks;
    leaks.push_back(Memory::Malloc(10, EHeap::Pool));
    leaks.push_back(Memory::Malloc(10, EHeap::Pool8));
    leaks.push_back(Memory::Malloc(10, EHeap::Pool8));
    leaks.push_back(Memory::Malloc(77, EHeap::General));
    Memory::Free(Memory::Malloc(10, EHeap::Pool16));
    Memory::Deinitialize();
    EXPECT_EQ(Log::Release(), &logger);

    ASSERT_EQ(logger.lines.size(), 3u);
    EXPECT_EQ(logger.lines[0], "1 block<0> memory leak(s) detected.");
    EXPECT_EQ(logger.lines[1], "2 block<8> memory leak(s) detected.");
    EXPECT_EQ(logger.lines[2], "1 global memory leak(s) with a total size of 77 bytes detected.");
}

TEST(LeakWarnings, NeedTheReportFlag)
{
    CCountingHooks::Reset();
    CRecordingLogger logger;
    Log::Initialize(&logger);
    CCountingHooks::Initialize(0);
    EXPECT_NE(Memory::Malloc(10, EHeap::Pool), nullptr);
    EXPECT_NE(Memory::Malloc(10, EHeap::General), nullptr);
    Memory::Deinitialize();
    EXPECT_EQ(Log::Release(), &logger);
    EXPECT_EQ(logger.lines.size(), 0u);
}

TEST(LeakWarnings, ALoggerThatThrowsStopsNothing)
{
    CCountingHooks::Reset();
    CThrowingLogger logger;
    Log::Initialize(&logger);
    CCountingHooks::Initialize(EHeapFlag::Report);
    EXPECT_NE(Memory::Malloc(10, EHeap::Pool), nullptr);
    void* const leaked = Memory::Malloc(10, EHeap::General);
    Memory::Deinitialize();
    EXPECT_EQ(Log::Release(), &logger);
    EXPECT_FALSE(Memory::IsInitialized());
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 2u); // the heap object and the leak
    EXPECT_EQ(CCountingHooks::GetBlockSize(leaked), 10u);
}
