// Labels: threads
// What of the thread pool shows only with timeouts shorter than the interface allows.
#include "TestHeap.h"
#include "support/ThreadHelpers.h"

#include "Core_ThreadPool.h"

#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

namespace Velmor {

struct SThreadPoolProbe {
    static void SetIdleTimeoutMs(CThreadPool& pool, f64 milliseconds) { pool.m_idleTimeout = milliseconds / 1000; }
    static u32 GetRunning(CThreadPool const& pool) { return pool.m_running; }
    static u32 GetAsleep(CThreadPool const& pool) { return pool.m_asleep; }
};

} // namespace Velmor

using namespace Velmor;
using TestSupport::Eventually;

namespace {

class CCountedJob : public IThreadJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override { ++runs; }

    int runs = 0;
};

/// Runs until `open` is set.
class CHeldJob : public IThreadJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override
    {
        while (!*open)
            Thread::Sleep(1);
    }

    std::atomic<bool> const* open = nullptr;
};

// Producers that claimed slots and were ended before they filled them: with stale items in their slots from before.
TEST(JobRing, SlotsOfProducersThatAreGoneArePublishedEmpty)
{
    Impl::TJobRing<std::atomic, int, 4> ring;
    u64 index = 0;
    int item = -1;
    for (int stale = 1; stale <= 3; ++stale) {
        ASSERT_TRUE(ring.TryClaim(index));
        ring.Publish(index, stale, [] { FAIL(); });
        ASSERT_TRUE(ring.TryTake(item));
    }
    ASSERT_TRUE(ring.TryClaim(index));
    ASSERT_TRUE(ring.TryClaim(index));
    ASSERT_TRUE(ring.TryClaim(index));
    int waits = 0;
    ring.Publish(index, 7, [&] {
        EXPECT_FALSE(ring.HasPublished());
        if (++waits == 3)
            ring.PublishForTheGone(index);
    });
    EXPECT_EQ(waits, 3);
    for (int const expected : {0, 0, 7}) {
        ASSERT_TRUE(ring.TryTake(item));
        EXPECT_EQ(item, expected);
    }
    EXPECT_FALSE(ring.TryTake(item));
}

TEST(ThreadPoolWorkers, StartOnlyWhenNeededAndAllRetire)
{
    CThreadPool pool(4);
    EXPECT_EQ(SThreadPoolProbe::GetRunning(pool), 0u);
    CCountedJob job;
    // Whether the first worker looks for the job, reaches for it, runs it or is done when the push looks: it is enough.
    pool.PushJob(&job);
    EXPECT_EQ(SThreadPoolProbe::GetRunning(pool), 1u);
    pool.WaitForJobs();
    pool.PushJob(&job);
    pool.WaitForJobs();
    EXPECT_EQ(SThreadPoolProbe::GetRunning(pool), 1u);
    std::vector<CCountedJob> jobs(300);
    for (auto& each : jobs)
        pool.PushJob(&each);
    pool.WaitForJobs();
    EXPECT_LE(SThreadPoolProbe::GetRunning(pool), 4u);
    SThreadPoolProbe::SetIdleTimeoutMs(pool, 1);
    EXPECT_TRUE(Eventually([&] { return SThreadPoolProbe::GetRunning(pool) == 0; }));
    pool.PushJob(&job);
    pool.WaitForJobs();
    EXPECT_EQ(job.runs, 3);
}

TEST(ThreadPoolWorkers, OneJobAtATimeNeedsOneWorker)
{
    for (int round = 0; round < 40; ++round) {
        CThreadPool pool(3);
        CCountedJob job;
        for (int push = 0; push < 3; ++push) {
            pool.PushJob(&job);
            ASSERT_EQ(SThreadPoolProbe::GetRunning(pool), 1u) << "round " << round << ", push " << push;
            pool.WaitForJobs();
        }
    }
}

TEST(ThreadPoolWorkers, EachJobBehindBusyWorkersStartsOneMore)
{
    for (int round = 0; round < 10; ++round) {
        std::atomic<bool> open{false};
        std::vector<CHeldJob> jobs(6);
        CThreadPool pool(4);
        for (u32 push = 1; push <= 6; ++push) {
            jobs[push - 1].open = &open;
            pool.PushJob(&jobs[push - 1]);
            ASSERT_EQ(SThreadPoolProbe::GetRunning(pool), push < 4 ? push : 4u);
        }
        open = true;
    }
}

TEST(ThreadPoolWorkers, FallAsleepAndAreWoken)
{
    CThreadPool pool(3);
    std::vector<CCountedJob> jobs(30);
    for (int round = 1; round <= 20; ++round) {
        for (auto& job : jobs)
            pool.PushJob(&job);
        pool.WaitForJobs();
        u32 const running = SThreadPoolProbe::GetRunning(pool);
        ASSERT_TRUE(Eventually([&] { return SThreadPoolProbe::GetAsleep(pool) == running; }));
        for (auto& job : jobs)
            ASSERT_EQ(job.runs, round);
    }
}

TEST(ThreadPoolWorkers, TheDestructorDoesNotWaitForASleeper)
{
    for (int round = 0; round < 20; ++round) {
        CThreadPool pool(2);
        CCountedJob job;
        pool.PushJob(&job);
        pool.WaitForJobs();
        if (round % 2 == 0) {
            ASSERT_TRUE(Eventually([&] { return SThreadPoolProbe::GetAsleep(pool) == 1; }));
        }
    }
}

TEST(ThreadPoolWorkersStress, RetiringLosesNothing)
{
    // A timeout so short that workers retire all the time, in the middle of pushes, starts and waits.
    unsigned const rounds = 1'000 * TestSupport::GetStressFactor();
    CThreadPool pool(3);
    SThreadPoolProbe::SetIdleTimeoutMs(pool, 0.001);
    TestSupport::RunConcurrently(3, [&](unsigned producer) {
        std::vector<CCountedJob> jobs(3);
        for (unsigned round = 1; round <= rounds; ++round) {
            for (auto& job : jobs)
                pool.PushJob(&job);
            if (producer == 0 && round % 16 == 0)
                Thread::Sleep(1);
            pool.WaitForJobs();
            for (auto& job : jobs)
                ASSERT_EQ(job.runs, static_cast<int>(round));
        }
    });
}

TEST(ThreadPoolWorkersStress, PoolsEndWhileWorkersRetire)
{
    unsigned const rounds = 100 * TestSupport::GetStressFactor();
    for (unsigned round = 0; round < rounds; ++round) {
        std::vector<CCountedJob> jobs(40);
        {
            CThreadPool pool(4);
            SThreadPoolProbe::SetIdleTimeoutMs(pool, 0.001);
            for (auto& job : jobs)
                pool.PushJob(&job);
        }
        for (auto& job : jobs)
            ASSERT_EQ(job.runs, 1);
    }
}

} // namespace
