/// \file
/// What is used of libdw, as its interface defines it. Declared here and looked up at run time: neither its headers nor
/// the library itself are needed to build or to start.
#pragma once

#include <vlmcore/types.h>

#include <cstddef>

#include <elf.h>
#include <sys/types.h>

namespace Velmor::Platform {

struct Dwfl;
struct Dwfl_Module;
struct Dwfl_Line;
struct Dwarf_Die;
struct Dwarf_Line;

struct Dwfl_Callbacks {
    void (*findElf)();
    void (*findDebugInfo)();
    void (*sectionAddress)();
    char** debugInfoPath;
};

struct SDebugLibrary {
    Dwfl* (*begin)(Dwfl_Callbacks const*);
    void (*end)(Dwfl*);
    void (*reportBegin)(Dwfl*);
    int (*reportProcess)(Dwfl*, pid_t);
    int (*reportEnd)(Dwfl*, void*, void*);
    Dwfl_Module* (*findModule)(Dwfl*, u64);
    int (*countSymbols)(Dwfl_Module*);
    char const* (*getSymbol)(Dwfl_Module*, int, Elf64_Sym*, u64*, u32*, void**, u64*);
    char const* (*findSymbol)(Dwfl_Module*, u64);
    Dwfl_Line* (*findLine)(Dwfl_Module*, u64);
    char const* (*describeLine)(Dwfl_Line*, u64*, int*, int*, u64*, u64*);
    Dwarf_Die* (*nextUnit)(Dwfl_Module*, Dwarf_Die*, u64*);
    std::ptrdiff_t (*nextRange)(Dwarf_Die*, std::ptrdiff_t, u64*, u64*, u64*);
    Dwarf_Line* (*findUnitLine)(Dwarf_Die*, u64);
    char const* (*getLineFile)(Dwarf_Line*, u64*, u64*);
    int (*getLineNumber)(Dwarf_Line*, int*);
    void (*findElf)();
    void (*findDebugInfo)();
};

/// Filled once the library is loaded.
extern SDebugLibrary g_debugLibrary;

} // namespace Velmor::Platform
