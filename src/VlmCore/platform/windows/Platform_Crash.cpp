#include "../Platform_Crash.h"

#include "Windows_DebugHelp.h"

#include <atomic>

namespace Velmor::Platform {

// Stages

namespace {

constexpr SIZE_T ReporterStackSize = 512 * 1024;
/// A stage with less stack than this runs on the reporter's. Showing a message box takes most of it.
constexpr ULONG_PTR EnoughStack = 128 * 1024;
/// What a thread that overflowed its stack still has for getting here.
constexpr ULONG StackGuarantee = 32 * 1024;

/// A thread that waits for stages. It is started when the handler is installed, for after a crash the system may no
/// longer be able to start one.
struct SReporter {
    HANDLE thread;
    HANDLE wanted; ///< set when there is a stage to run
    HANDLE done;   ///< set when it has been run
    DWORD threadId;
    CrashStage stage;
    void* context;
    bool succeeded;
};

SReporter g_reporters[4]; // a stage that hangs takes its reporter with it
std::atomic<u32> g_reporter{0};

/// C++ exceptions are caught by their own kind of handler: one that a structured handler ends does not find its way
/// through the clean-up of the frames in between. A function of its own, as no function may have both kinds.
__attribute__((noinline)) bool RunCatching(CrashStage stage, void* context)
{
    try {
        stage(context);
        return true;
    }
    catch (...) {
        return false;
    }
}

/// Any failure ends the stage, and no more.
bool RunGuarded(CrashStage stage, void* context)
{
    __try {
        return RunCatching(stage, context);
    }
    __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
}

DWORD WINAPI RunReporter(void* argument)
{
    SReporter& reporter = *static_cast<SReporter*>(argument);
    for (;;) {
        ::WaitForSingleObject(reporter.wanted, INFINITE);
        reporter.succeeded = RunGuarded(reporter.stage, reporter.context);
        ::SetEvent(reporter.done);
    }
}

/// The current reporter, started if need be; null when none can be had.
SReporter* GetReporter()
{
    u32 const index = g_reporter.load();
    if (index >= sizeof g_reporters / sizeof g_reporters[0])
        return nullptr;
    SReporter& reporter = g_reporters[index];
    if (reporter.thread == nullptr) {
        reporter.wanted = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
        reporter.done = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
        reporter.thread = ::CreateThread(nullptr, ReporterStackSize, &RunReporter, &reporter, 0, &reporter.threadId);
    }
    return reporter.thread != nullptr ? &reporter : nullptr;
}

ULONG_PTR GetStackLeft()
{
    ULONG_PTR low = 0;
    ULONG_PTR high = 0;
    ::GetCurrentThreadStackLimits(&low, &high);
    ULONG_PTR const here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    return here > low ? here - low : 0;
}

} // namespace

bool RunCrashStage(CrashStage stage, void* context, u32 timeoutMilliseconds)
{
    SReporter* const reporter = GetReporter();
    bool const isReporter = reporter != nullptr && reporter->threadId == ::GetCurrentThreadId();
    if (reporter == nullptr || isReporter || (timeoutMilliseconds == 0 && GetStackLeft() >= EnoughStack))
        return RunGuarded(stage, context);
    reporter->stage = stage;
    reporter->context = context;
    ::SetEvent(reporter->wanted);
    DWORD const limit = timeoutMilliseconds != 0 ? timeoutMilliseconds : INFINITE;
    if (::WaitForSingleObject(reporter->done, limit) == WAIT_OBJECT_0)
        return reporter->succeeded;
    g_reporter.fetch_add(1); // it hangs: the next stage gets a new one
    return false;
}

// Installation

namespace {

CrashHandler g_handler = nullptr;

LONG WINAPI Filter(EXCEPTION_POINTERS* pointers)
{
    g_handler(pointers);
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

void InstallCrashHandler(CrashHandler handler)
{
    g_handler = handler;
    GetReporter();
    ULONG guarantee = StackGuarantee;
    ::SetThreadStackGuarantee(&guarantee);
    ::SetUnhandledExceptionFilter(&Filter);
}

// Dumps

namespace {

template <class T>
bool ReadAt(HANDLE file, u64 position, T& value)
{
    LARGE_INTEGER offset{};
    offset.QuadPart = static_cast<LONGLONG>(position);
    DWORD done = 0;
    return ::SetFilePointerEx(file, offset, nullptr, FILE_BEGIN) != FALSE &&
           ::ReadFile(file, &value, sizeof value, &done, nullptr) != FALSE && done == sizeof value;
}

/// True when everything that a list of pieces of memory names lies within the file.
bool HasMemory(HANDLE file, u64 fileSize, u64 position)
{
    ULONG32 count = 0;
    if (!ReadAt(file, position, count))
        return false;
    position += sizeof count;
    for (ULONG32 index = 0; index < count; ++index, position += sizeof(MINIDUMP_MEMORY_DESCRIPTOR)) {
        MINIDUMP_MEMORY_DESCRIPTOR piece;
        if (!ReadAt(file, position, piece) || u64{piece.Memory.Rva} + piece.Memory.DataSize > fileSize)
            return false;
    }
    return true;
}

/// True when every stream of the dump lies within the file: who wrote it may not have noticed that the disk was full.
bool HasAllStreams(HANDLE file)
{
    LARGE_INTEGER size{};
    MINIDUMP_HEADER header;
    if (::GetFileSizeEx(file, &size) == FALSE || !ReadAt(file, 0, header) || header.Signature != MINIDUMP_SIGNATURE)
        return false;
    u64 const fileSize = static_cast<u64>(size.QuadPart);
    u64 position = header.StreamDirectoryRva;
    for (ULONG32 index = 0; index < header.NumberOfStreams; ++index, position += sizeof(MINIDUMP_DIRECTORY)) {
        MINIDUMP_DIRECTORY stream;
        if (!ReadAt(file, position, stream) || u64{stream.Location.Rva} + stream.Location.DataSize > fileSize)
            return false;
        if (stream.StreamType == MemoryListStream && !HasMemory(file, fileSize, stream.Location.Rva))
            return false;
    }
    return header.NumberOfStreams != 0;
}

} // namespace

bool WriteMinidump(char const* path, u32 threadId, void* exceptionPointers)
{
    SDebugHelp const& help = GetDebugHelp();
    if (help.miniDumpWriteDump == nullptr)
        return false;
    // No sharing: nobody shall read half a dump.
    HANDLE const file =
        ::CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    MINIDUMP_EXCEPTION_INFORMATION exception{};
    exception.ThreadId = threadId;
    exception.ExceptionPointers = static_cast<EXCEPTION_POINTERS*>(exceptionPointers);
    exception.ClientPointers = TRUE;
    bool const written =
        help.miniDumpWriteDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file,
                               MiniDumpWithIndirectlyReferencedMemory,
                               exceptionPointers != nullptr ? &exception : nullptr, nullptr, nullptr) != FALSE;
    static_assert(MiniDumpWithIndirectlyReferencedMemory == 64);
    bool const isWhole = written && ::FlushFileBuffers(file) != FALSE && HasAllStreams(file);
    ::CloseHandle(file);
    if (isWhole)
        return true;
    ::DeleteFileA(path); // half a dump only misleads
    return false;
}

} // namespace Velmor::Platform
