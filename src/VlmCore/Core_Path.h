/// \file
/// Paths: normalising, joining and splitting. Everything here works on UTF-16 units, so that no unit of a name is
/// taken for half of a character and swallowed.
#pragma once

#include "platform/Platform_Path.h"

#include <vlmcore/files.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor::Path {

using Platform::PathUnits;

/// Any text as terminated UTF-16; converts only when it must. The text must outlive the view.
class CWideText {
public:
    explicit CWideText(CString const& text);

    /// Never null.
    [[nodiscard]] char16_t const* Get() const { return m_units; }
    [[nodiscard]] u64 GetCount() const { return m_count; }

private:
    CMutableString m_converted;
    char16_t const* m_units = u"";
    u64 m_count = 0;
};

/// Turns separators into single backslashes and takes the dot and dot-dot parts out of a full path; dot-dot at the root
/// stays there. A trailing separator is kept. Windows paths that begin with two backslashes are left as they are.
void ResolveDotParts(PathUnits& path);

/// The full path that `path` means now: "~" in front becomes the documents folder (no separator is added), dot parts
/// go, a relative path is taken from the current folder, an empty one is the root. Terminated. Throws CFileException.
[[nodiscard]] PathUnits Normalize(char16_t const* path);
[[nodiscard]] PathUnits Normalize(CString const& path);

/// `folder`, a backslash and `path`, normalised; neither is examined before they are joined.
[[nodiscard]] PathUnits NormalizeJoined(CString const& folder, CString const& path);

/// A view of terminated units.
[[nodiscard]] inline CString ViewOf(PathUnits const& path)
{
    return CString(path.GetData());
}

/// Takes trailing separators off a terminated full path, but leaves a root ("C:\", "\") whole. True when some went.
bool DropTrailingSeparators(PathUnits& path);

/// True when `path` is `folder` or lies below it, by their texts; both full and without trailing separators.
[[nodiscard]] bool IsWithin(PathUnits const& folder, PathUnits const& path);

/// True when the full path names an entry; the last part may hold wildcards, a trailing separator demands a folder.
[[nodiscard]] bool NamesEntry(PathUnits path);

/// Splits at the last backslash and at the last full stop behind it. Only backslashes separate here.
[[nodiscard]] SFileName Split(CString const& path);

} // namespace Velmor::Path
