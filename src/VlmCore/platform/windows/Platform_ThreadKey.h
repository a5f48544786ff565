/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

#if defined(_MSC_VER)
#  include <intrin.h>
#endif

namespace Velmor::Platform {

/// The calling thread's id (see GetThreadId), which its environment block holds at 0x48. In other rooms 0 when it never
/// asked for that.
[[nodiscard]] inline u32 GetThreadKey()
{
#if defined(_MSC_VER)
    return __readgsdword(0x48);
#else
    u32 key;
    __asm__("movl %%gs:0x48, %0" : "=r"(key));
    return key;
#endif
}

/// The low bits that do not tell ids apart.
inline constexpr u32 ThreadKeyShift = 2;

} // namespace Velmor::Platform
