#include "platform/Platform_System.h"

#ifndef WIN32_LEAN_AND_MEAN
#  define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#if defined(_MSC_VER)
#  include <intrin.h>
#else
#  include <cpuid.h>
#endif

namespace Velmor::Platform {

// Processor

u32 GetProcessorCount()
{
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

bool HasProcessorFeature(EProcessorFeature::Type feature)
{
    return ::IsProcessorFeaturePresent(feature) != FALSE;
}

SProcessorRegisters IdentifyProcessor(u32 leaf, u32 subleaf)
{
    SProcessorRegisters registers{};
#if defined(_MSC_VER)
    int raw[4];
    __cpuidex(raw, static_cast<int>(leaf), static_cast<int>(subleaf));
    registers = {static_cast<u32>(raw[0]), static_cast<u32>(raw[1]), static_cast<u32>(raw[2]),
                 static_cast<u32>(raw[3])};
#else
    __cpuid_count(leaf, subleaf, registers.eax, registers.ebx, registers.ecx, registers.edx);
#endif
    return registers;
}

u64 GetEnabledRegisterState()
{
    constexpr u32 ReadableBit = 1u << 27;
    if ((IdentifyProcessor(1, 0).ecx & ReadableBit) == 0)
        return 0;
#if defined(_MSC_VER)
    return _xgetbv(0);
#else
    u32 low;
    u32 high;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return u64{high} << 32 | low;
#endif
}

// Memory

SMemoryFigures GetMemoryFigures()
{
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    if (!::GlobalMemoryStatusEx(&status))
        return {};
    return {status.ullTotalPhys, status.ullTotalPageFile};
}

// Clock

u64 GetPerformanceCounter()
{
    LARGE_INTEGER counter;
    ::QueryPerformanceCounter(&counter);
    return static_cast<u64>(counter.QuadPart);
}

u64 GetPerformanceFrequency()
{
    // Asked once: the answer is fixed at the start of the system.
    static u64 const frequency = [] {
        LARGE_INTEGER answer;
        ::QueryPerformanceFrequency(&answer);
        return static_cast<u64>(answer.QuadPart);
    }();
    return frequency;
}

u64 GetTicks()
{
#if defined(_MSC_VER)
    return __rdtsc();
#else
    return __builtin_ia32_rdtsc();
#endif
}

bool HasSteadyTicks()
{
    constexpr u32 PowerLeaf = 0x80000007, SteadyBit = 1u << 8;
    return IdentifyProcessor(0x80000000, 0).eax >= PowerLeaf && (IdentifyProcessor(PowerLeaf, 0).edx & SteadyBit) != 0;
}

} // namespace Velmor::Platform
