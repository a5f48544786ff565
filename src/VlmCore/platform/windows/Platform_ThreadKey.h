/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

#include <intrin.h>

namespace Velmor::Platform {

/// A number that no other thread of the process has while this one runs, never 0: the address of its environment block,
/// which that holds at 0x30.
[[nodiscard]] inline u64 GetThreadKey()
{
    return __readgsqword(0x30);
}

} // namespace Velmor::Platform
