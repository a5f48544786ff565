#include "platform/Platform_System.h"

#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

#include <cpuid.h>

namespace Velmor::Platform {

// Processor

u32 GetProcessorCount()
{
    long const count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<u32>(count) : 1;
}

bool HasProcessorFeature(EProcessorFeature::Type feature)
{
    // The kernel saves the MMX and SSE state of every 64-bit process, so what the processor has is usable.
    constexpr u32 MMXBit = 1u << 23, SSE2Bit = 1u << 26, ThreeDNowBit = 1u << 31;
    switch (feature) {
    case EProcessorFeature::MMX:
        return (IdentifyProcessor(1, 0).edx & MMXBit) != 0;
    case EProcessorFeature::SSE2:
        return (IdentifyProcessor(1, 0).edx & SSE2Bit) != 0;
    case EProcessorFeature::ThreeDNow:
        return IdentifyProcessor(0x80000000, 0).eax >= 0x80000001 &&
               (IdentifyProcessor(0x80000001, 0).edx & ThreeDNowBit) != 0;
    }
    return false;
}

SProcessorRegisters IdentifyProcessor(u32 leaf, u32 subleaf)
{
    SProcessorRegisters registers{};
    __cpuid_count(leaf, subleaf, registers.eax, registers.ebx, registers.ecx, registers.edx);
    return registers;
}

u64 GetEnabledRegisterState()
{
    constexpr u32 ReadableBit = 1u << 27;
    if ((IdentifyProcessor(1, 0).ecx & ReadableBit) == 0)
        return 0;
    u32 low;
    u32 high;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return u64{high} << 32 | low;
}

// Memory

SMemoryFigures GetMemoryFigures()
{
    struct sysinfo info;
    if (::sysinfo(&info) != 0)
        return {};
    u64 const physical = u64{info.totalram} * info.mem_unit;
    // The kernel's own CommitLimit depends on its overcommit policy and may lie below the memory of the machine; memory
    // plus swap is what the figure means elsewhere.
    return {physical, physical + u64{info.totalswap} * info.mem_unit};
}

// Clock

namespace {
constexpr u64 NanosecondsPerSecond = 1'000'000'000;
}

u64 GetPerformanceCounter()
{
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<u64>(now.tv_sec) * NanosecondsPerSecond + static_cast<u64>(now.tv_nsec);
}

u64 GetPerformanceFrequency()
{
    return NanosecondsPerSecond;
}

u64 GetTicks()
{
    return __builtin_ia32_rdtsc();
}

bool HasSteadyTicks()
{
    constexpr u32 PowerLeaf = 0x80000007, SteadyBit = 1u << 8;
    return IdentifyProcessor(0x80000000, 0).eax >= PowerLeaf && (IdentifyProcessor(PowerLeaf, 0).edx & SteadyBit) != 0;
}

} // namespace Velmor::Platform
