#include "Core_ProcessorFeatures.h"
#include "Core_TextKernels.h"

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(_M_X64)

#  include <emmintrin.h>

namespace Velmor::TextKernels {
namespace {

using namespace Encodings;

// Every 64-bit processor has these instructions.
#  define VLM_KERNEL

template <class Unit>
VLM_KERNEL inline bool IsZero(u8 const* place)
{
    Unit unit;
    std::memcpy(&unit, place, sizeof(Unit));
    return unit == 0;
}

/// 16 bytes.
struct SVector {
    static constexpr u64 Width = 16;
    static constexpr u64 FullMask = 0xFFFF;

    __m128i value;

    static SVector Load(u8 const* place) { return {_mm_loadu_si128(reinterpret_cast<__m128i const*>(place))}; }
    VLM_READS_AROUND static SVector LoadAround(u8 const* place)
    {
        return {_mm_loadu_si128(reinterpret_cast<__m128i const*>(place))};
    }
    void Store(u8* place) const { _mm_storeu_si128(reinterpret_cast<__m128i*>(place), value); }
    static SVector Zero() { return {_mm_setzero_si128()}; }
    template <class Unit>
    static SVector Set(Unit unit)
    {
        if constexpr (sizeof(Unit) == 1)
            return {_mm_set1_epi8(static_cast<char>(unit))};
        else if constexpr (sizeof(Unit) == 2)
            return {_mm_set1_epi16(static_cast<short>(unit))};
        else
            return {_mm_set1_epi32(static_cast<int>(unit))};
    }
    static u64 Mask(__m128i lanes) { return static_cast<u32>(_mm_movemask_epi8(lanes)); }
    template <class Unit>
    static u64 EqualMask(SVector left, SVector right)
    {
        if constexpr (sizeof(Unit) == 1)
            return Mask(_mm_cmpeq_epi8(left.value, right.value));
        else if constexpr (sizeof(Unit) == 2)
            return Mask(_mm_cmpeq_epi16(left.value, right.value));
        else
            return Mask(_mm_cmpeq_epi32(left.value, right.value));
    }
    u64 HighBits() const { return Mask(value); }
    u64 BelowSigned8(int limit) const { return Mask(_mm_cmplt_epi8(value, _mm_set1_epi8(static_cast<char>(limit)))); }
    u64 AtLeast8(u8 limit) const
    {
        return Mask(_mm_cmpeq_epi8(_mm_max_epu8(value, _mm_set1_epi8(static_cast<char>(limit))), value));
    }
    SVector And(SVector other) const { return {_mm_and_si128(value, other.value)}; }
    /// Lanes from `first` to `first + 25` have their bit 5 flipped.
    template <class Unit>
    SVector FlipCase(u32 first) const
    {
        __m128i const base = Set<Unit>(static_cast<Unit>(first)).value;
        __m128i const last = Set<Unit>(Unit{25}).value;
        __m128i const zero = _mm_setzero_si128();
        __m128i letters;
        if constexpr (sizeof(Unit) == 1) {
            letters = _mm_cmpeq_epi8(_mm_subs_epu8(_mm_sub_epi8(value, base), last), zero);
        }
        else if constexpr (sizeof(Unit) == 2) {
            letters = _mm_cmpeq_epi16(_mm_subs_epu16(_mm_sub_epi16(value, base), last), zero);
        }
        else {
            __m128i const distance = _mm_sub_epi32(value, base);
            letters = _mm_andnot_si128(_mm_cmpgt_epi32(distance, last), _mm_cmpgt_epi32(distance, _mm_set1_epi32(-1)));
        }
        return {_mm_xor_si128(value, _mm_and_si128(letters, Set<Unit>(Unit{0x20}).value))};
    }
};

#  include "Core_TextVector.h"

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
        if (SVector::Mask(_mm_cmpeq_epi16(beyond, _mm_setzero_si128())) != SVector::FullMask) {
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
        if (SurrogateMask(state.in) != 0) {
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

SKernels const SSE2Kernels = {
    {GetTextSize<u8>, GetTextSize<u16>, GetTextSize<u32>},
    {CountUTF8, CountUTF16, CountUTF32},
    {FindDifference<u8>, FindDifference<u16>, FindDifference<u32>},
    {{nullptr, GetSize8As16, nullptr}, {GetSize16As8, nullptr, nullptr}, {nullptr, nullptr, nullptr}},
    {{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
     {Convert16To8, nullptr, Convert16To32},
     {nullptr, nullptr, nullptr}},
    nullptr,
    {SkipTo8, SkipToUnit<SUTF16>, SkipToUnit<SUTF32>},
    {MapCase8, MapCase16, MapCase32},
};

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const SSE2Kernels{};
} // namespace Velmor::TextKernels

#endif
