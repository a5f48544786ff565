/// \file
/// Writes that a kill does not cut.
///
/// Windows finishes a write that has begun. Linux lets a fatal signal end a write between two pages of the file: a thread
/// that writes small records without a pause is cut in one of some forty kills. So there a write that leaves its page is
/// done by a helper process, which shares the memory and the files, knows no signals, and lives for that one call; it
/// outlives the caller's kill. That costs some ten microseconds. A kill of the whole process group still cuts.
#pragma once

#include "Platform_File.h"

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// True when a write of `size` bytes at `position` could be cut by a kill of the process.
[[nodiscard]] bool CanKillCutWrite(u64 position, u64 size);

/// WriteFileHandle that a kill of the process does not cut, if the system has a way; else just that.
[[nodiscard]] u32 WriteFileWhole(FileHandle handle, void const* buffer, u64 size, u64& done);

} // namespace Velmor::Platform
