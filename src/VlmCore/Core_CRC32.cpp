#include "Core_CRC32.h"

#include "Core_ProcessorFeatures.h"

#include <vlmcore/hashes.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstring>

#include <immintrin.h>

namespace Velmor {
namespace CRC32 {
namespace {

constexpr u32 Polynomial = 0xEDB88320; ///< x^32 + ... + 1 without x^32, highest power in the lowest bit

/// A state times x, in the reflected order of bits.
constexpr u32 TimesX(u32 value)
{
    return (value & 1) != 0 ? (value >> 1) ^ Polynomial : value >> 1;
}

// ---- Tables
// -----------------------------------------------------------------------------------------------------------

/// Tables[k][b]: what byte b contributes to the state when k more bytes follow it.
using Tables = std::array<std::array<u32, 256>, 16>;

constexpr Tables MakeTables()
{
    Tables tables{};
    for (u32 byte = 0; byte < 256; ++byte) {
        u32 value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = TimesX(value);
        tables[0][byte] = value;
    }
    for (u32 k = 1; k < 16; ++k)
        for (u32 byte = 0; byte < 256; ++byte) {
            u32 const before = tables[k - 1][byte];
            tables[k][byte] = tables[0][before & 0xFF] ^ (before >> 8);
        }
    return tables;
}

constexpr Tables Slices = MakeTables();

u32 Load32(u8 const* data)
{
    u32 word;
    std::memcpy(&word, data, sizeof(word));
    return word;
}

/// The four bytes of a word that `behind` more bytes follow.
template <u32 Behind>
u32 SliceWord(u32 word)
{
    return Slices[Behind + 3][word & 0xFF] ^ Slices[Behind + 2][(word >> 8) & 0xFF] ^
           Slices[Behind + 1][(word >> 16) & 0xFF] ^ Slices[Behind][word >> 24];
}

/// Sixteen bytes a step, each through its own table.
u32 ComputeSliced(u8 const* data, u64 size, u32 crc)
{
    for (; size >= 16; data += 16, size -= 16)
        crc = SliceWord<12>(Load32(data) ^ crc) ^ SliceWord<8>(Load32(data + 4)) ^ SliceWord<4>(Load32(data + 8)) ^
              SliceWord<0>(Load32(data + 12));
    if (size >= 8) {
        crc = SliceWord<4>(Load32(data) ^ crc) ^ SliceWord<0>(Load32(data + 4));
        data += 8;
        size -= 8;
    }
    if (size >= 4) {
        crc = SliceWord<0>(Load32(data) ^ crc);
        data += 4;
        size -= 4;
    }
    return ComputePlain(data, size, crc);
}

// ---- Carry-less multiplication
// ---------------------------------------------------------------------------------------
//
// A block of 128 bits that `distance` bits of message follow may be replaced by a remainder of it, xored into the block
// at that distance: its lower half (the higher powers) is multiplied by x^(distance + 32), its upper half by
// x^(distance - 32), both modulo the polynomial. Constants carry one more shift because a product of reflected numbers
// comes out one bit too far down.

/// x^power modulo the polynomial, as a factor.
constexpr u64 Factor(u32 power)
{
    u32 value = 0x80000000;
    for (u32 i = 0; i < power; ++i)
        value = TimesX(value);
    return u64{value} << 1;
}

struct SFactors {
    u64 low;  ///< for the half that comes first in memory
    u64 high; ///< for the other
};

constexpr SFactors FactorsFor(u32 distance)
{
    return {Factor(distance + 32), Factor(distance - 32)};
}

constexpr SFactors Fold128 = FactorsFor(128);
constexpr SFactors Fold256 = FactorsFor(256);
constexpr SFactors Fold384 = FactorsFor(384);
constexpr SFactors Fold512 = FactorsFor(512);
constexpr SFactors Fold1024 = FactorsFor(1024);
constexpr SFactors Fold1536 = FactorsFor(1536);
constexpr SFactors Fold2048 = FactorsFor(2048);

/// The polynomial and the quotient x^64 / polynomial, both with 33 bits in reflected order.
constexpr u64 WholePolynomial = u64{Polynomial} << 1 | 1;

constexpr u64 MakeQuotient()
{
    constexpr u64 straight = 0x104C11DB7; // the polynomial, highest power in the highest bit
    u64 remainder = 0;
    u64 reflected = 0;
    for (int power = 64; power >= 0; --power) {
        remainder = remainder << 1 | (power == 64 ? 1 : 0);
        bool const divides = (remainder >> 32) != 0;
        if (divides)
            remainder ^= straight;
        if (power <= 32)
            reflected |= u64{divides} << (32 - power);
    }
    return reflected;
}

constexpr u64 Quotient = MakeQuotient();

#define VLM_CARRYLESS VLM_TARGET("pclmul,ssse3,sse4.1")

VLM_CARRYLESS inline __m128i Load128(u8 const* data)
{
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(data));
}

VLM_CARRYLESS inline __m128i Pack(u64 low, u64 high)
{
    return _mm_set_epi64x(std::bit_cast<long long>(high), std::bit_cast<long long>(low));
}

/// The block moved by the distance of `factors`.
VLM_CARRYLESS inline __m128i Fold(__m128i block, SFactors factors)
{
    __m128i const both = Pack(factors.low, factors.high);
    return _mm_xor_si128(_mm_clmulepi64_si128(block, both, 0x00), _mm_clmulepi64_si128(block, both, 0x11));
}

/// The state that a message of this last block leaves.
VLM_CARRYLESS inline u32 Reduce(__m128i block)
{
    __m128i const low32 = Pack(0xFFFFFFFF, 0);
    // 128 bits to 96, to 64.
    block = _mm_xor_si128(_mm_srli_si128(block, 8), _mm_clmulepi64_si128(block, Pack(Fold128.high, 0), 0x00));
    block = _mm_xor_si128(_mm_srli_si128(block, 4),
                          _mm_clmulepi64_si128(_mm_and_si128(block, low32), Pack(Factor(64), 0), 0x00));
    // 64 bits to 32: subtract the multiple of the polynomial that the quotient tells.
    __m128i const barrett = Pack(WholePolynomial, Quotient);
    __m128i multiple = _mm_clmulepi64_si128(_mm_and_si128(block, low32), barrett, 0x10);
    multiple = _mm_clmulepi64_si128(_mm_and_si128(multiple, low32), barrett, 0x00);
    return static_cast<u32>(_mm_extract_epi32(_mm_xor_si128(block, multiple), 1));
}

/// Byte shuffles that move a block by n bytes: 16 bytes from Shifts + 16 - n move it up, from Shifts + 16 + n down; a
/// byte with its top bit set gives zero.
alignas(16) constexpr u8 Shifts[48] = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
                                       0x80, 0x80, 0x80, 0x80, 0,    1,    2,    3,    4,    5,    6,    7,
                                       8,    9,    10,   11,   12,   13,   14,   15,   0x80, 0x80, 0x80, 0x80,
                                       0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

/// Takes in the last 1 to 15 bytes, of which `end` is the end; at least 16 bytes of message lie before `end`. The first
/// `count` bytes of the block are folded into a full block of its other bytes and the new ones.
VLM_CARRYLESS inline __m128i FoldTail(__m128i block, u8 const* end, u64 count)
{
    __m128i const leading = _mm_shuffle_epi8(block, Load128(Shifts + count));
    __m128i const staying = _mm_shuffle_epi8(block, Load128(Shifts + 16 + count));
    // Of the last 16 bytes of the message, those that `staying` does not cover.
    __m128i const fresh = _mm_cmplt_epi8(Load128(Shifts + 16 + count), _mm_setzero_si128());
    __m128i const tail = _mm_or_si128(staying, _mm_and_si128(fresh, Load128(end - 16)));
    return _mm_xor_si128(Fold(leading, Fold128), tail);
}

/// Goes on from a block that stands for everything before `data`. At least 16 bytes lie before `data`.
VLM_CARRYLESS inline u32 Finish(__m128i block, u8 const* data, u64 size)
{
    for (; size >= 16; data += 16, size -= 16)
        block = _mm_xor_si128(Fold(block, Fold128), Load128(data));
    if (size != 0)
        block = FoldTail(block, data + size, size);
    return Reduce(block);
}

/// Four blocks side by side, 64 bytes a step.
VLM_CARRYLESS inline u32 FinishFour(__m128i a, __m128i b, __m128i c, __m128i d, u8 const* data, u64 size)
{
    for (; size >= 64; data += 64, size -= 64) {
        a = _mm_xor_si128(Fold(a, Fold512), Load128(data));
        b = _mm_xor_si128(Fold(b, Fold512), Load128(data + 16));
        c = _mm_xor_si128(Fold(c, Fold512), Load128(data + 32));
        d = _mm_xor_si128(Fold(d, Fold512), Load128(data + 48));
    }
    __m128i const front = _mm_xor_si128(Fold(a, Fold384), Fold(b, Fold256));
    return Finish(_mm_xor_si128(front, _mm_xor_si128(Fold(c, Fold128), d)), data, size);
}

[[gnu::always_inline]] VLM_CARRYLESS inline u32 ComputeShort(u8 const* data, u64 size, u32 crc)
{
    if (size < 16)
        return ComputeSliced(data, size, crc);
    __m128i const first = _mm_xor_si128(Load128(data), _mm_cvtsi32_si128(std::bit_cast<int>(crc)));
    if (size < 64)
        return Finish(first, data + 16, size - 16);
    return FinishFour(first, Load128(data + 16), Load128(data + 32), Load128(data + 48), data + 64, size - 64);
}

VLM_CARRYLESS u32 ComputeCarryless(u8 const* data, u64 size, u32 crc)
{
    return ComputeShort(data, size, crc);
}

#define VLM_WIDE_CARRYLESS VLM_TARGET("avx512f,avx512bw,avx512dq,avx512vl,vpclmulqdq,pclmul,ssse3,sse4.1")

VLM_WIDE_CARRYLESS inline __m512i Load512(u8 const* data)
{
    return _mm512_loadu_si512(data);
}

/// The four blocks of a register moved by the distance of `factors`, and `next` added.
VLM_WIDE_CARRYLESS inline __m512i FoldWide(__m512i blocks, SFactors factors, __m512i next)
{
    long long const low = std::bit_cast<long long>(factors.low);
    long long const high = std::bit_cast<long long>(factors.high);
    __m512i const both = _mm512_set4_epi64(high, low, high, low);
    constexpr int exclusiveOr3 = 0x96;
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(blocks, both, 0x00),
                                     _mm512_clmulepi64_epi128(blocks, both, 0x11), next, exclusiveOr3);
}

/// Sixteen blocks side by side in four wide registers, 256 bytes a step.
[[gnu::noinline]] VLM_WIDE_CARRYLESS u32 ComputeLong(u8 const* data, u64 size, u32 crc)
{
    __m512i a = _mm512_xor_si512(Load512(data), _mm512_zextsi128_si512(_mm_cvtsi32_si128(std::bit_cast<int>(crc))));
    __m512i b = Load512(data + 64);
    __m512i c = Load512(data + 128);
    __m512i d = Load512(data + 192);
    data += 256;
    size -= 256;
    for (; size >= 256; data += 256, size -= 256) {
        a = FoldWide(a, Fold2048, Load512(data));
        b = FoldWide(b, Fold2048, Load512(data + 64));
        c = FoldWide(c, Fold2048, Load512(data + 128));
        d = FoldWide(d, Fold2048, Load512(data + 192));
    }
    d = FoldWide(a, Fold1536, FoldWide(b, Fold1024, FoldWide(c, Fold512, d)));
    alignas(64) u8 blocks[64];
    _mm512_store_si512(blocks, d);
    return FinishFour(Load128(blocks), Load128(blocks + 16), Load128(blocks + 32), Load128(blocks + 48), data, size);
}

/// The short way, too, in this processor's encoding: where other code has left the upper halves of the registers in
/// use, the older encoding takes a third longer.
VLM_WIDE_CARRYLESS u32 ComputeWide(u8 const* data, u64 size, u32 crc)
{
    return size < 512 ? ComputeShort(data, size, crc) : ComputeLong(data, size, crc);
}

// ---- Choice ---------------------------------------------------------------------------------------------------------

constexpr SPath Paths[] = {
    {"plain", ComputePlain, [] { return true; }},
    {"sliced", ComputeSliced, [] { return true; }},
    {"carryless", ComputeCarryless, [] { return GetProcessorFeatures().carrylessMultiply; }},
    {"wide carryless", ComputeWide, [] { return GetProcessorFeatures().wideCarrylessMultiply; }},
};

u32 ChooseAndCompute(u8 const* data, u64 size, u32 crc);

/// The fastest path of this processor, once the first call has found it.
constinit std::atomic<Function> chosen{ChooseAndCompute};

u32 ChooseAndCompute(u8 const* data, u64 size, u32 crc)
{
    Function best = ComputePlain;
    for (SPath const& path : Paths)
        if (path.isSupported())
            best = path.function;
    chosen.store(best, std::memory_order_relaxed);
    return best(data, size, crc);
}

} // namespace

u32 ComputePlain(u8 const* data, u64 size, u32 crc)
{
    for (u64 i = 0; i < size; ++i)
        crc = Slices[0][(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

std::span<SPath const> GetPaths()
{
    return Paths;
}

} // namespace CRC32

unsigned int GetCRC32(void const* data, u64 size, unsigned int crc)
{
    return CRC32::chosen.load(std::memory_order_relaxed)(static_cast<u8 const*>(data), size, crc);
}

} // namespace Velmor
