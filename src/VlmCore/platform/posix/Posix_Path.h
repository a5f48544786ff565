/// \file
/// Names between UTF-16 with backslashes and what this system takes.
#pragma once

#include "../Platform_Path.h"

#include <vlmcore/types.h>

#include <limits.h>

namespace Velmor::Platform {

/// A path, or the name of an entry, as the system takes it. Lives on the stack; too long a text is refused, not cut.
class CSystemPath {
public:
    explicit CSystemPath(char16_t const* text);

    /// 0, or NameTooLong.
    [[nodiscard]] u32 GetError() const { return m_error; }
    [[nodiscard]] char const* Get() const { return m_text; }

private:
    char m_text[PATH_MAX];
    u32 m_error = 0;
};

/// Writes the UTF-16 form of `count` bytes to `target`, which has room for as many units; no terminator. Slashes become
/// backslashes, backslashes lone surrogates. Returns the units written.
u64 WidenSystemText(char const* text, u64 count, char16_t* target);

/// Appends the UTF-16 form of `count` bytes.
void AppendSystemText(char const* text, u64 count, PathUnits& target);

} // namespace Velmor::Platform
