#include "Core_ProcessorInfo.h"

#include <cstring>

namespace Velmor {
namespace {

using Platform::EProcessorFeature::MMX;
using Platform::EProcessorFeature::SSE2;
using Platform::EProcessorFeature::ThreeDNow;

constexpr u32 CacheLeaf = 4;
constexpr u32 ExtendedLeaf = 0x80000000;
constexpr u32 Level1Leaf = 0x80000005;
constexpr u32 Level2And3Leaf = 0x80000006;

/// `count` bits of `value` from bit `first` up.
constexpr u32 Bits(u32 value, u32 first, u32 count)
{
    return (value >> first) & ((1u << count) - 1);
}

/// The vendor text lies in ebx, edx, ecx, in that order.
bool IsVendor(Platform::SProcessorRegisters const& leaf0, char const (&vendor)[13])
{
    u32 const text[3] = {leaf0.ebx, leaf0.edx, leaf0.ecx};
    return std::memcmp(text, vendor, sizeof(text)) == 0;
}

/// Leaf 4, one subleaf per cache:  ebx = ways-1 [31:22] | partitions-1 [21:12] | line size-1 [11:0],  ecx = sets-1.
void FillIntelCaches(SProcessorSource const& source, u32 highestLeaf, System::SCPUInfo& info)
{
    if (highestLeaf < CacheLeaf)
        return;
    for (u32 i = 0; i < 3; ++i) {
        Platform::SProcessorRegisters const cache = source.identify(CacheLeaf, i);
        if (Bits(cache.eax, 0, 5) == 0) // no cache behind this number
            continue;
        u64 const ways = Bits(cache.ebx, 22, 10) + u64{1};
        u64 const partitions = Bits(cache.ebx, 12, 10) + u64{1};
        u64 const lineSize = Bits(cache.ebx, 0, 12) + u64{1};
        u64 const sets = cache.ecx + u64{1};
        info.cacheSize[i] = ways * partitions * lineSize * sets;
        info.cacheLineSize[i] = lineSize;
    }
}

/// 0x80000005 ecx = level 1 data KiB [31:24] | line size [7:0];
/// 0x80000006 ecx = level 2 KiB [31:16] | line size [7:0],  edx = level 3 in 512 KiB [31:18].
void FillAMDCaches(SProcessorSource const& source, System::SCPUInfo& info)
{
    if (Bits(source.identify(ExtendedLeaf, 0).eax, 0, 31) < 8)
        return;
    u32 const level1 = source.identify(Level1Leaf, 0).ecx;
    Platform::SProcessorRegisters const level2And3 = source.identify(Level2And3Leaf, 0);
    info.cacheSize[0] = Bits(level1, 24, 8) * u64{1024};
    info.cacheLineSize[0] = Bits(level1, 0, 8);
    info.cacheSize[1] = Bits(level2And3.ecx, 16, 16) * u64{1024};
    info.cacheSize[2] = Bits(level2And3.edx, 18, 14) * u64{524288};
    info.cacheLineSize[1] = info.cacheLineSize[2] = Bits(level2And3.ecx, 0, 8);
}

} // namespace

void FillProcessorInfo(SProcessorSource const& source, System::SCPUInfo& info)
{
    info = {};
    Platform::SProcessorRegisters const leaf0 = source.identify(0, 0);
    info.processorCount = static_cast<u8>(source.processorCount);
    info.hasVector2 = source.hasFeature(MMX) || source.hasFeature(ThreeDNow);
    info.hasVector4 = source.hasFeature(SSE2);
    // A bit of the vendor text, not a feature; kept, hosts depend on it.
    info.hasVector8 = static_cast<u8>(Bits(leaf0.ecx, 27, 1));
    if (IsVendor(leaf0, "GenuineIntel"))
        FillIntelCaches(source, leaf0.eax, info);
    else if (IsVendor(leaf0, "AuthenticAMD"))
        FillAMDCaches(source, info);
}

} // namespace Velmor
