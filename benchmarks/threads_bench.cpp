// Locks against the standard library's mutexes; thread starts against std::thread; the thread pool against oneTBB's
// task group and against a bounded ring under one mutex.
#include "waiting.h"

#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#ifdef BENCH_TBB
#  include <tbb/global_control.h>
#  include <tbb/task_group.h>
#endif

using namespace Velmor;

namespace {

using Waiting::Clock;

// Locks

template <class Lock>
void BenchPair(benchmark::State& state)
{
    static Lock lock;
    static u64 counter = 0;
    for (auto _ : state) {
        if constexpr (requires { lock.Acquire(); }) {
            TScopedLock guard(lock);
            benchmark::DoNotOptimize(++counter);
        }
        else {
            std::lock_guard guard(lock);
            benchmark::DoNotOptimize(++counter);
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BenchPair<CSpinLock>)->Name("Threads/LockPair/ours")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BenchPair<std::mutex>)->Name("Threads/LockPair/std_mutex")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BenchPair<CRecursiveSpinLock>)->Name("Threads/RecursiveLockPair/ours")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BenchPair<std::recursive_mutex>)
    ->Name("Threads/RecursiveLockPair/std_recursive_mutex")
    ->Threads(1)
    ->Threads(2)
    ->UseRealTime();

void BenchThreadId(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(Thread::GetId());
}
BENCHMARK(BenchThreadId)->Name("Threads/Id/ours");

void BenchStandardThreadId(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::this_thread::get_id());
}
BENCHMARK(BenchStandardThreadId)->Name("Threads/Id/std_this_thread");

// Threads

class CEmptyThread : public IThread {
public:
    ~CEmptyThread() override { Join(); }

protected:
    void Execute() override {}
};

void BenchStart(benchmark::State& state)
{
    CEmptyThread thread;
    thread.SetName("empty");
    for (auto _ : state) {
        thread.Run();
        thread.Join();
    }
}
BENCHMARK(BenchStart)->Name("Threads/StartAndJoin/ours")->UseRealTime();

void BenchStandardStart(benchmark::State& state)
{
    for (auto _ : state)
        std::thread([] {}).join();
}
BENCHMARK(BenchStandardStart)->Name("Threads/StartAndJoin/std_thread")->UseRealTime();

// Jobs: one thread pushes batches of empty jobs and waits for each batch

constexpr int BatchSize = 100'000;

void CountJobs(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * BatchSize);
}

class CEmptyJob : public IThreadJob {
public:
    void Execute() override {}
};
class CKeptJob : public CEmptyJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
};

void BenchJobs(benchmark::State& state)
{
    CThreadPool pool(static_cast<unsigned char>(state.range(0)));
    for (auto _ : state) {
        for (int job = 0; job < BatchSize; ++job)
            pool.PushJob(Memory::New<CEmptyJob>(EHeap::Pool));
        pool.WaitForJobs();
    }
    CountJobs(state);
}
BENCHMARK(BenchJobs)->Name("Threads/EmptyJobsAllocated/ours")->Arg(1)->Arg(2)->UseRealTime();

void BenchKeptJobs(benchmark::State& state)
{
    CThreadPool pool(static_cast<unsigned char>(state.range(0)));
    CKeptJob kept;
    for (auto _ : state) {
        for (int job = 0; job < BatchSize; ++job)
            pool.PushJob(&kept);
        pool.WaitForJobs();
    }
    CountJobs(state);
}
BENCHMARK(BenchKeptJobs)->Name("Threads/EmptyJobs/ours")->Arg(1)->Arg(2)->UseRealTime();

#ifdef BENCH_TBB
void BenchTaskGroup(benchmark::State& state)
{
    tbb::global_control control(tbb::global_control::max_allowed_parallelism,
                                static_cast<std::size_t>(state.range(0)) + 1);
    tbb::task_group group;
    for (auto _ : state) {
        for (int job = 0; job < BatchSize; ++job)
            group.run([] {});
        group.wait();
    }
    CountJobs(state);
}
BENCHMARK(BenchTaskGroup)->Name("Threads/EmptyJobs/onetbb_task_group")->Arg(1)->Arg(2)->UseRealTime();
#endif

/// What one writes first: a bounded ring, a mutex and two condition variables.
class CMutexPool {
public:
    explicit CMutexPool(int workers)
    {
        for (int worker = 0; worker < workers; ++worker)
            m_threads.emplace_back([this] { Work(); });
    }
    ~CMutexPool()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_filled.notify_all();
        for (auto& thread : m_threads)
            thread.join();
    }
    void Push(IThreadJob* job)
    {
        std::unique_lock lock(m_mutex);
        m_drained.wait(lock, [this] { return m_write - m_read < 256; });
        m_ring[m_write++ % 256] = job;
        lock.unlock();
        m_filled.notify_one();
    }
    void Wait()
    {
        std::unique_lock lock(m_mutex);
        m_drained.wait(lock, [this] { return m_write == m_read && m_busy == 0; });
    }

private:
    void Work()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_filled.wait(lock, [this] { return m_stop || m_write != m_read; });
            if (m_write == m_read)
                return;
            IThreadJob* const job = m_ring[m_read++ % 256];
            ++m_busy;
            lock.unlock();
            job->Execute();
            lock.lock();
            --m_busy;
            m_drained.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::condition_variable m_drained;
    IThreadJob* m_ring[256] = {};
    u64 m_read = 0;
    u64 m_write = 0;
    int m_busy = 0;
    bool m_stop = false;
    std::vector<std::thread> m_threads;
};

void BenchMutexRing(benchmark::State& state)
{
    CMutexPool pool(static_cast<int>(state.range(0)));
    CKeptJob kept;
    for (auto _ : state) {
        for (int job = 0; job < BatchSize; ++job)
            pool.Push(&kept);
        pool.Wait();
    }
    CountJobs(state);
}
BENCHMARK(BenchMutexRing)->Name("Threads/EmptyJobs/mutex_ring")->Arg(1)->Arg(2)->UseRealTime();

// Waking up: from before the push to the first instruction of the job, after the pool was idle for a while

class CStampJob : public IThreadJob {
public:
    [[nodiscard]] bool AutoDelete() const override { return false; }
    void Execute() override
    {
        at = Clock::now();
        done.store(true, std::memory_order_release);
    }

    Clock::time_point at;
    std::atomic<bool> done{false};
};

void WaitBusily(std::chrono::microseconds duration)
{
    auto const end = Clock::now() + duration;
    while (Clock::now() < end)
        benchmark::ClobberMemory();
}

void BenchWake(benchmark::State& state, bool asleep)
{
    CThreadPool pool(static_cast<unsigned char>(state.range(0)));
    CStampJob job;
    Waiting::CLatencies latencies(state);
    for (auto _ : state) {
        if (asleep)
            latencies.Rest();
        else
            WaitBusily(std::chrono::microseconds(20));
        job.done = false;
        auto const from = Clock::now();
        pool.PushJob(&job);
        while (!job.done.load(std::memory_order_acquire))
            std::this_thread::yield();
        latencies.Add(job.at - from);
        pool.WaitForJobs();
    }
}
BENCHMARK_CAPTURE(BenchWake, spinning, false)
    ->Name("Threads/WakeWhileSpinning/ours")
    ->Arg(1)
    ->Iterations(2000)
    ->UseManualTime();
BENCHMARK_CAPTURE(BenchWake, asleep, true)
    ->Name("Threads/WakeFromSleep/ours")
    ->Arg(1)
    ->Arg(2)
    ->Iterations(100)
    ->UseManualTime();

/// The pool has nothing to do.
void BenchIdle(benchmark::State& state)
{
    CThreadPool pool(static_cast<unsigned char>(state.range(0)));
    pool.SetIdleTimeout(0);
    std::vector<CStampJob> jobs(static_cast<std::size_t>(state.range(0)) * 50);
    for (auto& job : jobs)
        pool.PushJob(&job);
    pool.WaitForJobs();
    Waiting::MeasureIdle(state);
}
BENCHMARK(BenchIdle)->Name("Threads/IdlePool/ours")->Arg(1)->Arg(2)->Arg(8)->Iterations(2)->UseManualTime();

} // namespace

int main(int argumentCount, char** arguments)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&argumentCount, arguments);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Memory::Deinitialize();
    return 0;
}
