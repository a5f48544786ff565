/// \file
/// The system's debugging help library, loaded on first use and kept until the process ends.
#pragma once

#include <vlmcore/types.h>

#include <windows.h>

#include <dbghelp.h>

namespace Velmor::Platform {

/// Its entry points; all null when it cannot be loaded, single ones when it is too old to have them.
struct SDebugHelp {
    HMODULE library;
    decltype(&::SymInitialize) symInitialize;
    decltype(&::SymRefreshModuleList) symRefreshModuleList;
    decltype(&::SymFromAddr) symFromAddr;
    decltype(&::SymGetLineFromAddr64) symGetLineFromAddr64;
    decltype(&::SymGetModuleInfo64) symGetModuleInfo64;
    decltype(&::MiniDumpWriteDump) miniDumpWriteDump;
    decltype(&::SymEnumerateModules64) symEnumerateModules64;
    decltype(&::SymLoadModule64) symLoadModule64;
    decltype(&::SymSetOptions) symSetOptions;
    decltype(&::SymGetOptions) symGetOptions;
};

/// Loads the library the first time. The caller holds the symbol lock.
SDebugHelp const& GetDebugHelp();

} // namespace Velmor::Platform
