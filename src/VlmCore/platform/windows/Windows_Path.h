/// \file
/// Names between the seam's UTF-16 units and the system's wide characters, and paths of more than 260 units.
#pragma once

#include "../Platform_Path.h"

namespace Velmor::Platform {

[[nodiscard]] inline wchar_t const* AsWide(char16_t const* text)
{
    return reinterpret_cast<wchar_t const*>(text);
}

[[nodiscard]] inline char16_t const* AsUnits(wchar_t const* text)
{
    return reinterpret_cast<char16_t const*>(text);
}

/// A full path as the system takes it: as it stands while short, with the prefix that lifts the limit of 260 units when
/// long. (Not always prefixed: without it the system still sees device names for what they are.)
class CSystemPath {
public:
    explicit CSystemPath(char16_t const* path);

    [[nodiscard]] wchar_t const* Get() const { return m_path; }

private:
    PathUnits m_long;
    wchar_t const* m_path;
};

} // namespace Velmor::Platform
