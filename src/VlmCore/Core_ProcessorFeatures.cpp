#include "Core_ProcessorFeatures.h"

#include "platform/Platform_System.h"

namespace Velmor {
namespace {

SProcessorFeatures AskProcessor()
{
    constexpr u64 AVXState = 0x06;
    constexpr u64 AVX512State = 0xE6;
    auto const has = [](u32 word, u32 bit) { return ((word >> bit) & 1) != 0; };

    u32 const highestLeaf = Platform::IdentifyProcessor(0, 0).eax;
    u32 const basic = Platform::IdentifyProcessor(1, 0).ecx;
    Platform::SProcessorRegisters const extended =
        highestLeaf >= 7 ? Platform::IdentifyProcessor(7, 0) : Platform::SProcessorRegisters{};
    u64 const state = Platform::GetEnabledRegisterState();
    bool const avxSaved = (state & AVXState) == AVXState;
    bool const avx512Saved = (state & AVX512State) == AVX512State;

    SProcessorFeatures features{};
    features.carrylessMultiply = has(basic, 1) && has(basic, 9) && has(basic, 19);
    features.avx2 = avxSaved && has(extended.ebx, 5) && has(extended.ebx, 3) && has(extended.ebx, 8);
    features.avx512 = avx512Saved && features.avx2 && has(extended.ebx, 16) && has(extended.ebx, 17) &&
                      has(extended.ebx, 30) && has(extended.ebx, 31);
    features.avx512Bytes = features.avx512 && has(extended.ecx, 1) && has(extended.ecx, 6);
    features.wideCarrylessMultiply = features.avx512 && features.carrylessMultiply && has(extended.ecx, 10);
    return features;
}

} // namespace

SProcessorFeatures const& GetProcessorFeatures()
{
    static SProcessorFeatures const features = AskProcessor();
    return features;
}

} // namespace Velmor
