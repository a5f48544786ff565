/// \file
/// Seam: crashes. Nothing here throws or takes memory from a heap once the handler is installed.
///
/// A report on a crash is made in stages, each of which may fail in its turn, because the process is no longer sound:
/// it may crash again, or wait for a lock whose holder is gone. A stage is therefore run on a stack with room, under
/// guard and against the clock, and the next one follows whatever became of it.
///
/// Exception pointers have the form of the Windows record of that name on both systems: two pointers, to the exception
/// record (code: 32 bits at offset 0; address: 64 bits at offset 16) and to the system's own processor context.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Reports a crash; the result is not used.
using CrashHandler = int (*)(void* exceptionPointers);

/// Has `handler` called on the thread that crashes, and sets aside what the stages need. Windows: as the process's
/// unhandled-exception filter. Posix: from the signals of crashes; when it returns, the signal's default action
/// follows. Once per process.
void InstallCrashHandler(CrashHandler handler);

using CrashStage = void (*)(void* context);

/// Runs one stage of a report; false when it crashed or took longer than `timeoutMilliseconds` (0: no limit). Stages
/// may nest. Without an installed handler a stage runs with whatever protection can be had at once. A stage may run on
/// another thread than its caller's.
bool RunCrashStage(CrashStage stage, void* context, u32 timeoutMilliseconds);

/// Writes a minidump of this process to a new file at the path; false when there is none then. `threadId` is the thread
/// that crashed; `exceptionPointers` may be null. The caller holds the symbol lock, if it can.
bool WriteMinidump(char const* path, u32 threadId, void* exceptionPointers);

} // namespace Velmor::Platform
