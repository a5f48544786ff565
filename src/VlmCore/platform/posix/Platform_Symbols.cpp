#include "../Platform_Symbols.h"

#include "Posix_SymbolIndex.h"

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>
#include <utility>

namespace Velmor::Platform {

// The debugging library

char const* const DebugLibraryName = "libdw.so.1";

SDebugLibrary g_debugLibrary{};

namespace {

Dwfl_Callbacks g_callbacks{};
Dwfl* g_session = nullptr;

template <class Function>
bool LookUp(void* library, Function& function, char const* name)
{
    function = reinterpret_cast<Function>(::dlsym(library, name));
    return function != nullptr;
}

/// Opens a session of the debugging library; null when there is none to be had.
Dwfl* OpenSession()
{
    void* const library = ::dlopen(DebugLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return nullptr;
    SDebugLibrary& dw = g_debugLibrary;
    bool const complete =
        LookUp(library, dw.begin, "dwfl_begin") && LookUp(library, dw.end, "dwfl_end") &&
        LookUp(library, dw.reportBegin, "dwfl_report_begin") &&
        LookUp(library, dw.reportProcess, "dwfl_linux_proc_report") &&
        LookUp(library, dw.reportEnd, "dwfl_report_end") && LookUp(library, dw.findModule, "dwfl_addrmodule") &&
        LookUp(library, dw.countSymbols, "dwfl_module_getsymtab") &&
        LookUp(library, dw.getSymbol, "dwfl_module_getsym_info") &&
        LookUp(library, dw.findSymbol, "dwfl_module_addrname") && LookUp(library, dw.findLine, "dwfl_module_getsrc") &&
        LookUp(library, dw.describeLine, "dwfl_lineinfo") && LookUp(library, dw.nextUnit, "dwfl_module_nextcu") &&
        LookUp(library, dw.nextRange, "dwarf_ranges") && LookUp(library, dw.findUnitLine, "dwarf_getsrc_die") &&
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

// What was resolved before

namespace {

/// Names of addresses that were asked for: the same few thousand come again in stack after stack. An address that needs
/// the place of another pushes it out.
class CFrameCache {
public:
    /// False, and nothing changed, for an address that is not here.
    bool Find(u64 address, Debug::SCallstackLine& frame) const
    {
        SEntry const* const entry = m_entries[GetPlace(address)];
        if (entry == nullptr || entry->address != address)
            return false;
        char const* const texts = reinterpret_cast<char const*>(entry + 1);
        frame.line = entry->line;
        std::memcpy(frame.symbol, texts, entry->symbolSize);
        std::memcpy(frame.module, texts + entry->symbolSize, entry->moduleSize);
        std::memcpy(frame.file, texts + entry->symbolSize + entry->moduleSize, entry->fileSize);
        return true;
    }

    void Note(u64 address, Debug::SCallstackLine const& frame)
    {
        SEntry entry{address, frame.line, GetSize(frame.symbol), GetSize(frame.module), GetSize(frame.file)};
        void* const memory = std::malloc(sizeof entry + entry.symbolSize + entry.moduleSize + entry.fileSize);
        if (memory == nullptr)
            return;
        char* const texts = static_cast<char*>(memory) + sizeof entry;
        std::memcpy(memory, &entry, sizeof entry);
        std::memcpy(texts, frame.symbol, entry.symbolSize);
        std::memcpy(texts + entry.symbolSize, frame.module, entry.moduleSize);
        std::memcpy(texts + entry.symbolSize + entry.moduleSize, frame.file, entry.fileSize);
        SEntry*& place = m_entries[GetPlace(address)];
        std::free(place);
        place = static_cast<SEntry*>(memory);
    }

    void Clear()
    {
        for (SEntry*& entry : m_entries) {
            std::free(entry);
            entry = nullptr;
        }
    }

private:
    /// Behind it lie the three texts with their terminators, whose sizes these are.
    struct SEntry {
        u64 address;
        u32 line;
        u32 symbolSize;
        u32 moduleSize;
        u32 fileSize;
    };

    static constexpr u32 CountBits = 13;
    static u64 GetPlace(u64 address) { return (address * 0x9E3779B97F4A7C15u) >> (64 - CountBits); }
    static u32 GetSize(char const* text) { return static_cast<u32>(std::strlen(text) + 1); }

    SEntry* m_entries[1u << CountBits]{};
};

CFrameCache g_cache;

} // namespace

// Modules that come and go

namespace {

struct SModuleChanges {
    u64 loaded;
    u64 unloaded;
};

bool g_isPrepared = false;
SModuleChanges g_knownChanges{};

int ReadChanges(dl_phdr_info* info, std::size_t, void* result)
{
    *static_cast<SModuleChanges*>(result) = {info->dlpi_adds, info->dlpi_subs};
    return 1; // the figures are the same in every record
}

} // namespace

bool PrepareSymbols()
{
    if (!g_isPrepared) {
        g_isPrepared = true;
        g_knownChanges = {};
        g_session = OpenSession();
    }
    if (g_session == nullptr)
        return false;
    SModuleChanges now{};
    ::dl_iterate_phdr(&ReadChanges, &now);
    if (now.loaded != g_knownChanges.loaded || now.unloaded != g_knownChanges.unloaded) {
        g_knownChanges = now;
        g_cache.Clear();
        DropModuleIndices();
        g_debugLibrary.reportBegin(g_session);
        g_debugLibrary.reportProcess(g_session, ::getpid());
        g_debugLibrary.reportEnd(g_session, nullptr, nullptr);
    }
    return true;
}

void ReleaseSymbols()
{
    g_isPrepared = false;
    g_cache.Clear();
    DropModuleIndices();
    if (g_session != nullptr)
        g_debugLibrary.end(std::exchange(g_session, nullptr));
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

/// Source file and line. The library's own way needs a table of addresses that some compilers leave out.
void DescribeLine(Dwfl_Module* module, CModuleIndex const* index, u64 place, Debug::SCallstackLine& frame)
{
    SDebugLibrary const& dw = g_debugLibrary;
    char const* file = nullptr;
    int line = 0;
    if (Dwfl_Line* const source = dw.findLine(module, place)) {
        file = dw.describeLine(source, nullptr, &line, nullptr, nullptr, nullptr);
    }
    else if (Dwarf_Line* const found = index != nullptr ? index->FindLine(place) : nullptr) {
        file = dw.getLineFile(found, nullptr, nullptr);
        static_cast<void>(dw.getLineNumber(found, &line));
    }
    if (file == nullptr)
        return;
    CopyCut(frame.file, MaxFileBytes, file);
    frame.line = static_cast<u32>(line);
}

void DescribeByLibrary(Dwfl_Module* module, u64 place, Debug::SCallstackLine& frame)
{
    CModuleIndex const* const index = GetModuleIndex(module);
    char const* symbol = index != nullptr ? index->FindFunction(place) : nullptr;
    if (symbol == nullptr)
        symbol = g_debugLibrary.findSymbol(module, place); // knows labels without a size, too
    if (symbol != nullptr)
        CopySymbol(symbol, frame);
    DescribeLine(module, index, place, frame);
}

} // namespace

void DescribeAddress(void const* address, Debug::SCallstackLine& frame)
{
    if (g_session == nullptr) {
        DescribeAddressPlainly(address, frame);
        return;
    }
    auto const place = reinterpret_cast<u64>(address);
    if (g_cache.Find(place, frame))
        return;
    DescribeAddressPlainly(address, frame);
    if (Dwfl_Module* const module = g_debugLibrary.findModule(g_session, place))
        DescribeByLibrary(module, place, frame);
    g_cache.Note(place, frame);
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
