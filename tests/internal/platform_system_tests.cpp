// The contract of the processor, memory, clock and module rooms, and the processor description made from them.
#include "Core_ProcessorFeatures.h"
#include "Core_ProcessorInfo.h"
#include "platform/Platform_Module.h"
#include "platform/Platform_System.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

using namespace Velmor;
using Platform::SProcessorRegisters;

TEST(PlatformSystem, Processors)
{
    EXPECT_GE(Platform::GetProcessorCount(), 1u);
    EXPECT_EQ(Platform::GetProcessorCount(), std::thread::hardware_concurrency());
}

TEST(PlatformSystem, FeaturesOfEvery64BitProcessor)
{
    EXPECT_TRUE(Platform::HasProcessorFeature(Platform::EProcessorFeature::MMX));
    EXPECT_TRUE(Platform::HasProcessorFeature(Platform::EProcessorFeature::SSE2));
}

TEST(PlatformSystem, Identification)
{
    SProcessorRegisters const vendor = Platform::IdentifyProcessor(0, 0);
    EXPECT_GE(vendor.eax, 1u);
    EXPECT_NE(vendor.ebx, 0u);
    EXPECT_NE(Platform::IdentifyProcessor(1, 0).edx & (1u << 26), 0u); // SSE2
    u64 const state = Platform::GetEnabledRegisterState();
    EXPECT_TRUE(state == 0 || (state & 3) == 3) << state; // x87 and SSE are always on
}

TEST(PlatformSystem, MemoryFigures)
{
    Platform::SMemoryFigures const figures = Platform::GetMemoryFigures();
    EXPECT_GE(figures.physical, u64{64} << 20);
    EXPECT_GT(figures.commitLimit, 0u);
}

TEST(PlatformSystem, Clock)
{
    u64 const frequency = Platform::GetPerformanceFrequency();
    EXPECT_GE(frequency, 1000000u);
    EXPECT_EQ(frequency, Platform::GetPerformanceFrequency());
    u64 const before = Platform::GetPerformanceCounter();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    u64 const counts = Platform::GetPerformanceCounter() - before;
    EXPECT_GE(counts, frequency / 55);
    EXPECT_LT(counts, frequency * 10);
}

TEST(PlatformModule, FailuresHaveAText)
{
    Platform::ModuleErrorText text;
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(Platform::LoadModule(u"no\\such\\module.xyz", text), nullptr);
    EXPECT_GT(std::strlen(text), 4u);
    EXPECT_LT(std::strlen(text), sizeof(text));
    EXPECT_EQ(Platform::FindModule(u"no\\such\\module.xyz"), nullptr);
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(Platform::FindModuleFunction(nullptr, "malloc", text), nullptr);
    EXPECT_GT(std::strlen(text), 4u);
    EXPECT_LT(std::strlen(text), sizeof(text));
}

TEST(PlatformModule, ANameTooLongIsAFailure)
{
    std::u16string const name(200000, u'n');
    Platform::ModuleErrorText text;
    EXPECT_EQ(Platform::LoadModule(name.c_str(), text), nullptr);
    EXPECT_GT(std::strlen(text), 4u);
    EXPECT_EQ(Platform::FindModule(name.c_str()), nullptr);
}

// ---- The description of processors that are not here ----------------------------------------------------------------

namespace {

bool NoFeature(Platform::EProcessorFeature::Type)
{
    return false;
}
bool Only3DNow(Platform::EProcessorFeature::Type feature)
{
    return feature == 7;
}
bool OnlySSE2(Platform::EProcessorFeature::Type feature)
{
    return feature == 10;
}

/// "GenuineIntel" in ebx, edx, ecx.
constexpr SProcessorRegisters IntelVendor{22, 0x756E6547, 0x6C65746E, 0x49656E69};
/// "AuthenticAMD".
constexpr SProcessorRegisters AMDVendor{16, 0x68747541, 0x444D4163, 0x69746E65};

/// 48 KiB data (12 ways, 64 sets), 32 KiB code (8 ways), 1.25 MiB level 2 (20 ways, 1024 sets), lines of 64 bytes.
SProcessorRegisters Intel(u32 leaf, u32 subleaf)
{
    if (leaf == 0)
        return IntelVendor;
    if (leaf != 4)
        return {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    constexpr SProcessorRegisters caches[] = {{0x21, (11u << 22) | 63, 63, 0},
                                              {0x22, (7u << 22) | 63, 63, 0},
                                              {0x43, (19u << 22) | 63, 1023, 0},
                                              {0x63, (11u << 22) | 63, 16383, 0}};
    return caches[subleaf];
}

/// Partitions count, and there is no third cache.
SProcessorRegisters SmallIntel(u32 leaf, u32 subleaf)
{
    if (leaf == 0)
        return {4, IntelVendor.ebx, IntelVendor.ecx, IntelVendor.edx};
    constexpr SProcessorRegisters caches[] = {
        {0x21, (3u << 22) | (1u << 12) | 31, 127, 0}, {0x22, (3u << 22) | 31, 127, 0}, {0, 0, 0, 0}};
    return caches[subleaf];
}

SProcessorRegisters OldIntel(u32 leaf, u32)
{
    return leaf == 0 ? SProcessorRegisters{2, IntelVendor.ebx, IntelVendor.ecx, IntelVendor.edx}
                     : SProcessorRegisters{0x21, 0xFFFFFFFF, 0xFFFFFFFF, 0};
}

/// 32 KiB data, 512 KiB level 2, 32 MiB level 3 (64 units), lines of 64 bytes.
SProcessorRegisters AMD(u32 leaf, u32)
{
    switch (leaf) {
    case 0:
        return AMDVendor;
    case 0x80000000:
        return {0x80000020, 0, 0, 0};
    case 0x80000005:
        return {0xFFFFFFFF, 0xFFFFFFFF, 0x20080140, 0xFFFFFFFF};
    case 0x80000006:
        return {0xFFFFFFFF, 0xFFFFFFFF, 0x02006140, 0x01009140};
    default:
        return {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    }
}

SProcessorRegisters OldAMD(u32 leaf, u32)
{
    return leaf == 0            ? AMDVendor
           : leaf == 0x80000000 ? SProcessorRegisters{0x80000007, 0, 0, 0}
                                : SProcessorRegisters{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
}

/// Some other vendor whose text has bit 27 set.
SProcessorRegisters Other(u32 leaf, u32)
{
    return leaf == 0 ? SProcessorRegisters{30, 0x58585858, 0xFFFFFFFF, 0x58585858}
                     : SProcessorRegisters{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
}

System::SCPUInfo Describe(SProcessorSource const& source)
{
    System::SCPUInfo info;
    std::memset(&info, 0xEE, sizeof(info));
    FillProcessorInfo(source, info);
    return info;
}

void ExpectCaches(System::SCPUInfo const& info, u64 size0, u64 size1, u64 size2, u64 line0, u64 line1, u64 line2)
{
    EXPECT_EQ(info.cacheSize[0], size0);
    EXPECT_EQ(info.cacheSize[1], size1);
    EXPECT_EQ(info.cacheSize[2], size2);
    EXPECT_EQ(info.cacheLineSize[0], line0);
    EXPECT_EQ(info.cacheLineSize[1], line1);
    EXPECT_EQ(info.cacheLineSize[2], line2);
}

} // namespace

TEST(ProcessorInfo, Intel)
{
    System::SCPUInfo const info = Describe({16, OnlySSE2, Intel});
    ExpectCaches(info, 49152, 32768, 1310720, 64, 64, 64);
    EXPECT_EQ(info.processorCount, 16);
    EXPECT_EQ(info.hasVector2, 0);
    EXPECT_EQ(info.hasVector4, 1);
    EXPECT_EQ(info.hasVector8, 1); // the vendor's text has the bit
}

TEST(ProcessorInfo, IntelWithPartitionsAndTwoCaches)
{
    ExpectCaches(Describe({1, NoFeature, SmallIntel}), 32768, 16384, 0, 32, 32, 0);
}

TEST(ProcessorInfo, IntelWithoutTheCacheLeaf)
{
    ExpectCaches(Describe({1, NoFeature, OldIntel}), 0, 0, 0, 0, 0, 0);
}

TEST(ProcessorInfo, AMD)
{
    System::SCPUInfo const info = Describe({300, Only3DNow, AMD});
    ExpectCaches(info, 32768, 524288, 33554432, 64, 64, 64);
    EXPECT_EQ(info.processorCount, 44); // the low byte
    EXPECT_EQ(info.hasVector2, 1);
    EXPECT_EQ(info.hasVector4, 0);
    EXPECT_EQ(info.hasVector8, 0);
}

TEST(ProcessorInfo, AMDWithFewExtendedLeaves)
{
    ExpectCaches(Describe({1, NoFeature, OldAMD}), 0, 0, 0, 0, 0, 0);
}

TEST(ProcessorInfo, OtherVendorsHaveNoCacheFigures)
{
    System::SCPUInfo const info = Describe({256, NoFeature, Other});
    ExpectCaches(info, 0, 0, 0, 0, 0, 0);
    EXPECT_EQ(info.processorCount, 0);
    EXPECT_EQ(info.hasVector2, 0);
    EXPECT_EQ(info.hasVector8, 1);
}

TEST(ProcessorFeatures, EachImpliesWhatItStandsOn)
{
    SProcessorFeatures const& features = GetProcessorFeatures();
    EXPECT_TRUE(!features.avx512 || features.avx2);
    EXPECT_TRUE(!features.wideCarrylessMultiply || (features.avx512 && features.carrylessMultiply));
    EXPECT_EQ(&features, &GetProcessorFeatures());
}
