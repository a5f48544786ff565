// Labels: threads
// The parts that the writers of the logs are made of: when a thread gives up its wait, which stacks it need not bring,
// how a writer sleeps.
#include "Core_DrainPolicy.h"
#include "Core_StackFilter.h"
#include "Core_StallWatch.h"

#include <vlmcore/impl/Core_Lock.h>

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>

namespace {

using namespace Velmor;

/// Looks every `step` milliseconds from `from` to `to`; the time of the look that lost patience, 0 for none.
[[nodiscard]] u64 LookUntil(CStallWatch& watch, u64 progress, u64 from, u64 to, u64 step)
{
    for (u64 now = from; now <= to; now += step) {
        if (watch.HasStoodStill(progress, now))
            return now;
    }
    return 0;
}

TEST(StallWatch, LosesPatienceAfterFiveSeconds)
{
    CStallWatch watch;
    EXPECT_EQ(LookUntil(watch, 7, 1000, 20000, 1), 6000u);
}

TEST(StallWatch, AnyProgressStartsTheWaitAnew)
{
    CStallWatch watch;
    for (u64 progress = 0; progress < 10; ++progress)
        EXPECT_EQ(LookUntil(watch, progress, progress * 4900, progress * 4900 + 4899, 1), 0u);
    EXPECT_EQ(LookUntil(watch, 9, 49000, 60000, 1), 49100u);
}

TEST(StallWatch, AStoppedProcessHasNotWaited)
{
    CStallWatch watch;
    EXPECT_FALSE(watch.HasStoodStill(3, 1000));
    // An hour is gone between two looks: it counts as fifty milliseconds.
    EXPECT_FALSE(watch.HasStoodStill(3, 3601000));
    EXPECT_EQ(LookUntil(watch, 3, 3601001, 3700000, 1), 3605950u);
}

TEST(StallWatch, ATimeThatGoesBackDoesNotCount)
{
    CStallWatch watch;
    EXPECT_FALSE(watch.HasStoodStill(3, 900000));
    EXPECT_FALSE(watch.HasStoodStill(3, 5));
    EXPECT_EQ(LookUntil(watch, 3, 5, 10000, 1), 5005u);
}

TEST(StackFilter, KnowsWhatWasNotedAndNothingElse)
{
    auto const filter = std::make_unique<CStackFilter>();
    EXPECT_FALSE(filter->Knows(77));
    filter->Note(77);
    EXPECT_TRUE(filter->Knows(77));
    EXPECT_FALSE(filter->Knows(78));
}

TEST(StackFilter, NoStackHasTheHashOfNothing)
{
    auto const filter = std::make_unique<CStackFilter>();
    EXPECT_FALSE(filter->Knows(0));
    filter->Note(0);
    EXPECT_FALSE(filter->Knows(0));
}

TEST(StackFilter, ForgetsSomeButInventsNone)
{
    auto const filter = std::make_unique<CStackFilter>();
    constexpr u32 Step = 2654435761u;
    constexpr u32 Count = 100000;
    for (u32 index = 1; index <= Count; ++index)
        filter->Note(index * Step);
    u32 known = 0;
    for (u32 index = 1; index <= Count; ++index)
        known += filter->Knows(index * Step) ? 1u : 0u;
    EXPECT_GT(known, 1000u);
    EXPECT_LE(known, 8192u);
    for (u32 index = Count + 1; index <= 2 * Count; ++index)
        EXPECT_FALSE(filter->Knows(index * Step));
}

TEST(StackFilter, AThousandSitesAreNearlyAllKnown)
{
    auto const filter = std::make_unique<CStackFilter>();
    u32 hash = 12345;
    std::set<u32> hashes;
    while (hashes.size() < 1000)
        hashes.insert(hash = hash * 1664525 + 1013904223);
    for (u32 const each : hashes)
        filter->Note(each);
    u32 known = 0;
    for (u32 const each : hashes)
        known += filter->Knows(each) ? 1u : 0u;
    EXPECT_GT(known, 950u);
}

/// Of a machine so quick that no time passes.
[[nodiscard]] f64 GetNoTime()
{
    return 100;
}

TEST(DrainPolicy, TakesAHalfFullBufferAtOnce)
{
    CDrainPolicy policy;
    EXPECT_EQ(policy.Decide(51, 100, &GetNoTime), EDrain::Now);
    EXPECT_EQ(policy.Decide(50, 100, &GetNoTime), EDrain::Later);
    EXPECT_EQ(policy.Decide(1, 1, &GetNoTime), EDrain::Now);
}

TEST(DrainPolicy, ALittleWaitsAMillisecondAtMost)
{
    CDrainPolicy policy;
    f64 now = 100;
    auto const getTime = [&now] { return now; };
    for (int round = 0; round < 2; ++round) {
        for (int empty = 0; empty < 20; ++empty, now += 5)
            EXPECT_EQ(policy.Decide(0, 100, getTime), EDrain::Later) << "nothing waits";
        EXPECT_EQ(policy.Decide(1, 100, getTime), EDrain::Later);
        now += 0.9;
        EXPECT_EQ(policy.Decide(2, 100, getTime), EDrain::Later);
        now += 0.2;
        EXPECT_EQ(policy.Decide(3, 100, getTime), EDrain::Now);
    }
}

TEST(DrainPolicy, AfterAWhileTakesALittleOrSleeps)
{
    CDrainPolicy policy;
    int rounds = 0;
    EDrain decision = EDrain::Later;
    for (; decision == EDrain::Later; ++rounds)
        decision = policy.Decide(1, 100, &GetNoTime);
    EXPECT_EQ(decision, EDrain::Now);
    EXPECT_GT(rounds, 100);
    for (decision = EDrain::Later; decision == EDrain::Later;)
        decision = policy.Decide(0, 100, &GetNoTime);
    EXPECT_EQ(decision, EDrain::Idle);
}

TEST(WriterBell, NobodySleepsBesideWork)
{
    CSpinLock lock;
    CWriterBell bell;
    EXPECT_FALSE(bell.IsWanted());
    bell.Sleep(lock, [] { return false; });
    EXPECT_FALSE(bell.IsWanted());
    EXPECT_TRUE(lock.TryAcquire());
}

TEST(WriterBell, RingsForASleeperOnce)
{
    CSpinLock lock;
    CWriterBell bell;
    bool isEmpty = true; // under the lock
    std::thread sleeper([&] {
        for (bool goesOn = true; goesOn;) {
            bell.Sleep(lock, [&] { return isEmpty; });
            TScopedLock const guard(lock);
            goesOn = isEmpty;
        }
    });
    for (bool isWanted = false; !isWanted;) {
        TScopedLock const guard(lock);
        isWanted = bell.IsWanted();
        isEmpty = !isWanted;
    }
    bell.Ring();
    sleeper.join();
    EXPECT_FALSE(bell.IsWanted());
}

TEST(WriterBell, NobodySleepsOnceItIsClosed)
{
    CSpinLock lock;
    CWriterBell bell;
    std::thread sleeper([&] { bell.Sleep(lock, [] { return true; }); });
    bell.Close(lock);
    sleeper.join();
    bell.Sleep(lock, [] { return true; });
    EXPECT_FALSE(bell.IsWanted());
}

} // namespace
