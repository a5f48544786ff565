/// \file
/// Seam: the debugger, the ways to end a process at once, the question put to the user, and the settings store.
///
/// Texts are narrow and zero-terminated and are never null. Nothing here allocates from the library's heap or throws.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

// Debugger

/// True while a debugger is attached to this process. Asked afresh each time: debuggers come and go.
[[nodiscard]] bool IsDebuggerAttached();

/// Hands the text to the debugger (Windows) or writes it to standard error (posix), whole and as it stands.
/// Without a debugger the text may be lost (Windows) or shown (posix): callers ask first.
void WriteDebugOutput(char const* text);

// Process end

/// Ends the process at once: no atexit functions, no destructors, no further instruction of any thread.
[[noreturn]] void TerminateCurrentProcess(u32 exitCode);

/// Does what the C runtime does with an argument it must not be given. Windows: the runtime's invalid-parameter
/// handling, which ends the process unless the host installed a handler that returns. Posix: the text on standard
/// error, then abort.
void RaiseInvalidParameter(char const* what);

// The user

/// What the user wants done about a failure.
enum class EAnswer : u32 {
    None,          ///< nobody could be asked
    Abort,         ///< end the process
    Retry,         ///< let the debugger see it
    Ignore,        ///< go on
    IgnoreForGood, ///< go on and never ask about this place again
};

/// Shows the text and waits for an answer. Windows: a message box with the caption; Ignore while a Control key is held
/// is IgnoreForGood. Posix: a question on the terminal, when standard input and standard error are one. Window hooks
/// of the host may run meanwhile, and may throw.
[[nodiscard]] EAnswer AskUser(char const* text, char const* caption);

/// True when the current user has set the named switch to something other than 0. Windows: the DWORD value of that
/// name under Software\Velmor of the user's registry hive. Posix: the environment variable VELMOR_ and the name in
/// capitals, words joined by underlines (SuppressAssertions: VELMOR_SUPPRESS_ASSERTIONS).
[[nodiscard]] bool IsSwitchOn(char const* name);

// The process

/// Full path of the executable, cut to `size` bytes with the terminator; empty when the system does not tell.
void GetExecutablePath(char* path, u64 size);

/// A moment in UTC by the calendar.
struct SCalendarTime {
    u32 year;
    u32 month; ///< from 1
    u32 day;   ///< from 1
    u32 hour;
    u32 minute;
    u32 second;
};

[[nodiscard]] SCalendarTime GetUniversalTime();

} // namespace Velmor::Platform
