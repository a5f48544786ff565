#include "Posix_SymbolIndex.h"

#include <new>

namespace Velmor::Platform {

// One module

namespace {

/// The last element that begins at or before the address, and how far back from it a look is worth while: the ranges of
/// sane modules do not overlap, those of functions that the linker dropped may lie anywhere.
constexpr int LookBack = 32;

template <class Range>
[[nodiscard]] Range const* FindRange(TRuntimeArray<Range> const& ranges, u64 address)
{
    auto const isBehind = [](u64 place, Range const& range) { return place < range.begin; };
    Range const* range = std::upper_bound(ranges.begin(), ranges.end(), address, isBehind);
    for (int looks = 0; looks < LookBack && range != ranges.begin(); ++looks) {
        --range;
        if (address < range->end)
            return range;
    }
    return nullptr;
}

} // namespace

CModuleIndex::CModuleIndex(Dwfl_Module* module) : m_module(module)
{
    ReadFunctions();
    ReadUnits();
}

void CModuleIndex::ReadFunctions()
{
    int const count = g_debugLibrary.countSymbols(m_module);
    for (int index = 1; index < count; ++index) { // the first is always empty
        Elf64_Sym symbol;
        u64 address = 0;
        char const* const name =
            g_debugLibrary.getSymbol(m_module, index, &symbol, &address, nullptr, nullptr, nullptr);
        u32 const type = ELF64_ST_TYPE(symbol.st_info);
        bool const isCode = type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
        if (name == nullptr || name[0] == '\0' || !isCode || symbol.st_size == 0 || symbol.st_shndx == SHN_UNDEF)
            continue;
        u32 const binding = ELF64_ST_BIND(symbol.st_info);
        u32 const reserve = binding == STB_GLOBAL ? 0 : binding == STB_WEAK ? 1 : 2;
        if (!m_functions.Append({address, address + symbol.st_size, name, reserve}))
            break;
    }
    // The preferred one last: a search looks backwards.
    std::sort(m_functions.begin(), m_functions.end(), [](SFunction const& a, SFunction const& b) {
        return a.begin != b.begin ? a.begin < b.begin : a.reserve > b.reserve;
    });
}

void CModuleIndex::ReadUnits()
{
    u64 bias = 0;
    for (Dwarf_Die* unit = nullptr; (unit = g_debugLibrary.nextUnit(m_module, unit, &bias)) != nullptr;) {
        u64 base = 0;
        u64 begin = 0;
        u64 end = 0;
        for (std::ptrdiff_t next = 0; (next = g_debugLibrary.nextRange(unit, next, &base, &begin, &end)) > 0;) {
            // What the linker dropped keeps its range, at the start of the module.
            if (begin != 0 && begin < end && !m_units.Append({begin + bias, end + bias, unit, bias}))
                return;
        }
    }
    std::sort(m_units.begin(), m_units.end(),
              [](SUnitRange const& a, SUnitRange const& b) { return a.begin < b.begin; });
}

char const* CModuleIndex::FindFunction(u64 address) const
{
    SFunction const* const function = FindRange(m_functions, address);
    return function != nullptr ? function->name : nullptr;
}

Dwarf_Line* CModuleIndex::FindLine(u64 address) const
{
    SUnitRange const* const range = FindRange(m_units, address);
    return range != nullptr ? g_debugLibrary.findUnitLine(range->unit, address - range->bias) : nullptr;
}

// All modules

namespace {

TRuntimeArray<CModuleIndex*>& GetIndices()
{
    // Never destroyed: threads may ask for symbols while the process ends.
    alignas(TRuntimeArray<CModuleIndex*>) static unsigned char memory[sizeof(TRuntimeArray<CModuleIndex*>)];
    static auto* const indices = ::new (memory) TRuntimeArray<CModuleIndex*>();
    return *indices;
}

void Delete(CModuleIndex* index)
{
    index->~CModuleIndex();
    std::free(index);
}

} // namespace

CModuleIndex const* GetModuleIndex(Dwfl_Module* module)
{
    for (CModuleIndex const* const index : GetIndices())
        if (index->GetModule() == module)
            return index;
    void* const memory = std::malloc(sizeof(CModuleIndex));
    if (memory == nullptr)
        return nullptr;
    auto* const index = ::new (memory) CModuleIndex(module);
    if (GetIndices().Append(index))
        return index;
    Delete(index);
    return nullptr;
}

void DropModuleIndices()
{
    for (CModuleIndex* const index : GetIndices())
        Delete(index);
    GetIndices().Clear();
}

} // namespace Velmor::Platform
