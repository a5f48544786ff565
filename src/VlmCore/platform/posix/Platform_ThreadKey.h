/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// A number that no other thread of the process has while this one runs, never 0: the address of its control block.
[[nodiscard]] inline u64 GetThreadKey()
{
    return reinterpret_cast<u64>(__builtin_thread_pointer());
}

/// The low bits that do not tell keys apart.
inline constexpr u32 ThreadKeyShift = 12;

} // namespace Velmor::Platform
