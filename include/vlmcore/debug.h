/// \file
/// Assertions, crash handling and call stacks.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

namespace Velmor::Debug {

/// One resolved frame of a call stack.
struct SCallstackLine {
    u64 address;       ///< return address
    u32 line;          ///< source line, 0 when unknown
    char symbol[1024]; ///< function name
    char module[64];   ///< module name
    char file[260];    ///< source file, "unknown_file" when unknown
};

/// Most frames that a capture gives; callers allocate arrays of this many.
inline constexpr u32 MaxFrames = 32;
static_assert(sizeof(SCallstackLine) * MaxFrames == 43520);

[[nodiscard]] VLM_API bool IsDebuggerPresent();
/// Formats into 4096 bytes (cut there) and sends the text to the debugger; nothing without one.
VLM_API void Print(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void LoadSymbols();
VLM_API unsigned char UnwindCallStack(SCallstackLine* frames, unsigned int* hash);
VLM_API unsigned char Backtrace(void** addresses, unsigned int* hash);
VLM_API void ResolveSymbol(void* address, SCallstackLine& frame);
VLM_API void ResolveSymbols(void** addresses, SCallstackLine* frames, u64 count);

} // namespace Velmor::Debug
