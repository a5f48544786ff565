#include <vlmcore/system.h>

#include "Core_ProcessorInfo.h"
#include "platform/Platform_System.h"

#include <cstring>

namespace Velmor {
namespace System {

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
