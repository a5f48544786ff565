/// \file
/// The host's side of a plugin (PluginEntry.h).
#pragma once

#include "PluginEntry.h"

#include <vlmcore/system.h>

#include <string>

namespace TestSupport {

/// A plugin for as long as it is loaded; `Table` is what its function gives.
template <class Table>
class TPluginModule {
public:
    /// From beside the test program, which runs in its folder. Throws CException when there is no such plugin.
    explicit TPluginModule(std::string const& fileName)
        : m_module(Velmor::System::LoadLibrary(("./" + fileName).c_str())), m_table(GetTable(m_module))
    {
    }
    TPluginModule(TPluginModule const&) = delete;
    TPluginModule& operator=(TPluginModule const&) = delete;
    ~TPluginModule() { Velmor::System::FreeLibrary(m_module); }

    Table const* operator->() const { return m_table; }

private:
    static Table const* GetTable(void* module)
    {
        void* const entry = Velmor::System::GetLibraryFunctionPtr(module, PluginEntry);
        return reinterpret_cast<Table const* (*)()>(entry)();
    }

    void* m_module;
    Table const* m_table;
};

} // namespace TestSupport
