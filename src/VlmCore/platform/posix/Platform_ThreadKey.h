/// \file
/// Seam, inline in each room: asked on every allocation.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// For GetThreadKey and GetThreadId alone. The initial-exec model makes it one instruction also from a shared library;
/// four bytes fit the loader's reserve when the library is loaded late.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local u32 g_threadId;

/// The calling thread's id (see GetThreadId), or 0 when it never asked for that.
[[nodiscard]] inline u32 GetThreadKey()
{
    return g_threadId;
}

/// The low bits that do not tell ids apart.
inline constexpr u32 ThreadKeyShift = 0;

} // namespace Velmor::Platform
