/// \file
/// Threads and the thread pool. (Locks: impl/Core_Lock.h.)
///
/// Derive from IThread for a thread with a life of its own; give jobs to a CThreadPool for everything short.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_JobRing.h>
#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

namespace Thread {

// (GetId: impl/Core_Lock.h)

/// Sleeps `ms` milliseconds at least; 0 only yields. Alertable on Windows: ends early after a procedure call that was
/// queued for this thread. How much longer it sleeps is the system's business.
VLM_API void Sleep(unsigned int ms);

/// Marks the inside of a busy-wait loop; does nothing.
VLM_API void Spin();

/// Gives the rest of the time slice to another thread that is ready; returns at once when there is none.
VLM_API void Reschedule();

} // namespace Thread

/// Base of every thread of the library: starts a system thread, names it for debuggers, runs a body once or again and
/// again, and waits for its end.
///
/// Derive, implement Execute, and Join in the derived class's destructor at the latest: when this class's destructor
/// runs, the body is gone already.
///
///     class CTicker : public IThread {
///     public:
///         ~CTicker() override { Join(); }
///     private:
///         void Execute() override { Tick(); Thread::Sleep(10); }
///     };
///     CTicker ticker;
///     ticker.RunLooped(); // Tick every 10 ms ...
///     ticker.Join();      // ... until now
///
/// | state           | Run, RunLooped          | Join                           |
/// |-----------------|-------------------------|--------------------------------|
/// | idle            | starts                  | returns at once                |
/// | running         | Join first, then starts | waits for the end of this pass |
/// | body has ended  | as running              | does not wait, makes it idle   |
/// | in its own body | throws CException       | throws CException              |
///
/// SetName, SetPriority and SetStackSize are for the next start, whatever the state; a thread that was just started may
/// still read the new name.
///
/// Threads: Run, RunLooped, Join, SetPaused, IsRunning and GetThreadId may be called from any thread at any time. When
/// several start at once, one thread after the other runs, each ended by the next start.
class VLM_API IThread {
public:
    /// Priority value that stands for the normal priority, as 0 does.
    static constexpr i32 NormalPriority = -256;
    /// What GetThreadId gives without a thread.
    static constexpr u32 NoThreadId = ~u32{0};

    /// Idle; stop flag set, normal priority, default stack, not paused, no name.
    IThread();
    IThread(IThread const&) = delete;
    IThread& operator=(IThread const&) = delete;
    /// Does not join: a thread still running is an error of the caller.
    virtual ~IThread();

protected:
    /// The body of the thread; called once or, with the stop flag clear, again and again. An exception ends the thread
    /// and is reported with Debug::Print.
    virtual void Execute() = 0;

public:
    /// Joins, then starts a new system thread. With the stop flag set, as it is at first and as Join leaves it, the
    /// body runs once, else until Join. Throws CBadAllocation, or CException when the system has no thread to give; the
    /// object is then idle.
    void Run();

    /// Joins, clears the stop flag and starts: the body runs again and again until Join. Throws as Run does.
    void RunLooped();

    /// Sets the stop flag and waits until the body, which runs once at least, has come to its end, however early the
    /// call comes. A pause ends. Any number of calls from any threads: all of them wait. Throws CException when a body
    /// tries to join its own thread; the stop flag is then set.
    void Join();

    /// Name shown to debuggers, a view that must stay valid until the thread runs. Empty: the class's name. Linux shows
    /// the first 15 bytes.
    void SetName(CString const& name);

    /// Priority of the next start as the system counts it: -15, -2 to 2, 15; a hint. On Linux each step moves the nice
    /// value by 5, and raising it needs a privilege.
    void SetPriority(i32 priority);

    /// Stack of the next start in bytes; 0 for the system's default. The system may round up.
    void SetStackSize(u32 stackSize);

    /// While paused the thread waits instead of calling Execute again; Join overrules it.
    void SetPaused(bool paused);

    /// From a start to the end of Join, also when the body has ended by itself.
    [[nodiscard]] bool IsRunning() const;

    /// Id of the system thread: from its first moments to the end of Join, else NoThreadId.
    [[nodiscard]] u32 GetThreadId() const;

protected:
    /// Set: the thread ends after the present pass. The body may set it; a clear one before Run makes that start loop.
    void SetStopFlag(bool stop);
    [[nodiscard]] bool GetStopFlag() const;

private:
    friend struct SThreadStart;

    void Start(bool looped);
    void Launch();

    std::atomic<u32> m_threadId;
    std::atomic<void*> m_handle;
    CString m_name;
    std::atomic<u32> m_paused;
    std::atomic<u8> m_stop;
    std::atomic<u8> m_running;
    i32 m_priority;
    u32 m_stackSize;
};

/// Something for a thread pool to do. Allocate with Memory::New, unless AutoDelete gives false.
class VLM_API IThreadJob {
public:
    virtual ~IThreadJob();
    /// True (the default): after running the job the pool destroys it and gives its memory to Memory::Free. False: the
    /// job is left to its owner. Asked after Execute; after that the pool does not touch a job that it leaves.
    [[nodiscard]] virtual bool AutoDelete() const;
    /// Called once, on a worker thread. Exceptions are dropped.
    virtual void Execute() = 0;
};

class CWorkerThread;

/// Runs jobs on a fixed number of worker threads at most.
///
///     CThreadPool pool;
///     for (CString const& path : paths)
///         pool.PushJob(Memory::New<CIndexJob>(EHeap::Pool, path, results));
///     pool.WaitForJobs();
///
/// - Jobs wait in a ring of 255 and are taken in the order of PushJob; who pushes more waits for room. A job that
///   pushes to its own pool never waits: what finds no room is put by and run or queued when the job has ended.
/// - Workers start when a job would otherwise have to wait for a busy one, and end when they found nothing to do for
///   the idle timeout. An idle worker looks for jobs busily for about a millisecond, then sleeps until it is woken.
/// - Jobs of one pool must not wait for one another by other means than the pool's: the one waited for may be behind.
///
/// Do not use for jobs that sleep or wait for devices: they occupy a worker each.
///
/// Destroy a pool before Memory::Deinitialize, at process exit too (a pool made on demand as a static is): its workers
/// lie in the heap, and one that is still running then runs on memory that is gone. The destructor of a pool that
/// outlives the heap does nothing. In a child made by fork a pool is as new: see docs/threads.md.
///
/// Threads: everything but the destructor may be called from any thread, also from jobs, except that a job cannot wait
/// for its own pool. Errors: see PushJob.
class VLM_API CThreadPool {
public:
    /// Jobs that wait at most.
    static constexpr u64 RingCapacity = 255;

    /// As many workers as the machine has processors, at most 255. Throws CBadAllocation.
    CThreadPool();
    /// At most `maxWorkers` workers; 0 counts as 1. Throws CBadAllocation.
    explicit CThreadPool(unsigned char maxWorkers);
    CThreadPool(CThreadPool const&) = delete;
    CThreadPool& operator=(CThreadPool const&) = delete;
    /// Waits for all jobs and ends the workers. On one of its own workers only at the end of the process, when a job
    /// calls exit and the pool is a static: it then waits for the jobs that other workers are at, and what is queued
    /// behind them is lost.
    ~CThreadPool();

    /// Queues a job and sees to it that a worker is there to run it. Waits while 255 jobs are waiting. Null is ignored.
    /// Throws CBadAllocation or CException when no worker runs and none can be started; the job is then not queued and
    /// stays the caller's.
    void PushJob(IThreadJob* job);

    /// Returns when no job is waiting and none running: what was pushed before the call, and by those jobs, is done,
    /// and seen by the caller. Throws CException when called by a job of this pool, which would wait for itself.
    void WaitForJobs() const;

    /// True when no job is waiting; jobs may still be running.
    [[nodiscard]] bool IsEmpty() const;

    /// Time without a job after which a worker ends; 5 seconds at first, 0 for never.
    void SetIdleTimeout(u64 seconds);

    /// Workers at most.
    [[nodiscard]] unsigned char GetMaxNumWorkerThreads() const;

private:
    friend class CWorkerThread;
    friend struct SThreadPoolProbe; // for tests: shorter timeouts than a second
    friend struct SThreadPoolFork;  // copies of the process

    using CRing = Impl::TJobRing<std::atomic, IThreadJob*, RingCapacity + 1>;

    void CreateWorkers();
    void DestroyWorkers();
    void StartFirstWorker();
    void CallHelper();
    void StartWorker();
    [[nodiscard]] CWorkerThread& FindStoppedWorker() const;
    [[nodiscard]] CWorkerThread* FindCallingWorker() const;
    [[nodiscard]] bool TryQueue(IThreadJob* job);
    void Publish(u64 index, IThreadJob* job);
    [[nodiscard]] bool TryRetire(CWorkerThread& worker);

    CRing m_ring; // the jobs waiting are its distance between two indices, not one more counter
    TVector<CWorkerThread*, 1> m_workers;
    std::atomic<f64> m_idleTimeout; // seconds
    std::atomic<u32> m_running;     // workers whose stop flag is clear
    mutable CSpinLock m_lock;       // starting, retiring and the busy scan
    std::atomic<u32> m_asleep;      // workers that must be woken
    u8 m_maxWorkers;
};

} // namespace Velmor
