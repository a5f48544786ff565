#include "../Platform_Thread.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <process.h>

#if !defined(_MSC_VER)
#  include <cxxabi.h>
#endif

// In no header of the system. Linked, not looked up: a look-up takes the loader's lock, and a thread that is asked here
// may hold what the loader's lock waits for.
extern "C" __declspec(dllimport) BOOLEAN NTAPI RtlDllShutdownInProgress(void);

namespace Velmor::Platform {

// The calling thread

u32 GetThreadId()
{
    return ::GetCurrentThreadId();
}

void SleepThread(u32 milliseconds, ESleep kind)
{
    ::SleepEx(milliseconds, kind == ESleep::Alertable ? TRUE : FALSE);
}

static_assert(sizeof(std::atomic<u32>) == sizeof(u32));

void SleepOn(std::atomic<u32>& word, u32 expected, u32 milliseconds)
{
    ::WaitOnAddress(&word, &expected, sizeof expected, milliseconds);
}

void WakeSleeper(std::atomic<u32>& word)
{
    ::WakeByAddressSingle(&word);
}

void YieldThread()
{
    ::SwitchToThread();
}

void RelaxProcessor()
{
    YieldProcessor();
}

u32 const ThreadNameBytes = 4095;

namespace {

constexpr DWORD NameThreadException = 0x406D1388;

/// Layout that debuggers expect behind the exception.
struct SThreadName {
    ULONG_PTR type; ///< always 0x1000; the layout is the debugger's, padded to pointers
    char const* name;
    DWORD threadId; ///< all ones: the thread that raises
    DWORD flags;
};

#if defined(__clang__) || defined(_MSC_VER)
void RaiseName(SThreadName const& record)
{
    __try {
        ::RaiseException(NameThreadException, 0, sizeof record / sizeof(ULONG_PTR),
                         reinterpret_cast<ULONG_PTR const*>(&record));
    }
    __except (EXCEPTION_EXECUTE_HANDLER) {
    }
}
#else
/// Without structured handlers the exception is ended by a vectored one, which sees it only after the debugger.
LONG CALLBACK EndNameException(EXCEPTION_POINTERS* pointers)
{
    return pointers->ExceptionRecord->ExceptionCode == NameThreadException ? EXCEPTION_CONTINUE_EXECUTION
                                                                           : EXCEPTION_CONTINUE_SEARCH;
}

void RaiseName(SThreadName const& record)
{
    void* const handler = ::AddVectoredExceptionHandler(0, &EndNameException);
    ::RaiseException(NameThreadException, 0, sizeof record / sizeof(ULONG_PTR),
                     reinterpret_cast<ULONG_PTR const*>(&record));
    ::RemoveVectoredExceptionHandler(handler);
}
#endif

/// Systems since 2016 keep a name with the thread, where debuggers that attach later find it.
void DescribeThread(char const* name)
{
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    static auto const set = reinterpret_cast<SetDescription>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription")));
    wchar_t wide[256];
    if (set != nullptr && ::MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, 256) != 0)
        static_cast<void>(set(::GetCurrentThread(), wide));
}

} // namespace

void NameThread(char const* name)
{
    RaiseName({0x1000, name, static_cast<DWORD>(-1), 0});
    DescribeThread(name);
}

i32 GetThreadPriority()
{
    return ::GetThreadPriority(::GetCurrentThread());
}

// Other threads

namespace {

struct SStart {
    ThreadBody body;
    void* argument;
};

unsigned __stdcall RunBody(void* record)
{
    SStart const start = *static_cast<SStart*>(record);
    std::free(record);
    start.body(start.argument);
    return 0;
}

} // namespace

u32 StartThread(ThreadBody body, void* argument, u32 stackBytes, i32 priority, void*& handle)
{
    // From the C runtime: the library's heap is not the seam's to use.
    SStart* const record = static_cast<SStart*>(std::malloc(sizeof(SStart)));
    if (record == nullptr)
        return ERROR_NOT_ENOUGH_MEMORY;
    *record = {body, argument};
    uintptr_t const thread = ::_beginthreadex(nullptr, stackBytes, &RunBody, record, 0, nullptr);
    if (thread == 0) {
        std::free(record);
        return errno == EAGAIN ? ERROR_MAX_THRDS_REACHED
                               : (errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_PARAMETER);
    }
    handle = reinterpret_cast<void*>(thread);
    ::SetThreadPriority(handle, priority);
    return 0;
}

void JoinThread(void* handle)
{
    ::WaitForSingleObject(handle, INFINITE);
    ::CloseHandle(handle);
}

bool CanSynchronizeThreads()
{
    return true;
}

namespace {

// Wine 8 has FlushProcessWriteBuffers, but it does nothing there: the biased lock's test lost additions.
bool IsWine()
{
    static bool const isWine = [] {
        HMODULE const system = ::GetModuleHandleW(L"ntdll.dll");
        return system != nullptr && ::GetProcAddress(system, "wine_get_version") != nullptr;
    }();
    return isWine;
}

// One thread at a time interrupts others, whichever module it is in: of two that suspend each other nobody would resume
// either. Without memory for a handle it is null, and waiting for it fails at once.
HANDLE GetInterruptionMutex()
{
    static HANDLE const mutex = [] {
        wchar_t name[64];
        std::swprintf(name, std::size(name), L"VlmCore interruption %lu", ::GetCurrentProcessId());
        return ::CreateMutexW(nullptr, FALSE, name);
    }();
    return mutex;
}

// A thread whose registers are known has been interrupted, and an interruption is a barrier. To suspend it is not
// enough: that only asks for it.
void Interrupt(HANDLE thread)
{
    HANDLE const mutex = GetInterruptionMutex();
    ::WaitForSingleObject(mutex, INFINITE);
    if (::SuspendThread(thread) != static_cast<DWORD>(-1)) { // else it has ended
        CONTEXT context{};
        context.ContextFlags = CONTEXT_CONTROL;
        static_cast<void>(::GetThreadContext(thread, &context));
        ::ResumeThread(thread);
    }
    ::ReleaseMutex(mutex);
}

// Null when it has ended. Its id may belong to a thread of another process by then.
HANDLE OpenForInterruption(DWORD threadId)
{
    constexpr DWORD Rights = THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_LIMITED_INFORMATION;
    HANDLE thread = ::OpenThread(Rights, FALSE, threadId);
    while (thread == nullptr && ::GetLastError() != ERROR_INVALID_PARAMETER) { // no memory for the handle
        ::Sleep(1);
        thread = ::OpenThread(Rights, FALSE, threadId);
    }
    if (thread == nullptr || ::GetProcessIdOfThread(thread) == ::GetCurrentProcessId())
        return thread;
    ::CloseHandle(thread);
    return nullptr;
}

} // namespace

void SynchronizeThread(u32 threadId)
{
    if (!IsWine()) {
        ::FlushProcessWriteBuffers();
        return;
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (threadId == ::GetCurrentThreadId())
        return;
    if (HANDLE const thread = OpenForInterruption(threadId)) {
        Interrupt(thread);
        ::CloseHandle(thread);
    }
}

bool IsThreadAlive(u32 threadId)
{
    HANDLE const thread = ::OpenThread(SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, FALSE, threadId);
    if (thread == nullptr)
        return ::GetLastError() != ERROR_INVALID_PARAMETER;
    // One that has ended keeps its id as long as somebody has a handle; else another process may have it by now.
    bool const isAlive =
        ::WaitForSingleObject(thread, 0) == WAIT_TIMEOUT && ::GetProcessIdOfThread(thread) == ::GetCurrentProcessId();
    ::CloseHandle(thread);
    return isAlive;
}

bool HasEndedOtherThreads()
{
    return ::RtlDllShutdownInProgress() != FALSE;
}

// Types

void DescribeType(char const* rawName, char* out, u64 size)
{
#if defined(_MSC_VER)
    std::snprintf(out, size, "%s", rawName); // this compiler writes "class Name" by itself
#else
    int status = -1;
    char* const readable = abi::__cxa_demangle(rawName, nullptr, nullptr, &status);
    std::snprintf(out, size, "class %s", status == 0 ? readable : rawName);
    std::free(readable);
#endif
}

} // namespace Velmor::Platform
