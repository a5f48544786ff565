// Every order of steps of the locks and of the job ring, with few threads and a small ring. Each rule has a twin in
// which the code is wrong on purpose, to see that the checker would notice.
#include "support/ModelChecker.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/impl/Core_JobRing.h>
#include <vlmcore/impl/Core_Lock.h>

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

using namespace Velmor;
using TestSupport::CModelChecker;
using TestSupport::CModelNote;
using TestSupport::TModelAtomic;
using Phase = CModelChecker::Phase;

namespace {

void Show(CModelChecker::SResult const& result)
{
    ::testing::Test::RecordProperty("states", std::to_string(result.states));
    std::cout << "  " << result.states << " states, " << result.ends << " of them ends\n";
}

// Locks

/// Three threads that add to a number in two steps, twice each, under a lock.
template <class Acquire, class Release>
CModelChecker::SResult CheckExclusion(CModelChecker& checker, Acquire const& tryAcquire, Release const& tryRelease)
{
    TModelAtomic<u32> number{0};
    CModelNote inside;
    for (u32 thread = 1; thread <= 3; ++thread) {
        std::vector<Phase> phases;
        for (u32 round = 0; round < 2; ++round) {
            phases.push_back([&, thread] {
                if (!tryAcquire(thread))
                    checker.Retry();
                checker.Require(inside.Add(1) == 1, "two threads are inside");
            });
            phases.push_back([&] {
                u32 const seen = number.load();
                number.store(seen + 1);
            });
            phases.push_back([&, thread] {
                inside.Add(~u64{0});
                checker.Require(tryRelease(thread), "a release is refused");
            });
        }
        checker.AddThread(phases);
    }
    checker.SetEndRule([&] { return number.Peek() == 6; });
    auto const result = checker.Explore();
    Show(result);
    return result;
}

TEST(LockModel, ThePlainLockLetsOneInAndNobodyWaitsForEver)
{
    CModelChecker checker;
    TModelAtomic<u32> word{0};
    auto const result = CheckExclusion(
        checker, [&](u32) { return Impl::TryAcquirePlain(word); }, [&](u32) { return Impl::TryReleasePlain(word); });
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(LockModel, TheCheckerNoticesALockInTwoSteps)
{
    CModelChecker checker;
    TModelAtomic<u32> word{0};
    auto const tryAcquire = [&](u32) {
        if (word.load() != 0)
            return false;
        word.store(1);
        return true;
    };
    auto const result = CheckExclusion(checker, tryAcquire, [&](u32) { return Impl::TryReleasePlain(word); });
    EXPECT_EQ(result.error, "two threads are inside");
}

TEST(LockModel, TheCheckerNoticesALockThatIsNotReleased)
{
    CModelChecker checker;
    TModelAtomic<u32> word{0};
    auto const result =
        CheckExclusion(checker, [&](u32) { return Impl::TryAcquirePlain(word); }, [&](u32) { return true; });
    EXPECT_EQ(result.error, "the threads can get stuck");
}

TEST(LockModel, TheRecursiveLockLetsOneInAndNobodyWaitsForEver)
{
    CModelChecker checker;
    TModelAtomic<u32> count{0};
    TModelAtomic<u32> owner{Impl::NoOwner};
    auto const result = CheckExclusion(
        checker, [&](u32 thread) { return Impl::TryAcquireRecursive(count, owner, thread); },
        [&](u32 thread) { return Impl::TryReleaseRecursive(count, owner, thread); });
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(LockModel, TheRecursiveLockCountsAndRefusesStrangers)
{
    CModelChecker checker;
    TModelAtomic<u32> count{0};
    TModelAtomic<u32> owner{Impl::NoOwner};
    CModelNote inside;
    for (u32 thread = 1; thread <= 2; ++thread) {
        Phase const acquire = [&, thread] {
            if (!Impl::TryAcquireRecursive(count, owner, thread))
                checker.Retry();
        };
        Phase const release = [&, thread] {
            checker.Require(Impl::TryReleaseRecursive(count, owner, thread), "a release is refused");
        };
        Phase const enter = [&] { checker.Require(inside.Add(1) == 1, "two threads are inside"); };
        Phase const leave = [&] { inside.Add(~u64{0}); };
        checker.AddThread({acquire, enter, acquire, release, acquire, acquire, release, release, leave, release});
    }
    Phase const stranger = [&] {
        checker.Require(!Impl::TryReleaseRecursive(count, owner, 3), "a stranger released the lock");
    };
    checker.AddThread({stranger, stranger, stranger});
    checker.SetEndRule([&] { return owner.Peek() == Impl::NoOwner && count.Peek() == 0; });
    auto const result = checker.Explore();
    Show(result);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

// Ring

/// Producers that push `itemsEach` items, consumers that share them evenly; each item must arrive once, and those of
/// one producer in order when there is one consumer.
template <class Ring>
CModelChecker::SResult CheckRing(u32 producers, u32 itemsEach, u32 consumers)
{
    CModelChecker checker;
    Ring ring;
    u32 const items = producers * itemsEach;
    std::vector<CModelNote> arrived(items + 1);
    std::vector<CModelNote> newest(producers);
    for (u32 producer = 0; producer < producers; ++producer) {
        std::vector<Phase> phases;
        for (u32 item = 0; item < itemsEach; ++item) {
            auto const index = std::make_shared<CModelNote>();
            phases.push_back([&, index] {
                u64 claimed = 0;
                if (!ring.TryClaim(claimed))
                    checker.Retry();
                index->Set(claimed);
            });
            phases.push_back([&, index, number = producer * itemsEach + item + 1] {
                ring.Publish(index->Get(), number, [&] { checker.RepeatAccess(); });
            });
        }
        checker.AddThread(phases);
    }
    for (u32 consumer = 0; consumer < consumers; ++consumer) {
        std::vector<Phase> phases;
        for (u32 round = 0; round < items / consumers; ++round) {
            phases.push_back([&] {
                u32 item = 0;
                if (!ring.TryTake(item))
                    checker.Retry();
                checker.Require(item >= 1 && item <= items, "an item was taken from an empty slot");
                if (item < 1 || item > items)
                    return;
                checker.Require(arrived[item].Add(1) == 1, "an item arrived twice");
                if (consumers == 1) {
                    CModelNote& last = newest[(item - 1) / itemsEach];
                    checker.Require(last.Get() < item, "items overtook each other");
                    last.Set(item);
                }
            });
        }
        checker.AddThread(phases);
    }
    checker.SetEndRule([&] {
        for (u32 item = 1; item <= items; ++item) {
            if (arrived[item].Peek() != 1)
                return false;
        }
        return true;
    });
    auto const result = checker.Explore();
    Show(result);
    return result;
}

/// The size of a scenario: usually, and when stress was asked for.
u32 Larger(u32 usual, u32 stress)
{
    return TestSupport::GetStressFactor() > 1 ? stress : usual;
}

template <u64 SlotCount>
using TModelRing = Impl::TJobRing<TModelAtomic, u32, SlotCount>;

TEST(RingModel, TwoProducersTwoConsumersOneFreeSlot)
{
    auto const result = CheckRing<TModelRing<2>>(2, Larger(1, 2), 2);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(RingModel, OneProducerTwoConsumersAroundTheRing)
{
    auto const result = CheckRing<TModelRing<2>>(1, Larger(4, 6), 2);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(RingModel, TwoProducersOneConsumerKeepOrder)
{
    auto const result = CheckRing<TModelRing<4>>(2, Larger(2, 3), 1);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(RingModel, ThreeProducersPublishInOrderOfTheirClaims)
{
    auto const result = CheckRing<TModelRing<4>>(3, 1, 1);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

/// What the ring would be with indices that wrap.
template <u64 SlotCount, bool ClaimFirst>
class TWrappingRing {
public:
    bool TryClaim(u64& index)
    {
        index = m_reserve.load();
        u64 const next = (index + 1) % SlotCount;
        return next != m_read.load() && m_reserve.compare_exchange_strong(index, next);
    }
    template <class Wait>
    void Publish(u64 index, u32 item, Wait&& wait)
    {
        m_slots[index].store(item);
        while (m_publish.load() != index)
            wait();
        m_publish.store((index + 1) % SlotCount);
    }
    bool TryTake(u32& item)
    {
        u64 index = m_read.load();
        if (index == m_publish.load())
            return false;
        u64 const slot = index;
        if (!ClaimFirst)
            item = m_slots[slot].load();
        if (!m_read.compare_exchange_strong(index, (index + 1) % SlotCount))
            return false;
        if (ClaimFirst)
            item = m_slots[slot].load();
        return true;
    }

private:
    TModelAtomic<u32> m_slots[SlotCount];
    TModelAtomic<u64> m_reserve;
    TModelAtomic<u64> m_read;
    TModelAtomic<u64> m_publish;
};

TEST(RingModel, TheCheckerNoticesWhatWrappingIndicesDo)
{
    EXPECT_NE((CheckRing<TWrappingRing<2, false>>(1, 4, 2).error), "");
}

TEST(RingModel, TheCheckerNoticesASlotReadAfterItsClaim)
{
    EXPECT_NE((CheckRing<TWrappingRing<4, true>>(1, 6, 2).error), "");
}

// The pool's two questions

/// A worker that leaves when it finds nothing to do and is started again by whoever needs it, and two producers of
/// two jobs each, as CThreadPool::PushJob and TryRetire do it.
template <class TryLeave>
CModelChecker::SResult CheckLeaving(TryLeave const& tryLeave)
{
    CModelChecker checker;
    TModelRing<4> ring;
    TModelAtomic<u32> running{0};
    TModelAtomic<u32> lock{0};
    CModelNote started; // the worker's thread exists
    CModelNote pushing(2);
    CModelNote ran;
    for (u32 producer = 0; producer < 2; ++producer) {
        std::vector<Phase> phases;
        for (u32 job = 0; job < 2; ++job) {
            u32 const first = static_cast<u32>(phases.size());
            Phase const acquire = [&] {
                if (!Impl::TryAcquirePlain(lock))
                    checker.Retry();
            };
            Phase const startIfNone = [&] {
                if (running.load() == 0) {
                    started.Set(1);
                    running.fetch_add(1);
                }
            };
            Phase const release = [&] { Impl::TryReleasePlain(lock); };
            auto const skipWhenRunning = [&](u32 target) {
                return [&, target] {
                    if (running.load() != 0)
                        checker.GoTo(target);
                };
            };
            auto const index = std::make_shared<CModelNote>();
            phases.push_back(skipWhenRunning(first + 4));
            phases.insert(phases.end(), {acquire, startIfNone, release});
            phases.push_back([&, index] {
                u64 claimed = 0;
                if (!ring.TryClaim(claimed))
                    checker.Retry();
                index->Set(claimed);
            });
            phases.push_back(skipWhenRunning(first + 9));
            phases.insert(phases.end(), {acquire, startIfNone, release});
            phases.push_back([&, index] { ring.Publish(index->Get(), 1, [&] { checker.RepeatAccess(); }); });
        }
        phases.push_back([&] { pushing.Add(~u64{0}); });
        checker.AddThread(phases);
    }
    // 0: waits to be started, 1: takes or goes to leave, 2 to 4: tries to leave under the lock, 5: the end
    checker.AddThread({[&] {
                           if (pushing.Get() == 0 && started.Get() == 0)
                               checker.GoTo(5);
                           if (started.Get() == 0)
                               checker.Retry();
                       },
                       [&] {
                           u32 job = 0;
                           if (ring.TryTake(job)) {
                               ran.Add(1);
                               checker.GoTo(1);
                           }
                       },
                       [&] {
                           if (!Impl::TryAcquirePlain(lock))
                               checker.GoTo(1);
                       },
                       [&] {
                           if (tryLeave(ring, running))
                               started.Set(0);
                       },
                       [&] {
                           Impl::TryReleasePlain(lock);
                           checker.GoTo(started.Get() != 0 ? 1 : 0);
                       },
                       [] {}});
    checker.SetEndRule([&] { return ran.Peek() == 4; });
    auto const result = checker.Explore();
    Show(result);
    return result;
}

TEST(PoolModel, NoJobIsLeftBehindByALeavingWorker)
{
    auto const result = CheckLeaving([](auto& ring, auto& running) { return Impl::TryLeave(ring, running); });
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(PoolModel, TheCheckerNoticesALeaveWithoutASecondLook)
{
    auto const result = CheckLeaving([](auto& ring, auto& running) {
        if (!ring.IsEmpty())
            return false;
        running.store(running.load() - 1);
        return true;
    });
    EXPECT_NE(result.error, "");
}

/// Two workers, a job that pushes a job, and somebody who waits for both.
template <class IsDrained>
CModelChecker::SResult CheckWaiting(IsDrained const& isDrained)
{
    CModelChecker checker;
    TModelRing<4> ring;
    TModelAtomic<u32> busy[2];
    CModelNote done;
    CModelNote over;
    auto const push = [&](u32 job) {
        return [&, job] {
            u64 index = 0;
            if (!ring.TryClaim(index))
                checker.Retry();
            ring.Publish(index, job, [&] { checker.RepeatAccess(); });
        };
    };
    auto const wait = [&] {
        if (!isDrained(ring, [&] { return busy[0].load() != 0 || busy[1].load() != 0; }))
            checker.Retry();
        checker.Require(done.Get() == 2, "the wait ended before the jobs");
        over.Set(1);
    };
    checker.AddThread({push(1), wait});
    for (u32 worker = 0; worker < 2; ++worker) {
        // 0: looks, 1 and 2: takes, 3: the job's own push, 4: is idle again, 5: the end
        checker.AddThread({[&] {
                               if (over.Get() != 0)
                                   checker.GoTo(5);
                               if (!ring.HasPublished())
                                   checker.Retry();
                           },
                           [&, worker] { busy[worker].store(1); },
                           [&] {
                               u32 job = 0;
                               if (!ring.TryTake(job))
                                   checker.GoTo(4);
                               if (job == 2) {
                                   done.Add(1);
                                   checker.GoTo(4);
                               }
                           },
                           [&] {
                               push(2)();
                               done.Add(1);
                           },
                           [&, worker] {
                               busy[worker].store(0);
                               checker.GoTo(0);
                           },
                           [] {}});
    }
    auto const result = checker.Explore();
    Show(result);
    return result;
}

TEST(PoolModel, WaitingEndsWhenEveryJobIsDone)
{
    auto const result = CheckWaiting([](auto& ring, auto&& isAnyBusy) { return Impl::IsDrained(ring, isAnyBusy); });
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(PoolModel, TheCheckerNoticesAWaitWithoutASecondLook)
{
    auto const result = CheckWaiting([](auto& ring, auto&& isAnyBusy) { return ring.IsEmpty() && !isAnyBusy(); });
    EXPECT_EQ(result.error, "the wait ended before the jobs");
}

/// A worker that goes to sleep, and a producer that wakes it when it sees it asleep; nobody sleeps on a time.
template <bool LooksAgain>
CModelChecker::SResult CheckSleeping()
{
    CModelChecker checker;
    TModelRing<4> ring;
    TModelAtomic<u32> asleep{0};
    TModelAtomic<u32> sleepers{0};
    CModelNote ran;
    std::vector<Phase> producer;
    for (u32 job = 0; job < 3; ++job) {
        producer.push_back([&] {
            u64 index = 0;
            if (!ring.TryClaim(index))
                checker.Retry();
            ring.Publish(index, 1, [&] { checker.RepeatAccess(); });
        });
        producer.push_back([&] {
            if (sleepers.load() != 0 && asleep.exchange(0) != 0)
                sleepers.fetch_sub(1);
        });
    }
    checker.AddThread(producer);
    // 0: takes or goes to sleep, 1: says so and looks again, 2: sleeps, 3: says that it is awake, 4: the end
    checker.AddThread({[&] {
                           if (ran.Get() == 3)
                               checker.GoTo(4);
                           u32 job = 0;
                           if (ring.TryTake(job)) {
                               ran.Add(1);
                               checker.GoTo(0);
                           }
                       },
                       [&] {
                           asleep.store(1);
                           sleepers.fetch_add(1);
                           if (LooksAgain && !ring.IsEmpty())
                               checker.GoTo(3);
                       },
                       [&] {
                           if (asleep.load() != 0)
                               checker.Retry();
                       },
                       [&] {
                           if (asleep.exchange(0) != 0)
                               sleepers.fetch_sub(1);
                           checker.GoTo(0);
                       },
                       [] {}});
    checker.SetEndRule([&] { return ran.Peek() == 3 && asleep.Peek() == 0 && sleepers.Peek() == 0; });
    auto const result = checker.Explore();
    Show(result);
    return result;
}

TEST(PoolModel, NoSleeperMissesAJob)
{
    auto const result = CheckSleeping<true>();
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(PoolModel, TheCheckerNoticesASleepWithoutASecondLook)
{
    EXPECT_EQ(CheckSleeping<false>().error, "the threads can get stuck");
}

} // namespace
