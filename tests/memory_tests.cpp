#include "support/CountingHooks.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

constexpr unsigned char Normal = 0;
constexpr u64 FreshBytes = 2144 + 2 * 6144 + 16; // heap object, two record chunks, two table entries
constexpr u64 PoolObjects = 280 + 280 + 280 + 248;
constexpr u64 NoLimit = ~u64{0};
constexpr EHeap::Type AllKinds[] = {EHeap::General, EHeap::Pool, EHeap::Pool4, EHeap::Pool8, EHeap::Pool16};

Memory::SStatistics GetStatistics()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics;
}

u64 GetBytes()
{
    return GetStatistics().bytesInUse;
}

class Heap : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(Memory::IsInitialized());
        CCountingHooks::Reset();
    }

    void TearDown() override
    {
        CCountingHooks::FailFrom(0);
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }
};

class PassthroughHeap : public Heap {
protected:
    void SetUp() override
    {
        Heap::SetUp();
        CCountingHooks::Initialize(EHeapFlag::Passthrough);
        ASSERT_TRUE(Memory::IsInitialized());
    }
};

class NormalHeap : public Heap {
protected:
    void SetUp() override
    {
        Heap::SetUp();
        CCountingHooks::Initialize(Normal);
        ASSERT_TRUE(Memory::IsInitialized());
    }
};

template <class Action>
void ExpectBadAllocation(Action action)
{
    try {
        action();
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (std::bad_alloc const& error) {
        EXPECT_STREQ(error.what(), "bad allocation");
    }
}

} // namespace

// ---- No heap ----

TEST_F(Heap, EverythingThatNeedsOneThrowsWithoutAHeap)
{
    int local = 0;
    ExpectBadAllocation([] { static_cast<void>(Memory::Malloc(8, EHeap::General)); });
    ExpectBadAllocation([&] { static_cast<void>(Memory::Realloc(&local, 8, EHeap::General)); });
    ExpectBadAllocation([] { static_cast<void>(Memory::Realloc(nullptr, 8, EHeap::General)); });
    ExpectBadAllocation([&] { Memory::Free(&local); });
    ExpectBadAllocation([&] { static_cast<void>(Memory::GetSize(&local)); });
    ExpectBadAllocation([&] { static_cast<void>(Memory::GetHeap(&local)); });
    ExpectBadAllocation([] { static_cast<void>(Memory::GetExternalHooks()); });
    ExpectBadAllocation([] { Memory::Purge(); });
    ExpectBadAllocation([] { static_cast<void>(Memory::New<int>(EHeap::Pool, 1)); });
    void* emptyHooks[5] = {};
    ExpectBadAllocation([&] { Memory::InitFromExternal(emptyHooks); });
    ExpectBadAllocation([] { Memory::InitFromExternal(nullptr); });
}

TEST_F(Heap, TheRestDoesNothingWithoutAHeap)
{
    int local = 0;
    EXPECT_FALSE(Memory::IsInitialized());
    EXPECT_EQ(Memory::Malloc(0, EHeap::Pool), nullptr);
    Memory::Free(nullptr);
    Memory::FreeQuietly(&local);
    Memory::FreeQuietly(nullptr);
    Memory::Deinitialize();
    Memory::SStatistics statistics{};
    statistics.budget = 77;
    EXPECT_FALSE(Memory::GetStatistics(statistics));
    EXPECT_EQ(statistics.budget, 77u);
}

TEST_F(Heap, AMallocHookThatGivesNothingLeavesNoHeap)
{
    CCountingHooks::FailFrom(1);
    CCountingHooks::Initialize(Normal);
    EXPECT_FALSE(Memory::IsInitialized());
    ExpectBadAllocation([] { static_cast<void>(Memory::Malloc(8, EHeap::General)); });
}

// ---- Creation ----

TEST_F(Heap, AFreshPassthroughHeapCountsItselfAndItsRecords)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    Memory::SStatistics const statistics = GetStatistics();
    EXPECT_EQ(statistics.bytesInUse, FreshBytes);
    EXPECT_EQ(statistics.bytesInUse, 14448u);
    EXPECT_EQ(statistics.allocationCount, 0u);
    EXPECT_EQ(statistics.liveCount, 0u);
    EXPECT_EQ(statistics.budget, NoLimit);
    for (auto const& pool : statistics.pools) {
        EXPECT_EQ(pool.classCount, 0u);
        EXPECT_EQ(pool.allocationCount, 0u);
    }
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 4u); // heap, table, two record chunks
}

TEST_F(Heap, AFreshNormalHeapAlsoHoldsItsFourAllocators)
{
    CCountingHooks::Initialize(Normal, 1 << 20);
    Memory::SStatistics const statistics = GetStatistics();
    EXPECT_EQ(statistics.bytesInUse, FreshBytes + PoolObjects);
    EXPECT_EQ(statistics.allocationCount, 4u);
    EXPECT_EQ(statistics.liveCount, 4u);
    EXPECT_EQ(statistics.budget, 1u << 20);
    u64 const alignments[] = {0, 4, 8, 16};
    u64 const classCounts[] = {8, 8, 8, 7};
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(statistics.pools[index].alignment, alignments[index]);
        EXPECT_EQ(statistics.pools[index].classCount, classCounts[index]);
        EXPECT_EQ(statistics.pools[index].allocationCount, 0u);
    }
}

TEST_F(Heap, OtherFlagBitsAreIgnored)
{
    CCountingHooks::Initialize(0xFC);
    EXPECT_TRUE(Memory::IsInitialized());
    EXPECT_EQ(GetStatistics().pools[0].classCount, 8u);
}

TEST_F(Heap, NullHooksAreReplacedByTheRuntimes)
{
    Memory::Initialize(nullptr, nullptr, nullptr, Normal, 0);
    void* block = Memory::Malloc(100, EHeap::General);
    ASSERT_NE(block, nullptr);
    block = Memory::Realloc(block, 100000, EHeap::General);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Memory::GetSize(block), 100000u);
    Memory::Free(block);
    EXPECT_EQ(CCountingHooks::GetRequests(), 0u);
}

TEST_F(Heap, ASecondInitializeKeepsTheHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough, 1 << 20);
    void* const block = Memory::Malloc(100, EHeap::General);
    Memory::Initialize(Normal, 5);
    EXPECT_EQ(GetStatistics().budget, 1u << 20);
    EXPECT_EQ(GetStatistics().pools[0].classCount, 0u);
    EXPECT_EQ(Memory::GetSize(block), 100u);
    Memory::Free(block);
}

TEST_F(Heap, PoolsThatDoNotFitTheBudgetAreReported)
{
    ExpectBadAllocation([] { CCountingHooks::Initialize(Normal, 1); });
    EXPECT_FALSE(Memory::IsInitialized());
    EXPECT_EQ(Memory::Malloc(8, EHeap::Pool), nullptr);
}

// ---- Shutdown ----

TEST_F(Heap, ShutdownGivesEverythingBackButTheHeapObject)
{
    CCountingHooks::Initialize(Normal);
    std::vector<void*> blocks;
    for (u64 index = 0; index < 5000; ++index)
        blocks.push_back(Memory::Malloc(1 + index % 1500, AllKinds[index % 5]));
    for (void* const block : blocks)
        Memory::Free(block);
    Memory::Deinitialize();
    EXPECT_FALSE(Memory::IsInitialized());
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u);
    EXPECT_EQ(CCountingHooks::GetFreesOfNull(), 1u); // the call with the cleared heap pointer
    Memory::Deinitialize();
    EXPECT_EQ(CCountingHooks::GetFreesOfNull(), 1u);
}

TEST_F(Heap, ASecondLifeStartsAfresh)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    void* const leaked = Memory::Malloc(100, EHeap::General);
    Memory::Deinitialize();
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    EXPECT_EQ(GetBytes(), FreshBytes);
    EXPECT_EQ(Memory::GetSize(leaked), 0u);
}

TEST_F(Heap, BlocksThatOutliveTheHeapAreFreedQuietly)
{
    CCountingHooks::Initialize(Normal);
    void* const block = Memory::Malloc(100, EHeap::Pool);
    Memory::Deinitialize();
    Memory::FreeQuietly(block);
    ExpectBadAllocation([&] { Memory::Free(block); });
}

// ---- Malloc ----

TEST_F(NormalHeap, ZeroBytesAreNullAndCountNothing)
{
    Memory::SStatistics const before = GetStatistics();
    for (EHeap::Type const kind : AllKinds)
        EXPECT_EQ(Memory::Malloc(0, kind), nullptr);
    Memory::SStatistics const after = GetStatistics();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(NormalHeap, AGeneralBlockIsTheHooksOwn)
{
    void* const block = Memory::Malloc(100, EHeap::General);
    EXPECT_EQ(CCountingHooks::GetBlockSize(block), 100u);
    EXPECT_EQ(Memory::GetSize(block), 100u);
    EXPECT_EQ(Memory::GetHeap(block), EHeap::General);
    Memory::SStatistics const statistics = GetStatistics();
    EXPECT_EQ(statistics.allocationCount, 5u);
    EXPECT_EQ(statistics.liveCount, 5u);
    EXPECT_EQ(statistics.bytesInUse, FreshBytes + PoolObjects + 100);
    Memory::Free(block);
    EXPECT_EQ(GetStatistics().allocationCount, 5u);
    EXPECT_EQ(GetStatistics().liveCount, 4u);
    EXPECT_EQ(GetBytes(), FreshBytes + PoolObjects);
}

TEST_F(NormalHeap, OnlyTheLowThreeBitsOfAKindCount)
{
    void* const nine = Memory::Malloc(10, static_cast<EHeap::Type>(9));
    EXPECT_EQ(Memory::GetHeap(nine), EHeap::Pool);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 1u);
    Memory::Free(nine);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 0u);

    for (u32 kind = 5; kind <= 7; ++kind) {
        void* const block = Memory::Malloc(10, static_cast<EHeap::Type>(kind));
        EXPECT_EQ(CCountingHooks::GetBlockSize(block), 10u) << kind;
        EXPECT_EQ(static_cast<u32>(Memory::GetHeap(block)), kind);
        Memory::Free(block);
    }
}

TEST_F(PassthroughHeap, AlignedKindsKeepTheirDistanceInTheByteBefore)
{
    CCountingHooks::SetShift(1); // the hook's blocks fall on every remainder
    for (int round = 0; round < 40; ++round)
        for (u64 const alignment : {4u, 8u, 16u}) {
            EHeap::Type const kind = alignment == 4 ? EHeap::Pool4 : alignment == 8 ? EHeap::Pool8 : EHeap::Pool16;
            u8* const block = static_cast<u8*>(Memory::Malloc(100, kind));
            EXPECT_EQ(reinterpret_cast<u64>(block) % alignment, 0u);
            u64 const distance = block[-1];
            EXPECT_GE(distance, 1u);
            EXPECT_LE(distance, alignment);
            EXPECT_EQ(CCountingHooks::GetBlockSize(block - distance), 100 + alignment);
            EXPECT_EQ(Memory::GetSize(block), 100u);
            EXPECT_EQ(GetBytes(), FreshBytes + 100); // the slack is not counted
            Memory::Free(block);
        }
    EXPECT_EQ(GetBytes(), FreshBytes);
    EXPECT_EQ(GetStatistics().liveCount, 0u);
}

TEST_F(PassthroughHeap, OtherKindsAreTheHooksOwn)
{
    for (u32 const kind : {0u, 1u, 5u, 6u, 7u}) {
        void* const block = Memory::Malloc(33, static_cast<EHeap::Type>(kind));
        EXPECT_EQ(CCountingHooks::GetBlockSize(block), 33u) << kind;
        Memory::Free(block);
    }
}

// ---- The budget ----

TEST_F(Heap, ARefusedRequestStillRaisesTheBytes)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough, 1);
    u64 const requests = CCountingHooks::GetRequests();
    EXPECT_EQ(Memory::Malloc(100, EHeap::General), nullptr);
    EXPECT_EQ(GetBytes(), FreshBytes + 100);
    EXPECT_EQ(Memory::Malloc(50, EHeap::Pool16), nullptr);
    EXPECT_EQ(GetBytes(), FreshBytes + 150);
    EXPECT_EQ(GetStatistics().allocationCount, 0u);
    EXPECT_EQ(GetStatistics().liveCount, 0u);
    EXPECT_EQ(CCountingHooks::GetRequests(), requests);
}

TEST_F(Heap, TheBudgetMayBeUsedToTheLastByte)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough, FreshBytes + 100);
    void* const block = Memory::Malloc(100, EHeap::General);
    EXPECT_NE(block, nullptr);
    Memory::Free(block);
    EXPECT_EQ(Memory::Malloc(101, EHeap::General), nullptr);
}

TEST_F(Heap, ARefusedResizeLeavesTheBlockAllocatedButUnknown)
{
    CCountingHooks::Initialize(EHeapFlag::Passthrough, FreshBytes + 1000);
    char* const block = static_cast<char*>(Memory::Malloc(100, EHeap::General));
    std::memcpy(block, "kept", 5);
    EXPECT_EQ(Memory::Realloc(block, 5000, EHeap::General), nullptr);
    EXPECT_STREQ(block, "kept");
    EXPECT_EQ(Memory::GetSize(block), 0u);
    EXPECT_EQ(CCountingHooks::GetBlockSize(block), 100u);
    EXPECT_EQ(GetStatistics().liveCount, 1u);
    EXPECT_EQ(GetStatistics().allocationCount, 1u);
    EXPECT_EQ(GetBytes(), FreshBytes + 5000); // the old size went, the refused one came
    Memory::Free(block);
    EXPECT_EQ(CCountingHooks::GetBlockSize(block), 100u);
}

// ---- Unknown pointers and sizes out of the world ----

TEST_F(NormalHeap, ForeignPointersAreLeftAlone)
{
    alignas(16) char foreign[64] = "foreign";
    for (void* const pointer : {static_cast<void*>(foreign), static_cast<void*>(foreign + 3)}) {
        Memory::Free(pointer);
        EXPECT_EQ(Memory::Realloc(pointer, 10, EHeap::Pool), nullptr);
        EXPECT_EQ(Memory::GetSize(pointer), 0u);
        EXPECT_EQ(Memory::GetHeap(pointer), EHeap::General);
    }
    EXPECT_EQ(Memory::GetSize(nullptr), 0u);
    EXPECT_EQ(Memory::GetHeap(nullptr), EHeap::General);
    EXPECT_STREQ(foreign, "foreign");
}

TEST_F(NormalHeap, ASecondFreeIsIgnored)
{
    for (EHeap::Type const kind : AllKinds) {
        void* const block = Memory::Malloc(40, kind);
        Memory::Free(block);
        Memory::SStatistics const before = GetStatistics();
        Memory::Free(block);
        Memory::SStatistics const after = GetStatistics();
        EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    }
}

TEST_F(NormalHeap, SizesThatNoRecordHoldsAreRefusedWithoutATrace)
{
    Memory::SStatistics const before = GetStatistics();
    for (u64 const size : {u64{1} << 61, (u64{1} << 61) + 1, (u64{1} << 63), ~u64{0} - 15, ~u64{0} - 7, ~u64{0}})
        for (EHeap::Type const kind : AllKinds)
            EXPECT_EQ(Memory::Malloc(size, kind), nullptr);
    Memory::SStatistics const after = GetStatistics();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(NormalHeap, HugeSizesThatTheSystemRefusesDoNoHarm)
{
    for (int round = 0; round < 20; ++round)
        for (EHeap::Type const kind : AllKinds)
            EXPECT_EQ(Memory::Malloc((u64{1} << 61) - 1, kind), nullptr);
    void* const block = Memory::Malloc(100, EHeap::General);
    EXPECT_NE(block, nullptr);
    Memory::Free(block);
}

TEST_F(PassthroughHeap, HugeSizesAreRefusedInPassthroughMode)
{
    for (u64 const size : {(u64{1} << 61) - 1, u64{1} << 61, ~u64{0} - 15, ~u64{0}})
        for (EHeap::Type const kind : AllKinds)
            EXPECT_EQ(Memory::Malloc(size, kind), nullptr);
    void* block = Memory::Malloc(100, EHeap::Pool16);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(Memory::Realloc(block, ~u64{0}, EHeap::Pool16), nullptr);
    EXPECT_EQ(Memory::GetSize(block), 0u);
    block = Memory::Malloc(100, EHeap::Pool16);
    EXPECT_EQ(Memory::Realloc(block, (u64{1} << 61) - 1, EHeap::Pool16), nullptr);
    EXPECT_EQ(Memory::GetSize(block), 0u);
}

// ---- Realloc ----

TEST_F(NormalHeap, ReallocKeepsTheRecordedKind)
{
    void* block = Memory::Malloc(10, EHeap::Pool);
    block = Memory::Realloc(block, 500, EHeap::Pool16);
    EXPECT_EQ(Memory::GetHeap(block), EHeap::Pool);
    EXPECT_EQ(Memory::GetSize(block), 500u);
    Memory::Free(block);
}

TEST_F(NormalHeap, ReallocOfNullUsesTheGivenKind)
{
    void* const block = Memory::Realloc(nullptr, 10, EHeap::Pool8);
    EXPECT_EQ(Memory::GetHeap(block), EHeap::Pool8);
    EXPECT_EQ(Memory::Realloc(block, 0, EHeap::Pool8), nullptr);
    EXPECT_EQ(Memory::GetSize(block), 0u);
    EXPECT_EQ(Memory::Realloc(nullptr, 0, EHeap::Pool8), nullptr);
}

TEST_F(NormalHeap, AResizedGeneralBlockKeepsContentsAndCounts)
{
    char* block = static_cast<char*>(Memory::Malloc(100, EHeap::General));
    std::memcpy(block, "contents", 9);
    block = static_cast<char*>(Memory::Realloc(block, 100000, EHeap::General));
    EXPECT_STREQ(block, "contents");
    EXPECT_EQ(Memory::GetSize(block), 100000u);
    EXPECT_EQ(GetStatistics().allocationCount, 6u); // four allocators, the block, its resize
    EXPECT_EQ(GetStatistics().liveCount, 5u);
    EXPECT_EQ(GetBytes(), FreshBytes + PoolObjects + 100000);
    block = static_cast<char*>(Memory::Realloc(block, 9, EHeap::General));
    EXPECT_STREQ(block, "contents");
    EXPECT_EQ(GetBytes(), FreshBytes + PoolObjects + 9);
    Memory::Free(block);
}

TEST_F(PassthroughHeap, AResizedAlignedBlockKeepsContentsWhenItsDistanceChanges)
{
    CCountingHooks::SetShift(3);
    for (EHeap::Type const kind : {EHeap::Pool4, EHeap::Pool8, EHeap::Pool16}) {
        u64 const alignment = kind == EHeap::Pool4 ? 4 : kind == EHeap::Pool8 ? 8 : 16;
        u8* block = static_cast<u8*>(Memory::Malloc(50, kind));
        for (u8 index = 0; index < 50; ++index)
            block[index] = index;
        for (u64 const size : {60u, 200u, 199u, 198u, 51u, 50u, 3000u, 50u, 77u, 90u}) {
            block = static_cast<u8*>(Memory::Realloc(block, size, EHeap::General));
            ASSERT_EQ(reinterpret_cast<u64>(block) % alignment, 0u);
            EXPECT_EQ(CCountingHooks::GetBlockSize(block - block[-1]), size + alignment);
            EXPECT_EQ(Memory::GetSize(block), size);
            EXPECT_EQ(Memory::GetHeap(block), kind);
            for (u8 index = 0; index < 50; ++index)
                ASSERT_EQ(block[index], index);
        }
        EXPECT_EQ(GetBytes(), FreshBytes + 90);
        Memory::Free(block);
    }
    EXPECT_EQ(GetBytes(), FreshBytes);
}

// ---- Hooks that fail ----

TEST_F(NormalHeap, AMallocHookThatFailsLeavesNoBlockAndNoRecord)
{
    CCountingHooks::FailFrom(1);
    EXPECT_EQ(Memory::Malloc(100, EHeap::General), nullptr);
    EXPECT_EQ(GetStatistics().liveCount, 4u);
    EXPECT_EQ(GetStatistics().allocationCount, 5u); // it was asked
    EXPECT_EQ(GetBytes(), FreshBytes + PoolObjects + 100);
    EXPECT_EQ(Memory::GetSize(nullptr), 0u);
}

TEST_F(NormalHeap, AReallocHookThatFailsLeavesTheOldBlock)
{
    char* const block = static_cast<char*>(Memory::Malloc(100, EHeap::General));
    std::memcpy(block, "kept", 5);
    CCountingHooks::FailFrom(1);
    EXPECT_EQ(Memory::Realloc(block, 1000, EHeap::General), nullptr);
    EXPECT_STREQ(block, "kept");
    EXPECT_EQ(Memory::GetSize(block), 0u);
    EXPECT_EQ(GetStatistics().liveCount, 5u);
}

TEST_F(PassthroughHeap, ARecordStoreThatCannotGrowRefusesTheBlock)
{
    std::vector<void*> blocks;
    for (int index = 0; index < 512; ++index)
        blocks.push_back(Memory::Malloc(16, EHeap::General));
    for (u64 const failing : {2u, 3u, 4u}) { // the block itself is asked for first, then the table, then the chunks
        u64 const live = CCountingHooks::GetLiveBlocks();
        CCountingHooks::FailFrom(failing);
        EXPECT_EQ(Memory::Malloc(16, EHeap::General), nullptr) << failing;
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), live);
        EXPECT_EQ(GetStatistics().liveCount, 512u);
        EXPECT_EQ(GetBytes(), FreshBytes + 512 * 16);
        CCountingHooks::FailFrom(0);
    }
    // A resize never needs a second record.
    CCountingHooks::FailFrom(2);
    blocks[0] = Memory::Realloc(blocks[0], 32, EHeap::General);
    EXPECT_EQ(Memory::GetSize(blocks[0]), 32u);
    CCountingHooks::FailFrom(0);
    blocks.push_back(Memory::Malloc(16, EHeap::General));
    EXPECT_EQ(Memory::GetSize(blocks.back()), 16u);
    for (void* const block : blocks)
        Memory::Free(block);
}

// ---- Records ----

TEST_F(PassthroughHeap, The513thLiveRecordGrowsTheStore)
{
    std::vector<void*> blocks;
    for (int index = 0; index < 512; ++index)
        blocks.push_back(Memory::Malloc(8, EHeap::General));
    EXPECT_EQ(GetBytes(), FreshBytes + 512 * 8);
    blocks.push_back(Memory::Malloc(8, EHeap::General));
    EXPECT_EQ(GetBytes(), FreshBytes + 513 * 8 + 2 * 6144 + 16);
    for (void* const block : blocks)
        Memory::Free(block);
    EXPECT_EQ(GetBytes(), FreshBytes + 2 * 6144 + 16);
}

TEST_F(PassthroughHeap, AHundredThousandRecordsAreAllFound)
{
    constexpr u64 Count = 100000;
    std::vector<void*> blocks;
    for (u64 index = 0; index < Count; ++index)
        blocks.push_back(Memory::Malloc(1 + index % 100, EHeap::General));
    // 512 chunks of 256 records; the larger bucket array is counted nowhere.
    EXPECT_EQ(GetBytes(), 2144 + 512 * 6152 + Count / 100 * 5050);
    EXPECT_EQ(GetStatistics().liveCount, Count);
    for (u64 index = 0; index < Count; ++index)
        ASSERT_EQ(Memory::GetSize(blocks[index]), 1 + index % 100);
    for (u64 index = 0; index < Count; index += 2)
        Memory::Free(blocks[index]);
    for (u64 index = 0; index < Count; ++index)
        ASSERT_EQ(Memory::GetSize(blocks[index]), index % 2 == 0 ? 0 : 1 + index % 100);
    for (u64 index = 1; index < Count; index += 2)
        Memory::Free(blocks[index]);
    EXPECT_EQ(GetBytes(), 2144u + 512 * 6152);
    EXPECT_EQ(GetStatistics().liveCount, 0u);
    Memory::Deinitialize();
    EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u);
}

TEST_F(PassthroughHeap, WithoutALargerBucketArrayTheOldOneGoesOn)
{
    std::vector<void*> blocks;
    for (int index = 0; index < 1024; ++index)
        blocks.push_back(Memory::Malloc(8, EHeap::General));
    // The 1,025th: the block, the table, four chunks, then the bucket array, which is refused.
    CCountingHooks::FailOnce(7);
    for (int index = 0; index < 1000; ++index)
        blocks.push_back(Memory::Malloc(9, EHeap::General));
    for (u64 index = 0; index < blocks.size(); ++index)
        ASSERT_EQ(Memory::GetSize(blocks[index]), index < 1024 ? 8u : 9u);
    for (void* const block : blocks)
        Memory::Free(block);
    EXPECT_EQ(GetStatistics().liveCount, 0u);
}

// ---- Two modules ----

TEST_F(NormalHeap, ExternalHooksAreTheHeapAndItsFourAllocators)
{
    void** const hooks = static_cast<void**>(Memory::GetExternalHooks());
    for (int index = 0; index < 5; ++index) {
        EXPECT_NE(hooks[index], nullptr) << index;
        EXPECT_NE(CCountingHooks::GetBlockSize(hooks[index]), 0u) << index;
    }
    EXPECT_EQ(Memory::GetHeap(hooks[1]), EHeap::General);
    EXPECT_EQ(Memory::GetSize(hooks[1]), 280u);
    EXPECT_EQ(Memory::GetSize(hooks[4]), 248u);
    EXPECT_EQ(Memory::GetExternalHooks(), hooks);
    Memory::InitFromExternal(hooks); // its own: nothing changes
    EXPECT_TRUE(Memory::IsInitialized());
}

TEST_F(PassthroughHeap, ExternalHooksOfAPassthroughHeapHoldTheHeapAlone)
{
    void** const hooks = static_cast<void**>(Memory::GetExternalHooks());
    EXPECT_NE(hooks[0], nullptr);
    for (int index = 1; index < 5; ++index)
        EXPECT_EQ(hooks[index], nullptr);
    Memory::InitFromExternal(nullptr); // with a heap of its own, a null record changes nothing
    EXPECT_TRUE(Memory::IsInitialized());
}

// ---- The memory logger ----

namespace {

class CRecordingMemoryLogger : public IMemoryLogger {
public:
    void OnAllocate(void const* address, u64 size) override { Add('a', address, size); }
    void OnFree(void const* address) override { Add('f', address, 0); }
    void OnRetain(void const* address) override { Add('+', address, 0); }
    void OnRelease(void const* address) override { Add('-', address, 0); }

    struct SEvent {
        char type;
        void const* address;
        u64 size;
        u64 bytesInUse;
    };
    std::vector<SEvent> events;

private:
    void Add(char type, void const* address, u64 size) { events.push_back({type, address, size, GetBytes()}); }
};

} // namespace

TEST_F(NormalHeap, TheMemoryLoggerSeesEveryEventInOrder)
{
    CRecordingMemoryLogger logger;
    Memory::InitializeLog(&logger);
    u64 const bytes = GetBytes();
    void* const general = Memory::Malloc(100, EHeap::General);
    void* const moved = Memory::Realloc(general, 200, EHeap::General);
    Memory::Free(moved);
    Memory::Free(moved);
    void* const pooled = Memory::Malloc(10, EHeap::Pool);
    void* const same = Memory::Realloc(pooled, 12, EHeap::Pool);
    void* const other = Memory::Realloc(same, 100, EHeap::Pool);
    Memory::Free(other);
    EXPECT_EQ(Memory::ReleaseLog(), &logger);
    EXPECT_EQ(Memory::ReleaseLog(), nullptr);
    Memory::Free(Memory::Malloc(5, EHeap::General));

    ASSERT_EQ(logger.events.size(), 8u);
    struct SExpected {
        char type;
        void* address;
        u64 size;
    } const expected[] = {{'a', general, 100}, {'f', general, 0}, {'a', moved, 200}, {'f', moved, 0},
                          {'a', pooled, 10},   {'a', other, 100}, {'f', pooled, 0},  {'f', other, 0}};
    EXPECT_EQ(same, pooled);
    for (u64 index = 0; index < 8; ++index) {
        EXPECT_EQ(logger.events[index].type, expected[index].type) << index;
        EXPECT_EQ(logger.events[index].address, expected[index].address) << index;
        EXPECT_EQ(logger.events[index].size, expected[index].size) << index;
    }
    // The heap size of an event is the one before its block is counted in or out.
    EXPECT_EQ(logger.events[0].bytesInUse, bytes);
    EXPECT_EQ(logger.events[1].bytesInUse, bytes + 100);
    EXPECT_EQ(logger.events[2].bytesInUse, bytes);
    EXPECT_EQ(logger.events[3].bytesInUse, bytes + 200);
}

// ---- New and Delete ----

namespace {

struct SThrowing {
    SThrowing() { throw 5; }
};

} // namespace

TEST_F(NormalHeap, AConstructorThatThrowsGivesTheMemoryBack)
{
    EXPECT_THROW(static_cast<void>(Memory::New<SThrowing>(EHeap::Pool)), int);
    EXPECT_EQ(GetStatistics().pools[0].liveCount, 0u);
    EXPECT_EQ(GetStatistics().pools[0].allocationCount, 1u);
}

TEST_F(NormalHeap, NewDrawsFromTheGivenKind)
{
    std::string* const text = Memory::New<std::string>(EHeap::Pool16, "text");
    EXPECT_EQ(*text, "text");
    EXPECT_EQ(Memory::GetHeap(text), EHeap::Pool16);
    EXPECT_EQ(Memory::GetSize(text), sizeof(std::string));
    Memory::Delete(text);
    EXPECT_EQ(GetStatistics().pools[3].liveCount, 0u);
    Memory::Delete(static_cast<std::string*>(nullptr));
}
