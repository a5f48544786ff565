/// \file
/// Copies of the process: what the room's own parts have to know of them.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// The calling thread asks the system for its id again.
void ForgetThreadId();

} // namespace Velmor::Platform
