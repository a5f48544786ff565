/// \file
/// The seam's memory section: where a heap gets its memory when the host names no functions of its own, and how the
/// heap learns that the process or library ends.
///
/// The three functions are the C runtime's own, so that blocks may also be given to `free` of the same runtime. They
/// keep the runtime's answers: null when the system is exhausted, ResizeMemory(null, n) allocates, FreeMemory(null)
/// does nothing. All are safe to call from any thread.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

[[nodiscard]] void* AllocateMemory(u64 size);

/// On failure the old block stays as it was.
[[nodiscard]] void* ResizeMemory(void* block, u64 size);

void FreeMemory(void* block);

/// Has `function` called when the process ends, or when the library that this code is linked into is unloaded,
/// whichever comes first. Registering one function several times calls it several times. A full table is ignored: the
/// system takes the memory back anyway.
void RunAtExit(void (*function)());

} // namespace Velmor::Platform
