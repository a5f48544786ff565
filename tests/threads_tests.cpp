// Labels: threads
#include "TestHeap.h"
#include "support/DebuggedProcess.h"
#include "support/Messages.h"
#include "support/SystemTraits.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/threads.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

using namespace Velmor;
using TestSupport::CFunctionThread;
using TestSupport::Eventually;
using TestSupport::MessageOf;
using TestSupport::RunConcurrently;

namespace {

/// Whether another thread gets the lock.
template <class Lock>
bool IsFreeElsewhere(Lock& lock)
{
    std::atomic<bool> isFree{false};
    RunConcurrently(1, [&](unsigned) {
        isFree = lock.TryAcquire();
        if (isFree)
            lock.Release();
    });
    return isFree;
}

constexpr char NotAcquired[] =
    "include/vlmcore/impl/Core_Lock.h(44): Trying to release a lock that has not been acquired.";
constexpr char NotOwned[] =
    "include/vlmcore/impl/Core_Lock.h(87): Trying to release a recursive lock that is not owned by the current thread.";

// Locks

TEST(SpinLock, IsOneWordAndReleasesWhatWasAcquired)
{
    static_assert(sizeof(CSpinLock) == 4);
    CSpinLock lock;
    lock.Acquire();
    EXPECT_FALSE(lock.TryAcquire());
    lock.Release();
    EXPECT_TRUE(lock.TryAcquire());
    lock.Release();
}

TEST(SpinLock, ReleasingAFreeLockThrows)
{
    CSpinLock lock;
    EXPECT_EQ(MessageOf([&] { lock.Release(); }), NotAcquired);
    EXPECT_FALSE(lock.TryRelease());
    lock.Acquire();
    lock.Release();
    EXPECT_EQ(MessageOf([&] { lock.Release(); }), NotAcquired);
    EXPECT_TRUE(lock.TryAcquire()) << "a refused release changes nothing";
    lock.Release();
}

TEST(SpinLock, AnotherThreadMayReleaseIt)
{
    CSpinLock lock;
    lock.Acquire();
    RunConcurrently(1, [&](unsigned) { lock.Release(); });
    EXPECT_TRUE(lock.TryAcquire());
    lock.Release();
}

template <class Lock>
class LockTest : public ::testing::Test {};
using Locks = ::testing::Types<CSpinLock, CRecursiveSpinLock>;
TYPED_TEST_SUITE(LockTest, Locks);

TYPED_TEST(LockTest, LetsOneThreadInAtATime)
{
    TypeParam lock;
    u64 counter = 0; // not atomic: the lock is what keeps it whole
    unsigned const rounds = 20'000 * TestSupport::GetStressFactor();
    RunConcurrently(4, [&](unsigned) {
        for (unsigned round = 0; round < rounds; ++round) {
            TScopedLock guard(lock);
            counter = counter + 1;
        }
    });
    EXPECT_EQ(counter, u64{4} * rounds);
}

TYPED_TEST(LockTest, AWaiterGetsInAfterAHolderThatSleeps)
{
    TypeParam lock;
    std::atomic<bool> released{false};
    lock.Acquire();
    bool seen = false;
    CFunctionThread waiter([&] {
        TScopedLock guard(lock);
        seen = released;
    });
    waiter.Run();
    Thread::Sleep(30); // the waiter goes through all of its back-off
    released = true;
    lock.Release();
    waiter.Join();
    EXPECT_TRUE(seen);
}

TYPED_TEST(LockTest, AGuardEndsWithItsScope)
{
    TypeParam lock;
    {
        TScopedLock guard(lock);
        EXPECT_FALSE(IsFreeElsewhere(lock));
    }
    EXPECT_TRUE(IsFreeElsewhere(lock));
}

TEST(RecursiveSpinLock, IsTwoWords)
{
    static_assert(sizeof(CRecursiveSpinLock) == 8);
}

TEST(RecursiveSpinLock, ThreeAcquisitionsNeedThreeReleases)
{
    CRecursiveSpinLock lock;
    lock.Acquire();
    lock.Acquire();
    EXPECT_TRUE(lock.TryAcquire());
    EXPECT_TRUE(lock.IsOwned());
    lock.Release();
    EXPECT_FALSE(IsFreeElsewhere(lock));
    lock.Release();
    EXPECT_FALSE(IsFreeElsewhere(lock));
    lock.Release();
    EXPECT_FALSE(lock.IsOwned());
    EXPECT_TRUE(IsFreeElsewhere(lock));
}

TEST(RecursiveSpinLock, OnlyTheOwnerReleases)
{
    CRecursiveSpinLock lock;
    EXPECT_EQ(MessageOf([&] { lock.Release(); }), NotOwned);
    lock.Acquire();
    RunConcurrently(1, [&](unsigned) {
        EXPECT_FALSE(lock.IsOwned());
        EXPECT_EQ(MessageOf([&] { lock.Release(); }), NotOwned);
        EXPECT_FALSE(lock.TryRelease());
    });
    EXPECT_TRUE(lock.IsOwned());
    lock.Release();
    EXPECT_EQ(MessageOf([&] { lock.Release(); }), NotOwned);
}

VLMCORE_CHILD(LosesALock)
{
    CSpinLock lock;
    {
        TScopedLock guard(lock);
        lock.Release();
    }
    return lock.TryAcquire() ? 7 : 8;
}

TEST(ScopedLock, ReportsALockThatWasReleasedMeanwhile)
{
    auto const child = TestSupport::RunDebugged("LosesALock");
    EXPECT_EQ(child.exitCode, 7u);
    EXPECT_EQ(child.debuggerOutput, "A lock was released while a guard was holding it.\n");
}

// Helper functions

TEST(ThreadFunctions, IdsTellThreadsApart)
{
    u32 const own = Thread::GetId();
    EXPECT_EQ(Thread::GetId(), own);
    EXPECT_NE(own, 0xFFFFFFFFu);
    u32 other[2] = {own, own};
    std::atomic<int> arrived{0};
    RunConcurrently(2, [&](unsigned index) {
        other[index] = Thread::GetId();
        ++arrived;
        EXPECT_TRUE(Eventually([&] { return arrived == 2; })); // both live at once
    });
    EXPECT_NE(other[0], own);
    EXPECT_NE(other[1], own);
    EXPECT_NE(other[0], other[1]);
}

TEST(ThreadFunctions, SpinAndRescheduleReturn)
{
    Thread::Spin();
    Thread::Reschedule();
    Thread::Sleep(0);
}

// Threads

TEST(ThreadObject, IsIdleAtFirst)
{
    CFunctionThread thread([] {});
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.GetThreadId(), 0xFFFFFFFFu);
    EXPECT_TRUE(thread.GetStopFlag());
}

TEST(ThreadObject, JoinWithoutAStartReturns)
{
    CFunctionThread thread([] {});
    thread.Join();
    thread.Join();
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.GetStopFlag());
}

TEST(ThreadObject, RunRunsTheBodyOnce)
{
    int runs = 0;
    CFunctionThread thread([&] { ++runs; });
    thread.Run();
    thread.Join();
    EXPECT_EQ(runs, 1);
    thread.Run();
    thread.Join();
    EXPECT_EQ(runs, 2);
}

TEST(ThreadObject, RunLoopedRunsTheBodyUntilJoin)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    thread.RunLooped();
    EXPECT_TRUE(Eventually([&] { return runs >= 100; }));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_FALSE(thread.GetStopFlag());
    thread.Join();
    int const last = runs;
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.GetStopFlag());
    Thread::Sleep(5);
    EXPECT_EQ(runs, last);
}

TEST(ThreadObject, AClearStopFlagMakesRunLoop)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    thread.SetStopFlag(false);
    thread.Run();
    EXPECT_TRUE(Eventually([&] { return runs >= 3; }));
    thread.Join();
    runs = 0;
    thread.Run(); // Join has set the flag
    thread.Join();
    EXPECT_EQ(runs, 1);
}

TEST(ThreadObject, TheBodyMayEndItsLoop)
{
    std::atomic<int> runs{0};
    std::atomic<CFunctionThread*> self{nullptr};
    CFunctionThread thread([&] {
        if (++runs == 3)
            self.load()->SetStopFlag(true);
    });
    self = &thread;
    thread.RunLooped();
    EXPECT_TRUE(Eventually([&] { return runs == 3; }));
    Thread::Sleep(5);
    EXPECT_EQ(runs, 3);
    EXPECT_TRUE(thread.IsRunning()) << "until somebody joins";
    thread.Join();
    EXPECT_FALSE(thread.IsRunning());
}

TEST(ThreadObject, KnowsTheIdOfItsThread)
{
    std::atomic<u32> inside{0};
    CFunctionThread thread([&] { inside = Thread::GetId(); });
    thread.Run();
    EXPECT_TRUE(Eventually([&] { return inside != 0; }));
    EXPECT_EQ(thread.GetThreadId(), inside);
    EXPECT_NE(thread.GetThreadId(), Thread::GetId());
    thread.Join();
    EXPECT_EQ(thread.GetThreadId(), 0xFFFFFFFFu);
}

TEST(ThreadObject, JoinWaitsHoweverEarlyItComes)
{
    int runs = 0; // not atomic: Join is what makes it visible
    CFunctionThread thread([&] { ++runs; });
    for (int round = 1; round <= 200; ++round) {
        thread.Run();
        thread.Join();
        ASSERT_EQ(runs, round);
        thread.RunLooped();
        thread.Join();
        ASSERT_GT(runs, round);
        runs = round;
    }
}

TEST(ThreadObject, EveryJoinWaits)
{
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> done{false};
        CFunctionThread thread([&] {
            Thread::Sleep(5);
            done = true;
        });
        thread.Run();
        RunConcurrently(3, [&](unsigned) {
            thread.Join();
            EXPECT_TRUE(done);
        });
    }
}

TEST(ThreadObject, AnEarlyJoinOfAnotherThreadWaitsAsWell)
{
    // The other thread joins all the time, also while the start is under way: whenever it comes back after a start
    // that it can have seen, that start's body is over.
    std::atomic<u32> started{0};
    std::atomic<u32> ended{0};
    std::atomic<bool> over{false};
    CFunctionThread thread([&] { ended.fetch_add(1); });
    CFunctionThread joiner([&] {
        while (!over) {
            u32 const before = started;
            thread.Join();
            EXPECT_GE(ended, before);
        }
    });
    joiner.Run();
    for (u32 round = 0; round < 300; ++round) {
        thread.Run();
        started.fetch_add(1);
    }
    over = true;
    joiner.Join();
    thread.Join();
    EXPECT_EQ(ended, 300u);
}

TEST(ThreadObject, StartsFromSeveralThreadsRunOneAfterTheOther)
{
    std::atomic<int> inside{0};
    std::atomic<int> runs{0};
    std::atomic<bool> overlapped{false};
    CFunctionThread thread([&] {
        if (inside.fetch_add(1) != 0)
            overlapped = true;
        Thread::Reschedule();
        runs.fetch_add(1);
        inside.fetch_sub(1);
    });
    RunConcurrently(3, [&](unsigned) {
        for (int round = 0; round < 50; ++round)
            thread.Run();
    });
    thread.Join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(runs, 150);
}

TEST(ThreadObject, RunEndsWhatWasRunning)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    thread.RunLooped();
    EXPECT_TRUE(Eventually([&] { return runs > 0; }));
    thread.RunLooped();
    EXPECT_FALSE(thread.GetStopFlag());
    thread.Run(); // joins the loop, then one pass
    EXPECT_TRUE(thread.GetStopFlag());
    thread.Join();
}

TEST(ThreadObject, CannotJoinItself)
{
    std::atomic<CFunctionThread*> self{nullptr};
    std::string join;
    std::string run;
    CFunctionThread thread([&] {
        join = MessageOf([&] { self.load()->Join(); });
        run = MessageOf([&] { self.load()->Run(); });
    });
    self = &thread;
    thread.RunLooped();
    EXPECT_TRUE(Eventually([&] { return thread.GetStopFlag(); })) << "the attempt ends the loop";
    thread.Join();
    EXPECT_EQ(join, "A thread cannot wait for its own end.");
    EXPECT_EQ(run, "A thread cannot wait for its own end.");
}

TEST(ThreadObject, APauseHoldsTheBodyBack)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    thread.SetPaused(true);
    thread.RunLooped();
    Thread::Sleep(20);
    EXPECT_EQ(runs, 0);
    thread.SetPaused(false);
    EXPECT_TRUE(Eventually([&] { return runs > 0; }));
    thread.SetPaused(true);
    thread.Join();
}

TEST(ThreadObject, JoinOverrulesAPause)
{
    std::atomic<int> runs{0};
    CFunctionThread thread([&] { ++runs; });
    thread.SetPaused(true);
    thread.Run();
    thread.Join();
    EXPECT_EQ(runs, 1) << "the body was still to run";
    thread.RunLooped();
    thread.Join();
    EXPECT_EQ(runs, 2);
}

TEST(ThreadObject, AnExceptionEndsTheThread)
{
    for (int kind = 0; kind < 3; ++kind) {
        std::atomic<int> runs{0};
        CFunctionThread thread([&] {
            ++runs;
            if (kind == 0)
                throw CException("one");
            if (kind == 1)
                throw std::runtime_error("two");
            throw 3;
        });
        thread.RunLooped();
        Thread::Sleep(5);
        thread.Join();
        EXPECT_EQ(runs, 1);
    }
}

VLMCORE_CHILD(ThrowsInThreads)
{
    Memory::Initialize(0, 0);
    for (int kind = 0; kind < 3; ++kind) {
        CFunctionThread thread([&] {
            if (kind == 0)
                throw CException("disk %d is full", 5);
            if (kind == 1)
                throw std::runtime_error("out of range");
            throw 3;
        });
        thread.Run();
        thread.Join();
    }
    return 0;
}

TEST(ThreadObject, ReportsTheExceptionThatEndedIt)
{
    if (!TestSupport::SystemTraits.debuggedProcessMayThrow)
        GTEST_SKIP() << "exceptions do not work in a process that this system debugs";
    auto const child = TestSupport::RunDebugged("ThrowsInThreads");
    EXPECT_EQ(child.exitCode, 0u);
    EXPECT_THAT(child.debuggerOutput, ::testing::MatchesRegex("Thread .+ ended by an exception: disk 5 is full\n"
                                                              "Thread .+ ended by an exception: out of range\n"
                                                              "Thread .+ ended by an exception: "
                                                              "an exception of an unknown type\n"));
}

TEST(ThreadObject, GetsTheStackItAskedFor)
{
    bool deep = false;
    struct SDeep {
        static u32 Descend(u32 levels)
        {
            char volatile frame[64 * 1024];
            frame[0] = static_cast<char>(levels);
            return levels == 0 ? 1 : Descend(levels - 1) + static_cast<u32>(frame[0] == static_cast<char>(levels));
        }
    };
    CFunctionThread thread([&] { deep = SDeep::Descend(192) == 193; }); // 12 MiB
    thread.SetStackSize(16u << 20);
    thread.Run();
    thread.Join();
    EXPECT_TRUE(deep);
    thread.SetStackSize(1);
    CFunctionThread small([&] { deep = false; });
    small.SetStackSize(1);
    small.Run();
    small.Join();
    EXPECT_FALSE(deep) << "a size too small is raised";
}

VLMCORE_CHILD(StartsWithoutMemory)
{
    int runs = 0;
    CFunctionThread thread([&] { ++runs; });
    try {
        thread.RunLooped();
        return 1;
    }
    catch (std::bad_alloc const&) {
    }
    if (thread.IsRunning() || !thread.GetStopFlag())
        return 2;
    Memory::Initialize(0, 0);
    thread.Run();
    thread.Join();
    return runs == 1 ? 0 : 3;
}

TEST(ThreadObject, IsIdleAfterAFailedStart)
{
    EXPECT_EQ(TestSupport::RunChild("StartsWithoutMemory").exitCode, 0u);
}

// Names

class CNamelessOne : public IThread {
public:
    ~CNamelessOne() override { Join(); }

protected:
    void Execute() override
    {
        // Where this file exists, debuggers take the name from it.
        std::ifstream file("/proc/thread-self/comm");
        std::string name;
        std::getline(file, name);
        std::printf("%s\n", name.c_str());
    }
};

template <class Argument>
class TNameless : public CNamelessOne {};

VLMCORE_CHILD(NamesThreads)
{
    Memory::Initialize(0, 0);
    CNamelessOne byClass;
    byClass.Run();
    byClass.Join();
    TNameless<std::string> byTemplate;
    byTemplate.Run();
    byTemplate.Join();
    CNamelessOne named;
    named.SetName("Given");
    named.Run();
    named.Join();
    named.SetName(u"n\u00E4mlich ein langer Name");
    named.Run();
    named.Join();
    return 0;
}

TEST(ThreadNames, DebuggersSeeThem)
{
    auto const child = TestSupport::RunDebugged("NamesThreads");
    EXPECT_EQ(child.exitCode, 0u);
    if (child.threadNames.empty()) {
        EXPECT_EQ(child.standardOutput, "CNamelessOne\nTNameless<std::\nGiven\nn\u00E4mlich ein la\n");
        return;
    }
    ASSERT_EQ(child.threadNames.size(), 4u);
    EXPECT_THAT(child.threadNames[0], ::testing::HasSubstr("CNamelessOne"));
    EXPECT_THAT(child.threadNames[0], ::testing::Not(::testing::HasSubstr("class")));
    EXPECT_THAT(child.threadNames[1], ::testing::HasSubstr("TNameless<std::"));
    EXPECT_LE(child.threadNames[1].size(), 64u);
    EXPECT_EQ(child.threadNames[2], "Given");
    EXPECT_EQ(child.threadNames[3], "n\u00E4mlich ein langer Name");
}

} // namespace
