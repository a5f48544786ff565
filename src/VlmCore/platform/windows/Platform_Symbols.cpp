#include "../Platform_Symbols.h"

#include "Windows_DebugHelp.h"

#include <atomic>
#include <cstdlib>

namespace Velmor::Platform {

// The debugging library

char const* const DebugLibraryName = "dbghelp.dll";

namespace {

SDebugHelp g_help{};
bool g_helpTried = false;

template <class Function>
void LookUp(Function& function, char const* name)
{
    // By way of void*: the two function types have nothing in common.
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(g_help.library, name)));
}

void FreeDebugHelp()
{
    HMODULE const library = g_help.library;
    g_help = {};
    if (library != nullptr)
        ::FreeLibrary(library);
}

} // namespace

SDebugHelp const& GetDebugHelp()
{
    if (g_helpTried)
        return g_help;
    g_helpTried = true;
    g_help.library = ::LoadLibraryA(DebugLibraryName);
    if (g_help.library == nullptr)
        return g_help;
    LookUp(g_help.symInitialize, "SymInitialize");
    LookUp(g_help.symRefreshModuleList, "SymRefreshModuleList");
    LookUp(g_help.symFromAddr, "SymFromAddr");
    LookUp(g_help.symGetLineFromAddr64, "SymGetLineFromAddr64");
    LookUp(g_help.symGetModuleInfo64, "SymGetModuleInfo64");
    LookUp(g_help.miniDumpWriteDump, "MiniDumpWriteDump");
    LookUp(g_help.symEnumerateModules64, "SymEnumerateModules64");
    LookUp(g_help.symLoadModule64, "SymLoadModule64");
    LookUp(g_help.symSetOptions, "SymSetOptions");
    LookUp(g_help.symGetOptions, "SymGetOptions");
    std::atexit(&FreeDebugHelp);
    return g_help;
}

// Modules that come and go

namespace {

/// Set by the loader, under its lock, whenever a module is loaded or unloaded.
std::atomic<bool> g_modulesChanged{true};
void* g_notification = nullptr;

void CALLBACK OnModule(ULONG, void const*, void*)
{
    g_modulesChanged.store(true, std::memory_order_relaxed);
}

using Notify = void(CALLBACK*)(ULONG, void const*, void*);
using Register = LONG(NTAPI*)(ULONG, Notify, void*, void**);
using Unregister = LONG(NTAPI*)(void*);

template <class Function>
Function GetLoaderFunction(char const* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("ntdll"), name)));
}

void StopWatchingModules()
{
    if (auto const unregister = GetLoaderFunction<Unregister>("LdrUnregisterDllNotification"))
        unregister(g_notification);
}

/// True when the loader will set g_modulesChanged; otherwise every preparation has to assume a change.
bool WatchModules()
{
    static bool tried = false;
    if (!tried) {
        tried = true;
        auto const watch = GetLoaderFunction<Register>("LdrRegisterDllNotification");
        if (watch != nullptr && watch(0, &OnModule, nullptr, &g_notification) == 0)
            std::atexit(&StopWatchingModules);
        else
            g_notification = nullptr;
    }
    return g_notification != nullptr;
}

} // namespace

bool PrepareSymbols()
{
    SDebugHelp const& help = GetDebugHelp();
    if (help.symInitialize == nullptr)
        return false;
    bool const watched = WatchModules();
    if (!g_modulesChanged.exchange(false, std::memory_order_relaxed) && watched)
        return true;
    if (help.symSetOptions != nullptr && help.symGetOptions != nullptr)
        help.symSetOptions(help.symGetOptions() | SYMOPT_LOAD_LINES | SYMOPT_DEFERRED_LOADS |
                           SYMOPT_FAIL_CRITICAL_ERRORS);
    HANDLE const process = ::GetCurrentProcess();
    if (help.symRefreshModuleList == nullptr || !help.symRefreshModuleList(process))
        help.symInitialize(process, nullptr, TRUE);
    return true;
}

// The symbols are those of the process: a host or another module may be using them.
void ReleaseSymbols() {}

// Resolution

void DescribeAddress(void const* address, Debug::SCallstackLine& frame)
{
    ClearNames(frame);
    SDebugHelp const& help = GetDebugHelp();
    HANDLE const process = ::GetCurrentProcess();
    auto const place = reinterpret_cast<DWORD64>(address);

    // The symbol first: asking for it loads what a module's deferred load has put off.
    alignas(SYMBOL_INFO) char storage[sizeof(SYMBOL_INFO) + MaxSymbolBytes + 1] = {};
    auto* const symbol = reinterpret_cast<SYMBOL_INFO*>(storage);
    symbol->SizeOfStruct = sizeof(SYMBOL_INFO);
    symbol->MaxNameLen = MaxSymbolBytes;
    DWORD64 distance = 0;
    if (help.symFromAddr != nullptr && help.symFromAddr(process, place, &distance, symbol))
        CopyCut(frame.symbol, MaxSymbolBytes, symbol->Name);

    IMAGEHLP_LINE64 line{};
    line.SizeOfStruct = sizeof line;
    DWORD column = 0;
    if (help.symGetLineFromAddr64 != nullptr && help.symGetLineFromAddr64(process, place, &column, &line)) {
        CopyCut(frame.file, MaxFileBytes, line.FileName);
        frame.line = line.LineNumber;
    }

    IMAGEHLP_MODULE64 module{};
    module.SizeOfStruct = sizeof module;
    if (help.symGetModuleInfo64 != nullptr && help.symGetModuleInfo64(process, place, &module))
        CopyCut(frame.module, MaxModuleBytes, module.ModuleName);
}

void DescribeAddressPlainly(void const* address, Debug::SCallstackLine& frame)
{
    DescribeAddress(address, frame);
}

} // namespace Velmor::Platform
