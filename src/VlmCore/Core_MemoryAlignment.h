// Blocks of the hooks that are aligned by hand: a few bytes more are asked for, the address moves forward to the next
// multiple, and the byte just before it says how far it moved (1 to the alignment), which is the way back.
//
//     raw                 aligned
//      |.....|distance|    |block ...
#pragma once

#include <vlmcore/types.h>

namespace Velmor::MemoryAlignment {

/// How far MoveForward moves: 1 to `alignment`, or 0 for alignment 0.
[[nodiscard]] inline u64 GetDistance(void const* raw, u64 alignment)
{
    return alignment == 0 ? 0 : alignment - (reinterpret_cast<u64>(raw) & (alignment - 1));
}

/// \param raw        start of a block with `alignment` bytes to spare.
/// \param alignment  a power of two up to 16; 0 leaves the block as it is.
[[nodiscard]] inline void* MoveForward(void* raw, u64 alignment)
{
    if (alignment == 0)
        return raw;
    u64 const distance = GetDistance(raw, alignment);
    u8* const aligned = static_cast<u8*>(raw) + distance;
    aligned[-1] = static_cast<u8>(distance);
    return aligned;
}

/// The start of the block that MoveForward was given.
[[nodiscard]] inline void* MoveBack(void* aligned, u64 alignment)
{
    if (alignment == 0)
        return aligned;
    u8* const block = static_cast<u8*>(aligned);
    return block - block[-1];
}

} // namespace Velmor::MemoryAlignment
