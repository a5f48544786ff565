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
    /// The thread still has the id there that it has in the original; its new one comes behind this.
    void (*afterInCopy)();
};

/// From now on `watch`, of static lifetime, is called; until then nobody. Windows: never, a process is not copied.
void WatchForks(SForkWatch const& watch);

} // namespace Velmor::Platform
