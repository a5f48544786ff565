#include "Plugin.h"

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

#if defined(__ELF__)
#  define PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#  define PLUGIN_EXPORT __declspec(dllexport)
#endif

extern "C" PLUGIN_EXPORT StringPlugin::SPlugin const* GetStringPlugin();
extern "C" PLUGIN_EXPORT StringPlugin::SPlugin const* GetStringPlugin()
{
    return &Plugin;
}
