/// \file
/// Writes that a kill does not cut.
///
/// Windows finishes a write that has begun. Linux lets a fatal signal end a write between two pages of the file: a
/// thread that writes without a pause is cut by every other kill. So there a write that leaves its page is done by a
/// helper process, which shares the memory and the files, belongs to no process group that is killed as a whole, knows
/// no other signals, and lives for that one call; it outlives the caller's kill. That costs some thirty microseconds,
/// for which a caller with much to write fills each write well. What kills by other means than a signal to the process
/// or its group (a container that is stopped, the system out of memory) still cuts.
#pragma once

#include "Platform_File.h"

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Up to where a write that starts at `position` should reach at most: as far as it pays where there is a helper; the
/// end of the page where there is none, because what stays in its page is not cut anywhere.
[[nodiscard]] u64 GetWholeWriteEnd(u64 position);

/// True when a write of `size` bytes at `position` could be cut by a kill, and WriteFileWhole helps.
[[nodiscard]] bool NeedsWholeWrite(u64 position, u64 size);

/// WriteFileHandle that a kill of the process does not cut, if the system has a way; else just that.
[[nodiscard]] u32 WriteFileWhole(FileHandle handle, void const* buffer, u64 size, u64& done);

} // namespace Velmor::Platform
