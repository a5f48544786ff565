/// \file
/// Seam: copies of the process (posix: fork). The copy has the memory of the original, whatever state it is in, and of
/// its threads only the one that made the copy.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

// Copies

/// What is done around every copy, on the thread that makes it.
struct SForkWatch {
    void (*before)();
    void (*afterInOriginal)();
    /// GetThreadId still gives the id that the thread has in the original; its new one comes behind this.
    void (*afterInCopy)();
};

/// The calling thread's id as the system has it, also in `afterInCopy`.
[[nodiscard]] u32 AskThreadId();

/// Number of copies between the process in which the library was loaded and this one. Windows: 0.
[[nodiscard]] u32 GetForkDepth();

/// Whether an object lies on the calling thread's stack, or among its thread-local ones there, and that is used for
/// other threads in a copy which another thread makes. That of the process's first thread is not.
[[nodiscard]] bool IsOnPassingStack(void const* object);

/// From now on `watch`, of static lifetime, is called; until then nobody. Windows: never, a process is not copied.
void WatchForks(SForkWatch const& watch);

} // namespace Velmor::Platform
