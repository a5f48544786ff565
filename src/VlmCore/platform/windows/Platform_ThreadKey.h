/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

#if defined(_MSC_VER)
#  include <intrin.h>
#endif

namespace Velmor::Platform {

/// A number that no other thread of the process has while this one runs, never 0: its id, which its environment block
/// holds at 0x48.
[[nodiscard]] inline u64 GetThreadKey()
{
#if defined(_MSC_VER)
    return __readgsqword(0x48);
#else
    u64 key;
    __asm__("movq %%gs:0x48, %0" : "=r"(key));
    return key;
#endif
}

/// The low bits that do not tell keys apart.
inline constexpr u32 ThreadKeyShift = 2;

} // namespace Velmor::Platform
