#include <vlmcore/system.h>

#include <vlmcore/exceptions.h>

#include "Core_Path.h"
#include "Core_ProcessorInfo.h"
#include "platform/Platform_Module.h"
#include "platform/Platform_System.h"

#include <cstring>

namespace Velmor {
namespace System {
namespace {

/// The module's name as the loader gets it: backslashes for slashes, and the suffix behind a name without any dot.
Path::PathUnits ProcessModuleName(CString const& name)
{
    Path::CWideText const text(name);
    Path::PathUnits units;
    units.Reserve(text.GetCount() + 5);
    bool hasDot = false;
    for (u64 i = 0; i < text.GetCount(); ++i) {
        char16_t const unit = text.Get()[i];
        hasDot = hasDot || unit == u'.';
        units.Append(unit == u'/' ? u'\\' : unit);
    }
    if (!hasDot) {
        for (char16_t const* suffix = Platform::ModuleSuffix; *suffix != 0; ++suffix)
            units.Append(*suffix);
    }
    units.Append(0);
    return units;
}

/// The name is cut where the exception's message would overflow.
[[noreturn]] void ThrowLoadFailure(CString const& name, Platform::ModuleErrorText const& reason)
{
    CMutableString const text = name.ToUTF8();
    char const* const utf8 = static_cast<char const*>(text.GetData());
    throw CException("%.2000s failed to load: %s", utf8 != nullptr ? utf8 : "", reason);
}

} // namespace

void GetCPUInfo(SCPUInfo& info)
{
    FillProcessorInfo({Platform::GetProcessorCount(), Platform::HasProcessorFeature, Platform::IdentifyProcessor},
                      info);
}

double GetTimeMs()
{
    double const countsPerMs = static_cast<double>(Platform::GetPerformanceFrequency()) * 0.001;
    return static_cast<double>(Platform::GetPerformanceCounter()) / countsPerMs;
}

u64 GetMaxPhysicalMemory()
{
    return Platform::GetMemoryFigures().physical;
}

u64 GetMaxVirtualMemory()
{
    return Platform::GetMemoryFigures().commitLimit;
}

void* LoadLibrary(CString const& name)
{
    Path::PathUnits const processed = ProcessModuleName(name);
    Platform::ModuleErrorText reason;
    void* const module = Platform::LoadModule(processed.GetData(), reason);
    if (module == nullptr)
        ThrowLoadFailure(Path::ViewOf(processed), reason);
    return module;
}

void* GetLibrary(CString const& name)
{
    return Platform::FindModule(ProcessModuleName(name).GetData());
}

void FreeLibrary(void* module)
{
    if (module != nullptr)
        Platform::UnloadModule(module);
}

void* GetLibraryFunctionPtr(void* module, CString const& name)
{
    // Exported names are bytes: UTF-8 goes to the loader as it is.
    CMutableString converted;
    char const* bytes = static_cast<char const*>(name.GetData());
    if (name.GetEncoding() != EStringEncoding::UTF8 || bytes == nullptr) {
        converted = name.ToUTF8();
        bytes = converted.GetData() != nullptr ? static_cast<char const*>(converted.GetData()) : "";
    }
    Platform::ModuleErrorText reason;
    void* const function = Platform::FindModuleFunction(module, bytes, reason);
    if (function == nullptr)
        ThrowLoadFailure(name, reason);
    return function;
}

} // namespace System

namespace RTTI {

int Demangle(char const* name, char* out, u64 outSize)
{
    if (out == nullptr || outSize == 0)
        return 0;
    if (name == nullptr)
        name = "";
    char const* const space = std::strchr(name, ' ');
    char const* const text = space != nullptr ? space + 1 : name;
    u64 const length = std::strlen(text);
    u64 const copied = length < outSize ? length : outSize - 1;
    std::memcpy(out, text, copied);
    out[copied] = '\0';
    return 0;
}

} // namespace RTTI
} // namespace Velmor
