/// \file
/// Symbols and compilation units of the loaded modules, in order. The debugging library itself looks through a module's
/// whole symbol table for each address, and through all of its compilation units where the compiler left out their table.
///
/// Memory comes from the C runtime; where there is none, lookups find nothing and the library's own are left. Callers
/// hold the lock of the symbols.
#pragma once

#include "Posix_DebugLibrary.h"

#include <algorithm>
#include <cstdlib>

namespace Velmor::Platform {

/// Grows by the C runtime; for plain values.
template <class T>
class TRuntimeArray {
public:
    TRuntimeArray() = default;
    TRuntimeArray(TRuntimeArray const&) = delete;
    TRuntimeArray& operator=(TRuntimeArray const&) = delete;
    ~TRuntimeArray() { std::free(m_data); }

    [[nodiscard]] T* begin() const { return m_data; }
    [[nodiscard]] T* end() const { return m_data + m_count; }

    void Clear() { m_count = 0; }

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

    /// The raw name of the function around an address; of several with this start the most public one. Null when none is
    /// known to reach that far. Lives as long as the module.
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

/// The index of a module, made when it is first asked for; null without memory.
[[nodiscard]] CModuleIndex const* GetModuleIndex(Dwfl_Module* module);

/// Forgets every index: modules have come or gone.
void DropModuleIndices();

} // namespace Velmor::Platform
