// Labels: threads
#include "Core_BiasedLock.h"
#include "support/ModelChecker.h"
#include "support/ThreadHelpers.h"

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

// Keys that no thread has.
constexpr u64 FirstKey = 0xFFFFF000;
constexpr u64 OtherKey = FirstKey + 4;

// The quick way in, tried and left again.
bool EntersAsOwner(CBiasedLock& lock, u64 threadKey)
{
    if (!lock.TryAcquireAsOwner(threadKey))
        return false;
    lock.ReleaseAsOwner(threadKey);
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
    EXPECT_FALSE(EntersAsOwner(lock, FirstKey));
    EXPECT_EQ(lock.Acquire(FirstKey), EBiasedHold::Guest);
    lock.Release(EBiasedHold::Guest, FirstKey);
    EXPECT_EQ(EntersAsOwner(lock, FirstKey), HasOwners);
    EXPECT_FALSE(EntersAsOwner(lock, OtherKey));
    EBiasedHold const hold = lock.Acquire(FirstKey);
    EXPECT_EQ(hold, HasOwners ? EBiasedHold::Owner : EBiasedHold::Guest);
    lock.Release(hold, FirstKey);
}

TEST(BiasedLock, AVisitorLeavesItToItsOwner)
{
    CBiasedLock lock;
    lock.Release(lock.Acquire(FirstKey), FirstKey);
    EBiasedHold const hold = lock.AcquireAsGuest();
    EXPECT_EQ(hold, EBiasedHold::Guest);
    EXPECT_FALSE(EntersAsOwner(lock, FirstKey)) << "while a guest is inside";
    lock.Release(hold, FirstKey);
    EXPECT_EQ(EntersAsOwner(lock, FirstKey), HasOwners);
}

// A copy of the process keeps the word of an owner that was about to say so, or had just said it; that thread is not in
// the copy, and nobody else would take the word back.
TEST(BiasedLock, ACopyForgetsWhoSaysThatItIsInside)
{
    if (!HasOwners)
        GTEST_SKIP() << "nobody ever owns it here";
    auto const lock = std::make_shared<CBiasedLock>();
    lock->Release(lock->Acquire(FirstKey), FirstKey);
    ASSERT_TRUE(lock->TryAcquireAsOwner(FirstKey));
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
    auto const visit = [&](u64 key) {
        EBiasedHold const hold = lock.Acquire(key);
        lock.Release(hold, key);
        return hold;
    };
    constexpr u64 MostOwners = 64;
    for (u64 key = FirstKey; key < FirstKey + MostOwners; ++key) {
        visit(key);
        EXPECT_EQ(EntersAsOwner(lock, key), HasOwners) << key;
    }
    // None for 4,096 visits, and for twice as many after four more owners.
    u64 key = FirstKey + MostOwners;
    for (u64 const visits : {4096u, 8192u, 16384u}) {
        for (u64 index = 0; index < visits; ++index)
            ASSERT_EQ(visit(key), EBiasedHold::Guest);
        EXPECT_FALSE(EntersAsOwner(lock, key));
        for (u32 owner = 0; owner < 4; ++owner) {
            EXPECT_EQ(visit(++key), EBiasedHold::Guest);
            EXPECT_EQ(EntersAsOwner(lock, key), HasOwners) << key;
            EXPECT_EQ(visit(key), HasOwners ? EBiasedHold::Owner : EBiasedHold::Guest);
        }
        ++key;
    }
}

TEST(BiasedLock, AFormerOwnerThatStillRunsKeepsItsWord)
{
    auto const getSlot = [](u64 key) { return Impl::HashThreadKey(key) >> 56 & 7; };
    u64 sameSlotKey = FirstKey;
    do
        sameSlotKey += 4;
    while (getSlot(sameSlotKey) != getSlot(FirstKey));
    CBiasedLock lock;
    std::atomic<bool> owned{false};
    std::atomic<bool> mayEnd{false};
    std::thread former([&] {
        lock.Release(lock.Acquire(FirstKey), FirstKey);
        owned = true;
        while (!mayEnd)
            std::this_thread::yield();
    });
    while (!owned)
        std::this_thread::yield();
    constexpr u32 MoreThanAWhile = 5000;
    for (u32 visit = 0; visit < MoreThanAWhile; ++visit) {
        ASSERT_EQ(lock.Acquire(sameSlotKey), EBiasedHold::Guest);
        lock.Release(EBiasedHold::Guest, sameSlotKey);
        ASSERT_FALSE(EntersAsOwner(lock, FirstKey)) << "it has been put out";
    }
    mayEnd = true;
    former.join();
    for (u32 visit = 0; visit < 2 * MoreThanAWhile && !EntersAsOwner(lock, sameSlotKey); ++visit)
        lock.Release(lock.Acquire(sameSlotKey), sameSlotKey);
    EXPECT_EQ(EntersAsOwner(lock, sameSlotKey), HasOwners);
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
        u64 const ownerKey = Platform::GetThreadKey();
        std::vector<u8> farAway(u64{64} << 20);
        u64 random = 1;
        while (!guestIsDone) {
            for (u32 store = 0; store < 4; ++store) {
                random = random * 6364136223846793005u + 1442695040888963407u;
                *static_cast<u8 volatile*>(&farAway[(random >> 32) * LineSize % farAway.size()]) = 1;
            }
            EBiasedHold const hold = lock.Acquire(ownerKey);
            number = number + 1;
            lock.Release(hold, ownerKey);
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

TEST(ThreadKey, IsOneOfItsOwnForEachThread)
{
    std::set<u64> keys{Platform::GetThreadKey()};
    EXPECT_EQ(keys.count(Platform::GetThreadKey()), 1u);
    EXPECT_EQ(keys.count(0), 0u);
    constexpr u32 ThreadCount = 8;
    std::vector<u64> found(ThreadCount);
    std::atomic<u32> started{0};
    std::vector<std::thread> threads;
    for (u32 index = 0; index < ThreadCount; ++index)
        threads.emplace_back([&, index] {
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
