#include "Plugin.h"
#include "../support/PluginEntry.h"

#include <vlmcore/format.h>

using namespace Velmor;

namespace {

CMutableString MakeUpperCase(CString const& text)
{
    return text.CopyToUppercaseASCII();
}

constexpr StringPlugin::SPlugin Plugin = {
    [](void* hooks) { Memory::InitFromExternal(hooks); },
    [](CMutableString& result, CString const& text) { result = text; },
    [](CMutableString& result, IString const& name, int age) { Format(result, u"%1 (%2), %x2", name, age); },
    &MakeUpperCase,
    [](TVector<CMutableString, 1>& pieces, CString const& text) { text.Split(",", pieces); },
    [](CString const& left, CString const& right) { return left == right; },
    [](IString const& text) { return text.GetLength(); },
};

} // namespace

VLMCORE_TEST_PLUGIN(Plugin)
