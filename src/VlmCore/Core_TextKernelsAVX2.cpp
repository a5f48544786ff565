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

#  define VLM_KERNEL VLM_TARGET("avx2,popcnt")

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

/// Characters that stay behind for the plain rule: writing whole registers may go past what was written.
constexpr u64 SpareCharacters = 32;

/// The plain rule for some characters, where a block is irregular.
template <class From, class To>
void ConvertPlainly(SConversion& state, u64 count)
{
    state.out = TextRules::ConvertCharactersFrom<From, To>(state.in, count, state.out);
    state.count -= count;
}

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

using CShuffle = std::array<u8, 16>;

/// For each choice of eight 16-bit lanes: how to move them to the front.
constexpr std::array<CShuffle, 256> MakeLaneShuffles()
{
    std::array<CShuffle, 256> shuffles{};
    for (u32 choice = 0; choice < 256; ++choice) {
        shuffles[choice].fill(0x80);
        u32 to = 0;
        for (u32 lane = 0; lane < 8; ++lane) {
            if ((choice >> lane & 1) == 0)
                continue;
            shuffles[choice][to++] = static_cast<u8>(2 * lane);
            shuffles[choice][to++] = static_cast<u8>(2 * lane + 1);
        }
    }
    return shuffles;
}

/// For four 32-bit lanes, low bits: lane is longer than one byte, high bits: longer than two; how to close the gaps.
constexpr std::array<CShuffle, 256> MakeByteShuffles()
{
    std::array<CShuffle, 256> shuffles{};
    for (u32 sizes = 0; sizes < 256; ++sizes) {
        shuffles[sizes].fill(0x80);
        u32 to = 0;
        for (u32 lane = 0; lane < 4; ++lane) {
            u32 const size = 1 + (sizes >> lane & 1) + (sizes >> (lane + 4) & 1);
            for (u32 byte = 0; byte < size; ++byte)
                shuffles[sizes][to++] = static_cast<u8>(4 * lane + byte);
        }
    }
    return shuffles;
}

/// For eight 16-bit lanes: lane is longer than one byte; how to close the gaps.
constexpr std::array<CShuffle, 256> MakePairShuffles()
{
    std::array<CShuffle, 256> shuffles{};
    for (u32 longer = 0; longer < 256; ++longer) {
        shuffles[longer].fill(0x80);
        u32 to = 0;
        for (u32 lane = 0; lane < 8; ++lane) {
            shuffles[longer][to++] = static_cast<u8>(2 * lane);
            if ((longer >> lane & 1) != 0)
                shuffles[longer][to++] = static_cast<u8>(2 * lane + 1);
        }
    }
    return shuffles;
}

alignas(64) constexpr std::array<CShuffle, 256> PairShuffles = MakePairShuffles();
alignas(64) constexpr std::array<CShuffle, 256> LaneShuffles = MakeLaneShuffles();
alignas(64) constexpr std::array<CShuffle, 256> ByteShuffles = MakeByteShuffles();

VLM_KERNEL inline __m128i LoadShuffle(CShuffle const& shuffle)
{
    return _mm_load_si128(reinterpret_cast<__m128i const*>(shuffle.data()));
}

VLM_KERNEL inline __m256i Widen(u8 const* place)
{
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(place)));
}

VLM_KERNEL inline void Store128(u8* place, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(place), value);
}

VLM_KERNEL inline void Store256(u8* place, __m256i value)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(place), value);
}

/// Writes eight 16-bit lanes, or as many as `count` says, in the target's width.
template <class To>
VLM_KERNEL inline u8* WriteLanes(u8* out, __m128i lanes, u64 count)
{
    if constexpr (To::UnitSize == 2)
        Store128(out, lanes);
    else
        Store256(out, _mm256_cvtepu16_epi32(lanes));
    return out + count * To::UnitSize;
}

/// Converts 16 positions: at each, the code point of a character that would end there; those of `ends` are kept.
/// `bad` collects results of 0xFFFF, which are no single unit of UTF-16.
template <class To>
VLM_KERNEL inline u8* ConvertEnds(u8 const* place, u32 ends, u8* out, __m256i& bad)
{
    __m256i const last = Widen(place);
    __m256i const middle = Widen(place - 1);
    __m256i const front = Widen(place - 2);
    __m256i const low = _mm256_set1_epi16(0x3F);
    __m256i const isContinuation =
        _mm256_cmpeq_epi16(_mm256_and_si256(middle, _mm256_set1_epi16(0xC0)), _mm256_set1_epi16(0x80));
    __m256i const upper = _mm256_and_si256(_mm256_slli_epi16(front, 12), isContinuation);
    __m256i const center = _mm256_slli_epi16(_mm256_and_si256(middle, low), 6);
    __m256i const joined = _mm256_or_si256(_mm256_or_si256(upper, center), _mm256_and_si256(last, low));
    __m256i const isASCII = _mm256_cmpgt_epi16(_mm256_set1_epi16(0x80), last);
    __m256i const codePoints = _mm256_blendv_epi8(joined, last, isASCII);
    if constexpr (To::UnitSize == 2)
        bad = _mm256_or_si256(bad, _mm256_cmpeq_epi16(codePoints, _mm256_set1_epi16(-1)));
    u32 const lowEnds = ends & 0xFF;
    u32 const highEnds = ends >> 8 & 0xFF;
    __m128i const lowLanes = _mm_shuffle_epi8(_mm256_castsi256_si128(codePoints), LoadShuffle(LaneShuffles[lowEnds]));
    __m128i const highLanes =
        _mm_shuffle_epi8(_mm256_extracti128_si256(codePoints, 1), LoadShuffle(LaneShuffles[highEnds]));
    out = WriteLanes<To>(out, lowLanes, static_cast<u64>(std::popcount(lowEnds)));
    return WriteLanes<To>(out, highLanes, static_cast<u64>(std::popcount(highEnds)));
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

template <class To>
VLM_KERNEL void ConvertFrom8(SConversion& state)
{
    // Two bytes in front of a block are looked at, so there must be two.
    if (state.count < BlockSize + SpareCharacters)
        return;
    ConvertPlainly<SUTF8, To>(state, 2);
    while (state.count >= BlockSize + SpareCharacters) {
        if (!HasHigh(state.in)) {
            state.out = WidenBlock<To>(state.in, state.out);
            state.in += BlockSize;
            state.count -= BlockSize;
            continue;
        }
        SBytes const bytes = ReadBytes(state.in, ~u64{0});
        if (bytes.continuation != bytes.GetCovered() || bytes.four != 0) {
            ConvertPlainly<SUTF8, To>(state, 24);
            continue;
        }
        u64 const ends = bytes.GetEnds();
        __m256i bad = _mm256_setzero_si256();
        u8* out = state.out;
        for (u32 offset = 0; offset < BlockSize; offset += 16)
            out = ConvertEnds<To>(state.in + offset, static_cast<u32>(ends >> offset & 0xFFFF), out, bad);
        if (To::UnitSize == 2 && MaskOf(reinterpret_cast<CRegister>(bad)) != 0) {
            ConvertPlainly<SUTF8, To>(state, 24);
            continue;
        }
        state = {state.in + WholeSize(ends), out, state.count - static_cast<u64>(std::popcount(ends))};
    }
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

template <bool PlaneZero>
VLM_KERNEL void Convert16To8(SConversion& state)
{
    while (state.count >= 16 + SpareCharacters) {
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(state.in));
        if (_mm256_testz_si256(units, _mm256_set1_epi16(static_cast<short>(0xFF80))) != 0) {
            Store128(state.out, _mm_packus_epi16(_mm256_castsi256_si128(units), _mm256_extracti128_si256(units, 1)));
            state = {state.in + 32, state.out + 16, state.count - 16};
            continue;
        }
        if (_mm256_testz_si256(units, _mm256_set1_epi16(static_cast<short>(0xF800))) != 0) {
            state = {state.in + 32, WriteShortUTF8(state.out, units), state.count - 16};
            continue;
        }
        if (!PlaneZero && HasSurrogate(state.in)) {
            ConvertPlainly<SUTF16, SUTF8>(state, 8);
            continue;
        }
        u8* const out = WriteUTF8(state.out, _mm256_cvtepu16_epi32(_mm256_castsi256_si128(units)));
        state.out = WriteUTF8(out, _mm256_cvtepu16_epi32(_mm256_extracti128_si256(units, 1)));
        state.in += 32;
        state.count -= 16;
    }
}

VLM_KERNEL void Convert16To32(SConversion& state)
{
    while (state.count >= 16 + SpareCharacters) {
        if (HasSurrogate(state.in)) {
            ConvertPlainly<SUTF16, SUTF32>(state, 8);
            continue;
        }
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(state.in));
        Store256(state.out, _mm256_cvtepu16_epi32(_mm256_castsi256_si128(units)));
        Store256(state.out + 32, _mm256_cvtepu16_epi32(_mm256_extracti128_si256(units, 1)));
        state = {state.in + 32, state.out + 64, state.count - 16};
    }
}

/// True when no unit reaches `limit`, which has a single bit and stands for itself and all bits above it.
VLM_KERNEL inline bool AreBelow(__m256i units, u32 limit)
{
    return _mm256_testz_si256(units, _mm256_set1_epi32(static_cast<int>(~(limit - 1)))) != 0;
}

VLM_KERNEL void Convert32To8(SConversion& state)
{
    while (state.count >= 8 + SpareCharacters) {
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(state.in));
        if (!AreBelow(units, 0x40000)) {
            ConvertPlainly<SUTF32, SUTF8>(state, 8);
            continue;
        }
        state = {state.in + 32, WriteUTF8(state.out, units), state.count - 8};
    }
}

VLM_KERNEL void Convert32To16(SConversion& state)
{
    while (state.count >= 8 + SpareCharacters) {
        __m256i const units = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(state.in));
        __m256i const isLast = _mm256_cmpeq_epi32(units, _mm256_set1_epi32(0xFFFF));
        if (!AreBelow(units, 0x10000) || _mm256_movemask_epi8(isLast) != 0) {
            ConvertPlainly<SUTF32, SUTF16>(state, 8);
            continue;
        }
        Store128(state.out, _mm_packus_epi32(_mm256_castsi256_si128(units), _mm256_extracti128_si256(units, 1)));
        state = {state.in + 32, state.out + 16, state.count - 8};
    }
}

} // namespace

SKernels const AVX2Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                          {Convert16To8<false>, nullptr, Convert16To32},
                                          {Convert32To8, Convert32To16, nullptr}},
                                         Convert16To8<true>);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const AVX2Kernels{};
} // namespace Velmor::TextKernels

#endif
