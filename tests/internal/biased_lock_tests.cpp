// Labels: threads
#include "Core_BiasedLock.h"
#include "support/ModelChecker.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

using namespace Velmor;
using TestSupport::CModelChecker;
using TestSupport::CModelNote;
using TestSupport::Eventually;
using TestSupport::TModelAtomic;
using Phase = CModelChecker::Phase;

namespace {

// How a lock is taken by the thread that took it before, and by another one: where the system lacks the barrier, nobody
// ever owns it.
bool const HasOwners = Platform::CanSynchronizeThreads();

// Ids that no thread has.
constexpr u32 FirstId = 0x7FFFF000;
constexpr u32 OtherId = FirstId + 4;

// The quick way in, tried and left again.
bool EntersAsOwner(CBiasedLock& lock, u32 threadId)
{
    if (!lock.TryAcquireAsOwner(threadId))
        return false;
    lock.ReleaseAsOwner(threadId);
    return true;
}

// An owner and two guests, each twice inside; the guests exclude each other before. Every order of their steps, each of
// which all others see at once: what the processor adds to that is what the barrier is for.
CModelChecker::SResult CheckOwnerAndGuests(bool guestsWaitForTheOwner)
{
    CModelChecker checker;
    TModelAtomic<u32> owner{1};
    TModelAtomic<u32> isInside{0};
    TModelAtomic<u32> guests{0};
    TModelAtomic<u32> number{0};
    CModelNote inside;
    auto const work = [&](std::vector<Phase>& phases) {
        phases.push_back([&] {
            checker.Require(inside.Add(1) == 1, "two threads are inside");
            u32 const seen = number.load();
            number.store(seen + 1);
            inside.Add(~u64{0});
        });
    };
    std::vector<Phase> ownerPhases;
    for (u32 round = 0; round < 2; ++round) {
        ownerPhases.push_back([&] {
            if (!Impl::TryEnterAsOwner(owner, isInside, 1u))
                checker.Retry();
        });
        work(ownerPhases);
        ownerPhases.push_back([&] { isInside.store(0); });
    }
    checker.AddThread(ownerPhases);
    for (u32 guest = 0; guest < 2; ++guest) {
        std::vector<Phase> phases;
        phases.push_back([&] {
            if (!Impl::TryAcquirePlain(guests))
                checker.Retry();
        });
        phases.push_back([&] { Impl::Disown(owner, [] {}); });
        phases.push_back([&, guestsWaitForTheOwner] {
            if (guestsWaitForTheOwner && isInside.load() != 0)
                checker.Retry();
        });
        work(phases);
        phases.push_back([&] { owner.store(1); });
        phases.push_back([&] { checker.Require(Impl::TryReleasePlain(guests), "a release is refused"); });
        checker.AddThread(phases);
    }
    checker.SetEndRule([&] { return number.Peek() == 4; });
    return checker.Explore();
}

// The owner loses the lock to a guest, which becomes the owner and comes again as such, while another guest visits. The
// first owner may be late with its word that it is inside. With one word for both, the checker finds the fault.
CModelChecker::SResult CheckTwoOwners(bool ownersHaveTheirOwnWords)
{
    constexpr u32 First = 1;
    constexpr u32 Second = 2;
    CModelChecker checker;
    TModelAtomic<u32> owner{First};
    TModelAtomic<u32> words[2]{TModelAtomic<u32>{0}, TModelAtomic<u32>{0}};
    TModelAtomic<u32> formers[2]{TModelAtomic<u32>{0}, TModelAtomic<u32>{0}}; // whom each guest found as the owner
    TModelAtomic<u32> guests{0};
    TModelAtomic<u32> number{0};
    CModelNote inside;
    auto const isInside = [&](u32 thread) -> TModelAtomic<u32>& {
        return words[ownersHaveTheirOwnWords ? thread - First : 0];
    };
    auto const work = [&] {
        checker.Require(inside.Add(1) == 1, "two threads are inside");
        static_cast<void>(number.load()); // a step at which others may come
        inside.Add(~u64{0});
    };
    // Once, if it is the owner.
    auto const visitAsOwner = [&](std::vector<Phase>& phases, u32 thread) {
        phases.push_back([&, thread] {
            if (!Impl::TryEnterAsOwner(owner, isInside(thread), thread))
                return;
            work();
            isInside(thread).store(0);
        });
    };
    auto const visitAsGuest = [&](std::vector<Phase>& phases, TModelAtomic<u32>& former, u32 next) {
        phases.push_back([&] {
            if (!Impl::TryAcquirePlain(guests))
                checker.Retry();
        });
        phases.push_back([&] {
            former.store(owner.load());
            Impl::Disown(owner, [] {});
        });
        phases.push_back([&] {
            if (isInside(former.load()).load() != 0)
                checker.Retry();
        });
        phases.push_back(work);
        phases.push_back([&, next] { owner.store(next != 0 ? next : former.load()); });
        phases.push_back([&] { checker.Require(Impl::TryReleasePlain(guests), "a release is refused"); });
    };
    std::vector<Phase> first;
    visitAsOwner(first, First);
    checker.AddThread(first);
    std::vector<Phase> second;
    visitAsGuest(second, formers[0], Second);
    visitAsOwner(second, Second);
    checker.AddThread(second);
    std::vector<Phase> visitor;
    visitAsGuest(visitor, formers[1], 0);
    checker.AddThread(visitor);
    return checker.Explore();
}

TEST(BiasedLockModel, AnOwnerThatIsLateDisturbsNobody)
{
    auto const result = CheckTwoOwners(true);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(BiasedLockModel, TheCheckerNoticesOwnersThatShareAWord)
{
    EXPECT_NE(CheckTwoOwners(false).error, "");
}

TEST(BiasedLockModel, OwnerAndGuestsExcludeEachOther)
{
    auto const result = CheckOwnerAndGuests(true);
    EXPECT_EQ(result.error, "");
    EXPECT_GE(result.ends, 1u);
}

TEST(BiasedLockModel, TheCheckerNoticesAGuestThatDoesNotWait)
{
    EXPECT_NE(CheckOwnerAndGuests(false).error, "");
}

TEST(BiasedLock, ItsFirstTakerOwnsIt)
{
    CBiasedLock lock;
    EXPECT_FALSE(EntersAsOwner(lock, FirstId));
    EXPECT_EQ(lock.Acquire(FirstId), EBiasedHold::Guest);
    lock.Release(EBiasedHold::Guest, FirstId);
    EXPECT_EQ(EntersAsOwner(lock, FirstId), HasOwners);
    EXPECT_FALSE(EntersAsOwner(lock, OtherId));
    EBiasedHold const hold = lock.Acquire(FirstId);
    EXPECT_EQ(hold, HasOwners ? EBiasedHold::Owner : EBiasedHold::Guest);
    lock.Release(hold, FirstId);
}

TEST(BiasedLock, AVisitorLeavesItToItsOwner)
{
    CBiasedLock lock;
    lock.Release(lock.Acquire(FirstId), FirstId);
    EBiasedHold const hold = lock.AcquireAsGuest();
    EXPECT_EQ(hold, EBiasedHold::Guest);
    EXPECT_FALSE(EntersAsOwner(lock, FirstId)) << "while a guest is inside";
    lock.Release(hold, FirstId);
    EXPECT_EQ(EntersAsOwner(lock, FirstId), HasOwners);
}

// A copy of the process keeps the word of an owner that was about to say so, or had just said it; that thread is not in
// the copy, and nobody else would take the word back.
TEST(BiasedLock, ACopyForgetsWhoSaysThatItIsInside)
{
    if (!HasOwners)
        GTEST_SKIP() << "nobody ever owns it here";
    auto const lock = std::make_shared<CBiasedLock>();
    lock->Release(lock->Acquire(FirstId), FirstId);
    ASSERT_TRUE(lock->TryAcquireAsOwner(FirstId));
    lock->ForgetThreads();
    auto const isVisited = std::make_shared<std::atomic<bool>>(false);
    std::thread([lock, isVisited] {
        lock->Release(lock->AcquireAsGuest(), 0);
        *isVisited = true;
    }).detach(); // it may wait for ever
    EXPECT_TRUE(Eventually([&] { return isVisited->load(); }));
}

TEST(BiasedLock, AfterManyOwnersItHasNoneForAWhile)
{
    CBiasedLock lock;
    auto const visit = [&](u32 id) {
        EBiasedHold const hold = lock.Acquire(id);
        lock.Release(hold, id);
        return hold;
    };
    constexpr u32 MostOwners = 64;
    for (u32 id = FirstId; id < FirstId + MostOwners; ++id) {
        visit(id);
        EXPECT_EQ(EntersAsOwner(lock, id), HasOwners) << id;
    }
    // None for 4,096 visits, and for twice as many after four more owners.
    u32 id = FirstId + MostOwners;
    for (u32 const visits : {4096u, 8192u, 16384u}) {
        for (u32 index = 0; index < visits; ++index)
            ASSERT_EQ(visit(id + index % 2), EBiasedHold::Guest);
        EXPECT_FALSE(EntersAsOwner(lock, id));
        EXPECT_FALSE(EntersAsOwner(lock, id + 1));
        ++id;
        for (u32 owner = 0; owner < 4; ++owner) {
            EXPECT_EQ(visit(++id), EBiasedHold::Guest);
            EXPECT_EQ(EntersAsOwner(lock, id), HasOwners) << id;
            EXPECT_EQ(visit(id), HasOwners ? EBiasedHold::Owner : EBiasedHold::Guest);
        }
        ++id;
    }
}

TEST(BiasedLock, WhoComesAloneForLongOwnsItBeforeTheWhileIsOver)
{
    if (!HasOwners)
        GTEST_SKIP() << "nobody ever owns it here";
    constexpr u32 MostInARow = 1u << 17;
    CBiasedLock lock;
    u32 id = FirstId;
    auto const visit = [&](u32 visitor) {
        EBiasedHold const hold = lock.Acquire(visitor);
        lock.Release(hold, visitor);
    };
    auto const changeOwners = [&](u32 owners) {
        for (u32 owner = 0; owner < owners; ++owner)
            visit(++id);
    };
    changeOwners(64);
    for (u32 visits = 4096; visits < 4 * MostInARow; visits *= 2) {
        for (u32 index = 0; index < visits; ++index)
            visit(id + 1 + index % 2);
        id += 2;
        changeOwners(4);
    }
    // Now there is none for four times as many visits as are enough in a row.
    ++id;
    u32 const other = id + 1;
    visit(id);
    for (u32 index = 1; index < MostInARow; ++index)
        visit(id);
    visit(other);
    for (u32 index = 1; index < MostInARow; ++index)
        visit(id);
    EXPECT_FALSE(EntersAsOwner(lock, id)) << "not in a row";
    visit(id);
    EXPECT_TRUE(EntersAsOwner(lock, id));
    // And the next while is short again.
    changeOwners(3);
    for (u32 index = 0; index < 4096; ++index)
        visit(id + 1 + index % 2);
    EXPECT_FALSE(EntersAsOwner(lock, id + 1));
    EXPECT_FALSE(EntersAsOwner(lock, id + 2));
    visit(id + 3);
    EXPECT_TRUE(EntersAsOwner(lock, id + 3));
}

TEST(BiasedLock, IsVacantForOthersWhenItsOwnerHasEnded)
{
    CBiasedLock lock;
    EXPECT_TRUE(lock.IsVacantFor(OtherId)) << "nobody had it yet";
    std::atomic<bool> owned{false};
    std::atomic<bool> mayEnd{false};
    std::atomic<u32> id{0};
    std::thread owner([&] {
        id = Thread::GetId();
        lock.Release(lock.Acquire(id), id);
        owned = true;
        while (!mayEnd)
            std::this_thread::yield();
    });
    while (!owned)
        std::this_thread::yield();
    EXPECT_TRUE(lock.IsVacantFor(id)) << "its own";
    EXPECT_FALSE(lock.IsVacantFor(OtherId));
    EXPECT_EQ(lock.AcquireUnlessOwned(OtherId), HasOwners ? id.load() : CBiasedLock::NoThread);
    if (!HasOwners)
        lock.Release(EBiasedHold::Guest, OtherId);
    mayEnd = true;
    owner.join();
    EXPECT_TRUE(Eventually([&] { return !Platform::IsThreadAlive(id); })); // the system may still be at its end
    EXPECT_TRUE(lock.IsVacantFor(OtherId));
    EXPECT_EQ(lock.AcquireUnlessOwned(OtherId), CBiasedLock::NoThread);
    lock.Release(EBiasedHold::Guest, OtherId);
    EXPECT_EQ(EntersAsOwner(lock, OtherId), HasOwners);
}

// Thread after thread, each of which ended before the next one came: that is no reason to have no owner.
TEST(BiasedLock, OwnersThatHaveEndedDoNotCount)
{
    if (!HasOwners)
        GTEST_SKIP() << "nobody ever owns it here";
    CBiasedLock lock;
    for (u32 id = FirstId; id < FirstId + 1000; ++id) {
        ASSERT_EQ(lock.AcquireUnlessOwned(id), CBiasedLock::NoThread);
        EXPECT_EQ(lock.GetRival(), CBiasedLock::NoThread);
        lock.Release(EBiasedHold::Guest, id);
        ASSERT_TRUE(EntersAsOwner(lock, id)) << id;
    }
}

TEST(BiasedLock, TellsFromOutsideWhetherItHasBeenLeft)
{
    CBiasedLock lock;
    lock.SynchronizeOwner();
    EXPECT_TRUE(lock.HasBeenLeft());
    EBiasedHold hold = lock.Acquire(FirstId);
    EXPECT_FALSE(lock.HasBeenLeft()) << "a guest is inside";
    lock.Release(hold, FirstId);
    EXPECT_TRUE(lock.HasBeenLeft());
    hold = lock.Acquire(FirstId);
    lock.SynchronizeOwner();
    EXPECT_FALSE(lock.HasBeenLeft());
    lock.Release(hold, FirstId);
    EXPECT_TRUE(lock.HasBeenLeft());
}

TEST(BiasedLock, AFormerOwnerThatStillRunsKeepsItsWord)
{
    auto const getSlot = [](u32 id) { return id >> (Platform::ThreadKeyShift + 5) & 7; };
    CBiasedLock lock;
    u32 formerId = 0;
    std::atomic<bool> owned{false};
    std::atomic<bool> mayEnd{false};
    std::thread former([&] {
        formerId = Thread::GetId();
        lock.Release(lock.Acquire(formerId), formerId);
        owned = true;
        while (!mayEnd)
            std::this_thread::yield();
    });
    while (!owned)
        std::this_thread::yield();
    u32 sameSlotId = FirstId;
    while (getSlot(sameSlotId) != getSlot(formerId))
        sameSlotId += 4;
    constexpr u32 MoreThanAWhile = 5000;
    for (u32 visit = 0; visit < MoreThanAWhile; ++visit) {
        ASSERT_EQ(lock.Acquire(sameSlotId), EBiasedHold::Guest);
        lock.Release(EBiasedHold::Guest, sameSlotId);
        ASSERT_FALSE(EntersAsOwner(lock, formerId)) << "it has been put out";
    }
    mayEnd = true;
    former.join();
    for (u32 visit = 0; visit < 2 * MoreThanAWhile && !EntersAsOwner(lock, sameSlotId); ++visit)
        lock.Release(lock.Acquire(sameSlotId), sameSlotId);
    EXPECT_EQ(EntersAsOwner(lock, sameSlotId), HasOwners);
}

// The processor's own part: without the barrier the owner now and then would not see a guest that does not see it
// either, and an addition would be lost. Stores to memory far away, just before, hold up the store by which the owner
// says that it is inside: with a barrier that does nothing, this test fails on every run.
TEST(BiasedLock, NothingThatIsDoneInsideIsLost)
{
    constexpr u64 MostVisits = 100000;
    constexpr std::chrono::seconds LongestTime{3}; // a barrier takes a fraction of a millisecond under Wine
    constexpr u64 MostVisitsInARow = 200;
    constexpr u64 LineSize = 64;
    CBiasedLock lock;
    u64 number = 0;
    std::atomic<u64> ownerRounds{0};
    std::atomic<bool> guestIsDone{false};
    std::thread owner([&] {
        u32 const ownerId = Thread::GetId();
        std::vector<u8> farAway(u64{64} << 20);
        u64 random = 1;
        while (!guestIsDone) {
            for (u32 store = 0; store < 4; ++store) {
                random = random * 6364136223846793005u + 1442695040888963407u;
                *static_cast<u8 volatile*>(&farAway[(random >> 32) * LineSize % farAway.size()]) = 1;
            }
            EBiasedHold const hold = lock.Acquire(ownerId);
            number = number + 1;
            lock.Release(hold, ownerId);
            ownerRounds.store(ownerRounds.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        }
    });
    u64 seen = 0;
    u64 visitsInARow = 0;
    u64 visits = 0;
    for (auto const start = std::chrono::steady_clock::now();
         visits < MostVisits && std::chrono::steady_clock::now() - start < LongestTime; ++visits) {
        {
            CBiasedGuard const guard(lock, lock.AcquireAsGuest());
            number = number + 1;
        }
        // The lock is not fair: a guest that came again and again would keep the owner out.
        if (u64 const rounds = ownerRounds; rounds != seen) {
            seen = rounds;
            visitsInARow = 0;
        }
        else if (++visitsInARow == MostVisitsInARow) {
            while (ownerRounds == seen)
                std::this_thread::yield();
            visitsInARow = 0;
        }
    }
    guestIsDone = true;
    owner.join();
    EXPECT_EQ(number, ownerRounds + visits);
    EXPECT_GT(visits, 1000u);
}

// Known in other rooms than those that always know it from the first question for the id on.
TEST(ThreadKey, IsTheIdOnceThatIsKnown)
{
    std::thread([] {
        u32 const before = Platform::GetThreadKey();
        u32 const id = Thread::GetId();
        EXPECT_TRUE(before == 0 || before == id) << before;
        EXPECT_EQ(Platform::GetThreadKey(), id);
    }).join();
}

TEST(ThreadKey, IsOneOfItsOwnForEachThread)
{
    std::set<u32> keys{Thread::GetId()};
    EXPECT_EQ(keys.count(Platform::GetThreadKey()), 1u);
    EXPECT_EQ(keys.count(0), 0u);
    constexpr u32 ThreadCount = 8;
    std::vector<u32> found(ThreadCount);
    std::atomic<u32> started{0};
    std::vector<std::thread> threads;
    for (u32 index = 0; index < ThreadCount; ++index)
        threads.emplace_back([&, index] {
            static_cast<void>(Thread::GetId());
            found[index] = Platform::GetThreadKey();
            ++started;
            while (started != ThreadCount) // all at the same time
                std::this_thread::yield();
        });
    for (std::thread& thread : threads)
        thread.join();
    keys.insert(found.begin(), found.end());
    EXPECT_EQ(keys.size(), ThreadCount + 1);
}

} // namespace
