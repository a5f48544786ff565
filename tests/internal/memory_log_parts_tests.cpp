// The parts that the memory event log is made of: when a thread gives up its wait, and which stacks it need not bring.
#include "Core_StackFilter.h"
#include "Core_StallWatch.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

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
        known += filter->Knows(index * Step) ? 1 : 0;
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
        known += filter->Knows(each) ? 1 : 0;
    EXPECT_GT(known, 950u);
}

} // namespace
