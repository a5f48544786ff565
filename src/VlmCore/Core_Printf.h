/// \file
/// Printf-style formatting into fixed buffers, with the two answers to a text that does not fit.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

#include <cstdarg>

namespace Velmor {

/// Formats all of the text or none: one that needs `size` bytes or more, terminator included, is an error of the caller
/// and ends the process as the C runtime's invalid-parameter handling does. When a host's own invalid-parameter handler
/// returns instead, the buffer holds the empty text and the result is 0. Returns the bytes written without terminator.
u64 FormatStrict(char* buffer, u64 size, char const* format, std::va_list arguments) VLM_PRINTF(3, 0);

/// Formats as much as fits and always terminates. Returns the bytes written without terminator; `size` is above 0.
u64 FormatTruncating(char* buffer, u64 size, char const* format, std::va_list arguments) VLM_PRINTF(3, 0);

/// FormatTruncating with the arguments in the call.
u64 FormatTruncatingF(char* buffer, u64 size, char const* format, ...) VLM_PRINTF(3, 4);

/// Copies at most `most` bytes of a text and terminates them; a null text is an empty one.
inline void CopyCut(char* target, u64 most, char const* text)
{
    u64 size = 0;
    for (; text != nullptr && size < most && text[size] != '\0'; ++size)
        target[size] = text[size];
    target[size] = '\0';
}

} // namespace Velmor
