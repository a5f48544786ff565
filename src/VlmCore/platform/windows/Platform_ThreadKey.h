/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

#if defined(_MSC_VER)
#  include <intrin.h>
#endif

namespace Velmor::Platform {

/// A number that no other thread of the process has while this one runs, never 0: the address of its environment block,
/// which the block itself holds at 0x30.
[[nodiscard]] inline u64 GetThreadKey()
{
#if defined(_MSC_VER)
    return __readgsqword(0x30);
#else
    u64 key;
    __asm__("movq %%gs:0x30, %0" : "=r"(key));
    return key;
#endif
}

} // namespace Velmor::Platform
