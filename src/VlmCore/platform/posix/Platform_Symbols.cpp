#include "../Platform_Symbols.h"

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

namespace Velmor::Platform {

// The debugging library

namespace {

// What is used of libdw, as its interface defines it. Declared here and looked up at run time: neither its headers nor
// the library itself are needed to build or to start.
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
    void (*reportBegin)(Dwfl*);
    int (*reportProcess)(Dwfl*, pid_t);
    int (*reportEnd)(Dwfl*, void*, void*);
    Dwfl_Module* (*findModule)(Dwfl*, u64);
    char const* (*findSymbol)(Dwfl_Module*, u64);
    Dwfl_Line* (*findLine)(Dwfl_Module*, u64);
    char const* (*describeLine)(Dwfl_Line*, u64*, int*, int*, u64*, u64*);
    Dwarf_Die* (*nextUnit)(Dwfl_Module*, Dwarf_Die*, u64*);
    int (*unitHasAddress)(Dwarf_Die*, u64);
    Dwarf_Line* (*findUnitLine)(Dwarf_Die*, u64);
    char const* (*getLineFile)(Dwarf_Line*, u64*, u64*);
    int (*getLineNumber)(Dwarf_Line*, int*);
    void (*findElf)();
    void (*findDebugInfo)();
};

SDebugLibrary g_library{};
Dwfl_Callbacks g_callbacks{};
Dwfl* g_session = nullptr;

template <class Function>
bool LookUp(void* library, Function& function, char const* name)
{
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

/// Opens a session of the debugging library; null when there is none to be had. Kept until the process ends.
Dwfl* OpenSession()
{
    void* const library = ::dlopen("libdw.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return nullptr;
    SDebugLibrary& dw = g_library;
    bool const complete =
        LookUp(library, dw.begin, "dwfl_begin") && LookUp(library, dw.reportBegin, "dwfl_report_begin") &&
        LookUp(library, dw.reportProcess, "dwfl_linux_proc_report") &&
        LookUp(library, dw.reportEnd, "dwfl_report_end") && LookUp(library, dw.findModule, "dwfl_addrmodule") &&
        LookUp(library, dw.findSymbol, "dwfl_module_addrname") && LookUp(library, dw.findLine, "dwfl_module_getsrc") &&
        LookUp(library, dw.describeLine, "dwfl_lineinfo") && LookUp(library, dw.nextUnit, "dwfl_module_nextcu") &&
        LookUp(library, dw.unitHasAddress, "dwarf_haspc") && LookUp(library, dw.findUnitLine, "dwarf_getsrc_die") &&
        LookUp(library, dw.getLineFile, "dwarf_linesrc") && LookUp(library, dw.getLineNumber, "dwarf_lineno") &&
        LookUp(library, dw.findElf, "dwfl_linux_proc_find_elf") &&
        LookUp(library, dw.findDebugInfo, "dwfl_standard_find_debuginfo");
    if (!complete)
        return nullptr;
    g_callbacks.findElf = dw.findElf;
    g_callbacks.findDebugInfo = dw.findDebugInfo;
    return dw.begin(&g_callbacks);
}

} // namespace

// Modules that come and go

namespace {

struct SModuleChanges {
    u64 loaded;
    u64 unloaded;
};

int ReadChanges(dl_phdr_info* info, std::size_t, void* result)
{
    *static_cast<SModuleChanges*>(result) = {info->dlpi_adds, info->dlpi_subs};
    return 1; // the figures are the same in every record
}

} // namespace

bool PrepareSymbols()
{
    static bool tried = false;
    static SModuleChanges known{};
    if (!tried) {
        tried = true;
        g_session = OpenSession();
    }
    if (g_session == nullptr)
        return false;
    SModuleChanges now{};
    ::dl_iterate_phdr(&ReadChanges, &now);
    if (now.loaded != known.loaded || now.unloaded != known.unloaded) {
        known = now;
        g_library.reportBegin(g_session);
        g_library.reportProcess(g_session, ::getpid());
        g_library.reportEnd(g_session, nullptr, nullptr);
    }
    return true;
}

// Resolution

namespace {

void CopySymbol(char const* raw, Debug::SCallstackLine& frame)
{
    int status = -1;
    char* const readable = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
    CopyCut(frame.symbol, MaxSymbolBytes, status == 0 ? readable : raw);
    std::free(readable);
}

/// A module is called by its file's name without folder, and without what follows from ".so" on.
void CopyModule(char const* path, Debug::SCallstackLine& frame)
{
    char executable[4096];
    if (path[0] == '\0' || std::strchr(path, '/') == nullptr) { // the program itself, however it was called
        ssize_t const size = ::readlink("/proc/self/exe", executable, sizeof executable - 1);
        if (size > 0) {
            executable[size] = '\0';
            path = executable;
        }
    }
    char const* const slash = std::strrchr(path, '/');
    CopyCut(frame.module, MaxModuleBytes, slash != nullptr ? slash + 1 : path);
    if (char* const extension = std::strstr(frame.module, ".so"))
        *extension = '\0';
}

/// Source file and line. The quick way needs a table of addresses that some compilers leave out; without it the
/// compilation units are asked one after the other.
void DescribeLine(Dwfl_Module* module, u64 place, Debug::SCallstackLine& frame)
{
    SDebugLibrary const& dw = g_library;
    char const* file = nullptr;
    int line = 0;
    if (Dwfl_Line* const source = dw.findLine(module, place)) {
        file = dw.describeLine(source, nullptr, &line, nullptr, nullptr, nullptr);
    }
    else {
        u64 bias = 0;
        for (Dwarf_Die* unit = nullptr; (unit = dw.nextUnit(module, unit, &bias)) != nullptr;) {
            if (dw.unitHasAddress(unit, place - bias) <= 0)
                continue;
            if (Dwarf_Line* const found = dw.findUnitLine(unit, place - bias)) {
                file = dw.getLineFile(found, nullptr, nullptr);
                static_cast<void>(dw.getLineNumber(found, &line));
            }
            break;
        }
    }
    if (file == nullptr)
        return;
    CopyCut(frame.file, MaxFileBytes, file);
    frame.line = static_cast<u32>(line);
}

} // namespace

void DescribeAddress(void const* address, Debug::SCallstackLine& frame)
{
    DescribeAddressPlainly(address, frame);
    if (g_session == nullptr)
        return;
    auto const place = reinterpret_cast<u64>(address);
    Dwfl_Module* const module = g_library.findModule(g_session, place);
    if (module == nullptr)
        return;
    if (char const* const symbol = g_library.findSymbol(module, place))
        CopySymbol(symbol, frame);
    DescribeLine(module, place, frame);
}

void DescribeAddressPlainly(void const* address, Debug::SCallstackLine& frame)
{
    ClearNames(frame);
    Dl_info info{};
    if (::dladdr(address, &info) == 0)
        return;
    CopyCut(frame.symbol, MaxSymbolBytes, info.dli_sname);
    if (info.dli_fname != nullptr)
        CopyModule(info.dli_fname, frame);
}

} // namespace Velmor::Platform
