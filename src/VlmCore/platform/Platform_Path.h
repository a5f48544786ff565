/// \file
/// Seam: where paths begin. Names travel as UTF-16 with backslashes; the rooms turn them into what the system takes.
///
/// The posix room writes slashes for backslashes and UTF-8 for UTF-16 by the standard rules. What those rules have no
/// place for comes and goes as a lone surrogate: U+DC00 plus the byte for a byte that is no UTF-8 and for a backslash
/// inside a name, so that every name that a listing returns can be opened again.
#pragma once

#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/types.h>

namespace Velmor::Platform {

/// UTF-16 units. Results of this seam hold no terminator; arguments are plain pointers to terminated text.
using PathUnits = TVector<char16_t, 1>;

/// The current folder, full, without a trailing separator unless it is a root.
[[nodiscard]] u32 GetCurrentFolder(PathUnits& folder);

/// Makes `path`, which is not empty, absolute: against the current folder, and on Windows with everything else that the
/// system does to a path (drives, separators, device names, dot parts, trailing dots). The posix room leaves dot parts
/// and doubled separators to the caller.
[[nodiscard]] u32 MakeAbsolutePath(char16_t const* path, PathUnits& absolute);

/// The user's documents folder; empty when the system knows none.
void GetDocumentsFolder(PathUnits& folder);

/// Full path of the executable of this process.
[[nodiscard]] u32 GetExecutablePath(PathUnits& path);

/// The full path of an existing file or folder with every link on the way resolved, the last part's too.
[[nodiscard]] u32 ResolveLinks(char16_t const* path, PathUnits& resolved);

/// Whether the system takes two runs of `count` units for the same name: without regard to case on Windows.
[[nodiscard]] bool IsSameName(char16_t const* first, char16_t const* second, u64 count);

} // namespace Velmor::Platform
