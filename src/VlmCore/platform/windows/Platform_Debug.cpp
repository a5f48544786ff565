#include "../Platform_Debug.h"

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
    if (_invalid_parameter_handler const handler = _get_invalid_parameter_handler()) {
        handler(nullptr, nullptr, nullptr, 0, 0); // as a release runtime calls it, without details
        return;
    }
    // Not every version of the runtime ends the process itself; the newer ones do, with this code.
    constexpr u32 InvalidRuntimeParameter = 0xC0000417;
    if (IsDebuggerAttached()) {
        WriteDebugOutput("invalid parameter: ");
        WriteDebugOutput(what);
        WriteDebugOutput("\n");
    }
    TerminateCurrentProcess(InvalidRuntimeParameter);
}

// The user

EAnswer AskUser(char const* text, char const* caption)
{
    // Abort/Retry/Ignore, error icon, the third button for the Enter key: 530.
    constexpr UINT style = MB_ABORTRETRYIGNORE | MB_ICONERROR | MB_DEFBUTTON3;
    static_assert(style == 530);
    int const button = ::MessageBoxA(nullptr, text, caption, style);
    bool const controlHeld = ((::GetKeyState(VK_RCONTROL) | ::GetKeyState(VK_LCONTROL)) & 0x8000) != 0;
    switch (button) {
    case IDABORT:
        return EAnswer::Abort;
    case IDRETRY:
        return EAnswer::Retry;
    case IDIGNORE:
        return controlHeld ? EAnswer::IgnoreForGood : EAnswer::Ignore;
    default:
        return EAnswer::None;
    }
}

bool IsSwitchOn(char const* name)
{
    HKEY key = nullptr;
    if (::RegOpenKeyA(HKEY_CURRENT_USER, "Software\\Velmor", &key) != ERROR_SUCCESS)
        return false;
    DWORD value = 0;
    DWORD size = sizeof value;
    LONG const error = ::RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
    ::RegCloseKey(key);
    return error == ERROR_SUCCESS && value != 0;
}

// The process

void GetExecutablePath(char* path, u64 size)
{
    DWORD const length = ::GetModuleFileNameA(nullptr, path, static_cast<DWORD>(size));
    path[length < size ? length : size - 1] = '\0'; // older systems do not terminate what they cut
}

SCalendarTime GetUniversalTime()
{
    SYSTEMTIME time{};
    ::GetSystemTime(&time);
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond};
}

} // namespace Velmor::Platform
