/// \file
/// Seam: names for addresses. The system's debugging library is loaded at run time and may be missing.
///
/// The debugging libraries serve one thread at a time: callers hold one lock of their own around everything here.
/// They take memory from the C runtime, never from the library's heap. Nothing here throws.
#pragma once

#include "../Core_Printf.h"

#include <vlmcore/debug.h>
#include <vlmcore/types.h>

namespace Velmor::Platform {

/// File name of the debugging library.
extern char const* const DebugLibraryName;

/// Makes symbols usable: the first time by loading the debugging library and its view of this process, later by
/// bringing that view up to date where modules came or went. False when there is no debugging library; resolution then
/// gives what the system itself knows, perhaps nothing.
bool PrepareSymbols();

/// Gives back what PrepareSymbols took for this library alone. It may be called again afterwards and starts anew.
void ReleaseSymbols();

/// Fills the names and the line of `frame` as far as they are known, empty text and 0 where not; leaves its address.
/// Texts are cut to 1023 (symbol), 63 (module) and 256 (file) bytes. The address is looked up as it stands.
void DescribeAddress(void const* address, Debug::SCallstackLine& frame);

/// DescribeAddress for a process that has crashed: takes no memory and no time to speak of, knows less.
void DescribeAddressPlainly(void const* address, Debug::SCallstackLine& frame);

/// Empties everything but the address.
inline void ClearNames(Debug::SCallstackLine& frame)
{
    frame.line = 0;
    frame.symbol[0] = '\0';
    frame.module[0] = '\0';
    frame.file[0] = '\0';
}

inline constexpr u64 MaxSymbolBytes = sizeof(Debug::SCallstackLine::symbol) - 1;
inline constexpr u64 MaxModuleBytes = sizeof(Debug::SCallstackLine::module) - 1;
inline constexpr u64 MaxFileBytes = 256;

} // namespace Velmor::Platform
