#include "Core_ThreadPool.h"

#include "Core_Fork.h"

#include "platform/Platform_System.h"
#include "platform/Platform_Thread.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/memory.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Velmor {

namespace {

constexpr f64 DefaultIdleTimeout = 5.0;

u8 GetProcessorCount()
{
    return static_cast<u8>(std::min<u32>(Platform::GetProcessorCount(), 255));
}

} // namespace

// The worker

#if defined(__GNUC__)
#  pragma GCC diagnostic push
#  pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
struct SWorkerLayout {
    static_assert(offsetof(CWorkerThread, m_lastActive) == sizeof(IThread));
    static_assert(offsetof(CWorkerThread, m_pool) == sizeof(IThread) + 8);
    static_assert(offsetof(CWorkerThread, m_busy) == sizeof(IThread) + 16);
};
#if defined(__GNUC__)
#  pragma GCC diagnostic pop
#endif

CWorkerThread::CWorkerThread(CThreadPool& pool) : m_lastActive(System::GetTimeMs()), m_pool(&pool)
{
    SetName("Threadpool worker");
}

void CWorkerThread::Restart()
{
    Join();
    m_lastActive = System::GetTimeMs();
    m_worked = true;
    RunLooped();
}

void CWorkerThread::Stop()
{
    SetStopFlag(true);
    Wake();
}

void CWorkerThread::Wake()
{
    if (m_asleep.exchange(0, std::memory_order_seq_cst) != 0) {
        m_pool->m_asleep.fetch_sub(1, std::memory_order_seq_cst);
        Platform::WakeSleeper(m_asleep);
    }
}

void CWorkerThread::Execute()
{
    IThreadJob* const job = TryTake();
    if (job != nullptr)
        WorkOff(job);
    else
        Rest();
}

/// The next job, the worker then being busy; null when there is none.
IThreadJob* CWorkerThread::TryTake()
{
    if (!m_pool->m_ring.HasPublished())
        return nullptr;
    SetState(EState::Reaching); // shown by the move of the read index at the latest
    IThreadJob* job = nullptr;
    // A null is the place of a push that failed.
    while (m_pool->m_ring.TryTake(job)) {
        if (job != nullptr) {
            SetState(EState::Working);
            return job;
        }
    }
    SetState(EState::Idle);
    return nullptr;
}

/// Runs a job and what it put by, and is idle again.
void CWorkerThread::WorkOff(IThreadJob* job)
{
    RunJob(job);
    for (u64 next = 0; next < m_putBy.GetCount(); ++next) {
        // The other workers get their share, the oldest stays here: a full ring must not stop this worker.
        while (next + 1 < m_putBy.GetCount() && m_pool->TryQueue(m_putBy[next]))
            ++next;
        RunJob(m_putBy[next]);
    }
    m_putBy.Clear();
    m_worked = true;
    SetState(EState::Idle);
}

void CWorkerThread::RunJob(IThreadJob* job) noexcept
{
    try {
        job->Execute();
    }
    catch (...) { // a job's errors are the job's
    }
    try {
        if (job->AutoDelete()) {
            void* const memory = dynamic_cast<void*>(job);
            job->~IThreadJob();
            Memory::FreeQuietly(memory);
        }
    }
    catch (...) { // a job that cannot say whose it is stays its owner's
    }
}

/// A pass without a job: waits a little, the longer the more often in a row, and retires after the timeout. Busy at
/// first, then yielding, then asleep for a millisecond and twice as long each time, so that a pool of any size costs
/// nothing in the end; a push ends the sleep.
void CWorkerThread::Rest()
{
    f64 const now = System::GetTimeMs();
    if (m_worked) {
        m_worked = false;
        m_lastActive = now;
        m_backoff.Reset();
        m_nextSleep = 1;
    }
    f64 const timeout = m_pool->m_idleTimeout.load(std::memory_order_relaxed);
    if (timeout > 0 && now - m_lastActive > timeout * 1000) {
        if (m_pool->TryRetire(*this))
            return;
    }
    if (!m_backoff.TryWaitAwake())
        Sleep();
}

/// Either this thread sees the claim of a producer or the stop flag here, or who made it sees this thread asleep.
void CWorkerThread::Sleep()
{
    m_asleep.store(1, std::memory_order_seq_cst);
    m_pool->m_asleep.fetch_add(1, std::memory_order_seq_cst);
    if (m_pool->m_ring.IsEmpty() && !GetStopFlag())
        Platform::SleepOn(m_asleep, 1, m_nextSleep);
    if (m_asleep.exchange(0, std::memory_order_seq_cst) != 0)
        m_pool->m_asleep.fetch_sub(1, std::memory_order_seq_cst);
    m_nextSleep = std::min(m_nextSleep * 2, LongestSleep);
}

void CWorkerThread::StartOver()
{
    Fork::ForgetThread(*this);
    SetState(EState::Idle);
    m_asleep.store(0, std::memory_order_relaxed);
    ::new (&m_putBy) TVector<IThreadJob*, 1>; // the list may be half changed
}

/// A pool in a copy of the process: it is as at its beginning. What waited or ran is the original's to do.
struct SThreadPoolFork {
    static void Follow(void* object, EFork moment)
    {
        CThreadPool& pool = *static_cast<CThreadPool*>(object);
        if (moment == EFork::Before)
            pool.m_lock.Acquire();
        else {
            if (moment == EFork::InCopy)
                StartOver(pool);
            pool.m_lock.TryRelease();
        }
    }

private:
    static void StartOver(CThreadPool& pool)
    {
        if (!Memory::IsInitialized()) // the workers' memory went with the heap
            return;
        pool.m_ring.Clear();
        pool.m_asleep.store(0, std::memory_order_relaxed);
        u32 running = 0;
        for (CWorkerThread* const worker : pool.m_workers)
            if (worker->GetThreadId() == Thread::GetId()) { // a job made the copy
                Fork::FollowThread(*worker);
                ++running;
            }
            else
                worker->StartOver();
        pool.m_running.store(running, std::memory_order_release);
    }
};

// The pool

CThreadPool::CThreadPool() : CThreadPool(GetProcessorCount()) {}

CThreadPool::CThreadPool(unsigned char maxWorkers)
    : m_idleTimeout(DefaultIdleTimeout), m_running(0), m_asleep(0), m_maxWorkers(maxWorkers != 0 ? maxWorkers : u8{1})
{
    try {
        CreateWorkers();
    }
    catch (...) {
        DestroyWorkers();
        throw;
    }
    Fork::Enrol(EForkRank::Pools, this, &SThreadPoolFork::Follow);
}

CThreadPool::~CThreadPool()
{
    Fork::Withdraw(this);
    if (!Memory::IsInitialized()) // the workers' memory went with the heap
        return;
    m_idleTimeout.store(0, std::memory_order_relaxed);
    // A job that ends the process destroys its own pool, if that is a static: it waits for the others only, and its
    // worker, which nobody comes back to, stays.
    if (FindCallingWorker() == nullptr)
        WaitForJobs();
    // A worker may be about to retire; without the lock it stays where it is in the array.
    m_lock.Acquire();
    DestroyWorkers();
}

void CThreadPool::CreateWorkers()
{
    m_workers.Reserve(m_maxWorkers);
    while (m_workers.GetCount() < m_maxWorkers)
        m_workers.Append(Memory::New<CWorkerThread>(EHeap::Pool, *this));
}

void CThreadPool::DestroyWorkers()
{
    for (CWorkerThread* const worker : m_workers)
        worker->Stop();
    for (u64 index = m_workers.GetCount(); index > 0; --index) {
        CWorkerThread* const worker = m_workers[index - 1];
        if (worker->GetThreadId() == Thread::GetId() && worker->IsBusy())
            continue;
        worker->Join();
        Memory::Delete(worker);
    }
}

void CThreadPool::PushJob(IThreadJob* job)
{
    if (job == nullptr)
        return;
    CWorkerThread* caller = nullptr;
    CBackoff backoff(CBackoff::ManyYields);
    u64 index = 0;
    for (;;) {
        if (m_running.load(std::memory_order_seq_cst) == 0)
            StartFirstWorker();
        if (m_ring.TryClaim(index))
            break;
        if (caller == nullptr)
            caller = FindCallingWorker();
        if (caller != nullptr) {
            caller->PutBy(job);
            return;
        }
        if (backoff.IsInVain())
            return; // the job is lost, as those are that wait: the workers have been ended with the process
        backoff.Wait();
    }
    if (m_running.load(std::memory_order_seq_cst) == 0) { // the last worker retired before it could see the claim
        try {
            StartFirstWorker();
        }
        catch (...) {
            Publish(index, nullptr);
            throw;
        }
    }
    Publish(index, job);
    if (m_running.load(std::memory_order_seq_cst) < m_maxWorkers || m_asleep.load(std::memory_order_seq_cst) != 0)
        CallHelper();
}

/// Queues without waiting; false when there is no room. For workers: one is running.
bool CThreadPool::TryQueue(IThreadJob* job)
{
    u64 index = 0;
    if (!m_ring.TryClaim(index))
        return false;
    Publish(index, job);
    return true;
}

/// Waits while one of the slots before is still due.
void CThreadPool::Publish(u64 index, IThreadJob* job)
{
    CBackoff backoff(CBackoff::ManyYields);
    m_ring.Publish(index, job, [&] {
        if (backoff.IsInVain())
            m_ring.PublishForTheGone(index);
        backoff.Wait();
    });
}

void CThreadPool::StartFirstWorker()
{
    TScopedLock lock(m_lock);
    if (m_running.load(std::memory_order_relaxed) == 0)
        StartWorker();
}

/// When more jobs wait than workers are looking for one: wakes or starts one more.
///
/// The jobs that waited before the workers were counted and those that still wait afterwards are two bounds of the
/// need, as workers that reach out for a job are of who meets it. What lies between is looked at again: a worker that
/// has just set out must not cost a thread, nor one that has just been lost a job its time.
void CThreadPool::CallHelper()
{
    TScopedLock lock(m_lock);
    CWorkerThread* sleeper = nullptr;
    CBackoff backoff;
    for (;;) {
        u64 const takenBefore = m_ring.GetTaken();
        u64 looking = 0;
        u64 reaching = 0;
        sleeper = nullptr;
        for (CWorkerThread* const worker : m_workers) {
            if (worker->IsStopped())
                continue;
            CWorkerThread::EState const state = worker->GetState();
            if (state == CWorkerThread::EState::Reaching)
                ++reaching;
            else if (state == CWorkerThread::EState::Idle && worker->IsAsleep())
                sleeper = worker;
            else if (state == CWorkerThread::EState::Idle)
                ++looking;
        }
        u64 const reserved = m_ring.GetReserved();
        if (reserved <= takenBefore + looking)
            return;
        if (reserved > m_ring.GetTaken() + looking + reaching)
            break;
        if (backoff.IsInVain())
            return;
        backoff.Wait();
    }
    if (sleeper != nullptr) {
        sleeper->Wake();
        return;
    }
    if (m_running.load(std::memory_order_relaxed) >= m_maxWorkers)
        return;
    try {
        StartWorker();
    }
    catch (...) { // the running workers will do
    }
}

/// Under the lock.
void CThreadPool::StartWorker()
{
    FindStoppedWorker().Restart();
    m_running.fetch_add(1, std::memory_order_seq_cst);
}

/// The worker behind the running ones, if it is stopped: retiring does not keep the running ones in front.
CWorkerThread& CThreadPool::FindStoppedWorker() const
{
    u64 const count = m_workers.GetCount();
    u64 index = m_running.load(std::memory_order_relaxed);
    while (!m_workers[index % count]->IsStopped())
        ++index;
    return *m_workers[index % count];
}

CWorkerThread* CThreadPool::FindCallingWorker() const
{
    u32 const threadId = Thread::GetId();
    TScopedLock lock(m_lock);
    for (CWorkerThread* const worker : m_workers) {
        if (worker->GetThreadId() == threadId && !worker->IsStopped())
            return worker;
    }
    return nullptr;
}

/// Called by an idle worker, which ends after this pass when the answer is true. Only tries the lock: who holds it may
/// be waiting for this very worker to end.
bool CThreadPool::TryRetire(CWorkerThread& worker)
{
    if (!m_lock.TryAcquire())
        return false;
    bool const leaves = Impl::TryLeave(m_ring, m_running);
    if (leaves) {
        worker.Stop();
        u64 index = 0;
        while (m_workers[index] != &worker)
            ++index;
        std::swap(m_workers[index], m_workers[m_workers.GetCount() - 1]);
    }
    m_lock.TryRelease();
    return leaves;
}

void CThreadPool::WaitForJobs() const
{
    if (FindCallingWorker() != nullptr)
        throw CException("A job cannot wait for its own thread pool.");
    auto const isAnyBusy = [this] {
        return std::any_of(m_workers.begin(), m_workers.end(),
                           [](CWorkerThread const* worker) { return worker->IsBusy(); });
    };
    CBackoff backoff(CBackoff::ManyYields);
    for (;;) {
        if (m_ring.IsEmpty()) {
            TScopedLock lock(m_lock);
            if (Impl::IsDrained(m_ring, isAnyBusy))
                return;
        }
        if (backoff.IsInVain())
            return; // the workers have been ended with the process
        backoff.Wait();
    }
}

bool CThreadPool::IsEmpty() const
{
    return m_ring.IsEmpty();
}

void CThreadPool::SetIdleTimeout(u64 seconds)
{
    m_idleTimeout.store(static_cast<f64>(seconds), std::memory_order_relaxed);
}

unsigned char CThreadPool::GetMaxNumWorkerThreads() const
{
    return m_maxWorkers;
}

} // namespace Velmor
