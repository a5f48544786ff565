/// \file
/// Queries of the processor and the operating system, and loadable modules.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {
namespace System {

struct SCPUInfo {
    u64 cacheSize[3];     ///< bytes of the level 1 data, level 2 and level 3 cache
    u64 cacheLineSize[3]; ///< bytes
    u8 processorCount;
    u8 hasVector2;
    u8 hasVector4;
    u8 hasVector8;
};

VLM_API void GetCPUInfo(SCPUInfo& info);
/// Milliseconds with fractions, from a monotonic clock.
[[nodiscard]] VLM_API double GetTimeMs();
[[nodiscard]] VLM_API u64 GetMaxPhysicalMemory();
[[nodiscard]] VLM_API u64 GetMaxVirtualMemory();

/// The standard streams of the process.
namespace EConsole {
enum Type : u32 { Output, Error };
} // namespace EConsole

/// Appends the command line, UTF-8, the program's name first: whole also where `main` gets it in a narrower code page.
/// Throws CBadAllocation.
VLM_API void GetArguments(TVector<CMutableString, 1>& arguments);

/// True when the stream goes to a terminal, where a person sees progress and colours; false for files and pipes.
[[nodiscard]] VLM_API bool IsTerminal(EConsole::Type stream);

} // namespace System

namespace RTTI {
VLM_API int Demangle(char const* name, char* out, u64 outSize);
} // namespace RTTI
} // namespace Velmor
