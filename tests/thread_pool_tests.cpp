// Labels: threads
#include "TestHeap.h"
#include "support/DebuggedProcess.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Velmor;
using TestSupport::CFunctionThread;
using TestSupport::Eventually;
using TestSupport::RunConcurrently;

namespace {

std::atomic<int> g_jobsAlive{0};

/// A job of the pool's, gone after it ran.
class CFunctionJob : public IThreadJob {
public:
    explicit CFunctionJob(std::function<void()> body) : m_body(std::move(body)) { ++g_jobsAlive; }
    ~CFunctionJob() override { --g_jobsAlive; }
    void Execute() override { m_body(); }

private:
    std::function<void()> m_body;
};

/// A job of the test's, which counts its runs.
class COwnedJob : public IThreadJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override { ++runs; }

    int runs = 0; // not atomic: WaitForJobs is what makes it visible
};

void Push(CThreadPool& pool, std::function<void()> body)
{
    pool.PushJob(Memory::New<CFunctionJob>(EHeap::Pool, std::move(body)));
}

/// Keeps a pool's worker busy until it goes.
class CGate {
public:
    explicit CGate(CThreadPool& pool) : m_pool(pool)
    {
        Push(pool, [this] {
            m_entered = true;
            while (!m_open)
                Thread::Reschedule();
        });
        EXPECT_TRUE(Eventually([this] { return m_entered.load(); }));
    }
    ~CGate() { Open(); }
    void Open()
    {
        m_open = true;
        m_pool.WaitForJobs();
    }

private:
    CThreadPool& m_pool;
    std::atomic<bool> m_entered{false};
    std::atomic<bool> m_open{false};
};

TEST(ThreadPool, KnowsItsMostWorkers)
{
    EXPECT_EQ(CThreadPool(3).GetMaxNumWorkerThreads(), 3);
    EXPECT_EQ(CThreadPool(0).GetMaxNumWorkerThreads(), 1);
    EXPECT_EQ(CThreadPool(255).GetMaxNumWorkerThreads(), 255);
    System::SCPUInfo info;
    System::GetCPUInfo(info);
    EXPECT_EQ(CThreadPool().GetMaxNumWorkerThreads(), info.processorCount);
}

TEST(ThreadPool, WithoutJobsItIsEmptyAndDone)
{
    CThreadPool pool(2);
    EXPECT_TRUE(pool.IsEmpty());
    pool.WaitForJobs();
    pool.PushJob(nullptr);
    EXPECT_TRUE(pool.IsEmpty());
}

TEST(ThreadPool, RunsEveryJobOnceAndFreesIt)
{
    Memory::SStatistics before;
    ASSERT_TRUE(Memory::GetStatistics(before));
    {
        std::atomic<int> runs{0};
        CThreadPool pool(3);
        for (int job = 0; job < 1000; ++job)
            Push(pool, [&] { ++runs; });
        pool.WaitForJobs();
        EXPECT_EQ(runs, 1000);
        EXPECT_EQ(g_jobsAlive, 0);
        EXPECT_TRUE(pool.IsEmpty());
    }
    Memory::SStatistics after;
    ASSERT_TRUE(Memory::GetStatistics(after));
    for (int pool = 0; pool < 4; ++pool)
        EXPECT_EQ(after.pools[pool].liveCount, before.pools[pool].liveCount);
}

TEST(ThreadPool, JobsRunInOrderOnOneWorker)
{
    std::vector<int> order;
    CThreadPool pool(1);
    for (int job = 0; job < 600; ++job)
        Push(pool, [&order, job] { order.push_back(job); });
    pool.WaitForJobs();
    ASSERT_EQ(order.size(), 600u);
    for (int job = 0; job < 600; ++job)
        EXPECT_EQ(order[static_cast<std::size_t>(job)], job);
}

TEST(ThreadPool, AJobWithoutAutoDeleteIsLeftToItsOwner)
{
    COwnedJob job;
    CThreadPool pool(2);
    for (int round = 1; round <= 500; ++round) {
        pool.PushJob(&job);
        pool.WaitForJobs();
        ASSERT_EQ(job.runs, round);
    }
}

/// The job's address is not the address of its memory.
struct SFirstBase {
    virtual ~SFirstBase() = default;
    u64 filler = 0;
};
class CSecondBaseJob : public SFirstBase, public CFunctionJob {
public:
    using CFunctionJob::CFunctionJob;
};

TEST(ThreadPool, FreesAJobThatIsASecondBase)
{
    Memory::SStatistics before;
    ASSERT_TRUE(Memory::GetStatistics(before));
    {
        CThreadPool pool(1);
        pool.PushJob(Memory::New<CSecondBaseJob>(EHeap::Pool16, [] {}));
        pool.WaitForJobs();
        EXPECT_EQ(g_jobsAlive, 0);
    }
    Memory::SStatistics after;
    ASSERT_TRUE(Memory::GetStatistics(after));
    EXPECT_EQ(after.pools[3].liveCount, before.pools[3].liveCount);
}

TEST(ThreadPool, DropsTheExceptionsOfJobs)
{
    std::atomic<int> runs{0};
    CThreadPool pool(1);
    Push(pool, [] { throw CException("one"); });
    Push(pool, [] { throw std::runtime_error("two"); });
    Push(pool, [] { throw 3; });
    Push(pool, [&] { ++runs; });
    pool.WaitForJobs();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(g_jobsAlive, 0);
}

TEST(ThreadPool, The256thWaitingJobBlocks)
{
    std::atomic<int> runs{0};
    CThreadPool pool(1);
    CGate gate(pool); // taken, not waiting
    for (int job = 0; job < 255; ++job)
        Push(pool, [&] { ++runs; });
    EXPECT_FALSE(pool.IsEmpty());
    std::atomic<bool> pushed{false};
    CFunctionThread producer([&] {
        Push(pool, [&] { ++runs; });
        pushed = true;
    });
    producer.Run();
    Thread::Sleep(50);
    EXPECT_FALSE(pushed);
    EXPECT_EQ(runs, 0);
    gate.Open();
    producer.Join();
    pool.WaitForJobs();
    EXPECT_EQ(runs, 256);
}

TEST(ThreadPool, AJobDoesNotWaitBehindABusyWorker)
{
    // The first job ends only when the second has run; the pool must give the second a worker of its own.
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> first{false};
        std::atomic<bool> second{false};
        bool met = false;
        CThreadPool pool(2);
        Push(pool, [&] {
            first = true;
            met = Eventually([&] { return second.load(); });
        });
        ASSERT_TRUE(Eventually([&] { return first.load(); }));
        Push(pool, [&] { second = true; });
        pool.WaitForJobs();
        ASSERT_TRUE(met);
    }
}

TEST(ThreadPool, AnIdleWorkerIsUsedAgain)
{
    std::atomic<u32> ids[20] = {};
    CThreadPool pool(8);
    for (auto& id : ids) {
        Push(pool, [&] { id = Thread::GetId(); });
        pool.WaitForJobs();
    }
    for (auto& id : ids)
        EXPECT_EQ(id, ids[0]);
}

TEST(ThreadPool, AllWorkersRunAtOnce)
{
    std::atomic<int> inside{0};
    std::atomic<int> met{0};
    CThreadPool pool(5);
    for (int job = 0; job < 5; ++job) {
        Push(pool, [&] {
            ++inside;
            if (Eventually([&] { return inside == 5; }))
                ++met;
        });
    }
    pool.WaitForJobs();
    EXPECT_EQ(met, 5);
}

/// Pushes two jobs like itself until the depth is used up.
void PushTree(CThreadPool& pool, std::atomic<int>& runs, int depth)
{
    Push(pool, [&pool, &runs, depth] {
        ++runs;
        if (depth > 1) {
            PushTree(pool, runs, depth - 1);
            PushTree(pool, runs, depth - 1);
        }
    });
}

TEST(ThreadPool, WaitsForJobsThatJobsPush)
{
    for (unsigned char workers = 1; workers <= 4; ++workers) {
        for (int round = 0; round < 5; ++round) {
            std::atomic<int> runs{0};
            CThreadPool pool(workers);
            PushTree(pool, runs, 10); // more than the ring holds
            pool.WaitForJobs();
            EXPECT_EQ(runs, 1023);
            EXPECT_EQ(g_jobsAlive, 0);
        }
    }
}

TEST(ThreadPool, AJobMayPushMoreThanTheRingHolds)
{
    for (unsigned char workers = 1; workers <= 2; ++workers) {
        std::atomic<int> runs{0};
        CThreadPool pool(workers);
        Push(pool, [&] {
            for (int job = 0; job < 2000; ++job)
                Push(pool, [&] { ++runs; });
        });
        pool.WaitForJobs();
        EXPECT_EQ(runs, 2000);
    }
}

TEST(ThreadPool, WaitingMakesTheJobsWorkVisible)
{
    CThreadPool pool(4);
    std::vector<u64> results(400, 0);
    for (u64 round = 1; round <= 20; ++round) {
        for (u64& result : results)
            Push(pool, [&result] { ++result; });
        pool.WaitForJobs();
        for (u64 const result : results)
            ASSERT_EQ(result, round);
    }
}

TEST(ThreadPool, AJobCannotWaitForItsOwnPool)
{
    std::string text;
    CThreadPool pool(2);
    CThreadPool other(1);
    bool waitedForOther = false;
    Push(pool, [&] {
        other.WaitForJobs();
        waitedForOther = true;
        try {
            pool.WaitForJobs();
        }
        catch (CException const& exception) {
            text = static_cast<char const*>(exception.GetText().GetData());
        }
    });
    pool.WaitForJobs();
    EXPECT_TRUE(waitedForOther);
    EXPECT_EQ(text, "A job cannot wait for its own thread pool.");
}

TEST(ThreadPool, TheDestructorRunsWhatIsQueued)
{
    std::atomic<int> runs{0};
    {
        CThreadPool pool(2);
        for (int job = 0; job < 300; ++job)
            Push(pool, [&] { ++runs; });
    }
    EXPECT_EQ(runs, 300);
    EXPECT_EQ(g_jobsAlive, 0);
}

/// Raises a flag when the thread ends that runs Arm.
struct SThreadEnd {
    std::atomic<bool>* flag = nullptr;
    ~SThreadEnd()
    {
        if (flag != nullptr)
            *flag = true;
    }
};
thread_local SThreadEnd t_threadEnd;

TEST(ThreadPool, WorkersEndAfterTheIdleTimeoutAndStartAgain)
{
    std::atomic<bool> ended[3] = {}; // outlives the pools' threads
    CThreadPool pools[3] = {CThreadPool(1), CThreadPool(1), CThreadPool(1)};
    pools[0].SetIdleTimeout(1);
    pools[1].SetIdleTimeout(0);
    for (int index = 0; index < 3; ++index)
        Push(pools[index], [&, index] { t_threadEnd.flag = &ended[index]; });
    for (auto& pool : pools)
        pool.WaitForJobs();
    Thread::Sleep(500);
    EXPECT_FALSE(ended[0]);
    Thread::Sleep(1500);
    EXPECT_TRUE(ended[0]);
    EXPECT_FALSE(ended[2]) << "5 seconds by default";
    int runs = 0;
    Push(pools[0], [&] { ++runs; });
    pools[0].WaitForJobs();
    EXPECT_EQ(runs, 1);
    Thread::Sleep(4500);
    EXPECT_FALSE(ended[1]) << "0 is never";
    EXPECT_TRUE(ended[2]);
}

// Failures

std::atomic<bool> g_refuse{false};
std::atomic<int> g_refuseFrom{-1};
std::atomic<long> g_blocks{0};

void* Allocate(u64 size)
{
    if (g_refuse || (g_refuseFrom >= 0 && g_refuseFrom-- == 0))
        return nullptr;
    ++g_blocks;
    return std::malloc(size);
}
void* Reallocate(void* block, u64 size)
{
    return std::realloc(block, size);
}
void Release(void* block)
{
    g_blocks -= block != nullptr ? 1 : 0;
    std::free(block);
}

VLMCORE_CHILD(PushesWithoutMemory)
{
    Memory::Initialize(&Allocate, &Reallocate, &Release, EHeapFlag::Passthrough, 0);
    COwnedJob job;
    CThreadPool pool(2);
    g_refuse = true;
    for (int attempt = 0; attempt < 600; ++attempt) { // more than there are slots
        try {
            pool.PushJob(&job);
            return 1;
        }
        catch (std::bad_alloc const&) {
        }
        if (!pool.IsEmpty())
            return 2;
    }
    pool.WaitForJobs();
    g_refuse = false;
    pool.PushJob(&job);
    pool.WaitForJobs();
    return job.runs == 1 ? 0 : 3;
}

TEST(ThreadPool, WithoutAFirstWorkerNothingIsQueued)
{
    EXPECT_EQ(TestSupport::RunChild("PushesWithoutMemory").exitCode, 0u);
}

VLMCORE_CHILD(ConstructsWithLittleMemory)
{
    Memory::Initialize(&Allocate, &Reallocate, &Release, EHeapFlag::Passthrough, 0);
    Memory::Free(Memory::Malloc(8, EHeap::Pool)); // the record table is there
    long const before = g_blocks;
    int failures = 0;
    for (int allowed = 0; allowed < 100; ++allowed) {
        g_refuseFrom = allowed;
        try {
            CThreadPool pool(4);
            bool const reached = g_refuseFrom >= 0;
            g_refuseFrom = -1;
            return reached && g_blocks > before ? failures : -1;
        }
        catch (std::bad_alloc const&) {
            ++failures;
        }
        if (g_blocks != before)
            return -2;
    }
    return -3;
}

TEST(ThreadPool, AConstructionThatFailsGivesEverythingBack)
{
    EXPECT_EQ(TestSupport::RunChild("ConstructsWithLittleMemory").exitCode, 5u); // the array and four workers
}

// Stress

TEST(ThreadPoolStress, EightProducersLoseAndRepeatNothing)
{
    constexpr unsigned Producers = 8;
    unsigned const jobsEach = 12'500 * TestSupport::GetStressFactor(); // factor 10: a million jobs
    std::vector<COwnedJob> jobs(Producers * jobsEach);
    CThreadPool pool(3);
    RunConcurrently(Producers, [&](unsigned producer) {
        for (unsigned job = 0; job < jobsEach; ++job)
            pool.PushJob(&jobs[producer * jobsEach + job]);
    });
    pool.WaitForJobs();
    for (COwnedJob const& job : jobs)
        ASSERT_EQ(job.runs, 1);
}

TEST(ThreadPoolStress, ManyWaitersSeeEveryJobDone)
{
    unsigned const rounds = 100 * TestSupport::GetStressFactor();
    CThreadPool pool(3);
    RunConcurrently(4, [&](unsigned) {
        for (unsigned round = 0; round < rounds; ++round) {
            std::atomic<int> runs{0};
            PushTree(pool, runs, 5);
            pool.WaitForJobs(); // the others' jobs as well
            ASSERT_EQ(runs, 31);
        }
    });
}

} // namespace
