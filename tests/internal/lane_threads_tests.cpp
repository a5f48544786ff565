// Labels: threads
// Which thread has which lane, and what becomes of a lane that other threads free blocks of.
#include "Core_MemoryExtension.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

using namespace Velmor;

namespace {

constexpr SMemoryHooks Hooks{&std::malloc, &std::realloc, &std::free};

class Lanes : public ::testing::Test {
protected:
    Lanes() : m_extension(CHeapExtension::Create(Hooks)) {}
    ~Lanes() override { m_extension->Release(Hooks); }

    [[nodiscard]] CHeapLane* FindLane()
    {
        CHeapLane* found = nullptr;
        m_extension->UseLane([&](CHeapLane& lane) { found = &lane; });
        return found;
    }

    [[nodiscard]] bool IsShared()
    {
        bool isShared = false;
        m_extension->UseLane([&](CHeapLane& lane) { isShared = lane.IsShared(); });
        return isShared;
    }

    // A block of the calling thread's lane.
    void HandOut(CChunkRecords::Record& record)
    {
        m_extension->UseLane([&](CHeapLane& lane) { record.store(lane.MakeRecord(64)); });
    }

    void HandOutAndTake(u32 count)
    {
        CChunkRecords::Record record{0};
        for (; count != 0; --count) {
            HandOut(record);
            ASSERT_EQ(m_extension->TakeRecord(record), 64u);
        }
    }

    // By another thread, which is gone afterwards.
    void TakeElsewhere(u32 count)
    {
        std::vector<CChunkRecords::Record> records(count);
        for (CChunkRecords::Record& record : records)
            HandOut(record);
        std::thread([&] {
            for (CChunkRecords::Record& record : records)
                EXPECT_EQ(m_extension->TakeRecord(record), 64u);
        }).join();
    }

    CHeapExtension* m_extension;
};

/// As many threads as there are lanes wait for each other here.
class CMeeting {
public:
    void Attend()
    {
        ++m_arrived;
        while (m_arrived != CHeapExtension::LaneCount)
            std::this_thread::yield();
    }

private:
    std::atomic<u32> m_arrived{0};
};

/// As many threads as there are lanes, all at the same time, whose ids have different places: those with the same one
/// share a lane.
template <class Body>
void RunAThreadPerLane(Body const& body)
{
    for (;;) {
        std::array<u32, CHeapExtension::LaneCount> places{};
        CMeeting start;
        CMeeting end;
        std::vector<std::thread> threads;
        std::atomic<bool> areDifferent{false};
        for (u32 index = 0; index < CHeapExtension::LaneCount; ++index)
            threads.emplace_back([&, index] {
                places[index] = Impl::GetThreadPlace(Thread::GetId());
                start.Attend();
                if (std::set<u32>(places.begin(), places.end()).size() == CHeapExtension::LaneCount) {
                    areDifferent = true;
                    body(index);
                }
                end.Attend();
            });
        for (std::thread& thread : threads)
            thread.join();
        if (areDifferent)
            return;
    }
}

TEST_F(Lanes, AsManyThreadsAsThereAreLanesHaveOneEach)
{
    if (!Platform::CanSynchronizeThreads())
        GTEST_SKIP() << "no thread has a lane for itself here";
    constexpr u32 Uses = 1000;
    constexpr u32 SettlingUses = 100;
    for (u32 round = 0; round < 5; ++round) { // later ones take over what those of the one before left
        std::array<CHeapLane*, CHeapExtension::LaneCount> lanes{};
        std::atomic<u32> changes{0};
        CMeeting meeting;
        RunAThreadPerLane([&](u32 index) {
            for (u32 use = 0; use < SettlingUses; ++use) // one that another one left may take a few
                static_cast<void>(FindLane());
            meeting.Attend();
            lanes[index] = FindLane();
            for (u32 use = 0; use < Uses; ++use)
                changes += FindLane() != lanes[index];
        });
        EXPECT_EQ(std::set<CHeapLane*>(lanes.begin(), lanes.end()).size(), u64{CHeapExtension::LaneCount}) << round;
        EXPECT_EQ(changes, 0u) << round;
    }
}

TEST_F(Lanes, AThreadKeepsItsLaneWhateverOthersDo)
{
    if (!Platform::CanSynchronizeThreads())
        GTEST_SKIP() << "no thread has a lane for itself here";
    CHeapLane* const own = FindLane();
    for (u32 count = 0; count < 200; ++count)
        std::thread([&] { EXPECT_NE(FindLane(), own); }).join();
    EXPECT_EQ(FindLane(), own);
}

// Every lane has a thread that runs, though most do nothing; another thread comes to the lane of a busy one.
TEST_F(Lanes, OfTwoThreadsThatTakeTurnsInALaneOneTriesAnother)
{
    if (!Platform::CanSynchronizeThreads())
        GTEST_SKIP() << "no thread has a lane for itself here";
    constexpr u32 MostTurns = 10000;
    constexpr u32 TurnsApart = 100;
    std::atomic<u32> turn{0};
    std::atomic<CHeapLane*> lanes[2]{};
    std::atomic<bool> isOver{false};
    u32 turnsTogether = 0;
    u32 turnsApart = 0;
    auto const takeTurns = [&](u32 which) {
        while (!isOver) {
            if (turn % 2 == which) {
                lanes[which] = FindLane();
                ++turn;
            }
            else
                std::this_thread::yield();
        }
    };
    auto const watch = [&] {
        for (u32 seen = 2; turnsTogether + turnsApart < MostTurns && turnsApart < TurnsApart; seen += 2) {
            while (turn < seen)
                std::this_thread::yield();
            bool const areTogether = lanes[0] == lanes[1];
            turnsTogether += areTogether ? 1u : 0u;
            turnsApart = areTogether ? 0 : turnsApart + 1;
        }
        isOver = true;
    };
    CMeeting start;
    CMeeting end;
    RunAThreadPerLane([&](u32 index) {
        static_cast<void>(FindLane());
        start.Attend();
        if (index == 0) {
            u32 const number = CBlockRecord::GetLane(static_cast<CBlockRecord::Value>(FindLane()->MakeRecord(1)));
            std::thread watcher(watch);
            std::atomic<bool> isFound{false};
            std::vector<std::thread> others;
            while (!isFound) { // one after the other, until one would have this thread's lane
                std::atomic<bool> hasLooked{false};
                others.emplace_back([&] {
                    u32 const place = Impl::GetThreadPlace(Thread::GetId());
                    bool const isSame = place % CHeapExtension::LaneCount == number;
                    isFound = isSame;
                    hasLooked = true;
                    if (isSame)
                        takeTurns(1);
                    while (!isOver)
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                });
                while (!hasLooked)
                    std::this_thread::yield();
            }
            takeTurns(0);
            watcher.join();
            for (std::thread& other : others)
                other.join();
        }
        end.Attend();
    });
    EXPECT_GT(turnsTogether, 0u);
    EXPECT_EQ(turnsApart, TurnsApart) << turnsTogether;
}

// Nothing that one thread does in a lane is lost to another one's work there: the credits of a lane are a plain number.
TEST_F(Lanes, MoreThreadsThanThereAreLanesShareThem)
{
    constexpr u32 ThreadCount = CHeapExtension::LaneCount + 16;
    constexpr u32 Uses = 3000;
    std::atomic<u32> running{ThreadCount};
    std::vector<std::thread> threads;
    for (u32 index = 0; index < ThreadCount; ++index)
        threads.emplace_back([&] {
            for (u32 use = 0; use < Uses; ++use)
                m_extension->UseLane([](CHeapLane& lane) { ++lane.credits; });
            --running;
            while (running != 0) // none ends before all others had to do with it
                std::this_thread::yield();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(m_extension->CollectCredits().credits, u64{ThreadCount} * Uses);
}

// ---- Sharing ----

TEST_F(Lanes, ALaneIsSharedAsLongAsOthersFreeItsBlocks)
{
    constexpr u32 FirstReview = 65536;
    EXPECT_FALSE(IsShared());
    TakeElsewhere(4);
    EXPECT_FALSE(IsShared()) << "few visits";
    TakeElsewhere(1);
    EXPECT_TRUE(IsShared());
    HandOutAndTake(FirstReview);
    EXPECT_TRUE(IsShared()) << "no review yet";
    TakeElsewhere(1);
    HandOutAndTake(1);
    EXPECT_TRUE(IsShared()) << "somebody was there";
    HandOutAndTake(FirstReview - 1);
    EXPECT_TRUE(IsShared()) << "no review yet";
    HandOutAndTake(1);
    EXPECT_FALSE(IsShared()) << "nobody was there since";
    TakeElsewhere(1);
    EXPECT_TRUE(IsShared()) << "no visits left";
    HandOutAndTake(2 * FirstReview);
    EXPECT_TRUE(IsShared()) << "twice as late";
    HandOutAndTake(1);
    EXPECT_FALSE(IsShared());
}

TEST_F(Lanes, SharingEndsWhenEverybodyHasLeftTheirLanesOnce)
{
    constexpr u32 FirstReview = 65536;
    constexpr u32 SoonReview = 1024;
    TakeElsewhere(5);
    ASSERT_TRUE(IsShared());
    HandOutAndTake(FirstReview);
    std::atomic<bool> isInside{false};
    std::atomic<bool> mayLeave{false};
    std::thread other([&] {
        m_extension->UseLane([&](CHeapLane&) {
            isInside = true;
            while (!mayLeave)
                std::this_thread::yield();
        });
    });
    while (!isInside)
        std::this_thread::yield();
    HandOutAndTake(10 * SoonReview);
    EXPECT_TRUE(IsShared()) << "it waits for nobody, but does not forget them";
    mayLeave = true;
    other.join();
    HandOutAndTake(SoonReview + 1);
    EXPECT_FALSE(IsShared());
}

TEST_F(Lanes, WhoFreesBlocksOfSharedLanesAloneIsNotHeldUp)
{
    TakeElsewhere(5);
    ASSERT_TRUE(IsShared());
    constexpr u32 Count = 200000;
    std::vector<CChunkRecords::Record> records(Count);
    for (CChunkRecords::Record& record : records)
        HandOut(record);
    std::thread([&] {
        for (CChunkRecords::Record& record : records)
            ASSERT_EQ(m_extension->TakeRecord(record), 64u);
        EXPECT_FALSE(IsShared()) << "its own";
    }).join();
    EXPECT_TRUE(IsShared());
}

// The lane's thread and another one free the same blocks. The other one rests now and then, for so long that the lane
// is mostly no longer shared when it comes again, or just about to be so.
TEST(LaneSharing, OfTwoThreadsThatFreeABlockWhileItBeginsAndEndsOneDoes)
{
    constexpr u32 Heaps = 60;
    constexpr u32 Slots = 64;
    constexpr u32 BlocksPerHeap = 4000 * Slots;
    constexpr u32 ShortestRest = 60000; // a first review comes after 65,536 blocks
    constexpr u32 LongestRest = 70000;
    u64 takenElsewhereInAll = 0;
    u32 ends = 0;
    u32 seed = 1;
    for (u32 heap = 0; heap < Heaps; ++heap) {
        CHeapExtension* const extension = CHeapExtension::Create(Hooks);
        ASSERT_NE(extension, nullptr);
        std::array<CChunkRecords::Record, Slots> records{};
        std::atomic<u32> handedOut{0};
        u64 takenElsewhere = 0;
        std::thread other([&] {
            while (handedOut < BlocksPerHeap) {
                for (u32 block = 0; block < 2000; ++block)
                    takenElsewhere += extension->TakeRecord(records[block % Slots]) != 0 ? 1u : 0u;
                seed = seed * 1664525 + 1013904223;
                u32 const end = handedOut + ShortestRest + (seed >> 8) % (LongestRest - ShortestRest);
                while (handedOut < std::min(end, BlocksPerHeap))
                    std::this_thread::yield();
            }
        });
        u64 taken = 0;
        bool wasShared = false;
        while (handedOut < BlocksPerHeap) {
            bool isShared = false;
            extension->UseLane([&](CHeapLane& lane) {
                isShared = lane.IsShared();
                for (CChunkRecords::Record& record : records)
                    record.store(lane.MakeRecord(64));
            });
            ends += wasShared && !isShared ? 1u : 0u;
            wasShared = isShared;
            handedOut += Slots;
            for (CChunkRecords::Record& record : records)
                taken += extension->TakeRecord(record) != 0 ? 1u : 0u;
        }
        other.join();
        EXPECT_EQ(taken + takenElsewhere, BlocksPerHeap) << heap;
        takenElsewhereInAll += takenElsewhere;
        extension->Release(Hooks);
    }
    EXPECT_GT(takenElsewhereInAll, 0u);
    EXPECT_GT(ends, 0u);
}

} // namespace
