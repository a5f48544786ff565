#include "Core_MemoryExtension.h"
#include "Core_MemoryHeap.h"
#include "support/ModelChecker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace Velmor;
using TestSupport::CModelChecker;
using TestSupport::CModelNote;
using TestSupport::TModelAtomic;
using Phase = CModelChecker::Phase;

namespace {

constexpr u32 MagazineSize = 4;

// Names of blocks that are never looked into.
SFreeSlot MakeSlot(u64 number)
{
    return {reinterpret_cast<SFreeBlock*>(number * 64), reinterpret_cast<CChunkRecords::Record*>(number * 2)};
}

u64 GetNumber(SFreeSlot const& slot)
{
    EXPECT_EQ(reinterpret_cast<u64>(slot.block) / 64, reinterpret_cast<u64>(slot.record) / 2);
    return reinterpret_cast<u64>(slot.record) / 2;
}

std::vector<u64> GetNumbers(std::span<SFreeSlot const> slots)
{
    std::vector<u64> numbers;
    for (SFreeSlot const& slot : slots)
        numbers.push_back(GetNumber(slot));
    return numbers;
}

class LaneClass : public ::testing::Test {
protected:
    LaneClass() { m_blocks.SetSlots(m_slots, MagazineSize); }

    // Blocks without credits, numbered from 1.
    void Load(u32 count)
    {
        for (u32 index = 0; index < count; ++index)
            m_blocks.GetSlots()[index] = MakeSlot(index + 1);
        m_blocks.FillLoaded(count);
    }

    SFreeSlot m_slots[2 * MagazineSize]{};
    CLaneClass m_blocks;
};

// Every size of every kind, beside a plain search through the block sizes. A kind's eight classes come one after the
// other, kind 1 first.
TEST(ClassNumbers, SayTheSmallestClassThatServesASize)
{
    for (u32 kind = EHeap::Pool; kind <= EHeap::Pool16; ++kind)
        for (u64 size = 1; size <= 1024; ++size) {
            u32 number = (kind - 1) * 8;
            u64 blockSize = 8;
            while (blockSize < size || (kind == EHeap::Pool16 && blockSize < 16)) {
                blockSize *= 2;
                ++number;
            }
            ASSERT_EQ(ClassNumbers.Find(static_cast<EHeap::Type>(kind), size), number) << kind << ", " << size;
        }
    EXPECT_EQ(ClassNumbers.Find(EHeap::Pool, 8), 0u);
    EXPECT_EQ(ClassNumbers.Find(EHeap::Pool4, 9), 9u);
    EXPECT_EQ(ClassNumbers.Find(EHeap::Pool8, 1024), 23u);
    EXPECT_EQ(ClassNumbers.Find(EHeap::Pool16, 1), 25u);
}

TEST(LaneClassWithoutSlots, IsEmptyAndFullAtOnce)
{
    CLaneClass blocks;
    EXPECT_FALSE(blocks.HasSlots());
    EXPECT_FALSE(blocks.HasCredited());
    EXPECT_TRUE(blocks.IsFull());
    EXPECT_TRUE(blocks.IsLoadedEmpty());
    EXPECT_TRUE(blocks.GetLoaded().empty());
    EXPECT_TRUE(blocks.GetSpare().empty());
    EXPECT_EQ(blocks.RemoveCredits(), 0u);
    EXPECT_EQ(blocks.AddCredits(100), 0u);
}

TEST_F(LaneClass, TheLastBlockGivenBackIsTheFirstOneTaken)
{
    EXPECT_TRUE(m_blocks.HasSlots());
    for (u64 number = 1; number <= MagazineSize; ++number) {
        EXPECT_FALSE(m_blocks.IsFull());
        m_blocks.Push(MakeSlot(number));
    }
    EXPECT_TRUE(m_blocks.IsFull());
    for (u64 number = MagazineSize; number > 0; --number) {
        ASSERT_TRUE(m_blocks.HasCredited());
        EXPECT_EQ(GetNumber(m_blocks.TakeCredited()), number);
    }
    EXPECT_FALSE(m_blocks.HasCredited());
    EXPECT_TRUE(m_blocks.IsLoadedEmpty());
}

TEST_F(LaneClass, BlocksOfTheClassHaveNoCreditsUntilTheyGetThem)
{
    Load(3);
    EXPECT_FALSE(m_blocks.HasCredited());
    EXPECT_FALSE(m_blocks.IsLoadedEmpty());
    EXPECT_EQ(m_blocks.AddCredits(2), 2u);
    EXPECT_EQ(GetNumber(m_blocks.TakeCredited()), 3u);
    EXPECT_EQ(GetNumber(m_blocks.TakeCredited()), 2u);
    EXPECT_FALSE(m_blocks.HasCredited()) << "the one below has none";
    EXPECT_EQ(GetNumbers(m_blocks.GetLoaded()), (std::vector<u64>{1}));
    EXPECT_EQ(m_blocks.AddCredits(100), 1u);
    EXPECT_EQ(m_blocks.AddCredits(100), 0u);
    EXPECT_EQ(GetNumber(m_blocks.TakeCredited()), 1u);
}

TEST_F(LaneClass, ABlockGivenBackLiesAboveThoseWithoutCredits)
{
    Load(2);
    m_blocks.Push(MakeSlot(7));
    EXPECT_TRUE(m_blocks.HasCredited());
    EXPECT_EQ(m_blocks.RemoveCredits(), 1u);
    EXPECT_FALSE(m_blocks.HasCredited());
    EXPECT_EQ(m_blocks.RemoveCredits(), 0u);
    EXPECT_EQ(GetNumbers(m_blocks.GetLoaded()), (std::vector<u64>{1, 2, 7}));
}

TEST_F(LaneClass, MagazinesChangePlacesWithAllTheirBlocks)
{
    Load(3);
    m_blocks.SwapMagazines();
    EXPECT_TRUE(m_blocks.IsLoadedEmpty());
    EXPECT_FALSE(m_blocks.IsFull());
    EXPECT_FALSE(m_blocks.HasCredited());
    EXPECT_EQ(GetNumbers(m_blocks.GetSpare()), (std::vector<u64>{1, 2, 3}));
    for (u64 number = 11; !m_blocks.IsFull(); ++number)
        m_blocks.Push(MakeSlot(number));
    EXPECT_EQ(m_blocks.RemoveCredits(), MagazineSize);
    m_blocks.SwapMagazines();
    EXPECT_EQ(GetNumbers(m_blocks.GetLoaded()), (std::vector<u64>{1, 2, 3}));
    EXPECT_EQ(GetNumbers(m_blocks.GetSpare()), (std::vector<u64>{11, 12, 13, 14}));
    EXPECT_FALSE(m_blocks.HasCredited());
    m_blocks.ClearSpare();
    EXPECT_TRUE(m_blocks.GetSpare().empty());
}

TEST(HeapLane, GivesUpTheCreditsOfAllItsBlocks)
{
    auto const lane = std::make_unique<CHeapLane>();
    constexpr SBlockShape First{8, 0, 3, EHeap::Pool};
    constexpr SBlockShape Last{1024, 16, 10, EHeap::Pool16};
    SFreeSlot slots[2][2 * 64]{};
    lane->SetSlots(First, slots[0]);
    lane->SetSlots(Last, slots[1]);
    EXPECT_TRUE(lane->HasUsed(First));
    EXPECT_TRUE(lane->HasUsed(Last));
    EXPECT_FALSE(lane->HasUsed({16, 0, 4, EHeap::Pool}));
    EXPECT_EQ(lane->GetClass(First).GetSlots().size(), 64u);
    EXPECT_EQ(lane->GetClass(Last).GetSlots().size(), 16u) << "16 KB of them";
    lane->GetClass(First).Push(MakeSlot(1));
    lane->GetClass(First).Push(MakeSlot(2));
    lane->GetClass(Last).Push(MakeSlot(3));
    lane->credits = 10;
    EXPECT_EQ(lane->TakeCredits(), 13u);
    EXPECT_EQ(lane->TakeCredits(), 0u);
    EXPECT_FALSE(lane->GetClass(First).HasCredited());
    EXPECT_EQ(GetNumbers(lane->GetClass(First).GetLoaded()), (std::vector<u64>{1, 2}));
    EXPECT_EQ(GetNumbers(lane->GetClass(Last).GetLoaded()), (std::vector<u64>{3}));
}

// ---- Records of blocks in chunks ----

TEST(BlockRecord, TellsTheSizeAndTheLane)
{
    for (u32 lane = 0; lane < CHeapExtension::LaneCount; ++lane)
        for (u64 size = 1; size <= 1024; ++size) {
            u32 const mark = CBlockRecord::GetMark(lane);
            CBlockRecord::Value const record = CBlockRecord::Make(size, mark);
            ASSERT_NE(record, 0) << lane << ", " << size;
            ASSERT_EQ(CBlockRecord::GetSize(record), size) << lane;
            ASSERT_EQ(CBlockRecord::GetLane(record), lane) << size;
            ASSERT_EQ(CBlockRecord::GetMarkOf(record), mark) << lane << ", " << size;
        }
    EXPECT_EQ(CBlockRecord::GetMarkOf(0), 0u);
}

TEST(BlockRecord, EveryLaneHasABitAndABlockWithoutARecordAnother)
{
    u64 bits = CBlockRecord::GetMarkBit(CBlockRecord::GetMarkOf(0));
    for (u32 lane = 0; lane < CHeapExtension::LaneCount; ++lane) {
        u64 const bit = CBlockRecord::GetMarkBit(CBlockRecord::GetMark(lane));
        EXPECT_TRUE(std::has_single_bit(bit));
        EXPECT_EQ(bits & bit, 0u) << lane;
        bits |= bit;
    }
}

TEST(HeapLane, OwnsItsBlocksUntilItIsShared)
{
    auto const lane = std::make_unique<CHeapLane>();
    for (u32 number = 0; number < CHeapExtension::LaneCount; ++number) {
        lane->SetNumber(number);
        for (u32 other = 0; other < CHeapExtension::LaneCount; ++other)
            EXPECT_EQ(lane->Owns(CBlockRecord::Make(64, CBlockRecord::GetMark(other))), other == number);
        EXPECT_EQ(lane->MakeRecord(64), CBlockRecord::Make(64, CBlockRecord::GetMark(number)));
        EXPECT_FALSE(lane->Owns(0));
        lane->Share();
        EXPECT_FALSE(lane->Owns(lane->MakeRecord(64))) << number;
        EXPECT_EQ(lane->MakeRecord(64), CBlockRecord::Make(64, CBlockRecord::GetMark(number))) << "still its block";
        EXPECT_FALSE(lane->Owns(0));
    }
}

// Four to begin with, another one for every 65,536 blocks that the lane hands out, but no more than four in hand.
TEST(HeapLane, AllowsFewVisits)
{
    auto const lane = std::make_unique<CHeapLane>();
    auto const handOut = [&](u32 number, u32 count) {
        for (u32 block = 0; block < count; ++block)
            lane->GetClass(number).CountAllocation();
    };
    auto const countVisits = [&] {
        u32 count = 0;
        while (lane->AllowVisit())
            ++count;
        return count;
    };
    EXPECT_EQ(countVisits(), 4u);
    handOut(0, 65535);
    EXPECT_EQ(countVisits(), 0u);
    handOut(31, 1);
    EXPECT_EQ(countVisits(), 1u);
    handOut(7, 2 * 65536 + 65535);
    EXPECT_EQ(countVisits(), 2u);
    handOut(7, 1);
    EXPECT_EQ(countVisits(), 1u) << "nothing is lost of what was handed out between visits";
    handOut(0, 10 * 65536);
    EXPECT_EQ(countVisits(), 4u);
}

// A thread of a model tries to free the block, of 64 bytes; true when it is the one that does.
template <class Owns, class IsShared>
bool TakeInModel(CModelChecker& checker, TModelAtomic<u16>& record, CModelNote& takers, Owns&& owns,
                 IsShared&& isShared)
{
    CBlockRecord::Value taken = 0;
    if (!Impl::TryTakeRecord(record, taken, owns, isShared))
        return false;
    checker.Require(CBlockRecord::GetSize(taken) == 64, "the record is another one");
    checker.Require(takers.Add(1) == 1, "the block is freed twice");
    return true;
}

struct SFreedAtOnce {
    bool visitorTakes = true; // or came for another block
    bool visitorWaits = true; // until the owner is outside
    bool strangerAsks = true; // whether the lane is shared
    bool ownerIsTold = true;  // that the lane is shared
};

// A block that threads free at once: the one whose lane handed it out, one that comes to that lane as a guest and
// shares it, and one that takes the record without the lane's lock once the lane is shared. Every order of their steps.
CModelChecker::SResult CheckFreedAtOnce(SFreedAtOnce const& rules)
{
    constexpr u32 OwnerThread = 1;
    constexpr u32 Mark = CBlockRecord::GetMark(0);
    CModelChecker checker;
    TModelAtomic<u16> record{CBlockRecord::Make(64, Mark)};
    TModelAtomic<u32> owner{OwnerThread};
    TModelAtomic<u32> isInside{0};
    TModelAtomic<u32> guests{0};
    TModelAtomic<u32> ownMark{Mark};
    TModelAtomic<u32> isLaneShared{0};
    CModelNote takers;
    auto const take = [&](auto&& owns, auto&& isShared) {
        return TakeInModel(checker, record, takers, owns, isShared);
    };
    auto const isShared = [&](CBlockRecord::Value seen) { return seen != 0 && isLaneShared.load() != 0; };
    checker.AddThread({[&] {
                           if (!Impl::TryEnterAsOwner(owner, isInside, OwnerThread))
                               checker.Retry();
                       },
                       [&] {
                           auto const owns = [&](CBlockRecord::Value seen) {
                               u32 const mark = ownMark.load();
                               return CBlockRecord::GetMarkOf(seen) == mark;
                           };
                           static_cast<void>(take(owns, isShared));
                       },
                       [&] { isInside.store(0); }});
    checker.AddThread({[&] {
                           if (!Impl::TryAcquirePlain(guests))
                               checker.Retry();
                       },
                       [&] { Impl::Disown(owner, [] {}); },
                       [&] {
                           if (rules.visitorWaits && isInside.load() != 0)
                               checker.Retry();
                       },
                       [&] {
                           if (rules.ownerIsTold)
                               ownMark.store(1);
                           isLaneShared.store(1);
                       },
                       [&] {
                           if (rules.visitorTakes)
                               static_cast<void>(take([](CBlockRecord::Value) { return false; }, isShared));
                       },
                       [&] { owner.store(OwnerThread); },
                       [&] { checker.Require(Impl::TryReleasePlain(guests), "a release is refused"); }});
    checker.AddThread({[&] {
        auto const mayTake = [&](CBlockRecord::Value seen) { return rules.strangerAsks ? isShared(seen) : seen != 0; };
        if (!take([](CBlockRecord::Value) { return false; }, mayTake) && record.load() != 0)
            checker.Retry();
    }});
    checker.SetEndRule([&] { return takers.Peek() == 1 && record.Peek() == 0; });
    return checker.Explore();
}

TEST(BlockRecordModel, OfThreadsThatFreeABlockAtOnceOneDoes)
{
    for (bool const visitorTakes : {false, true}) {
        auto const result = CheckFreedAtOnce({.visitorTakes = visitorTakes});
        EXPECT_EQ(result.error, "");
        EXPECT_GE(result.ends, 1u);
    }
}

TEST(BlockRecordModel, TheCheckerNoticesAVisitorThatDoesNotWait)
{
    EXPECT_EQ(CheckFreedAtOnce({.visitorWaits = false}).error, "the block is freed twice");
}

TEST(BlockRecordModel, TheCheckerNoticesAStrangerThatDoesNotAsk)
{
    EXPECT_EQ(CheckFreedAtOnce({.strangerAsks = false}).error, "the block is freed twice");
}

TEST(BlockRecordModel, TheCheckerNoticesAnOwnerThatDoesNotKnow)
{
    EXPECT_EQ(CheckFreedAtOnce({.visitorTakes = false, .ownerIsTold = false}).error, "the block is freed twice");
}

struct SEndOfSharing {
    bool reviewerLooks = true; // until those who may have seen that the lane is shared have left theirs
    bool reviewerAsks = true;  // whether it has been shared again meanwhile
    bool visitorShares = true; // or takes the record as a guest and leaves the lane as it is
    bool visitorTakes = true;  // or came for another block
};

// A lane that is shared: its thread ends that, and then frees a block, which two others free, too: one with the lock of
// its own lane held, if it sees that the lane is shared; one that comes to the lane as a guest, if it does not, and may
// share it again. Every order of their steps. Locks are held over several steps where that matters, else for one.
CModelChecker::SResult CheckEndOfSharing(SEndOfSharing const& rules)
{
    constexpr u32 Mark = CBlockRecord::GetMark(0);
    CModelChecker checker;
    TModelAtomic<u16> record{CBlockRecord::Make(64, Mark)};
    TModelAtomic<u32> laneLock{0};
    TModelAtomic<u32> otherLaneLock{0};
    TModelAtomic<u32> ownMark{1};
    TModelAtomic<u32> isLaneShared{1};
    CModelNote takers;
    auto const take = [&](auto&& owns, auto&& isShared) {
        return TakeInModel(checker, record, takers, owns, isShared);
    };
    auto const never = [](CBlockRecord::Value) { return false; };
    auto const acquire = [&](TModelAtomic<u32>& lock) {
        return [&] {
            if (!Impl::TryAcquirePlain(lock))
                checker.Retry();
        };
    };
    auto const release = [&](TModelAtomic<u32>& lock) {
        return [&] { checker.Require(Impl::TryReleasePlain(lock), "a release is refused"); };
    };
    std::vector<Phase> owner;
    owner.push_back([&] { isLaneShared.store(0); });
    if (rules.reviewerLooks)
        owner.push_back([&] {
            if (otherLaneLock.load() != 0)
                checker.Retry();
        });
    owner.push_back(acquire(laneLock));
    owner.push_back([&] {
        if (!rules.reviewerAsks || isLaneShared.load() == 0)
            ownMark.store(Mark);
    });
    owner.push_back(release(laneLock));
    owner.push_back(acquire(laneLock));
    owner.push_back([&] {
        auto const owns = [&](CBlockRecord::Value seen) {
            u32 const mark = ownMark.load();
            return CBlockRecord::GetMarkOf(seen) == mark;
        };
        if (!take(owns, [](CBlockRecord::Value seen) { return seen != 0; }))
            checker.Require(record.load() == 0, "the lane's own thread leaves the block");
    });
    owner.push_back(release(laneLock));
    checker.AddThread(owner);

    auto const isShared = [&](CBlockRecord::Value seen) { return seen != 0 && isLaneShared.load() != 0; };
    checker.AddThread(
        {acquire(otherLaneLock), [&] { static_cast<void>(take(never, isShared)); }, release(otherLaneLock)});

    std::vector<Phase> visitor;
    visitor.push_back(acquire(laneLock));
    if (rules.visitorShares)
        visitor.push_back([&] {
            if (isLaneShared.load() != 0)
                return;
            isLaneShared.store(1);
            ownMark.store(1);
        });
    if (rules.visitorTakes)
        visitor.push_back([&] { static_cast<void>(take(never, [](CBlockRecord::Value seen) { return seen != 0; })); });
    visitor.push_back(release(laneLock));
    checker.AddThread(visitor);
    checker.SetEndRule([&] { return takers.Peek() == 1 && record.Peek() == 0; });
    return checker.Explore();
}

TEST(EndOfSharingModel, OfThreadsThatFreeABlockMeanwhileOneDoes)
{
    for (bool const shares : {false, true})
        for (bool const takes : {false, true}) {
            auto const result = CheckEndOfSharing({.visitorShares = shares, .visitorTakes = takes});
            EXPECT_EQ(result.error, "") << shares << takes;
            EXPECT_GE(result.ends, 1u);
        }
}

TEST(EndOfSharingModel, TheCheckerNoticesOneWhoDoesNotLookForTheOthers)
{
    EXPECT_EQ(CheckEndOfSharing({.reviewerLooks = false}).error, "the block is freed twice");
}

TEST(EndOfSharingModel, TheCheckerNoticesOneWhoDoesNotAskAgain)
{
    EXPECT_EQ(CheckEndOfSharing({.reviewerAsks = false, .visitorTakes = false}).error, "the block is freed twice");
}

TEST(HeapLane, LooksAfterManyRecordsOfSharedLanesWhetherItHasToBeShared)
{
    auto const lane = std::make_unique<CHeapLane>();
    lane->SetNumber(3);
    u32 const own = lane->GetMark();
    u32 const other = CBlockRecord::GetMark(4);
    auto const countRecords = [&] {
        u32 count = 0;
        for (; lane->CountShared(other); ++count)
            EXPECT_FALSE(lane->IsReviewDue() && count == 0);
        EXPECT_TRUE(lane->IsReviewDue());
        EXPECT_FALSE(lane->CountShared(own)) << "until there was a review";
        return count;
    };
    EXPECT_FALSE(lane->HasSeen(other));
    EXPECT_EQ(countRecords(), 65536u);
    EXPECT_TRUE(lane->HasSeen(other));
    EXPECT_FALSE(lane->HasSeen(own)) << "it was not counted";
    lane->PutOffReview();
    EXPECT_EQ(countRecords(), 65536u) << "it is not shared";
    EXPECT_FALSE(lane->IsShared());
    lane->Share();
    EXPECT_TRUE(lane->IsShared());
    for (u32 next : {1u << 16, 1u << 17, 1u << 18, 1u << 19, 1u << 20, 1u << 21, 1u << 22, 1u << 22}) {
        lane->PutOffReview();
        EXPECT_EQ(countRecords(), next);
    }
    lane->Forget(other);
    EXPECT_FALSE(lane->HasSeen(other));
    lane->HastenReview();
    EXPECT_EQ(countRecords(), 1024u);
    lane->Forget(other);
    lane->PutOffReview();
    EXPECT_TRUE(lane->CountShared(own));
    EXPECT_TRUE(lane->HasSeen(own));
    EXPECT_FALSE(lane->HasSeen(other));
    lane->Unshare();
    EXPECT_TRUE(lane->Owns(lane->MakeRecord(64)));
}

// ---- The record store ----

// Whoever finds none calls them in from all lanes: with the last ones in few hands, lanes did that to each other at
// every step.
TEST(RecordStore, GivesOneLaneFewOfTheLastRecords)
{
    CGlobalHeap* const heap = CGlobalHeap::Create({&std::malloc, &std::realloc, &std::free}, 0, 0);
    ASSERT_NE(heap, nullptr);
    {
        CGlobalHeap::CLock const lock(heap->GetLock());
        heap->Extend();
    }
    u64 left = 512; // what a heap begins with
    for (u32 given = 0; left != 0; left -= given) {
        given = heap->ReserveRecords(64);
        ASSERT_EQ(given, std::max<u64>(1, left / 32)) << left;
    }
    EXPECT_EQ(heap->ReserveRecords(64), 0u);
    heap->ReturnRecords(512);
    EXPECT_EQ(heap->ReserveRecords(5), 5u) << "no more than wanted";
    heap->ReturnRecords(5);
    heap->ReleaseRecords();
    std::free(heap);
}

TEST(ChunkTagNumber, IsTheSameForAShapeAndForAChunk)
{
    EXPECT_EQ(CChunkTag::GetNumber(EHeap::Pool, 3), 0u);
    EXPECT_EQ(CChunkTag::GetNumber(EHeap::Pool, 10), 7u);
    EXPECT_EQ(CChunkTag::GetNumber(EHeap::Pool16, 10), 31u);
    alignas(CChunkRecords::Alignment) u8 memory[CChunkRecords::GetByteCount(16)];
    CChunkRecords* const chunk =
        CChunkRecords::Create(memory, reinterpret_cast<void const*>(u64{0x4000}), 9, 16, EHeap::Pool8);
    CChunkTag const tag(CChunkTag(*chunk).GetValue() | u64{0x1FFFF} << CChunkTag::Bits); // as in an entry of the tree
    EXPECT_EQ(tag.GetNumber(), CChunkTag::GetNumber(EHeap::Pool8, 9));
    EXPECT_EQ(tag.GetBlockBits(), 9u);
    EXPECT_EQ(tag.GetKind(), EHeap::Pool8);
    EXPECT_EQ(tag.GetRecords(), chunk->GetRecords());
    EXPECT_EQ(tag.GetValue(), CChunkTag(*chunk).GetValue());
}

} // namespace
