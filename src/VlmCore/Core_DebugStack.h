/// \file
/// What the parts of the diagnostics share about symbols.
#pragma once

#include <vlmcore/impl/Core_Lock.h>

namespace Velmor::Debug {

/// Guards the system's debugging library, which serves one thread at a time: symbols and dumps. Recursive, so that a
/// crash within the debugging library can still be reported.
[[nodiscard]] CRecursiveSpinLock& GetSymbolLock();

} // namespace Velmor::Debug
