#include "Core_Printf.h"

#include "platform/Platform_Debug.h"

#include <cstdio>

namespace Velmor {

u64 FormatStrict(char* buffer, u64 size, char const* format, std::va_list arguments)
{
    int const length = std::vsnprintf(buffer, size, format, arguments);
    if (length >= 0 && static_cast<u64>(length) < size)
        return static_cast<u64>(length);
    Platform::RaiseInvalidParameter("formatted text is longer than its buffer");
    buffer[0] = '\0';
    return 0;
}

u64 FormatTruncating(char* buffer, u64 size, char const* format, std::va_list arguments)
{
    int const length = std::vsnprintf(buffer, size, format, arguments);
    if (length < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<u64>(length) < size ? static_cast<u64>(length) : size - 1;
}

u64 FormatTruncatingF(char* buffer, u64 size, char const* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    u64 const length = FormatTruncating(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

} // namespace Velmor
