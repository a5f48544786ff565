#include <vlmcore/debug.h>

#include "Core_Printf.h"
#include "platform/Platform_Debug.h"

namespace Velmor::Debug {

namespace {
constexpr u64 PrintCapacity = 4096;
} // namespace

bool IsDebuggerPresent()
{
    return Platform::IsDebuggerAttached();
}

void Print(char const* format, ...)
{
    if (!Platform::IsDebuggerAttached())
        return;
    char text[PrintCapacity];
    std::va_list arguments;
    va_start(arguments, format);
    FormatTruncating(text, sizeof text, format, arguments);
    va_end(arguments);
    Platform::WriteDebugOutput(text);
}

} // namespace Velmor::Debug
