#include "Core_ProcessorFeatures.h"
#include "Core_TextKernels.h"
#include "Core_TextRules.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__x86_64__) || defined(_M_X64)

#  if defined(__GNUC__) && !defined(__clang__)
#    pragma GCC diagnostic ignored "-Wuninitialized" // its own header's "undefined" registers
#    pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#  endif

#  include <immintrin.h>

namespace Velmor::TextKernels {
namespace {

using namespace Encodings;

#  define VLM_KERNEL VLM_TARGET("avx2,bmi,bmi2,popcnt,avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vbmi2")

constexpr u64 VectorWidth = 64;

using CRegister = u8 __attribute__((vector_size(VectorWidth)));

VLM_KERNEL inline u64 MaskOf(CRegister bytes)
{
    return _mm512_movepi8_mask(reinterpret_cast<__m512i>(bytes));
}

VLM_KERNEL inline u64 SumOf(CRegister bytes)
{
    return static_cast<u64>(
        _mm512_reduce_add_epi64(_mm512_sad_epu8(reinterpret_cast<__m512i>(bytes), _mm512_setzero_si512())));
}

#  include "Core_TextVector.h"
#  include "Core_TextVectorMeasure.h"
#  include "Core_TextVectorSearch.h"

// Conversions compress: bytes or units that are wanted are moved together by a mask. A block is converted whole or, at
// the end and in irregular text, in part; nothing is written behind what is announced, since stores are masked, too.

VLM_KERNEL inline __m512i Fill32(u32 value)
{
    return _mm512_set1_epi32(static_cast<int>(value));
}

VLM_KERNEL inline __m512i Fill16(u32 value)
{
    return _mm512_set1_epi16(static_cast<short>(value));
}

/// Writes the first `size` bytes of a register.
VLM_KERNEL inline u8* StoreFirst(u8* out, __m512i bytes, u64 size)
{
    _mm512_mask_storeu_epi8(out, BitsBelow(size), bytes);
    return out + size;
}

/// Bytes that may be read from `place` on, 64 at the most, when the text is known to hold `known` more.
VLM_KERNEL inline u64 GetReadable(u8 const* place, u64 known)
{
    return known >= BlockSize ? BlockSize : std::min(BlockSize, BytesToPageEnd(place));
}

VLM_KERNEL VLM_READS_AROUND inline __m512i LoadFirst(u8 const* place, u64 size)
{
    return _mm512_maskz_loadu_epi8(BitsBelow(size), place);
}

/// The lowest `count` bits that are set.
VLM_KERNEL inline u64 LowestBits(u64 mask, u64 count)
{
    return count >= 64 ? mask : _pdep_u64(BitsBelow(count), mask);
}

template <class From, class To>
void ConvertPlainly(SConversion& state, u64 count)
{
    state.out = TextRules::ConvertCharactersFrom<From, To>(state.in, count, state.out);
    state.count -= count;
}

// ---- To UTF-8 -------------------------------------------------------------------------------------------------------

/// The bytes of a form for both code points of each lane of eight bytes: byte by byte the shift that brings its bits down,
/// the bits it takes, and those it adds.
struct SForm {
    __m512i shifts;
    __m512i taken;
    __m512i added;

    VLM_KERNEL SForm(u32 shift, u32 take, u32 add)
        : shifts(_mm512_set1_epi64(static_cast<long long>(u64{shift + 0x20202020} << 32 | shift))), taken(Fill32(take)),
          added(Fill32(add))
    {
    }
    [[nodiscard]] VLM_KERNEL __m512i Apply(__m512i codePoints) const
    {
        constexpr int addTaken = 0xF8; // added | (shifted & taken)
        return _mm512_ternarylogic_epi32(added, _mm512_multishift_epi64_epi8(shifts, codePoints), taken, addTaken);
    }
};

/// Moves the three lower bytes of each lane to the front.
VLM_KERNEL inline __m512i CloseGaps(__m512i bytes)
{
    return _mm512_maskz_compress_epi8(0x7777777777777777, bytes);
}

/// Writes those of sixteen code points that are chosen.
template <bool MayHaveFour>
VLM_KERNEL inline u8* WriteUTF8(u8* out, __m512i codePoints, u32 chosen)
{
    __mmask16 const wanted = static_cast<__mmask16>(chosen);
    __mmask16 const two = _mm512_mask_cmpge_epu32_mask(wanted, codePoints, Fill32(0x80));
    __mmask16 const three = _mm512_mask_cmpge_epu32_mask(wanted, codePoints, Fill32(0x800));
    if (!MayHaveFour && three == 0xFFFF)
        return StoreFirst(out, CloseGaps(SForm(0x0000060C, 0x003F3F0F, 0x008080E0).Apply(codePoints)), 48);
    __m512i bytes = _mm512_maskz_mov_epi32(wanted, codePoints);
    bytes = _mm512_mask_mov_epi32(bytes, two, SForm(0x00000006, 0x00003F1F, 0x000080C0).Apply(codePoints));
    bytes = _mm512_mask_mov_epi32(bytes, three, SForm(0x0000060C, 0x003F3F0F, 0x008080E0).Apply(codePoints));
    if constexpr (MayHaveFour) {
        // Kept: a constant byte, and a lead byte that holds eight bits.
        __mmask16 const four = _mm512_mask_cmpge_epu32_mask(wanted, codePoints, Fill32(0x40000));
        bytes = _mm512_mask_mov_epi32(bytes, four, SForm(0x00060C00, 0x3F3FFF00, 0x8080E0E0).Apply(codePoints));
    }
    // Only the single byte of a zero is zero.
    u64 const kept = _mm512_test_epi8_mask(bytes, bytes) | _pdep_u64(chosen, UnitBits<u32>);
    return StoreFirst(out, _mm512_maskz_compress_epi8(kept, bytes), CountBits(kept));
}

/// Writes the first `count` of 32 units below 0x800.
VLM_KERNEL inline u8* WriteShortUTF8(u8* out, __m512i units, u64 count)
{
    __mmask32 const two = _mm512_cmpge_epu16_mask(units, Fill16(0x80));
    __m512i const lead = _mm512_or_si512(_mm512_srli_epi16(units, 6), Fill16(0xC0));
    __m512i const tail = _mm512_or_si512(_mm512_and_si512(units, Fill16(0x3F)), Fill16(0x80));
    __m512i const pairs = _mm512_mask_mov_epi16(units, two, _mm512_or_si512(lead, _mm512_slli_epi16(tail, 8)));
    __m512i const sizes = _mm512_mask_mov_epi16(Fill16(0x0080), two, Fill16(0x8080));
    u64 const kept = _mm512_movepi8_mask(sizes) & BitsBelow(2 * count);
    return StoreFirst(out, _mm512_maskz_compress_epi8(kept, pairs), CountBits(kept));
}

/// The units that the surrogate before them takes in: every other one of a run and behind it. (Runs that begin at odd
/// places are told from the others by an addition that carries through them, as in the search for escaped characters in
/// "Parsing Gigabytes of JSON per Second", Langdale and Lemire.)
VLM_KERNEL inline u32 GetCovered(u32 surrogates)
{
    constexpr u32 evenPlaces = 0x55555555;
    u32 const following = surrogates << 1;
    u32 const oddBeginnings = surrogates & ~evenPlaces & ~following;
    return (evenPlaces ^ (oddBeginnings + surrogates) << 1) & following;
}

template <bool PlaneZero>
VLM_KERNEL void Convert16To8(SConversion& state)
{
    while (state.count != 0) {
        u64 const readable = GetReadable(state.in, 2 * state.count) / 2;
        u64 const taken = std::min(readable, state.count);
        if (taken == 0) {
            ConvertPlainly<SUTF16, SUTF8>(state, 1); // a unit that lies in two pages
            continue;
        }
        __m512i const units = LoadFirst(state.in, 2 * readable);
        __mmask32 const wanted = static_cast<__mmask32>(BitsBelow(taken));
        if (_mm512_mask_test_epi16_mask(wanted, units, Fill16(0xFF80)) == 0) {
            _mm256_mask_storeu_epi8(state.out, wanted, _mm512_cvtepi16_epi8(units));
            state = {state.in + 2 * taken, state.out + taken, state.count - taken};
            continue;
        }
        if (_mm512_mask_test_epi16_mask(wanted, units, Fill16(0xF800)) == 0) {
            state.out = WriteShortUTF8(state.out, units, taken);
            state.in += 2 * taken;
            state.count -= taken;
            continue;
        }
        __m512i const low = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(units));
        __m512i const high = _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(units, 1));
        u32 const surrogates = _mm512_cmpeq_epi16_mask(_mm512_and_si512(units, Fill16(0xF800)), Fill16(0xD800));
        if (PlaneZero || (surrogates & wanted) == 0) {
            state.out = WriteUTF8<false>(state.out, low, wanted & 0xFFFF);
            state.out = WriteUTF8<false>(state.out, high, wanted >> 16);
            state.in += 2 * taken;
            state.count -= taken;
            continue;
        }
        // A pair that the block cuts is left for the next round, one that the terminator cuts for the plain rule.
        u32 const covered = GetCovered(surrogates);
        u32 const openers = surrogates & ~covered;
        u64 const whole = BitsBelow(readable) & ~(u64{openers} & u64{1} << (readable - 1));
        u64 const starts = LowestBits(~u64{covered} & whole, state.count);
        u64 const last = 64 - static_cast<u64>(std::countl_zero(starts));
        u64 const end = last + (last != 0 && (openers >> (last - 1) & 1) != 0 ? 1 : 0);
        u32 const zeros = _mm512_testn_epi16_mask(units, units);
        if (starts == 0 || (zeros & covered & BitsBelow(end)) != 0) {
            ConvertPlainly<SUTF16, SUTF8>(state, std::min<u64>(state.count, 8));
            continue;
        }
        // Each lane with the unit behind it in its upper half.
        __m512i const next = _mm512_maskz_compress_epi16(0xFFFFFFFE, units);
        __m512i const joinedLow =
            _mm512_or_si512(_mm512_slli_epi32(_mm512_and_si512(low, Fill32(0x7FF)), 9),
                            _mm512_and_si512(_mm512_cvtepu16_epi32(_mm512_castsi512_si256(next)), Fill32(0x3FF)));
        __m512i const joinedHigh =
            _mm512_or_si512(_mm512_slli_epi32(_mm512_and_si512(high, Fill32(0x7FF)), 9),
                            _mm512_and_si512(_mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(next, 1)), Fill32(0x3FF)));
        u32 const chosen = static_cast<u32>(starts);
        state.out = WriteUTF8<true>(state.out, _mm512_mask_mov_epi32(low, static_cast<__mmask16>(openers), joinedLow),
                                    chosen & 0xFFFF);
        state.out = WriteUTF8<true>(
            state.out, _mm512_mask_mov_epi32(high, static_cast<__mmask16>(openers >> 16), joinedHigh), chosen >> 16);
        state.in += 2 * end;
        state.count -= CountBits(starts);
    }
}

VLM_KERNEL void Convert32To8(SConversion& state)
{
    while (state.count != 0) {
        u64 const taken = std::min<u64>(state.count, 16);
        __m512i const units = LoadFirst(state.in, 4 * taken);
        state.out = WriteUTF8<true>(state.out, units, static_cast<u32>(BitsBelow(taken)));
        state.in += 4 * taken;
        state.count -= taken;
    }
}

// ---- To wider units -------------------------------------------------------------------------------------------------

/// Writes the first `count` of sixteen code points as UTF-16.
VLM_KERNEL inline u8* WriteUTF16(u8* out, __m512i codePoints, u64 count)
{
    __mmask16 const wanted = static_cast<__mmask16>(BitsBelow(count));
    __mmask16 const two = _mm512_mask_cmpge_epu32_mask(wanted, codePoints, Fill32(0xFFFF));
    if (two == 0) {
        _mm256_mask_storeu_epi16(out, wanted, _mm512_cvtepi32_epi16(codePoints));
        return out + 2 * count;
    }
    // Kept: nothing is subtracted, and the second unit keeps all its bits.
    __m512i const high =
        _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi32(codePoints, 10), Fill32(0xFFFF)), Fill32(0xD800));
    __m512i const low = _mm512_slli_epi32(_mm512_or_si512(codePoints, Fill32(0xDC00)), 16);
    __m512i const units = _mm512_mask_or_epi32(codePoints, two, high, low);
    __m512i const sizes =
        _mm512_mask_mov_epi32(_mm512_maskz_mov_epi32(wanted, Fill32(0x00008000)), two, Fill32(0x80008000));
    __mmask32 const kept = _mm512_movepi16_mask(sizes);
    return StoreFirst(out, _mm512_maskz_compress_epi16(kept, units), 2 * CountBits(kept));
}

/// Writes the first `count` of 32 code points below 0xFFFF (for UTF-32: 0x10000) in the target's width.
template <class To>
VLM_KERNEL inline u8* WriteUnits(u8* out, __m512i units, u64 count)
{
    if constexpr (To::UnitSize == 2)
        return StoreFirst(out, units, 2 * count);
    out = StoreFirst(out, _mm512_cvtepu16_epi32(_mm512_castsi512_si256(units)), 4 * std::min<u64>(count, 16));
    if (count > 16)
        out = StoreFirst(out, _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(units, 1)), 4 * (count - 16));
    return out;
}

/// The code points of 32 characters of three bytes at the most.
VLM_KERNEL inline __m512i Join(__m256i firstBytes, __m256i secondBytes, __m256i thirdBytes)
{
    __m512i const first = _mm512_cvtepu8_epi16(firstBytes);
    __m512i const low = Fill16(0x3F);
    __m512i const second = _mm512_and_si512(_mm512_cvtepu8_epi16(secondBytes), low);
    __m512i const third = _mm512_and_si512(_mm512_cvtepu8_epi16(thirdBytes), low);
    __m512i const two = _mm512_or_si512(_mm512_slli_epi16(_mm512_and_si512(first, Fill16(0x1F)), 6), second);
    __m512i const three =
        _mm512_or_si512(_mm512_or_si512(_mm512_slli_epi16(first, 12), _mm512_slli_epi16(second, 6)), third);
    __m512i const joined = _mm512_mask_mov_epi16(first, _mm512_cmpge_epu16_mask(first, Fill16(0xC0)), two);
    return _mm512_mask_mov_epi16(joined, _mm512_cmpge_epu16_mask(first, Fill16(0xE0)), three);
}

/// The bytes of a block, and those one, two and three places further on: at the same places, or at places `shift` further
/// on for each of them.
struct SBlock8 {
    __m512i bytes;
    __m512i next1;
    __m512i next2;
    __m512i next3;
    u32 shift;
};

/// Converts the characters that begin at `starts`, three bytes each at the most; null when one of them is two units.
template <class To>
VLM_KERNEL inline u8* ConvertShort(u8* out, SBlock8 const& block, u64 starts)
{
    u64 const count = CountBits(starts);
    __m512i const first = _mm512_maskz_compress_epi8(starts, block.bytes);
    __m512i const second = _mm512_maskz_compress_epi8(starts << block.shift, block.next1);
    __m512i const third = _mm512_maskz_compress_epi8(starts << 2 * block.shift, block.next2);
    __m512i const units =
        Join(_mm512_castsi512_si256(first), _mm512_castsi512_si256(second), _mm512_castsi512_si256(third));
    if (To::UnitSize == 2 && _mm512_cmpeq_epi16_mask(units, Fill16(0xFFFF)) != 0)
        return nullptr;
    u8* const end = WriteUnits<To>(out, units, std::min<u64>(count, 32));
    if (count <= 32)
        return end;
    __m512i const more = Join(_mm512_extracti64x4_epi64(first, 1), _mm512_extracti64x4_epi64(second, 1),
                              _mm512_extracti64x4_epi64(third, 1));
    if (To::UnitSize == 2 && _mm512_cmpeq_epi16_mask(more, Fill16(0xFFFF)) != 0)
        return nullptr;
    return WriteUnits<To>(end, more, count - 32);
}

/// The bytes of a mask, sixteen at the most, each in a lane of four.
VLM_KERNEL inline __m512i TakeBytes(__m512i block, u64 mask)
{
    return _mm512_cvtepu8_epi32(_mm512_castsi512_si128(_mm512_maskz_compress_epi8(mask, block)));
}

/// Converts the characters that begin at `starts`, of any size.
template <class To>
VLM_KERNEL inline u8* ConvertLong(u8* out, SBlock8 const& block, u64 starts)
{
    __m512i const low = Fill32(0x3F);
    while (starts != 0) {
        u64 const group = LowestBits(starts, 16);
        starts &= ~group;
        u64 const count = CountBits(group);
        __m512i const first = TakeBytes(block.bytes, group);
        __m512i const second = _mm512_and_si512(TakeBytes(block.next1, group << block.shift), low);
        __m512i const third = _mm512_and_si512(TakeBytes(block.next2, group << 2 * block.shift), low);
        __m512i const fourth = _mm512_and_si512(TakeBytes(block.next3, group << 3 * block.shift), low);
        __m512i const upper = _mm512_and_si512(first, Fill32(0x0F));
        __m512i const two = _mm512_or_si512(_mm512_slli_epi32(_mm512_and_si512(first, Fill32(0x1F)), 6), second);
        __m512i const three =
            _mm512_or_si512(_mm512_or_si512(_mm512_slli_epi32(upper, 12), _mm512_slli_epi32(second, 6)), third);
        __m512i const four =
            _mm512_or_si512(_mm512_or_si512(_mm512_slli_epi32(upper, 18), _mm512_slli_epi32(second, 12)),
                            _mm512_or_si512(_mm512_slli_epi32(third, 6), fourth));
        __m512i joined = _mm512_mask_mov_epi32(first, _mm512_cmpge_epu32_mask(first, Fill32(0xC0)), two);
        joined = _mm512_mask_mov_epi32(joined, _mm512_cmpge_epu32_mask(first, Fill32(0xE0)), three);
        joined = _mm512_mask_mov_epi32(joined, _mm512_cmpge_epu32_mask(first, Fill32(0xF0)), four);
        if constexpr (To::UnitSize == 2)
            out = WriteUTF16(out, joined, count);
        else
            out = StoreFirst(out, joined, 4 * count);
    }
    return out;
}

template <class To>
VLM_KERNEL inline u8* WidenASCII(u8* out, __m512i block, u64 count)
{
    out = WriteUnits<To>(out, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(block)), std::min<u64>(count, 32));
    if (count > 32)
        out = WriteUnits<To>(out, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(block, 1)), count - 32);
    return out;
}

VLM_KERNEL inline SBytes Classify(__m512i block)
{
    SBytes bytes{};
    bytes.high = _mm512_movepi8_mask(block);
    bytes.continuation = _mm512_cmplt_epi8_mask(block, _mm512_set1_epi8(-64));
    bytes.three = _mm512_cmpge_epu8_mask(block, _mm512_set1_epi8(static_cast<char>(0xE0)));
    bytes.four = _mm512_cmpge_epu8_mask(block, _mm512_set1_epi8(static_cast<char>(0xF0)));
    return bytes;
}

template <class To>
VLM_KERNEL inline u8* ConvertCharactersAt(u8* out, SBlock8 const& block, u64 starts, bool hasFour)
{
    u8* const end = hasFour ? nullptr : ConvertShort<To>(out, block, starts);
    return end != nullptr ? end : ConvertLong<To>(out, block, starts);
}

/// Block by block, while they are regular and the end is far: what begins in a block is converted, wherever it ends, so
/// that no block waits for the one before it.
template <class To>
VLM_KERNEL void ConvertBlocks(SConversion& state)
{
    u64 carried = 0;
    u8 const* in = state.in;
    u8* out = state.out;
    u64 count = state.count;
    for (; count >= 2 * BlockSize; in += BlockSize) {
        SBlock8 const block = {LoadFirst(in, BlockSize), LoadFirst(in + 1, BlockSize), LoadFirst(in + 2, BlockSize),
                               LoadFirst(in + 3, BlockSize), 0};
        if ((static_cast<u64>(_mm512_movepi8_mask(block.bytes)) | carried) == 0) {
            out = WidenASCII<To>(out, block.bytes, BlockSize);
            count -= BlockSize;
            continue;
        }
        SBytes const bytes = Classify(block.bytes);
        u64 const carriedOn = bytes.GetCarried();
        u64 const following =
            static_cast<u64>(_mm512_cmplt_epi8_mask(block.next3, _mm512_set1_epi8(-64))) >> (BlockSize - 3);
        if (bytes.continuation != (bytes.GetCovered() | carried) || (carriedOn & ~following) != 0)
            break;
        u64 const starts = ~bytes.continuation;
        out = ConvertCharactersAt<To>(out, block, starts, bytes.four != 0);
        count -= CountBits(starts);
        carried = carriedOn;
    }
    state = {in + CountBits(carried), out, count};
}

template <class To>
VLM_KERNEL void ConvertFrom8(SConversion& state)
{
    while (state.count != 0) {
        if (state.count >= 2 * BlockSize)
            ConvertBlocks<To>(state);
        u64 const readable = GetReadable(state.in, state.count);
        __m512i const block = LoadFirst(state.in, readable);
        SBytes const bytes = Classify(block);
        u64 const most = std::min(readable, state.count);
        if ((bytes.high & BitsBelow(most)) == 0) {
            state = {state.in + most, WidenASCII<To>(state.out, block, most), state.count - most};
            continue;
        }
        u64 const ends = LowestBits(bytes.GetEnds() & BitsBelow(readable), state.count);
        u64 const size = 64 - static_cast<u64>(std::countl_zero(ends));
        u64 const whole = BitsBelow(size);
        if (ends == 0 || ((bytes.continuation ^ bytes.GetCovered()) & whole) != 0) {
            ConvertPlainly<SUTF8, To>(state, std::min<u64>(state.count, 16));
            continue;
        }
        u64 const starts = ~bytes.continuation & whole;
        SBlock8 const shifted = {block, block, block, block, 1};
        state.out = ConvertCharactersAt<To>(state.out, shifted, starts, (bytes.four & whole) != 0);
        state.in += size;
        state.count -= CountBits(starts);
    }
}

VLM_KERNEL void Convert16To32(SConversion& state)
{
    while (state.count != 0) {
        u64 const readable = GetReadable(state.in, 2 * state.count) / 2;
        u64 const taken = std::min(readable, state.count);
        __m512i const units = LoadFirst(state.in, 2 * readable);
        u32 const surrogates = _mm512_cmpeq_epi16_mask(_mm512_and_si512(units, Fill16(0xF800)), Fill16(0xD800));
        if (taken == 0 || (surrogates & BitsBelow(taken)) != 0) {
            ConvertPlainly<SUTF16, SUTF32>(state, std::min<u64>(state.count, 8));
            continue;
        }
        state = {state.in + 2 * taken, WriteUnits<SUTF32>(state.out, units, taken), state.count - taken};
    }
}

VLM_KERNEL void Convert32To16(SConversion& state)
{
    while (state.count != 0) {
        u64 const taken = std::min<u64>(state.count, 16);
        state.out = WriteUTF16(state.out, LoadFirst(state.in, 4 * taken), taken);
        state.in += 4 * taken;
        state.count -= taken;
    }
}

} // namespace

SKernels const AVX512Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                            {Convert16To8<false>, nullptr, Convert16To32},
                                            {Convert32To8, Convert32To16, nullptr}},
                                           Convert16To8<true>);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const AVX512Kernels{};
} // namespace Velmor::TextKernels

#endif
