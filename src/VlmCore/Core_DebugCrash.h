/// \file
/// The crash report, for the parts of the diagnostics that take part in it.
#pragma once

#include "platform/Platform_Debug.h"

#include <vlmcore/types.h>

namespace Velmor::Debug {

/// Readable name of an exception code.
[[nodiscard]] char const* GetExceptionName(u32 code);

/// Path of the dump that a crash at that moment writes: the executable's path without an extension of three letters,
/// and the moment, without padding zeros. Cut to `size` bytes with the terminator.
void BuildDumpPath(char* path, u64 size, char const* executable, Platform::SCalendarTime const& time);

/// True on the thread that crashed, and on one that works for it, while the report is made.
[[nodiscard]] bool IsReportingCrash();

/// The thread that crashed; only while IsReportingCrash.
[[nodiscard]] u32 GetCrashedThread();

/// False when the log has failed or hung in this report; only while IsReportingCrash.
[[nodiscard]] bool IsLogUsable();

/// How long a stage of a crash report may take.
inline constexpr u32 StageTimeout = 5'000; // milliseconds

} // namespace Velmor::Debug
