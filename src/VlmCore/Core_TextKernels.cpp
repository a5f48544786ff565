#include "Core_TextKernels.h"

#include "Core_ProcessorFeatures.h"
#include "Core_TextRules.h"

namespace Velmor::TextKernels {

using namespace Encodings;

namespace {

template <class Rules>
u64 CountPlainly(u8 const* text, u64& size)
{
    size = TextRules::GetTextSize<Rules>(text);
    return TextRules::CountCharacters<Rules>(text);
}

template <class Rules>
u8 const* FindSimplePlainly(u8 const* text, u32 unit)
{
    for (;; text += Rules::UnitSize) {
        u32 const here = Load<typename Rules::Unit>(text);
        bool const isAlone = Rules::UnitSize == 1   ? here < 0x80
                             : Rules::UnitSize == 2 ? (here & 0xF800) != 0xD800
                                                    : true;
        if (here == unit || here == 0 || !isAlone)
            return text;
    }
}

} // namespace

constinit SKernels const PlainKernels = {
    {TextRules::GetTextSize<SUTF8>, TextRules::GetTextSize<SUTF16>, TextRules::GetTextSize<SUTF32>},
    {CountPlainly<SUTF8>, CountPlainly<SUTF16>, CountPlainly<SUTF32>},
    {TextRules::Compare<SUTF8, SUTF8>, TextRules::Compare<SUTF16, SUTF16>, TextRules::Compare<SUTF32, SUTF32>},
    {},
    {{nullptr, TextRules::GetConvertedSize<SUTF8, SUTF16>, TextRules::GetConvertedSize<SUTF8, SUTF32>},
     {TextRules::GetConvertedSize<SUTF16, SUTF8>, nullptr, TextRules::GetConvertedSize<SUTF16, SUTF32>},
     {TextRules::GetConvertedSize<SUTF32, SUTF8>, TextRules::GetConvertedSize<SUTF32, SUTF16>, nullptr}},
    {{nullptr, TextRules::ConvertCharacters<SUTF8, SUTF16>, TextRules::ConvertCharacters<SUTF8, SUTF32>},
     {TextRules::ConvertCharacters<SUTF16, SUTF8>, nullptr, TextRules::ConvertCharacters<SUTF16, SUTF32>},
     {TextRules::ConvertCharacters<SUTF32, SUTF8>, TextRules::ConvertCharacters<SUTF32, SUTF16>, nullptr}},
    TextRules::ConvertPlaneZeroUnits,
    {},
    {FindSimplePlainly<SUTF8>, FindSimplePlainly<SUTF16>, FindSimplePlainly<SUTF32>},
    nullptr,
    {}};

namespace {

SKernels const& GetSet(ELevel level)
{
    switch (level) {
    case ELevel::AVX512:
        return AVX512Kernels;
    case ELevel::AVX2:
        return AVX2Kernels;
    case ELevel::SSE2:
        return SSE2Kernels;
    default:
        return PlainKernels;
    }
}

} // namespace

constinit std::atomic<SKernels const*> g_chosen{&PlainKernels};

namespace {

/// When the library is loaded: asking at every use costs short texts too much.
[[maybe_unused]] bool const g_isChosen = Force(GetBestLevel());

} // namespace

ELevel GetBestLevel()
{
#if defined(__x86_64__) || defined(_M_X64)
    SProcessorFeatures const& features = GetProcessorFeatures();
    return features.avx512Bytes ? ELevel::AVX512 : features.avx2 ? ELevel::AVX2 : ELevel::SSE2;
#else
    return ELevel::Plain;
#endif
}

bool Force(ELevel level)
{
    if (level > GetBestLevel())
        return false;
    g_chosen.store(&GetSet(level), std::memory_order_relaxed);
    return true;
}

} // namespace Velmor::TextKernels
