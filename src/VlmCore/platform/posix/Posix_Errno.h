/// \file
/// The one place where errno becomes a system error number.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// The Windows number of the same failure; 0 for 0. An errno without a counterpart is marked with bit 29, which
/// Windows sets in no number of its own.
[[nodiscard]] u32 SystemErrorFromErrno(int number);

/// The number for the current errno.
[[nodiscard]] u32 LastSystemError();

} // namespace Velmor::Platform
