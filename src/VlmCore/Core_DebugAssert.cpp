#include "Core_DebugCrash.h"
#include "Core_Fork.h"
#include "Core_Printf.h"
#include "platform/Platform_Crash.h"
#include "platform/Platform_Debug.h"

#include <vlmcore/debug.h>
#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/logging.h>
#include <vlmcore/threads.h>

#include <atomic>
#include <cstring>
#include <new>
#include <type_traits>

namespace Velmor::Debug {

namespace {

constexpr u64 MessageCapacity = 1024;
constexpr u64 ReportCapacity = 4096;
constexpr u64 PathCapacity = 256;
constexpr u32 MaxIgnoredSites = 64;

using Handler = bool (*)(char const*, long, char const*, char const*, char*);

std::atomic<Handler> g_handler{nullptr};

/// Guards the report in progress and the ignored sites.
constinit CRecursiveSpinLock g_lock;
/// In a copy of the process nobody is left who could hold it. Not taken for the copy: a message box may be open.
struct SLockFollowsForks {
    SLockFollowsForks()
    {
        Fork::Enrol(EForkRank::Symbols, &g_lock, [](void*, EFork moment) {
            if (moment == EFork::InCopy)
                ::new (&g_lock) CRecursiveSpinLock;
        });
    }
    ~SLockFollowsForks() { Fork::Withdraw(&g_lock); }
};
SLockFollowsForks const g_lockFollowsForks;

u32 g_ignoredSites[MaxIgnoredSites];
u32 g_ignoredSiteCount = 0;

/// The argument list as a handler gets it: itself where it is a pointer, its address where it is a record.
template <class List>
char* ToHandlerArguments(List& arguments)
{
    if constexpr (std::is_same_v<List, char*>)
        return arguments;
    else
        return reinterpret_cast<char*>(&arguments);
}

/// FormatTruncating of what ToHandlerArguments gave; the list can be used again.
template <class List>
u64 FormatHandlerArguments(char* buffer, u64 size, char const* format, char* given)
{
    List copy;
    if constexpr (std::is_same_v<List, char*>)
        va_copy(copy, given);
    else
        va_copy(copy, *reinterpret_cast<List*>(given));
    u64 const length = FormatTruncating(buffer, size, format, copy);
    va_end(copy);
    return length;
}

char const* OrEmpty(char const* text)
{
    return text != nullptr ? text : "";
}

/// Holds the assertion lock. A crash is reported also when the lock is not to be had: its holder may be the thread that
/// crashed, on whose behalf another one reports.
class CAssertionLock {
public:
    CAssertionLock()
    {
        if (!IsReportingCrash()) {
            g_lock.Acquire();
            m_held = true;
            return;
        }
        for (u32 waited = 0; waited < StageTimeout && !m_held; ++waited) {
            m_held = g_lock.TryAcquire();
            if (!m_held)
                Thread::Sleep(1);
        }
    }
    CAssertionLock(CAssertionLock const&) = delete;
    CAssertionLock& operator=(CAssertionLock const&) = delete;
    ~CAssertionLock()
    {
        if (m_held)
            g_lock.TryRelease();
    }

private:
    bool m_held = false;
};

/// A log that fails must not keep the user from being asked.
/// Part of its caller, so that the stack it logs begins there.
[[gnu::always_inline]] inline void LogReport(char const* report)
{
    try {
        Log::Warning(CString(report));
        Log::Callstack(2);
    }
    catch (...) {
        Print("The log failed to take the report of an assertion.\n");
    }
}

void LogNobodyAsked()
{
    try {
        Log::Warning("Nobody could be asked what to do: the process ends.");
    }
    catch (...) {
        // It ends without this line.
    }
}

bool IsIgnored(u32 site)
{
    for (u32 i = 0; i < g_ignoredSiteCount; ++i)
        if (g_ignoredSites[i] == site)
            return true;
    return false;
}

void IgnoreForGood(u32 site)
{
    if (g_ignoredSiteCount < MaxIgnoredSites)
        g_ignoredSites[g_ignoredSiteCount++] = site;
}

/// Asks, unless assertions are suppressed or this one is ignored. A hook of the host that throws meanwhile counts as
/// nobody having answered.
Platform::EAnswer GetAnswer(char const* report, u32 site)
{
    if (Platform::IsSwitchOn("SuppressAssertions"))
        return Platform::EAnswer::Abort;
    if (IsIgnored(site))
        return Platform::EAnswer::Ignore;
    try {
        char caption[PathCapacity];
        Platform::GetExecutablePath(caption, sizeof caption);
        return Platform::AskUser(report, caption);
    }
    catch (...) {
        return Platform::EAnswer::None;
    }
}

} // namespace

void SetAssertHandler(bool (*handler)(char const* file, long line, char const* title, char const* format, char* args))
{
    g_handler.store(handler);
}

u64 FormatArguments(char* buffer, u64 size, char const* format, char* args)
{
    if (buffer == nullptr || size == 0)
        return 0;
    if (format == nullptr || args == nullptr) {
        CopyCut(buffer, size - 1, OrEmpty(format));
        return std::strlen(buffer);
    }
    return FormatHandlerArguments<std::va_list>(buffer, size, format, args);
}

bool Assert(char const* file, long line, char const* title, char const* format, ...)
{
    CAssertionLock const lock; // a handler that throws does not keep it
    std::va_list arguments;
    va_start(arguments, format);
    if (Handler const handler = g_handler.load()) {
        try {
            bool const result = handler(file, line, title, format, ToHandlerArguments(arguments));
            va_end(arguments);
            return result;
        }
        catch (...) {
            va_end(arguments);
            throw;
        }
    }

    char message[MessageCapacity];
    FormatTruncating(message, sizeof message, OrEmpty(format), arguments);
    va_end(arguments);
    char report[ReportCapacity];
    FormatTruncatingF(report, sizeof report, "%s\n\n%s\n\nThread %u\n%s (%ld)\n", OrEmpty(title), message,
                      IsReportingCrash() ? GetCrashedThread() : Thread::GetId(), OrEmpty(file), line);
    if (!IsReportingCrash())
        LogReport(report);
    else if (IsLogUsable())
        Platform::RunCrashStage([](void* text) { LogReport(static_cast<char const*>(text)); }, report, 0);

    void* addresses[MaxFrames];
    u32 site = 0;
    Backtrace(addresses, &site);
    switch (GetAnswer(report, site)) {
    case Platform::EAnswer::Retry:
        return IsDebuggerPresent();
    case Platform::EAnswer::IgnoreForGood:
        IgnoreForGood(site);
        return false;
    case Platform::EAnswer::Ignore:
        return false;
    case Platform::EAnswer::None:
        if (!IsReportingCrash())
            LogNobodyAsked();
        else if (IsLogUsable())
            Platform::RunCrashStage([](void*) { LogNobodyAsked(); }, nullptr, 0);
        break;
    case Platform::EAnswer::Abort:
        break;
    }
    Platform::TerminateCurrentProcess(1);
}

int WindowsCRTReportHook(int type, char* message, int* result)
{
    Assert("", 0, "CRT assertion failed.", "Type: %d\nMessage: %s", type, OrEmpty(message));
    if (result != nullptr)
        *result = 0;
    return 1;
}

} // namespace Velmor::Debug
