/// \file
/// Copies of the process: what the room's own parts have to know of them.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Number of forks between the process in which the library was loaded and this one.
[[nodiscard]] u32 GetForkDepth();

/// The calling thread asks the system for its id again.
void ForgetThreadId();

} // namespace Velmor::Platform
