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

// ---- To UTF-8 -------------------------------------------------------------------------------------------------------

/// The bytes of a form for both code points of each lane of eight bytes: byte by byte the shift that brings its bits
/// down, the bits it takes, and those it adds.
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
        if (four != 0)
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

/// Writes the first `count` of the characters of a block of UTF-16 that begin at `starts`, sixteen at a time.
VLM_KERNEL inline u8* WritePairs(u8* out, __m512i units, u32 starts, u64 count)
{
    __m512i const next = _mm512_maskz_compress_epi16(0xFFFFFFFE, units);
    __m512i first = _mm512_maskz_compress_epi16(starts, units);
    __m512i second = _mm512_maskz_compress_epi16(starts, next);
    for (;; count -= 16) {
        __m512i const lead = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(first));
        __m512i const trail = _mm512_cvtepu16_epi32(_mm512_castsi512_si256(second));
        __m512i const joined = _mm512_or_si512(_mm512_slli_epi32(_mm512_and_si512(lead, Fill32(0x7FF)), 9),
                                               _mm512_and_si512(trail, Fill32(0x3FF)));
        __mmask16 const isPair = _mm512_cmpeq_epi32_mask(_mm512_and_si512(lead, Fill32(0xF800)), Fill32(0xD800));
        out = WriteUTF8<true>(out, _mm512_mask_mov_epi32(lead, isPair, joined),
                              static_cast<u32>(BitsBelow(std::min<u64>(count, 16))));
        if (count <= 16)
            return out;
        first = _mm512_castsi256_si512(_mm512_extracti64x4_epi64(first, 1));
        second = _mm512_castsi256_si512(_mm512_extracti64x4_epi64(second, 1));
    }
}

template <bool PlaneZero>
VLM_KERNEL u8* Convert16To8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count != 0) {
        u64 const readable = GetReadable(in, 2 * count) / 2;
        u64 const taken = std::min(readable, count);
        if (taken == 0) {
            state.Take(ConvertPlainly16To8<PlaneZero>(in, out, 1)); // a unit that lies in two pages
            continue;
        }
        __m512i const units = LoadFirst(in, 2 * readable);
        __mmask32 const wanted = static_cast<__mmask32>(BitsBelow(taken));
        if (_mm512_mask_test_epi16_mask(wanted, units, Fill16(0xFF80)) == 0) {
            _mm256_mask_storeu_epi8(out, wanted, _mm512_cvtepi16_epi8(units));
            state.Go(2 * taken, out + taken, taken);
            continue;
        }
        if (_mm512_mask_test_epi16_mask(wanted, units, Fill16(0xF800)) == 0) {
            state.Go(2 * taken, WriteShortUTF8(out, units, taken), taken);
            continue;
        }
        u32 const surrogates = _mm512_cmpeq_epi16_mask(_mm512_and_si512(units, Fill16(0xF800)), Fill16(0xD800));
        if (PlaneZero || (surrogates & wanted) == 0) {
            u8* end = WriteUTF8<false>(out, _mm512_cvtepu16_epi32(_mm512_castsi512_si256(units)), wanted & 0xFFFF);
            if (taken > 16)
                end = WriteUTF8<false>(end, _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(units, 1)), wanted >> 16);
            state.Go(2 * taken, end, taken);
            continue;
        }
        // A pair that the block cuts is left for the next round, one that the terminator cuts for the plain rule.
        u32 const covered = GetCovered(surrogates);
        u32 const openers = surrogates & ~covered;
        u64 const whole = BitsBelow(readable) & ~(u64{openers} & u64{1} << (readable - 1));
        u64 const starts = LowestBits(~u64{covered} & whole, count);
        u64 const last = 64 - static_cast<u64>(std::countl_zero(starts));
        u64 const end = last + (last != 0 && (openers >> (last - 1) & 1) != 0 ? 1 : 0);
        u32 const zeros = _mm512_testn_epi16_mask(units, units);
        if (starts == 0 || (zeros & covered & BitsBelow(end)) != 0)
            state.Take(ConvertPlainly16To8<false>(in, out, std::min<u64>(count, 8)));
        else
            state.Go(2 * end, WritePairs(out, units, ~covered, CountBits(starts)), CountBits(starts));
    }
    return out;
}

VLM_KERNEL u8* Convert32To8(u8 const* in, u64 count, u8* out)
{
    for (SRunning const state{in, out, count}; count != 0;) {
        u64 const taken = std::min<u64>(count, 16);
        state.Go(4 * taken, WriteUTF8<true>(out, LoadFirst(in, 4 * taken), static_cast<u32>(BitsBelow(taken))), taken);
    }
    return out;
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
    if (two == wanted)
        return StoreFirst(out, units, 4 * count);
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

/// Writes the first `count` of 64 characters of three bytes at the most, whose first, second and third bytes are given;
/// null when one of them is two units.
template <class To>
VLM_KERNEL inline u8* WriteJoined(u8* out, __m512i first, __m512i second, __m512i third, u64 count)
{
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

/// The places of a block that are chosen, from the front on.
VLM_KERNEL inline __m512i TakePlaces(__mmask64 chosen)
{
    return _mm512_maskz_compress_epi8(
        chosen, _mm512_set_epi64(0x3F3E3D3C3B3A3938, 0x3736353433323130, 0x2F2E2D2C2B2A2928, 0x2726252423222120,
                                 0x1F1E1D1C1B1A1918, 0x1716151413121110, 0x0F0E0D0C0B0A0908, 0x0706050403020100));
}

/// For each upper half of a lead byte: how far a character of four bytes at the most, whose lead byte stands highest in
/// a lane, lies too high, and the bits of it that count.
alignas(64) constexpr u32 LongShifts[16] = {24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 16, 16, 8, 0};
alignas(64) constexpr u32 LongBits[16] = {0x7F, 0x7F, 0x7F, 0x7F, 0x7F,   0x7F,   0x7F,     0x7F,
                                          0,    0,    0,    0,    0x1F3F, 0x1F3F, 0x0F3F3F, 0x0F3F3F3F};

/// Converts the first `count` of the characters of any size that begin at the given places of a block, which goes on in
/// another one.
template <class To>
VLM_KERNEL inline u8* ConvertLong(u8* out, __m512i block, __m512i following, __m512i places, u64 count)
{
    // Each place four times, and from there on the places of four bytes, the first one highest.
    __m512i const fourTimes =
        _mm512_set_epi64(0x0F0F0F0F0E0E0E0E, 0x0D0D0D0D0C0C0C0C, 0x0B0B0B0B0A0A0A0A, 0x0909090908080808,
                         0x0707070706060606, 0x0505050504040404, 0x0303030302020202, 0x0101010100000000);
    __m512i const onward = Fill32(0x00010203);
    __m512i const shifts = _mm512_load_si512(LongShifts);
    __m512i const bits = _mm512_load_si512(LongBits);
    for (;; count -= 16) {
        __m512i const from = _mm512_add_epi8(_mm512_permutexvar_epi8(fourTimes, places), onward);
        __m512i const bytes = _mm512_permutex2var_epi8(block, from, following);
        __m512i const lead = _mm512_srli_epi32(bytes, 28);
        __m512i const aligned = _mm512_srlv_epi32(bytes, _mm512_permutexvar_epi32(lead, shifts));
        __m512i const taken = _mm512_and_si512(aligned, _mm512_permutexvar_epi32(lead, bits));
        __m512i const pairs = _mm512_maddubs_epi16(taken, Fill16(0x4001));
        __m512i const joined = _mm512_madd_epi16(pairs, Fill32(0x10000001));
        u64 const some = std::min<u64>(count, 16);
        if constexpr (To::UnitSize == 2)
            out = WriteUTF16(out, joined, some);
        else
            out = StoreFirst(out, joined, 4 * some);
        if (count <= 16)
            return out;
        places = _mm512_shuffle_i64x2(places, places, 0x39);
    }
}

/// The same for characters of three bytes at the most in one block; null when one of them is two units.
template <class To>
VLM_KERNEL inline u8* ConvertShort(u8* out, __m512i block, __m512i places, u64 count)
{
    __m512i const one = _mm512_set1_epi8(1);
    __m512i const places1 = _mm512_add_epi8(places, one);
    __m512i const places2 = _mm512_add_epi8(places1, one);
    return WriteJoined<To>(out, _mm512_permutexvar_epi8(places, block), _mm512_permutexvar_epi8(places1, block),
                           _mm512_permutexvar_epi8(places2, block), count);
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

/// Block by block, while they are regular and the end is far: what begins in a block is converted, wherever it ends, so
/// that no block waits for the one before it.
template <class To>
VLM_KERNEL VLM_SEPARATE SConverted ConvertBlocks(u8 const* in, u64 const most, u8* out)
{
    u64 carried = 0;
    u64 count = most;
    for (; count >= 2 * BlockSize; in += BlockSize) {
        __m512i const block = LoadFirst(in, BlockSize);
        if ((static_cast<u64>(_mm512_movepi8_mask(block)) | carried) == 0) {
            out = WidenASCII<To>(out, block, BlockSize);
            count -= BlockSize;
            continue;
        }
        SBytes const bytes = Classify(block);
        u64 const carriedOn = bytes.GetCarried();
        u64 const following =
            static_cast<u64>(_mm512_cmplt_epi8_mask(LoadFirst(in + 3, BlockSize), _mm512_set1_epi8(-64))) >>
            (BlockSize - 3);
        if (bytes.continuation != (bytes.GetCovered() | carried) || (carriedOn & ~following) != 0)
            break;
        u64 const starts = ~bytes.continuation;
        u64 const taken = CountBits(starts);
        u8* end = nullptr;
        if (bytes.four == 0)
            end = WriteJoined<To>(out, _mm512_maskz_compress_epi8(starts, block),
                                  _mm512_maskz_compress_epi8(starts, LoadFirst(in + 1, BlockSize)),
                                  _mm512_maskz_compress_epi8(starts, LoadFirst(in + 2, BlockSize)), taken);
        if (end == nullptr)
            end = ConvertLong<To>(out, block, LoadFirst(in + BlockSize, BlockSize), TakePlaces(starts), taken);
        out = end;
        count -= taken;
        carried = carriedOn;
    }
    return {in + CountBits(carried), out, most - count};
}

template <class To>
VLM_KERNEL u8* ConvertFrom8(u8 const* in, u64 count, u8* out)
{
    SRunning const state{in, out, count};
    while (count != 0) {
        if (count >= 2 * BlockSize)
            state.Take(ConvertBlocks<To>(in, count, out));
        u64 const readable = GetReadable(in, count);
        __m512i const block = LoadFirst(in, readable);
        SBytes const bytes = Classify(block);
        u64 const most = std::min(readable, count);
        if ((bytes.high & BitsBelow(most)) == 0) {
            state.Go(most, WidenASCII<To>(out, block, most), most);
            continue;
        }
        // All places, whether or not they are wanted: what is written is counted meanwhile.
        __m512i const places = TakePlaces(_mm512_cmpgt_epi8_mask(block, _mm512_set1_epi8(-65)));
        u64 const ends = LowestBits(bytes.GetEnds() & BitsBelow(readable), count);
        u64 const size = 64 - static_cast<u64>(std::countl_zero(ends));
        u64 const whole = BitsBelow(size);
        if (ends == 0 || ((bytes.continuation ^ bytes.GetCovered()) & whole) != 0) {
            state.Take(ConvertPlainly<SUTF8, To>(in, out, std::min<u64>(count, 16)));
            continue;
        }
        u64 const taken = CountBits(ends);
        u8* end = nullptr;
        if (taken > 16 && (bytes.four & whole) == 0)
            end = ConvertShort<To>(out, block, places, taken);
        if (end == nullptr)
            end = ConvertLong<To>(out, block, block, places, taken);
        state.Go(size, end, taken);
    }
    return out;
}

VLM_KERNEL u8* Convert16To32(u8 const* in, u64 count, u8* out)
{
    for (SRunning const state{in, out, count}; count != 0;) {
        u64 const readable = GetReadable(in, 2 * count) / 2;
        u64 const taken = std::min(readable, count);
        __m512i const units = LoadFirst(in, 2 * readable);
        u32 const surrogates = _mm512_cmpeq_epi16_mask(_mm512_and_si512(units, Fill16(0xF800)), Fill16(0xD800));
        if (taken == 0 || (surrogates & BitsBelow(taken)) != 0)
            state.Take(ConvertPlainly<SUTF16, SUTF32>(in, out, std::min<u64>(count, 8)));
        else
            state.Go(2 * taken, WriteUnits<SUTF32>(out, units, taken), taken);
    }
    return out;
}

VLM_KERNEL u8* Convert32To16(u8 const* in, u64 count, u8* out)
{
    for (SRunning const state{in, out, count}; count != 0;) {
        u64 const taken = std::min<u64>(count, 16);
        state.Go(4 * taken, WriteUTF16(out, LoadFirst(in, 4 * taken), taken), taken);
    }
    return out;
}

} // namespace

constinit SKernels const AVX512Kernels = MakeKernels({{nullptr, ConvertFrom8<SUTF16>, ConvertFrom8<SUTF32>},
                                                      {Convert16To8<false>, nullptr, Convert16To32},
                                                      {Convert32To8, Convert32To16, nullptr}},
                                                     Convert16To8<true>);

} // namespace Velmor::TextKernels

#else

namespace Velmor::TextKernels {
SKernels const AVX512Kernels{};
} // namespace Velmor::TextKernels

#endif
