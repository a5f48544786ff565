/// \file
/// Assertions, crash handling and call stacks: finding out where and why a program misbehaves.
///
///     if (count > capacity && Debug::Assert(__FILE__, __LINE__, "Overfull.", "%u of %u", count, capacity))
///         ...; // a debugger is attached and the user wants to look: break here
///
/// Errors: nothing here throws, but for what a handler of the host throws. Threads: every function may be called from
/// any thread; assertions are reported one at a time. The library's heap is not used, a log that is installed may use
/// it.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

namespace Velmor::Debug {

/// One resolved frame of a call stack.
struct SCallstackLine {
    u64 address;       ///< return address
    u32 line;          ///< source line, 0 when unknown
    char symbol[1024]; ///< function name, empty when unknown
    char module[64];   ///< name of the executable or library without its extension, empty when unknown
    char file[260];    ///< source file, cut to 256 bytes; "unknown_file" when unknown
};

/// Most frames that a capture gives; callers allocate arrays of this many.
inline constexpr u32 MaxFrames = 32;
static_assert(sizeof(SCallstackLine) * MaxFrames == 43520);

// Debugger

/// True while a debugger is attached to this process.
[[nodiscard]] VLM_API bool IsDebuggerPresent();

/// Formats printf-style into 4096 bytes, cut there, and sends the text to the debugger (on Linux to standard error).
/// Does nothing at all without a debugger.
VLM_API void Print(char const* format, ...) VLM_PRINTF(1, 2);

// Assertions

/// Reports a failed assertion and asks what to do; true asks the caller to break into the debugger.
///
/// The report is the title, the printf-style message, the thread and the place. It is logged as a warning with the call
/// stack, then shown in a message box (on Linux a question on the terminal): Abort ends the process at once with exit
/// code 1, Retry returns true exactly when a debugger is attached, Ignore returns false; with a Control key held (on
/// Linux the answer f) the same call stack is never reported again in this process, for the first 64 of them. When
/// nobody can be asked, the answer is Abort. The message is cut to 1023 bytes, the whole report to 4095.
///
/// The user's setting SuppressAssertions (on Windows a DWORD below `Software\Velmor` in the user's registry hive, on
/// Linux the environment variable VELMOR_SUPPRESS_ASSERTIONS) turns every assertion into a silent exit with code 1, for
/// runs that nobody attends.
///
/// Null texts count as empty. Threads that assert meanwhile wait; an assertion from within a report is reported too.
/// A handler set with SetAssertHandler gets the assertion instead of all this, and its result is returned.
VLM_API bool Assert(char const* file, long line, char const* title, char const* format, ...) VLM_PRINTF(4, 5);

/// Replaces the report of Assert; null restores it. `args` is the argument list of the format: hand it to
/// FormatArguments. (On Windows it is the `va_list` itself, on Linux it points to it.) What the handler throws leaves
/// Assert.
VLM_API void SetAssertHandler(bool (*handler)(char const* file, long line, char const* title, char const* format,
                                              char* args));

/// Formats the argument list that an assertion handler got, as often as it likes. The text is cut to `size` bytes with
/// its terminator; returns its bytes without. A null format or list gives the format as it stands.
VLM_API u64 FormatArguments(char* buffer, u64 size, char const* format, char* args);

/// Report hook for the C runtime of Windows (`_CrtSetReportHook`): asserts with the title "CRT assertion failed.", sets
/// the result to 0 (do not break) and returns 1 (handled).
VLM_API int WindowsCRTReportHook(int type, char* message, int* result);

// Crashes

/// Unhandled-exception filter for Windows (`SetUnhandledExceptionFilter`): writes a minidump beside the executable,
/// logs where it is, and asserts with the exception's name and place. Returns 0: the system's own handling follows.
///
/// `exceptionPointers` points to the system's EXCEPTION_POINTERS: two pointers, to the exception record and to the
/// processor context. Both and the parameter itself may be null. On Linux InstallCrashHandler calls it with records of
/// the same form: the exception's code is its first 32-bit word, its address the pointer at offset 16.
///
/// One crash is reported: threads that crash while a report is made wait for it, and a crash within the report ends it.
VLM_API int WindowsExceptionHandler(void* exceptionPointers);

/// Has crashes reported by WindowsExceptionHandler, and prepares for it: memory and a stack to report on are set aside
/// now. On Windows it becomes the unhandled-exception filter; on Linux the handler of the signals SIGSEGV, SIGBUS,
/// SIGFPE, SIGILL, SIGTRAP and SIGABRT, whose default action follows the report. Call once, early, on the main thread;
/// further calls do nothing.
VLM_API void InstallCrashHandler();

// Call stacks

/// Makes the symbols of all modules that are loaded now available. The functions below do this themselves where it is
/// needed; call it to have the time it takes spent earlier.
VLM_API void LoadSymbols();

/// Captures the calling thread's stack and resolves it. The first frame lies in this function, the second in its
/// caller.
/// \param frames  MaxFrames frames, or null to have none resolved.
/// \param hash    receives the identity of this call site and all its callers; may be null.
/// \return the number of frames, at most MaxFrames.
VLM_API unsigned char UnwindCallStack(SCallstackLine* frames, unsigned int* hash);

/// Captures the return addresses of the calling thread, innermost first, like UnwindCallStack but without names: cheap
/// enough for every allocation. `addresses` has room for MaxFrames.
VLM_API unsigned char Backtrace(void** addresses, unsigned int* hash);

/// Finds what is known about a code address: everything in `frame` is filled. Slow: milliseconds the first time a
/// module is met.
VLM_API void ResolveSymbol(void* address, SCallstackLine& frame);

/// ResolveSymbol for `count` addresses. Does nothing when `frames` is null or the count is 0.
VLM_API void ResolveSymbols(void** addresses, SCallstackLine* frames, u64 count);

} // namespace Velmor::Debug
