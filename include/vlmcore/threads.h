/// \file
/// Threads and the thread pool. (Locks: impl/Core_Lock.h.)
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

namespace Thread {

/// Id of the calling thread; never all ones.
[[nodiscard]] VLM_API unsigned int GetId();
/// Waits at least `ms` milliseconds; alertable on Windows.
VLM_API void Sleep(unsigned int ms);
/// Marks the inside of a busy-wait loop; does nothing.
VLM_API void Spin();
/// Gives the rest of the time slice to another thread.
VLM_API void Reschedule();

} // namespace Thread

/// Base of every thread of the library. Derive, implement Execute, Run or RunLooped, and Join before destruction.
class VLM_API IThread {
public:
    /// Priority value that stands for the normal priority.
    static constexpr i32 NormalPriority = -256;

    IThread();
    IThread(IThread const&) = delete;
    IThread& operator=(IThread const&) = delete;
    /// Does not join.
    virtual ~IThread();

    /// Joins, then starts Execute on a new system thread: once when the stop flag is set, else until Join.
    void Run();
    /// Joins, clears the stop flag and runs: Execute runs again and again until Join.
    void RunLooped();
    /// Sets the stop flag and waits until the thread has ended. From any thread, any number of times.
    void Join();

    /// Name shown to debuggers; a view that must stay valid until the thread runs. Empty: the class name.
    void SetName(CString const& name);
    /// System priority of the next Run; NormalPriority for normal.
    void SetPriority(i32 priority);
    /// Stack bytes of the next Run; 0 for the default.
    void SetStackSize(u32 stackSize);
    /// While paused the loop yields instead of calling Execute.
    void SetPaused(bool paused);
    [[nodiscard]] bool IsRunning() const;
    /// Id of the running system thread; all ones when there is none.
    [[nodiscard]] u32 GetThreadId() const;

protected:
    /// The body of the thread.
    virtual void Execute() = 0;

    void SetStopFlag(bool stop);
    [[nodiscard]] bool GetStopFlag() const;

private:
    friend struct SThreadStart;

    std::atomic<u32> m_threadId;
    std::atomic<void*> m_handle;
    CString m_name;
    std::atomic<u32> m_paused;
    std::atomic<u8> m_stop;
    std::atomic<u8> m_running;
    i32 m_priority;
    u32 m_stackSize;
};

/// Something for a thread pool to do. Allocate with Memory::New.
class VLM_API IThreadJob {
public:
    virtual ~IThreadJob();
    /// True (the default): the pool destroys and frees the job after running it.
    [[nodiscard]] virtual bool AutoDelete() const;
    /// Called once, on a worker thread. Exceptions are dropped.
    virtual void Execute() = 0;
};

} // namespace Velmor
