/// \file
/// Seam: the addresses on the calling thread's stack. Symbols: Platform_Symbols.h.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Frames that one capture gives at most.
inline constexpr u32 MaxStackFrames = 32;

/// Writes the return addresses of the calling thread, innermost first: the first one lies in the caller of this
/// function. At most MaxStackFrames; returns their number. `hash`, when not null, receives the sum of the low 32 bits
/// of the addresses, or whatever else the system computes for it. Reads nothing but the thread's own stack. Any thread,
/// also inside an allocation; the first calls of a thread and of a call site are slower by far.
u32 CaptureStack(void** addresses, u32* hash);

} // namespace Velmor::Platform
