// What the plugin offers its host: the table of functions behind its entry.
#pragma once

#include <vlmcore/strings.h>

namespace StringPlugin {

struct SPlugin {
    void (*adopt)(void* hooks);
    /// Each writes into, or reads from, strings of the host.
    void (*assign)(Velmor::CMutableString& result, Velmor::CString const& text);
    void (*greet)(Velmor::CMutableString& result, Velmor::IString const& name, int age);
    Velmor::CMutableString (*makeUpperCase)(Velmor::CString const& text);
    void (*split)(Velmor::TVector<Velmor::CMutableString, 1>& pieces, Velmor::CString const& text);
    bool (*isEqual)(Velmor::CString const& left, Velmor::CString const& right);
    Velmor::u64 (*getLength)(Velmor::IString const& text);
};

} // namespace StringPlugin
