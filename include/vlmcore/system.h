/// \file
/// Queries of the processor and the operating system, loadable modules, and type names.
///
/// Threads: any, for everything.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {
namespace System {

/// What GetCPUInfo tells about the processor. A field that the processor does not report is 0.
struct SCPUInfo {
    u64 cacheSize[3];     ///< bytes. AMD: level 1 data, level 2, level 3. Intel: the first three caches that the
                          ///< processor lists, usually level 1 data, level 1 code, level 2
    u64 cacheLineSize[3]; ///< bytes, same order
    u8 processorCount;    ///< logical processors, low byte of the count: 0 for 256 of them
    u8 hasVector2;        ///< 1 with MMX or 3DNow!
    u8 hasVector4;        ///< 1 with SSE2
    u8 hasVector8;        ///< bit 27 of the vendor text: 1 on Intel, 0 on AMD, and no statement about vector
                          ///< instructions (kept: hosts depend on it)
};

/// Fills the record.
VLM_API void GetCPUInfo(SCPUInfo& info);

/// Milliseconds with fractions since some fixed moment, from a clock that never goes back.
[[nodiscard]] VLM_API double GetTimeMs();

/// Bytes of memory in the machine.
[[nodiscard]] VLM_API u64 GetMaxPhysicalMemory();

/// Bytes that all programs together may commit: memory plus paging space; not the size of the address space.
[[nodiscard]] VLM_API u64 GetMaxVirtualMemory();

// <windows.h> renames LoadLibrary by a macro. The function is declared under its own name whatever was included
// before; a call that the macro renames, before or after, arrives at one of the forwarders.
#pragma push_macro("LoadLibrary")
#undef LoadLibrary

/// Loads a module, or takes one more hold of a loaded one, and returns its handle. Give it back with FreeLibrary.
///
/// Slashes in the name become backslashes, and ".dll" is appended to a name without any dot, a dot in a folder's name
/// counting too (kept: hosts depend on it). On Linux the suffix is ".so", and the path goes to the loader with
/// slashes; a bare name is searched for where the system's loader looks, which is not the current folder.
///
/// Throws CException "<name as processed> failed to load: <system message>".
[[nodiscard]] VLM_API void* LoadLibrary(CString const& name);

/// What <windows.h> makes of LoadLibrary: the same function.
[[nodiscard]] inline void* LoadLibraryA(CString const& name)
{
    return LoadLibrary(name);
}
/// What <windows.h> makes of LoadLibrary: the same function.
[[nodiscard]] inline void* LoadLibraryW(CString const& name)
{
    return LoadLibrary(name);
}
#pragma pop_macro("LoadLibrary")

/// The handle of a module that is loaded already, without a hold of its own; the name is processed as by LoadLibrary.
/// Null when there is no such module.
[[nodiscard]] VLM_API void* GetLibrary(CString const& name);

/// Gives a hold of LoadLibrary back; nothing for null.
VLM_API void FreeLibrary(void* module);

/// The address of an exported function. Throws CException "<name> failed to load: <system message>" without one.
[[nodiscard]] VLM_API void* GetLibraryFunctionPtr(void* module, CString const& name);

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

/// Copies a raw type name without its leading keyword, that is what follows the first space ("class Foo" gives
/// "Foo"), or the whole name when it holds none.
/// \param out      receives the text, always terminated, cut to `outSize` bytes with the terminator; may be null.
/// \return always 0.
VLM_API int Demangle(char const* name, char* out, u64 outSize);

} // namespace RTTI
} // namespace Velmor
