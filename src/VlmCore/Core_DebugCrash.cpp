#include "Core_DebugCrash.h"

#include "Core_DebugStack.h"
#include "Core_Printf.h"
#include "platform/Platform_Crash.h"
#include "platform/Platform_Symbols.h"

#include <vlmcore/debug.h>
#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/logging.h>
#include <vlmcore/threads.h>

#include <atomic>
#include <cstring>

namespace Velmor::Debug {

namespace {

struct SExceptionName {
    u32 code;
    char const* name;
};

constexpr SExceptionName ExceptionNames[] = {
    {0xC0000005, "Access violation"},
    {0xC0000006, "Page load failed"},
    {0xC0000008, "Invalid handle"},
    {0xC000001D, "Illegal instruction"},
    {0xC0000025, "Cannot continue after previous exception"},
    {0xC0000026, "Exception handler returned an invalid disposition"},
    {0xC000008C, "Array out of bounds"},
    {0xC000008D, "Float value too small"},
    {0xC000008E, "Float division by zero"},
    {0xC000008F, "Float value cannot be displayed as fraction"},
    {0xC0000090, "Invalid floating point operation"},
    {0xC0000091, "Float exponent overflow"},
    {0xC0000092, "Stack overflow due to floating point operation"},
    {0xC0000093, "Float exponent underflow"},
    {0xC0000094, "Int division by zero"},
    {0xC0000095, "Integer overflow"},
    {0xC0000096, "Operation not allowed in current machine mode"},
    {0xC00000FD, "Stack overflow"},
    {0x80000001, "Guard page hit"},
    {0x80000002, "Misaligned datatype"},
    {0x80000003, "Breakpoint triggered"},
};

/// The system's records as far as they are read here; of the same form on every system.
struct SExceptionRecord {
    u32 code;
    u32 flags;
    void* next;
    void* address;
};

struct SExceptionPointers {
    SExceptionRecord const* record;
    void* context;
};

constexpr u64 ExecutablePathCapacity = 256;
constexpr u64 DumpPathCapacity = ExecutablePathCapacity + 64; // six numbers and what stands between them
constexpr u32 DumpTimeout = 180'000; // milliseconds; a dump may hold a lot and the machine be busy

/// The report in progress. Static, because a thread that crashed may have no stack left for it; filled by the one
/// thread that owns the report.
struct SReport {
    void* pointers;
    u32 code;
    void* address;
    bool dumpWritten;
    bool logUsable;
    char dumpPath[DumpPathCapacity];
    char logLine[DumpPathCapacity + 64];
    SCallstackLine frame;
};

SReport g_report;
std::atomic<u32> g_crashedThread{Impl::NoOwner};
std::atomic<u32> g_stageThread{Impl::NoOwner};

/// The symbol lock, waited for a while only: its holder may have crashed or wait for one that has.
class CSymbolLockForCrash {
public:
    CSymbolLockForCrash()
    {
        for (int i = 0; i < 2000 && !m_held; ++i) {
            m_held = GetSymbolLock().TryAcquire();
            if (!m_held)
                Thread::Sleep(1);
        }
    }
    CSymbolLockForCrash(CSymbolLockForCrash const&) = delete;
    CSymbolLockForCrash& operator=(CSymbolLockForCrash const&) = delete;
    ~CSymbolLockForCrash()
    {
        if (m_held)
            GetSymbolLock().TryRelease();
    }

private:
    bool m_held = false;
};

// The stages, in their order. Each works on g_report.

void WriteDump(SReport& report)
{
    char executable[ExecutablePathCapacity];
    Platform::GetExecutablePath(executable, sizeof executable);
    BuildDumpPath(report.dumpPath, sizeof report.dumpPath, executable, Platform::GetUniversalTime());
    CSymbolLockForCrash const lock;
    report.dumpWritten = Platform::WriteMinidump(report.dumpPath, g_crashedThread.load(), report.pointers);
}

void LogDump(SReport& report)
{
    char const* const text = report.dumpWritten ? "Wrote minidump " : "Failed to write minidump ";
    FormatTruncatingF(report.logLine, sizeof report.logLine, "%s%s", text, report.dumpPath);
    if (report.dumpWritten)
        Log::Info(CString(report.logLine));
    else
        Log::Warning(CString(report.logLine));
}

void ResolveAddress(SReport& report)
{
    CSymbolLockForCrash const lock;
    Platform::PrepareSymbols();
    Platform::DescribeAddress(report.address, report.frame);
}

void ResolveAddressPlainly(SReport& report)
{
    Platform::DescribeAddressPlainly(report.address, report.frame);
}

void AssertCrash(SReport& report)
{
    SCallstackLine const& frame = report.frame;
    Assert("", 0, "Unhandled exception.", "%s (0x%x) at 0x%x\n\n%s (%d)\n%s", GetExceptionName(report.code),
           report.code, static_cast<u32>(reinterpret_cast<u64>(report.address)), frame.file,
           static_cast<int>(frame.line), frame.symbol);
}

/// Runs a stage as the thread that it happens to run on; false when it failed.
bool Run(void (*stage)(SReport&), u32 timeout)
{
    u32 const outer = g_stageThread.load();
    auto const trampoline = [](void* context) {
        g_stageThread.store(Thread::GetId());
        reinterpret_cast<void (*)(SReport&)>(context)(g_report);
    };
    bool const succeeded = Platform::RunCrashStage(trampoline, reinterpret_cast<void*>(stage), timeout);
    g_stageThread.store(outer);
    return succeeded;
}

void ReportCrash(void* exceptionPointers)
{
    SReport& report = g_report;
    auto const* const pointers = static_cast<SExceptionPointers const*>(exceptionPointers);
    SExceptionRecord const* const record = pointers != nullptr ? pointers->record : nullptr;
    report.pointers = record != nullptr ? exceptionPointers : nullptr;
    report.code = record != nullptr ? record->code : 0;
    report.address = record != nullptr ? record->address : nullptr;
    report.dumpWritten = false;
    report.dumpPath[0] = '\0';
    Platform::ClearNames(report.frame);

    Run(&WriteDump, DumpTimeout);
    report.logUsable = Run(&LogDump, StageTimeout);
    if (!Run(&ResolveAddress, StageTimeout)) {
        Platform::ClearNames(report.frame);
        Run(&ResolveAddressPlainly, StageTimeout);
    }
    if (report.frame.file[0] == '\0')
        std::strcpy(report.frame.file, "unknown_file");
    Run(&AssertCrash, 0); // the user may take any time
}

} // namespace

char const* GetExceptionName(u32 code)
{
    for (SExceptionName const& entry : ExceptionNames)
        if (entry.code == code)
            return entry.name;
    return "Unknown exception";
}

void BuildDumpPath(char* path, u64 size, char const* executable, Platform::SCalendarTime const& time)
{
    u64 const length = std::strlen(executable);
    bool const hasExtension =
        length >= 4 && executable[length - 4] == '.' && std::strpbrk(executable + length - 3, "/\\") == nullptr;
    int const kept = static_cast<int>(hasExtension ? length - 4 : length);
    FormatTruncatingF(path, size, "%.*s_%u-%u-%u_%u-%u-%u.dmp", kept, executable, time.year, time.month, time.day,
                      time.hour, time.minute, time.second);
}

bool IsReportingCrash()
{
    u32 const self = Thread::GetId();
    return g_crashedThread.load() != Impl::NoOwner && (g_crashedThread.load() == self || g_stageThread.load() == self);
}

u32 GetCrashedThread()
{
    return g_crashedThread.load();
}

bool IsLogUsable()
{
    return g_report.logUsable;
}

int WindowsExceptionHandler(void* exceptionPointers)
{
    u32 owner = Impl::NoOwner;
    if (g_crashedThread.compare_exchange_strong(owner, Thread::GetId())) {
        ReportCrash(exceptionPointers);
        g_crashedThread.store(Impl::NoOwner);
        return 0;
    }
    // Within the report: it has failed in a way that its stages did not catch. From another thread: one report is
    // enough, but the process must not end before it is made.
    if (IsReportingCrash())
        return 0;
    while (g_crashedThread.load() == owner)
        Thread::Sleep(1);
    return 0;
}

void InstallCrashHandler()
{
    static std::atomic<bool> installed{false};
    if (installed.exchange(true))
        return;
    LoadSymbols(); // the debugging library is loaded while that is still possible
    Platform::InstallCrashHandler(&WindowsExceptionHandler);
}

} // namespace Velmor::Debug
