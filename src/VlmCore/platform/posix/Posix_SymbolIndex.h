/// \file
/// Symbols and compilation units of the loaded modules, in order. The debugging library itself looks through a module's
/// whole symbol table for each address, and through all of its compilation units where the compiler left out their
/// table.
///
/// Memory comes from the C runtime; where there is none, lookups find nothing and the library's own are left. Callers
/// hold the lock of the symbols.
#pragma once

#include "Posix_DebugLibrary.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Velmor::Platform {

/// Grows by the C runtime; for plain values.
template <class T>
class TRuntimeArray {
public:
    TRuntimeArray() = default;
    TRuntimeArray(TRuntimeArray const&) = delete;
    TRuntimeArray& operator=(TRuntimeArray const&) = delete;
    ~TRuntimeArray() { Clear(); }

    [[nodiscard]] T* begin() const { return m_data; }
    [[nodiscard]] T* end() const { return m_data + m_count; }

    /// Gives the memory back.
    void Clear()
    {
        std::free(m_data);
        m_data = nullptr;
        m_count = m_capacity = 0;
    }

    /// False, and nothing changed, without memory.
    bool Append(T const& value)
    {
        if (m_count == m_capacity) {
            u64 const capacity = std::max<u64>(64, m_capacity * 2);
            T* const data = static_cast<T*>(std::realloc(static_cast<void*>(m_data), capacity * sizeof(T)));
            if (data == nullptr)
                return false;
            m_data = data;
            m_capacity = capacity;
        }
        m_data[m_count++] = value;
        return true;
    }

private:
    T* m_data = nullptr;
    u64 m_count = 0;
    u64 m_capacity = 0;
};

/// The index of one module. Reads the module's symbols and units when it is made.
class CModuleIndex {
public:
    explicit CModuleIndex(Dwfl_Module* module);

    [[nodiscard]] Dwfl_Module* GetModule() const { return m_module; }

    /// The raw name of the function around an address; of several with this start the most public one. Null when none
    /// is known to reach that far. Lives as long as the module.
    [[nodiscard]] char const* FindFunction(u64 address) const;

    /// The line of an address; null when there is no debug information.
    [[nodiscard]] Dwarf_Line* FindLine(u64 address) const;

private:
    struct SFunction {
        u64 begin;
        u64 end;
        char const* name;
        u32 reserve; ///< how little a name is preferred: 0 global, 1 weak, 2 local
    };
    struct SUnitRange {
        u64 begin; ///< of the running process
        u64 end;
        Dwarf_Die* unit;
        u64 bias; ///< between the running process and the module's file
    };

    void ReadFunctions();
    void ReadUnits();

    Dwfl_Module* m_module;
    TRuntimeArray<SFunction> m_functions;
    TRuntimeArray<SUnitRange> m_units;
};

// One module

/// The last element that begins at or before the address, and how far back from it a look is worth while: the ranges of
/// sane modules do not overlap, those of functions that the linker dropped may lie anywhere.
inline constexpr int LookBack = 32;

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

inline CModuleIndex::CModuleIndex(Dwfl_Module* module) : m_module(module)
{
    ReadFunctions();
    ReadUnits();
}

inline void CModuleIndex::ReadFunctions()
{
    int const count = g_debugLibrary.countSymbols(m_module);
    for (int index = 1; index < count; ++index) { // the first is always empty
        Elf64_Sym symbol{};
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

inline void CModuleIndex::ReadUnits()
{
    u64 bias = 0;
    bool hasMemory = true;
    for (Dwarf_Die* unit = nullptr; hasMemory && (unit = g_debugLibrary.nextUnit(m_module, unit, &bias)) != nullptr;) {
        u64 base = 0;
        u64 begin = 0;
        u64 end = 0;
        for (std::ptrdiff_t next = 0;
             hasMemory && (next = g_debugLibrary.nextRange(unit, next, &base, &begin, &end)) > 0;) {
            // What the linker dropped keeps its range, at the start of the module.
            if (begin != 0 && begin < end)
                hasMemory = m_units.Append({begin + bias, end + bias, unit, bias});
        }
    }
    std::sort(m_units.begin(), m_units.end(),
              [](SUnitRange const& a, SUnitRange const& b) { return a.begin < b.begin; });
}

inline char const* CModuleIndex::FindFunction(u64 address) const
{
    SFunction const* const function = FindRange(m_functions, address);
    return function != nullptr ? function->name : nullptr;
}

inline Dwarf_Line* CModuleIndex::FindLine(u64 address) const
{
    SUnitRange const* const range = FindRange(m_units, address);
    return range != nullptr ? g_debugLibrary.findUnitLine(range->unit, address - range->bias) : nullptr;
}

// All modules

inline TRuntimeArray<CModuleIndex*>& GetIndices()
{
    // Never destroyed: threads may ask for symbols while the process ends.
    alignas(TRuntimeArray<CModuleIndex*>) static unsigned char memory[sizeof(TRuntimeArray<CModuleIndex*>)];
    static auto* const indices = ::new (memory) TRuntimeArray<CModuleIndex*>();
    return *indices;
}

inline void Delete(CModuleIndex* index)
{
    index->~CModuleIndex();
    std::free(index);
}

/// The index of a module, made when it is first asked for; null without memory.
[[nodiscard]] inline CModuleIndex const* GetModuleIndex(Dwfl_Module* module)
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

/// Forgets every index: modules have come or gone.
inline void DropModuleIndices()
{
    for (CModuleIndex* const index : GetIndices())
        Delete(index);
    GetIndices().Clear();
}

} // namespace Velmor::Platform
