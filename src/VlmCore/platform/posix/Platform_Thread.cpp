#include "../Platform_Thread.h"

#include "../Platform_Fork.h"
#include "Platform_ThreadKey.h"
#include "Posix_CrashStack.h"
#include "Posix_Fork.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace Velmor::Platform {

// The calling thread

constinit thread_local u32 g_threadId = 0;

namespace {

constexpr i32 NicePerPriority = 5;
constexpr i32 LowestNice = -20;
constexpr i32 HighestNice = 19;

i32 GetNice(u32 id)
{
    return ::getpriority(PRIO_PROCESS, id);
}

void SetOwnPriority(i32 priority)
{
    i32 const asked = GetNice(static_cast<u32>(::getpid())) - std::clamp(priority, -15, 15) * NicePerPriority;
    i32 const nice = std::clamp(asked, LowestNice, HighestNice);
    if (nice != GetNice(GetThreadId())) // a new thread starts with the nice value of its starter
        static_cast<void>(::setpriority(PRIO_PROCESS, GetThreadId(), nice));
}

} // namespace

u32 GetThreadId()
{
    if (g_threadId == 0)
        g_threadId = AskThreadId();
    return g_threadId;
}

void ForgetThreadId()
{
    g_threadId = 0;
}

void SleepThread(u32 milliseconds, ESleep)
{
    if (milliseconds == 0) {
        YieldThread();
        return;
    }
    // Until a time, not for one: what is left after a signal would be rounded up each time.
    constexpr long NanosecondsPerSecond = 1'000'000'000;
    timespec end = {};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(milliseconds / 1000);
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
    if (end.tv_nsec >= NanosecondsPerSecond) {
        end.tv_nsec -= NanosecondsPerSecond;
        ++end.tv_sec;
    }
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

static_assert(sizeof(std::atomic<u32>) == sizeof(u32));

void SleepOn(std::atomic<u32>& word, u32 expected, u32 milliseconds)
{
    timespec duration = {};
    duration.tv_sec = static_cast<time_t>(milliseconds / 1000);
    duration.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000;
    ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, &duration, nullptr, 0);
}

void WakeSleeper(std::atomic<u32>& word)
{
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void YieldThread()
{
    ::sched_yield();
}

void RelaxProcessor()
{
    __builtin_ia32_pause();
}

u32 const ThreadNameBytes = 15;

void NameThread(char const* name)
{
    char cut[ThreadNameBytes + 1];
    std::size_t length = std::min(std::strlen(name), sizeof cut - 1);
    if (name[length] != '\0') {
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
            --length;
    }
    std::memcpy(cut, name, length);
    cut[length] = '\0';
    static_cast<void>(::pthread_setname_np(::pthread_self(), cut));
}

i32 GetThreadPriority()
{
    i32 const below = GetNice(static_cast<u32>(::getpid())) - GetNice(GetThreadId());
    return below / NicePerPriority;
}

// Other threads

namespace {

/// What a handle points to; JoinThread frees it.
struct SThread {
    ThreadBody body;
    void* argument;
    i32 priority;
    u32 forkDepth; ///< of the process that the thread is of
    pthread_t thread;
};

void* RunBody(void* record)
{
    SThread const& start = *static_cast<SThread const*>(record);
    SetOwnPriority(start.priority);
    CCrashStack const crashStack;
    start.body(start.argument);
    return nullptr;
}

u32 ToSystemError(int error)
{
    constexpr u32 NotEnoughMemory = 8;
    constexpr u32 InvalidParameter = 87;
    constexpr u32 MaximumThreadsReached = 164;
    switch (error) {
    case 0:
        return 0;
    case EAGAIN:
        return MaximumThreadsReached;
    case ENOMEM:
        return NotEnoughMemory;
    default:
        return InvalidParameter;
    }
}

std::size_t RoundStack(u32 bytes)
{
    // The system's least size covers the thread-local storage of everything that is loaded.
    std::size_t const least = static_cast<std::size_t>(std::max(::sysconf(_SC_THREAD_STACK_MIN), 16384L));
    std::size_t const page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return (std::max<std::size_t>(bytes, least) + page - 1) / page * page;
}

} // namespace

u32 StartThread(ThreadBody body, void* argument, u32 stackBytes, i32 priority, void*& handle)
{
    // From the C runtime: the library's heap is not the seam's to use.
    SThread* const record = static_cast<SThread*>(std::malloc(sizeof(SThread)));
    if (record == nullptr)
        return ToSystemError(ENOMEM);
    *record = {body, argument, priority, GetForkDepth(), 0};
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    if (stackBytes != 0)
        static_cast<void>(::pthread_attr_setstacksize(&attributes, RoundStack(stackBytes)));
    int const error = ::pthread_create(&record->thread, &attributes, &RunBody, record);
    ::pthread_attr_destroy(&attributes);
    if (error == 0)
        handle = record;
    else
        std::free(record);
    return ToSystemError(error);
}

void JoinThread(void* handle)
{
    SThread* const record = static_cast<SThread*>(handle);
    if (record->forkDepth == GetForkDepth())
        ::pthread_join(record->thread, nullptr);
    std::free(record);
}

bool CanSynchronizeThreads()
{
    return ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

// In every thread of the process that is running: there is none for a single one.
void SynchronizeThread(u32)
{
    static_cast<void>(::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0));
}

bool IsThreadAlive(u32 threadId)
{
    return ::syscall(SYS_tgkill, ::getpid(), static_cast<pid_t>(threadId), 0) == 0 || errno != ESRCH;
}

bool HasEndedOtherThreads()
{
    return false;
}

// Types

void DescribeType(char const* rawName, char* out, u64 size)
{
    int status = -1;
    char* const readable = abi::__cxa_demangle(rawName, nullptr, nullptr, &status);
    std::snprintf(out, size, "class %s", status == 0 ? readable : rawName);
    std::free(readable);
}

} // namespace Velmor::Platform
