#include "Core_ProcessorFeatures.h"
#include "Core_TextKernels.h"
#include "Core_TextRules.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__x86_64__) || defined(_M_X64)

#  include <emmintrin.h>

namespace Velmor::TextKernels {
namespace {

using namespace Encodings;

// Every 64-bit processor has these instructions.
#  define VLM_KERNEL

constexpr u64 VectorWidth = 16;

using CRegister = u8 __attribute__((vector_size(VectorWidth)));

inline u64 MaskOf(CRegister bytes)
{
    return static_cast<u32>(_mm_movemask_epi8(reinterpret_cast<__m128i>(bytes)));
}

inline u64 SumOf(CRegister bytes)
{
    __m128i const sums = _mm_sad_epu8(reinterpret_cast<__m128i>(bytes), _mm_setzero_si128());
    return static_cast<u64>(_mm_cvtsi128_si64(sums) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
}

#  include "Core_TextVector.h"
#  include "Core_TextVectorMeasure.h"
#  include "Core_TextVectorSearch.h"

/// Characters that stay behind for the plain rule: writing whole registers may go past what was written.
constexpr u64 SpareCharacters = 32;

inline void Store128(u8* place, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(place), value);
}

inline __m128i Load128(u8 const* place)
{
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(place));
}

/// Runs of ASCII are widened, the rest goes by the plain rule.
template <class To>
u8* ConvertFrom8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    __m128i const zero = _mm_setzero_si128();
    while (count >= 16 + SpareCharacters) {
        __m128i const bytes = Load128(in);
        if (_mm_movemask_epi8(bytes) != 0) {
            state.Take(ConvertPlainly<SUTF8, To>(in, out, 16));
            continue;
        }
        __m128i const low = _mm_unpacklo_epi8(bytes, zero);
        __m128i const high = _mm_unpackhi_epi8(bytes, zero);
        if constexpr (To::UnitSize == 2) {
            Store128(out, low);
            Store128(out + 16, high);
        }
        else {
            Store128(out, _mm_unpacklo_epi16(low, zero));
            Store128(out + 16, _mm_unpackhi_epi16(low, zero));
            Store128(out + 32, _mm_unpacklo_epi16(high, zero));
            Store128(out + 48, _mm_unpackhi_epi16(high, zero));
        }
        state.Go(16, out + 16 * To::UnitSize, 16);
    }
    return TextRules::ConvertCharacters<SUTF8, To>(in, count, out);
}

u8* Convert16To8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count >= 16 + SpareCharacters) {
        __m128i const low = Load128(in);
        __m128i const high = Load128(in + 16);
        __m128i const beyond = _mm_and_si128(_mm_or_si128(low, high), _mm_set1_epi16(static_cast<short>(0xFF80)));
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(beyond, _mm_setzero_si128())) != 0xFFFF) {
            state.Take(ConvertPlainly<SUTF16, SUTF8>(in, out, 16));
            continue;
        }
        Store128(out, _mm_packus_epi16(low, high));
        state.Go(32, out + 16, 16);
    }
    return TextRules::ConvertCharacters<SUTF16, SUTF8>(in, count, out);
}

u8* Convert16To32(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    __m128i const zero = _mm_setzero_si128();
    while (count >= 8 + SpareCharacters) {
        if (MaskWhere(SIsSurrogate::Test(Load<u16>(in))) != 0) {
            state.Take(ConvertPlainly<SUTF16, SUTF32>(in, out, 8));
            continue;
        }
        __m128i const units = Load128(in);
        Store128(out, _mm_unpacklo_epi16(units, zero));
        Store128(out + 16, _mm_unpackhi_epi16(units, zero));
        state.Go(16, out + 32, 8);
    }
    return TextRules::ConvertCharacters<SUTF16, SUTF32>(in, count, out);
}

} // namespace

constinit SKernels const SSE2Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                                    {Convert16To8, nullptr, Convert16To32},
                                                    {nullptr, nullptr, nullptr}},
                                                   nullptr);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const SSE2Kernels{};
} // namespace Velmor::TextKernels

#endif
