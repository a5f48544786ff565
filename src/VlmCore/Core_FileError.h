/// \file
/// System error numbers as file exceptions: the one mapping that files and archives share.
#pragma once

#include <vlmcore/exceptions.h>
#include <vlmcore/types.h>

namespace Velmor {

/// The kind of a system error number; Unknown for all without a kind of their own, access denied (5) included.
[[nodiscard]] EFileError::Type GetFileErrorKind(u32 systemError);

/// Throws the CFileException of a system error number with the system's text. Returns for 0: the system then reported
/// a failure without an error, and the caller goes on as if the call had succeeded.
void RaiseFileError(u32 systemError);

} // namespace Velmor
