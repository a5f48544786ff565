#include "Core_Backoff.h"
#include "Core_Fork.h"

#include "platform/Platform_Fork.h"
#include "platform/Platform_Thread.h"

#include <vlmcore/debug.h>
#include <vlmcore/exceptions.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>

#include <cstddef>
#include <cstring>
#include <exception>
#include <typeinfo>

namespace Velmor {

unsigned int Thread::GetId()
{
    return Platform::GetThreadId();
}

void Thread::Sleep(unsigned int ms)
{
    Platform::SleepThread(ms, Platform::ESleep::Alertable);
}

void Thread::Spin() {}

void Thread::Reschedule()
{
    Platform::YieldThread();
}

namespace {

/// Bits of IThread's running flag, which is zero while the object is idle. A start wins it before there is a thread, so
/// that a Join that comes early finds something to wait for; the Join that ends the thread clears it as its last act.
namespace ERunning {
enum Type : u8 {
    Started = 1, ///< a thread is, or is about to be
    Joining = 2, ///< somebody waits for its end: a pause is over
    Ended = 4,   ///< the body is not called any more
};
/// The other bits: in which copy of the process the thread was started, counted round.
constexpr u32 ForkDepthUnit = 8;

u8 StartedHere()
{
    return static_cast<u8>(Started | Platform::GetForkDepth() * ForkDepthUnit);
}
bool IsHere(u8 running)
{
    return running / ForkDepthUnit == StartedHere() / ForkDepthUnit;
}
} // namespace ERunning

constexpr u64 ClassNameBytes = 64;

char const* GetTextOrEmpty(CString const& utf8)
{
    return utf8.GetData() != nullptr ? static_cast<char const*>(utf8.GetData()) : "";
}

/// A class name that debuggers would cut is better without its namespaces.
char const* DropQualifiers(char const* name)
{
    char const* const end = name + std::strcspn(name, "<");
    for (char const* at = end; at > name + 1; --at) {
        if (at[-1] == ':' && at[-2] == ':')
            return at;
    }
    return name;
}

} // namespace

/// What a new system thread is given; it frees the record at its end.
struct SThreadStart {
    IThread& thread;
    std::atomic<u32>& threadId;
    std::atomic<u8>& running;

    static void Main(void* record);
    static void Forget(IThread& thread) noexcept;
    static void Follow(IThread& thread) noexcept;

    void SetDebuggerName() const;
    void RunBody() const;
    void Loop() const;
    void Report(char const* what) const;

    static constexpr void CheckLayout();
};

#if defined(__GNUC__)
#  pragma GCC diagnostic push
#  pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
/// Derived classes of hosts are compiled against this order.
constexpr void SThreadStart::CheckLayout()
{
    static_assert(offsetof(IThread, m_threadId) == 8);
    static_assert(offsetof(IThread, m_handle) == 16);
    static_assert(offsetof(IThread, m_name) == 24);
    static_assert(offsetof(IThread, m_paused) == 24 + sizeof(CString));
    static_assert(offsetof(IThread, m_stop) == offsetof(IThread, m_paused) + 4);
    static_assert(offsetof(IThread, m_running) == offsetof(IThread, m_paused) + 5);
    static_assert(offsetof(IThread, m_priority) == offsetof(IThread, m_paused) + 8);
    static_assert(offsetof(IThread, m_stackSize) == offsetof(IThread, m_paused) + 12);
    static_assert(sizeof(IThread) == offsetof(IThread, m_paused) + 16);
    static_assert(sizeof(SThreadStart) == 24);
}
#if defined(__GNUC__)
#  pragma GCC diagnostic pop
#endif

void SThreadStart::Main(void* record)
{
    // A copy: the record lies in a pool, and a thread may outlive the heap.
    SThreadStart const start = *static_cast<SThreadStart const*>(record);
    start.SetDebuggerName();
    start.threadId.store(Thread::GetId(), std::memory_order_release);
    start.RunBody();
    start.running.fetch_or(ERunning::Ended, std::memory_order_release);
    Memory::FreeQuietly(record);
}

void SThreadStart::Forget(IThread& thread) noexcept
{
    if (void* const handle = thread.m_handle.exchange(nullptr, std::memory_order_relaxed))
        Platform::JoinThread(handle);
    thread.m_threadId.store(IThread::NoThreadId, std::memory_order_relaxed);
    thread.m_stop.store(1, std::memory_order_relaxed);
    thread.m_running.store(0, std::memory_order_release);
}

void SThreadStart::Follow(IThread& thread) noexcept
{
    thread.m_threadId.store(Platform::AskThreadId(), std::memory_order_relaxed);
}

void Fork::ForgetThread(IThread& thread) noexcept
{
    SThreadStart::Forget(thread);
}

void Fork::FollowThread(IThread& thread) noexcept
{
    SThreadStart::Follow(thread);
}

void SThreadStart::SetDebuggerName() const
{
    try {
        if (!thread.m_name.IsEmpty()) {
            CMutableString const name = thread.m_name.ToUTF8();
            Platform::NameThread(GetTextOrEmpty(name));
            return;
        }
        char described[512];
        Platform::DescribeType(typeid(thread).name(), described, sizeof described);
        char readable[ClassNameBytes + 1];
        RTTI::Demangle(described, readable, sizeof readable);
        bool const cut = std::strlen(readable) > Platform::ThreadNameBytes;
        Platform::NameThread(cut ? DropQualifiers(readable) : readable);
    }
    catch (...) {
        Platform::NameThread("NON_RTTI_TYPE");
    }
}

void SThreadStart::RunBody() const
{
    try {
        Loop();
    }
    catch (CException const& exception) {
        Report(GetTextOrEmpty(exception.GetText()));
    }
    catch (std::exception const& exception) {
        Report(exception.what());
    }
    catch (...) {
        Report("an exception of an unknown type");
    }
}

void SThreadStart::Loop() const
{
    do {
        CBackoff pause;
        while (thread.m_paused.load(std::memory_order_relaxed) != 0 &&
               (running.load(std::memory_order_relaxed) & ERunning::Joining) == 0)
            pause.Wait();
        thread.Execute();
    } while (thread.m_stop.load(std::memory_order_acquire) == 0);
}

void SThreadStart::Report(char const* what) const
{
    Debug::Print("Thread %u ended by an exception: %s\n", Thread::GetId(), what);
}

IThread::IThread()
    : m_threadId(NoThreadId), m_handle(nullptr), m_paused(0), m_stop(1), m_running(0), m_priority(NormalPriority),
      m_stackSize(0)
{
}

IThread::~IThread()
{
    m_name = CString();
}

void IThread::Run()
{
    Start(false);
}

void IThread::RunLooped()
{
    Start(true);
}

void IThread::Start(bool looped)
{
    u8 idle = 0;
    do {
        Join();
        idle = 0;
    } while (!m_running.compare_exchange_strong(idle, ERunning::StartedHere(), std::memory_order_acq_rel));
    u8 const stop = m_stop.load(std::memory_order_relaxed);
    if (looped)
        m_stop.store(0, std::memory_order_release);
    try {
        Launch();
    }
    catch (...) {
        m_stop.store(stop, std::memory_order_release);
        m_running.store(0, std::memory_order_release);
        throw;
    }
}

void IThread::Launch()
{
    void* const memory = Memory::Malloc(sizeof(SThreadStart), EHeap::Pool);
    if (memory == nullptr)
        throw CBadAllocation();
    ::new (memory) SThreadStart{*this, m_threadId, m_running};
    void* handle = nullptr;
    u32 const error = Platform::StartThread(&SThreadStart::Main, memory, m_stackSize,
                                            m_priority == NormalPriority ? 0 : m_priority, handle);
    if (error != 0) {
        Memory::FreeQuietly(memory);
        throw CException("%s could not be started (error %u).", "A thread", error);
    }
    m_handle.store(handle, std::memory_order_release);
}

void IThread::Join()
{
    // The id outlives the thread until it is joined, and the system may give it away again meanwhile.
    if (m_threadId.load(std::memory_order_acquire) == Thread::GetId() &&
        (m_running.load(std::memory_order_acquire) & ERunning::Ended) == 0) {
        m_stop.store(1, std::memory_order_release);
        throw CException("A thread cannot wait for its own end.");
    }
    CBackoff backoff;
    for (;;) {
        void* handle = m_handle.load(std::memory_order_acquire);
        if (handle != nullptr && m_handle.compare_exchange_strong(handle, nullptr, std::memory_order_acq_rel)) {
            m_running.fetch_or(ERunning::Joining, std::memory_order_relaxed);
            m_stop.store(1, std::memory_order_release);
            Platform::JoinThread(handle);
            m_threadId.store(NoThreadId, std::memory_order_relaxed);
            m_running.store(0, std::memory_order_release);
            return;
        }
        // Without a handle the thread is just being started, or another Join is at work.
        u8 running = m_running.load(std::memory_order_acquire);
        if (running == 0 || backoff.IsInVain())
            return;
        // Who was at it stayed in the process that this one is a copy of.
        if (!ERunning::IsHere(running) &&
            m_running.compare_exchange_strong(running, ERunning::StartedHere(), std::memory_order_acq_rel)) {
            Fork::ForgetThread(*this);
            return;
        }
        backoff.Wait();
    }
}

void IThread::SetName(CString const& name)
{
    m_name = name;
}

void IThread::SetPriority(i32 priority)
{
    m_priority = priority;
}

void IThread::SetStackSize(u32 stackSize)
{
    m_stackSize = stackSize;
}

void IThread::SetPaused(bool paused)
{
    m_paused.store(paused ? 1 : 0, std::memory_order_relaxed);
}

bool IThread::IsRunning() const
{
    return m_running.load(std::memory_order_acquire) != 0;
}

u32 IThread::GetThreadId() const
{
    return m_threadId.load(std::memory_order_acquire);
}

void IThread::SetStopFlag(bool stop)
{
    m_stop.store(stop ? 1 : 0, std::memory_order_seq_cst);
}

bool IThread::GetStopFlag() const
{
    return m_stop.load(std::memory_order_seq_cst) != 0;
}

IThreadJob::~IThreadJob() = default;

bool IThreadJob::AutoDelete() const
{
    return true;
}

} // namespace Velmor
