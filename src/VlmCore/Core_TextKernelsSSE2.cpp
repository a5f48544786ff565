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

/// The plain rule for some characters, where a block is irregular.
template <class From, class To>
void ConvertPlainly(SConversion& state, u64 count)
{
    state.out = TextRules::ConvertCharactersFrom<From, To>(state.in, count, state.out);
    state.count -= count;
}

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
void ConvertFrom8(SConversion& state)
{
    __m128i const zero = _mm_setzero_si128();
    while (state.count >= 16 + SpareCharacters) {
        __m128i const bytes = Load128(state.in);
        if (_mm_movemask_epi8(bytes) != 0) {
            ConvertPlainly<SUTF8, To>(state, 16);
            continue;
        }
        __m128i const low = _mm_unpacklo_epi8(bytes, zero);
        __m128i const high = _mm_unpackhi_epi8(bytes, zero);
        if constexpr (To::UnitSize == 2) {
            Store128(state.out, low);
            Store128(state.out + 16, high);
        }
        else {
            Store128(state.out, _mm_unpacklo_epi16(low, zero));
            Store128(state.out + 16, _mm_unpackhi_epi16(low, zero));
            Store128(state.out + 32, _mm_unpacklo_epi16(high, zero));
            Store128(state.out + 48, _mm_unpackhi_epi16(high, zero));
        }
        state = {state.in + 16, state.out + 16 * To::UnitSize, state.count - 16};
    }
}

void Convert16To8(SConversion& state)
{
    while (state.count >= 16 + SpareCharacters) {
        __m128i const low = Load128(state.in);
        __m128i const high = Load128(state.in + 16);
        __m128i const beyond = _mm_and_si128(_mm_or_si128(low, high), _mm_set1_epi16(static_cast<short>(0xFF80)));
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(beyond, _mm_setzero_si128())) != 0xFFFF) {
            ConvertPlainly<SUTF16, SUTF8>(state, 16);
            continue;
        }
        Store128(state.out, _mm_packus_epi16(low, high));
        state = {state.in + 32, state.out + 16, state.count - 16};
    }
}

void Convert16To32(SConversion& state)
{
    __m128i const zero = _mm_setzero_si128();
    while (state.count >= 8 + SpareCharacters) {
        if (MaskWhere(SIsSurrogate::Test(Load<u16>(state.in))) != 0) {
            ConvertPlainly<SUTF16, SUTF32>(state, 8);
            continue;
        }
        __m128i const units = Load128(state.in);
        Store128(state.out, _mm_unpacklo_epi16(units, zero));
        Store128(state.out + 16, _mm_unpackhi_epi16(units, zero));
        state = {state.in + 16, state.out + 32, state.count - 8};
    }
}

} // namespace

SKernels const SSE2Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                          {Convert16To8, nullptr, Convert16To32},
                                          {nullptr, nullptr, nullptr}},
                                         nullptr);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const SSE2Kernels{};
} // namespace Velmor::TextKernels

#endif
