#include "../Platform_Debug.h"

#include <cstdio>
#include <cstdlib>
#include <windows.h>

namespace Velmor::Platform {

// Debugger

bool IsDebuggerAttached()
{
    return ::IsDebuggerPresent() == 1;
}

void WriteDebugOutput(char const* text)
{
    ::OutputDebugStringA(text);
}

// Process end

void TerminateCurrentProcess(u32 exitCode)
{
    ::TerminateProcess(::GetCurrentProcess(), exitCode);
    for (;;) // the call above does not come back for the own process; the compiler cannot know
        ::Sleep(INFINITE);
}

void RaiseInvalidParameter(char const* what)
{
    // A secure function given the same mistake: its handling is by definition the runtime's, handler included.
    char tooSmall[1];
    sprintf_s(tooSmall, sizeof tooSmall, "%s", what);
}

} // namespace Velmor::Platform
