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

} // namespace Velmor::Platform
