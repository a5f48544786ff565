#include "Core_ProcessorFeatures.h"
#include "Core_TextKernels.h"
#include "Core_TextRules.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__x86_64__) || defined(_M_X64)

#  include <immintrin.h>

namespace Velmor::TextKernels {
namespace {

using namespace Encodings;

#  define VLM_KERNEL VLM_TARGET("avx2,bmi,bmi2,popcnt")

constexpr u64 VectorWidth = 32;

using CRegister = u8 __attribute__((vector_size(VectorWidth)));

VLM_KERNEL inline u64 MaskOf(CRegister bytes)
{
    return static_cast<u32>(_mm256_movemask_epi8(reinterpret_cast<__m256i>(bytes)));
}

VLM_KERNEL inline u64 SumOf(CRegister bytes)
{
    __m256i const sums = _mm256_sad_epu8(reinterpret_cast<__m256i>(bytes), _mm256_setzero_si256());
    __m128i const half = _mm_add_epi64(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
    return static_cast<u64>(_mm_cvtsi128_si64(half) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(half, half)));
}

#  include "Core_TextVector.h"
#  include "Core_TextVectorMeasure.h"
#  include "Core_TextVectorSearch.h"

#  include "Core_TextVectorShort.h"

/// Characters that stay behind for the exact conversions: writing whole registers may go past what was written.
constexpr u64 SpareCharacters = 32;

VLM_KERNEL inline bool HasHigh(u8 const* block)
{
    return MaskOf(Load<u8>(block) | Load<u8>(block + VectorWidth)) != 0;
}

/// Bytes of a block in front of the end of its last whole character.
VLM_KERNEL inline u64 WholeSize(u64 ends)
{
    return BlockSize - static_cast<u64>(std::countl_zero(ends));
}

VLM_KERNEL inline bool HasSurrogate(u8 const* place)
{
    return MaskWhere(SIsSurrogate::Test(Load<u16>(place))) != 0;
}

// ---- From UTF-8 -----------------------------------------------------------------------------------------------------

VLM_KERNEL inline __m256i Widen(u8 const* place)
{
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(place)));
}

/// Converts 16 positions: at each, the code point of a character that would end there; those of `ends` are kept.
/// `bad` collects results of 0xFFFF, which are no single unit of UTF-16.
template <class To>
VLM_KERNEL inline u8* ConvertEnds(u8 const* place, u32 ends, u8* out, __m256i& bad)
{
    __m256i const codePoints = JoinEnds(Load128(place), Load128(place - 1), Load128(place - 2));
    if constexpr (To::UnitSize == 2)
        bad = _mm256_or_si256(bad, _mm256_cmpeq_epi16(codePoints, _mm256_set1_epi16(-1)));
    return WriteChosen<To>(out, codePoints, ends, BlockSize);
}

template <class To>
VLM_KERNEL inline u8* WidenBlock(u8 const* block, u8* out)
{
    for (u64 offset = 0; offset < BlockSize; offset += 16) {
        if constexpr (To::UnitSize == 2) {
            Store256(out, Widen(block + offset));
            out += 32;
        }
        else {
            __m128i const bytes = _mm_loadu_si128(reinterpret_cast<__m128i const*>(block + offset));
            Store256(out, _mm256_cvtepu8_epi32(bytes));
            Store256(out + 32, _mm256_cvtepu8_epi32(_mm_srli_si128(bytes, 8)));
            out += 64;
        }
    }
    return out;
}

/// True where the first 48 bytes of a block are sixteen characters of three bytes each.
VLM_KERNEL inline bool BeginsWithThrees(SBytes const& bytes)
{
    return (((bytes.three ^ 0x249249249249) | (bytes.continuation ^ 0xDB6DB6DB6DB6) | bytes.four) & BitsBelow(48)) == 0;
}

/// Converts eight characters of three bytes each.
template <class To>
VLM_KERNEL inline u8* WriteThrees(u8 const* in, u8* out, __m256i& bad)
{
    __m256i const order =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1));
    __m256i const bytes = _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(in)), Load128(in + 12), 1);
    __m256i const bits = _mm256_and_si256(_mm256_shuffle_epi8(bytes, order), _mm256_set1_epi32(0x000F3F3F));
    __m256i const codePoints =
        _mm256_madd_epi16(_mm256_maddubs_epi16(bits, _mm256_set1_epi16(0x4001)), _mm256_set1_epi32(0x10000001));
    if constexpr (To::UnitSize == 2) {
        bad = _mm256_or_si256(bad, _mm256_cmpeq_epi32(codePoints, _mm256_set1_epi32(0xFFFF)));
        Store128(out, _mm_packus_epi32(_mm256_castsi256_si128(codePoints), _mm256_extracti128_si256(codePoints, 1)));
    }
    else {
        Store256(out, codePoints);
    }
    return out + 8 * To::UnitSize;
}

template <class To>
VLM_KERNEL u8* ConvertFrom8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    // Two bytes in front of a block are looked at, so there must be two.
    if (count >= BlockSize + SpareCharacters)
        state.Take(ConvertShortFrom8<To>(in, out, count, in + 2));
    while (count >= BlockSize + SpareCharacters) {
        if (!HasHigh(in)) {
            state.Go(BlockSize, WidenBlock<To>(in, out), BlockSize);
            continue;
        }
        SBytes const bytes = ReadBytes(in, ~u64{0});
        __m256i bad = _mm256_setzero_si256();
        u8* end = out;
        u64 ends = 0;
        if (BeginsWithThrees(bytes)) {
            end = WriteThrees<To>(in, end, bad);
            end = WriteThrees<To>(in + 24, end, bad);
            ends = 0x924924924924;
        }
        else if (bytes.continuation == bytes.GetCovered() && bytes.four == 0) {
            ends = bytes.GetEnds();
            for (u32 offset = 0; offset < BlockSize; offset += 16)
                end = ConvertEnds<To>(in + offset, static_cast<u32>(ends >> offset & 0xFFFF), end, bad);
        }
        if (ends == 0 || (To::UnitSize == 2 && MaskOf(reinterpret_cast<CRegister>(bad)) != 0))
            state.Take(ConvertShortFrom8<To>(in, out, count, in + BlockSize));
        else
            state.Go(WholeSize(ends), end, CountBits(ends));
    }
    return ConvertRestFrom8<To>(in, count, out);
}

// ---- From wider units -----------------------------------------------------------------------------------------------

/// Writes eight code points below 0x40000 as UTF-8.
VLM_KERNEL inline u8* WriteUTF8(u8* out, __m256i codePoints)
{
    __m256i const low = _mm256_set1_epi32(0x3F);
    __m256i const tail = _mm256_set1_epi32(0x80);
    __m256i const last = _mm256_or_si256(_mm256_and_si256(codePoints, low), tail);
    __m256i const middle = _mm256_and_si256(_mm256_srli_epi32(codePoints, 6), low);
    __m256i const isLong = _mm256_cmpgt_epi32(codePoints, _mm256_set1_epi32(0x7F));
    __m256i const isLonger = _mm256_cmpgt_epi32(codePoints, _mm256_set1_epi32(0x7FF));
    __m256i const two = _mm256_or_si256(_mm256_or_si256(_mm256_set1_epi32(0xC0), middle), _mm256_slli_epi32(last, 8));
    __m256i const lead = _mm256_and_si256(_mm256_srli_epi32(codePoints, 12), _mm256_set1_epi32(0x0F));
    __m256i const three = _mm256_or_si256(
        _mm256_or_si256(_mm256_set1_epi32(0xE0), lead),
        _mm256_or_si256(_mm256_slli_epi32(_mm256_or_si256(middle, tail), 8), _mm256_slli_epi32(last, 16)));
    __m256i const bytes = _mm256_blendv_epi8(_mm256_blendv_epi8(codePoints, two, isLong), three, isLonger);
    u32 const longer1 = static_cast<u32>(_mm256_movemask_ps(_mm256_castsi256_ps(isLong)));
    u32 const longer2 = static_cast<u32>(_mm256_movemask_ps(_mm256_castsi256_ps(isLonger)));
    u32 const first = (longer1 & 15) | (longer2 & 15) << 4;
    u32 const second = longer1 >> 4 | (longer2 >> 4) << 4;
    Store128(out, _mm_shuffle_epi8(_mm256_castsi256_si128(bytes), LoadShuffle(ByteShuffles[first])));
    out += 4 + std::popcount(first);
    Store128(out, _mm_shuffle_epi8(_mm256_extracti128_si256(bytes, 1), LoadShuffle(ByteShuffles[second])));
    return out + 4 + std::popcount(second);
}

/// Writes sixteen code points below 0x800 as UTF-8.
VLM_KERNEL inline u8* WriteShortUTF8(u8* out, __m256i units)
{
    __m256i const isLong = _mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7F));
    __m256i const lead = _mm256_or_si256(_mm256_srli_epi16(units, 6), _mm256_set1_epi16(0xC0));
    __m256i const tail = _mm256_or_si256(_mm256_and_si256(units, _mm256_set1_epi16(0x3F)), _mm256_set1_epi16(0x80));
    __m256i const two = _mm256_or_si256(lead, _mm256_slli_epi16(tail, 8));
    __m256i const bytes = _mm256_blendv_epi8(units, two, isLong);
    u32 const longer = static_cast<u32>(
        _mm_movemask_epi8(_mm_packs_epi16(_mm256_castsi256_si128(isLong), _mm256_extracti128_si256(isLong, 1))));
    u32 const first = longer & 0xFF;
    u32 const second = longer >> 8;
    Store128(out, _mm_shuffle_epi8(_mm256_castsi256_si128(bytes), LoadShuffle(PairShuffles[first])));
    out += 8 + std::popcount(first);
    Store128(out, _mm_shuffle_epi8(_mm256_extracti128_si256(bytes, 1), LoadShuffle(PairShuffles[second])));
    return out + 8 + std::popcount(second);
}

/// Writes sixteen units of three bytes each.
VLM_KERNEL inline u8* WriteLongUTF8(u8* out, __m256i units)
{
    SLongUTF8 const bytes(units);
    Store128(out, _mm256_castsi256_si128(bytes.even));
    Store128(out + 12, _mm256_castsi256_si128(bytes.odd));
    Store128(out + 24, _mm256_extracti128_si256(bytes.even, 1));
    Store128(out + 36, _mm256_extracti128_si256(bytes.odd, 1));
    return out + 48;
}

template <bool PlaneZero>
VLM_KERNEL u8* Convert16To8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    __m256i const beyondASCII = _mm256_set1_epi16(static_cast<short>(0xFF80));
    while (count >= 16 + SpareCharacters) {
        __m256i const units = Load256(in);
        if (_mm256_testz_si256(units, beyondASCII) != 0) {
            __m256i const more = Load256(in + 32);
            Store256(out, _mm256_permute4x64_epi64(_mm256_packus_epi16(units, more), 0xD8));
            u64 const taken = _mm256_testz_si256(more, beyondASCII) != 0 ? 32 : 16;
            state.Go(2 * taken, out + taken, taken);
            continue;
        }
        __m256i const isShort = _mm256_cmpeq_epi16(
            _mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xF800))), _mm256_setzero_si256());
        u64 const shortUnits = MaskOf(reinterpret_cast<CRegister>(isShort));
        u8* end = out;
        if (shortUnits == BitsBelow(32)) {
            end = WriteShortUTF8(end, units);
        }
        else if (!PlaneZero && HasSurrogate(in)) {
            state.Take(ConvertShort16To8<false>(in, out, count, in + 32));
            continue;
        }
        else if (shortUnits == 0) {
            end = WriteLongUTF8(end, units);
        }
        else {
            end = WriteUTF8(end, _mm256_cvtepu16_epi32(_mm256_castsi256_si128(units)));
            end = WriteUTF8(end, _mm256_cvtepu16_epi32(_mm256_extracti128_si256(units, 1)));
        }
        state.Go(32, end, 16);
    }
    return ConvertRest16To8<PlaneZero>(in, count, out);
}

VLM_KERNEL u8* Convert16To32(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count >= 16 + SpareCharacters) {
        if (HasSurrogate(in)) {
            state.Take(ConvertPlainly<SUTF16, SUTF32>(in, out, 8));
            continue;
        }
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
        Store256(out, _mm256_cvtepu16_epi32(_mm256_castsi256_si128(units)));
        Store256(out + 32, _mm256_cvtepu16_epi32(_mm256_extracti128_si256(units, 1)));
        state.Go(32, out + 64, 16);
    }
    return TextRules::ConvertCharacters<SUTF16, SUTF32>(in, count, out);
}

/// True when no unit reaches `limit`, which has a single bit and stands for itself and all bits above it.
VLM_KERNEL inline bool AreBelow(__m256i units, u32 limit)
{
    return _mm256_testz_si256(units, _mm256_set1_epi32(static_cast<int>(~(limit - 1)))) != 0;
}

VLM_KERNEL u8* Convert32To8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count >= 8 + SpareCharacters) {
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
        if (!AreBelow(units, 0x40000)) {
            state.Take(ConvertPlainly<SUTF32, SUTF8>(in, out, 8));
            continue;
        }
        state.Go(32, WriteUTF8(out, units), 8);
    }
    return TextRules::ConvertCharacters<SUTF32, SUTF8>(in, count, out);
}

VLM_KERNEL u8* Convert32To16(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count >= 8 + SpareCharacters) {
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(in));
        __m256i const isLast = _mm256_cmpeq_epi32(units, _mm256_set1_epi32(0xFFFF));
        if (!AreBelow(units, 0x10000) || _mm256_movemask_epi8(isLast) != 0) {
            state.Take(ConvertPlainly<SUTF32, SUTF16>(in, out, 8));
            continue;
        }
        Store128(out, _mm_packus_epi32(_mm256_castsi256_si128(units), _mm256_extracti128_si256(units, 1)));
        state.Go(32, out + 16, 8);
    }
    return TextRules::ConvertCharacters<SUTF32, SUTF16>(in, count, out);
}

} // namespace

constinit SKernels const AVX2Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                                    {Convert16To8<false>, nullptr, Convert16To32},
                                                    {Convert32To8, Convert32To16, nullptr}},
                                                   Convert16To8<true>);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const AVX2Kernels{};
} // namespace Velmor::TextKernels

#endif
