/// \file
/// Vector kernels continued (see Core_TextVector.h, included the same way): conversions sixteen bytes of source at a
/// time, for short texts, the ends of long ones, and characters that the wide paths do not take. Needs AVX2.
///
/// Writing is exact. A register goes out whole as long as the characters still to come take up what it writes too much,
/// and in two overlapping parts at the end.
///
/// Not a header on its own, and without a guard: each instruction set includes it once.

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

/// From place 32 - 2n on: what keeps n units.
constexpr std::array<u8, 64> MakeKeepUnits()
{
    std::array<u8, 64> kept{};
    for (u32 index = 0; index < 32; ++index)
        kept[index] = 0xFF;
    return kept;
}

/// From place n on: how to move bytes down by n.
constexpr std::array<u8, 32> MakeMoveDown()
{
    std::array<u8, 32> shuffle{};
    for (u32 index = 0; index < 32; ++index)
        shuffle[index] = static_cast<u8>(index < 16 ? index : 0x80);
    return shuffle;
}

alignas(64) constexpr std::array<CShuffle, 256> PairShuffles = MakePairShuffles();
alignas(64) constexpr std::array<CShuffle, 256> LaneShuffles = MakeLaneShuffles();
alignas(64) constexpr std::array<CShuffle, 256> ByteShuffles = MakeByteShuffles();
alignas(64) constexpr std::array<u8, 32> MoveDown = MakeMoveDown();
alignas(64) constexpr std::array<u8, 64> KeepUnits = MakeKeepUnits();

VLM_KERNEL inline __m128i LoadShuffle(CShuffle const& shuffle)
{
    return _mm_load_si128(reinterpret_cast<__m128i const*>(shuffle.data()));
}

VLM_KERNEL inline __m128i Load128(u8 const* place)
{
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(place));
}

VLM_KERNEL inline __m256i Load256(u8 const* place)
{
    return _mm256_loadu_si256(reinterpret_cast<__m256i const*>(place));
}

VLM_KERNEL VLM_READS_AROUND inline __m256i LoadAround256(u8 const* place)
{
    return _mm256_loadu_si256(reinterpret_cast<__m256i const*>(place));
}

VLM_KERNEL inline void Store128(u8* place, __m128i value)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(place), value);
}

VLM_KERNEL inline void Store256(u8* place, __m256i value)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(place), value);
}

/// Writes the first `size` bytes of a register, 16 at the most.
VLM_KERNEL inline void StorePart(u8* out, __m128i bytes, u64 size)
{
    if (size >= 8) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), bytes);
        __m128i const upper = _mm_shuffle_epi8(bytes, Load128(MoveDown.data() + size - 8));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + size - 8), upper);
        return;
    }
    u64 const low = static_cast<u64>(_mm_cvtsi128_si64(bytes));
    if (size >= 4) {
        Encodings::Store(out, static_cast<u32>(low));
        Encodings::Store(out + size - 4, static_cast<u32>(low >> 8 * (size - 4)));
    }
    else if (size >= 2) {
        Encodings::Store(out, static_cast<u16>(low));
        Encodings::Store(out + size - 2, static_cast<u16>(low >> 8 * (size - 2)));
    }
    else if (size != 0) {
        *out = static_cast<u8>(low);
    }
}

/// The same; at least `room` bytes may be written.
VLM_KERNEL inline u8* StoreBytes(u8* out, __m128i bytes, u64 size, u64 room)
{
    if (room >= 16)
        Store128(out, bytes);
    else
        StorePart(out, bytes, size);
    return out + size;
}

/// Writes the first `count` of eight code points in 16-bit lanes, in the target's width; `left` characters are to come
/// from these on.
template <class To>
VLM_KERNEL inline u8* StoreLanes(u8* out, __m128i lanes, u64 count, u64 left)
{
    if constexpr (To::UnitSize == 2) {
        return StoreBytes(out, lanes, 2 * count, 2 * left);
    }
    else {
        if (left >= 8) {
            Store256(out, _mm256_cvtepu16_epi32(lanes));
            return out + 4 * count;
        }
        u64 const first = std::min<u64>(count, 4);
        StoreBytes(out, _mm_cvtepu16_epi32(lanes), 4 * first, 4 * left);
        if (count > 4)
            StorePart(out + 16, _mm_cvtepu16_epi32(_mm_srli_si128(lanes, 8)), 4 * (count - 4));
        return out + 4 * count;
    }
}

// ---- From UTF-8 -----------------------------------------------------------------------------------------------------

VLM_KERNEL inline u32 MaskOf128(__m128i bytes)
{
    return static_cast<u32>(_mm_movemask_epi8(bytes));
}

/// The code points of four characters, whose bytes stand in lanes of four with the last one lowest.
VLM_KERNEL inline __m128i JoinBytes(__m128i lanes)
{
    __m128i const pairs = _mm_maddubs_epi16(lanes, _mm_set1_epi16(0x4001));
    return _mm_madd_epi16(pairs, _mm_set1_epi32(0x10000001));
}

/// The code points of four characters of four bytes each.
VLM_KERNEL inline __m128i JoinFours(__m128i bytes)
{
    __m128i const order = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    return JoinBytes(_mm_and_si128(_mm_shuffle_epi8(bytes, order), _mm_set1_epi32(0x0F3F3F3F)));
}

/// Writes `count` of four code points that are above 0xFFFE (for UTF-32: any); null, with nothing written, when one is
/// not.
template <class To>
VLM_KERNEL inline u8* WriteFourPairs(u8* out, __m128i codePoints, u64 count)
{
    if constexpr (To::UnitSize == 2) {
        __m128i const isPair = _mm_cmpgt_epi32(codePoints, _mm_set1_epi32(0xFFFE));
        u64 const isSingle = ~static_cast<u64>(_mm_movemask_ps(_mm_castsi128_ps(isPair)));
        if ((isSingle & BitsBelow(count)) != 0)
            return nullptr;
        // Kept: nothing is subtracted, and the second unit keeps all its bits.
        __m128i const high = _mm_or_si128(_mm_srli_epi32(codePoints, 10), _mm_set1_epi32(0xD800));
        codePoints = _mm_or_si128(high, _mm_slli_epi32(_mm_or_si128(codePoints, _mm_set1_epi32(0xDC00)), 16));
    }
    return StoreBytes(out, codePoints, 4 * count, 4 * count);
}

VLM_KERNEL inline u32 MaskOf256(__m256i bytes)
{
    return static_cast<u32>(_mm256_movemask_epi8(bytes));
}

/// The classes of 32 bytes that begin with a character, one bit each.
struct SBytes32 {
    u32 high;
    u32 valid; ///< in front of the first zero
    u32 continuation;
    u32 three;
    u32 four;

    VLM_KERNEL SBytes32(__m256i bytes, u32 highBytes) : high(highBytes)
    {
        u32 const zero = MaskOf256(_mm256_cmpeq_epi8(bytes, _mm256_setzero_si256()));
        valid = (zero - 1) & ~zero;
        continuation = MaskOf256(_mm256_cmpgt_epi8(_mm256_set1_epi8(-64), bytes));
        three = MaskOf256(_mm256_subs_epu8(bytes, _mm256_set1_epi8(0xE0 - 0x80)));
        four = MaskOf256(_mm256_subs_epu8(bytes, _mm256_set1_epi8(0xF0 - 0x80)));
    }
    /// Up to four of them.
    [[nodiscard]] VLM_KERNEL u64 CountLeadingFours() const
    {
        u32 const other = (four ^ 0x1111) | (continuation ^ 0xEEEE) | ~valid;
        return static_cast<u64>(std::countr_zero(other | 0x10000)) / 4;
    }
    /// Ends of the whole characters in front of the first one of four bytes, the first zero and the first irregular
    /// place.
    [[nodiscard]] VLM_KERNEL u32 GetShortEnds() const
    {
        u32 const leads = high & ~continuation;
        u32 const covered = leads << 1 | three << 2;
        u32 const limit = valid & (four - 1) & ~four;
        u32 const irregular = (continuation ^ covered) & limit;
        return (~high | (leads & ~three) << 1 | three << 2) & limit & (irregular - 1) & ~irregular;
    }
};

/// Sixteen places: at each the code point of a character of three bytes at the most that would end there.
VLM_KERNEL inline __m256i JoinEnds(__m128i lastBytes, __m128i middleBytes, __m128i firstBytes)
{
    __m256i const low = _mm256_set1_epi16(0x3F);
    __m256i const last = _mm256_cvtepu8_epi16(lastBytes);
    __m256i const middle = _mm256_cvtepu8_epi16(middleBytes);
    __m256i const front = _mm256_cvtepu8_epi16(firstBytes);
    __m256i const isContinuation =
        _mm256_cmpeq_epi16(_mm256_and_si256(middle, _mm256_set1_epi16(0xC0)), _mm256_set1_epi16(0x80));
    __m256i const upper = _mm256_and_si256(_mm256_slli_epi16(front, 12), isContinuation);
    __m256i const center = _mm256_slli_epi16(_mm256_and_si256(middle, low), 6);
    __m256i const joined = _mm256_or_si256(_mm256_or_si256(upper, center), _mm256_and_si256(last, low));
    __m256i const isASCII = _mm256_cmpgt_epi16(_mm256_set1_epi16(0x80), last);
    return _mm256_blendv_epi8(joined, last, isASCII);
}

/// Writes those of sixteen code points that are chosen; `left` characters are to come from these on.
template <class To>
VLM_KERNEL VLM_INLINE u8* WriteChosen(u8* out, __m256i codePoints, u32 chosen, u64 left)
{
    u64 const first = CountBits(chosen & 0xFF);
    u64 const second = CountBits(chosen >> 8);
    __m128i const low = _mm256_castsi256_si128(codePoints);
    __m128i const high = _mm256_extracti128_si256(codePoints, 1);
    out = StoreLanes<To>(out, _mm_shuffle_epi8(low, LoadShuffle(LaneShuffles[chosen & 0xFF])), first, left);
    return StoreLanes<To>(out, _mm_shuffle_epi8(high, LoadShuffle(LaneShuffles[chosen >> 8])), second, left - first);
}

/// Converts those of 32 bytes whose characters, of three bytes at the most, end at `ends`; null, with nothing written,
/// when a code point takes two units. `left` characters are to come from these on.
template <class To>
VLM_KERNEL VLM_INLINE u8* WriteEnds(u8* out, __m256i bytes, u32 ends, u64 left)
{
    __m128i const low = _mm256_castsi256_si128(bytes);
    __m128i const high = _mm256_extracti128_si256(bytes, 1);
    __m256i const first = JoinEnds(low, _mm_slli_si128(low, 1), _mm_slli_si128(low, 2));
    __m256i const second = JoinEnds(high, _mm_alignr_epi8(high, low, 15), _mm_alignr_epi8(high, low, 14));
    if constexpr (To::UnitSize == 2) {
        __m256i const last = _mm256_set1_epi16(-1);
        if (MaskOf256(_mm256_or_si256(_mm256_cmpeq_epi16(first, last), _mm256_cmpeq_epi16(second, last))) != 0)
            return nullptr;
    }
    out = WriteChosen<To>(out, first, ends & 0xFFFF, left);
    u32 const more = ends >> 16;
    return more != 0 ? WriteChosen<To>(out, second, more, left - CountBits(ends & 0xFFFF)) : out;
}

template <class To>
VLM_KERNEL VLM_INLINE u8* WidenBytes(u8* out, __m128i bytes, u64 count)
{
    __m256i const units = _mm256_cvtepu8_epi16(bytes);
    __m128i const low = _mm256_castsi256_si128(units);
    __m128i const high = _mm256_extracti128_si256(units, 1);
    if (count >= 16) {
        if constexpr (To::UnitSize == 2) {
            Store256(out, units);
        }
        else {
            Store256(out, _mm256_cvtepu16_epi32(low));
            Store256(out + 32, _mm256_cvtepu16_epi32(high));
        }
        return out + 16 * To::UnitSize;
    }
    u64 const first = std::min<u64>(count, 8);
    out = StoreLanes<To>(out, low, first, count);
    return count > 8 ? StoreLanes<To>(out, high, count - 8, count - 8) : out;
}

/// Converts some of the characters that begin in the next 32 bytes, at least one.
template <class To>
VLM_KERNEL VLM_INLINE void ConvertNextFrom8(SRunning const state)
{
    auto const& [in, out, count] = state;
    if (count < 32 && BytesToPageEnd(in) < 32)
        return state.Take(ConvertPlainly<SUTF8, To>(in, out, 1));
    __m256i const bytes = LoadAround256(in);
    u32 const high = MaskOf256(bytes);
    if ((high & BitsBelow(count)) == 0) {
        u64 const taken = std::min<u64>(count, 32);
        u8* end = WidenBytes<To>(out, _mm256_castsi256_si128(bytes), taken);
        if (taken > 16)
            end = WidenBytes<To>(end, _mm256_extracti128_si256(bytes, 1), taken - 16);
        return state.Go(taken, end, taken);
    }
    SBytes32 const block(bytes, high);
    if ((block.four & 1) != 0) {
        u64 const fours = std::min(block.CountLeadingFours(), count);
        u8* const end = fours != 0 ? WriteFourPairs<To>(out, JoinFours(_mm256_castsi256_si128(bytes)), fours) : nullptr;
        if (end == nullptr)
            return state.Take(ConvertPlainly<SUTF8, To>(in, out, std::max<u64>(fours, 1)));
        // A constant, where it is one, lets the next step begin early.
        if (fours == 4)
            return state.Go(16, out + 16, 4);
        return state.Go(4 * fours, end, fours);
    }
    u32 ends = block.GetShortEnds();
    u64 taken = CountBits(ends);
    for (; taken > count; --taken)
        ends ^= std::bit_floor(ends);
    u8* const end = taken != 0 ? WriteEnds<To>(out, bytes, ends, count) : nullptr;
    if (end == nullptr)
        return state.Take(ConvertPlainly<SUTF8, To>(in, out, std::max<u64>(taken, 1)));
    state.Go(static_cast<u64>(std::bit_width(ends)), end, taken);
}

/// Converts the characters that begin in front of `stop`.
template <class To>
VLM_KERNEL VLM_SEPARATE SConverted ConvertShortFrom8(u8 const* in, u8* out, u64 const most, u8 const* stop)
{
    u64 count = most;
    while (count != 0 && in < stop)
        ConvertNextFrom8<To>({in, out, count});
    return {in, out, most - count};
}

/// Converts all characters.
template <class To>
VLM_KERNEL VLM_INLINE u8* ConvertRestFrom8(u8 const* in, u64 count, u8* out)
{
    while (count != 0)
        ConvertNextFrom8<To>({in, out, count});
    return out;
}

// ---- From UTF-16 ----------------------------------------------------------------------------------------------------

/// Writes `count` of four code points below 0x40000 as UTF-8; `left` characters are to come from these on.
VLM_KERNEL inline u8* WriteFourUTF8(u8* out, __m128i codePoints, u64 count, u64 left)
{
    __m128i const low = _mm_set1_epi32(0x3F);
    __m128i const tail = _mm_set1_epi32(0x80);
    __m128i const last = _mm_or_si128(_mm_and_si128(codePoints, low), tail);
    __m128i const middle = _mm_and_si128(_mm_srli_epi32(codePoints, 6), low);
    __m128i const isLong = _mm_cmpgt_epi32(codePoints, _mm_set1_epi32(0x7F));
    __m128i const isLonger = _mm_cmpgt_epi32(codePoints, _mm_set1_epi32(0x7FF));
    __m128i const two = _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0xC0), middle), _mm_slli_epi32(last, 8));
    __m128i const lead = _mm_and_si128(_mm_srli_epi32(codePoints, 12), _mm_set1_epi32(0x0F));
    __m128i const three =
        _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0xE0), lead),
                     _mm_or_si128(_mm_slli_epi32(_mm_or_si128(middle, tail), 8), _mm_slli_epi32(last, 16)));
    __m128i const bytes = _mm_blendv_epi8(_mm_blendv_epi8(codePoints, two, isLong), three, isLonger);
    u32 const longer = static_cast<u32>(_mm_movemask_ps(_mm_castsi128_ps(isLong)));
    u32 const longest = static_cast<u32>(_mm_movemask_ps(_mm_castsi128_ps(isLonger)));
    u64 const size = count + CountBits((longer | longest << 4) & BitsBelow(count) * 0x11);
    return StoreBytes(out, _mm_shuffle_epi8(bytes, LoadShuffle(ByteShuffles[longer | longest << 4])), size,
                      size + left - count);
}

/// Writes `count` of eight units below 0x800 as UTF-8; `left` characters are to come from these on.
VLM_KERNEL inline u8* WriteEightShort(u8* out, __m128i units, u64 count, u64 left)
{
    __m128i const isLong = _mm_cmpgt_epi16(units, _mm_set1_epi16(0x7F));
    __m128i const lead = _mm_or_si128(_mm_srli_epi16(units, 6), _mm_set1_epi16(0xC0));
    __m128i const tail = _mm_or_si128(_mm_and_si128(units, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
    __m128i const bytes = _mm_blendv_epi8(units, _mm_or_si128(lead, _mm_slli_epi16(tail, 8)), isLong);
    u32 const longer = MaskOf128(_mm_packs_epi16(isLong, _mm_setzero_si128()));
    u64 const size = count + CountBits(longer & BitsBelow(count));
    return StoreBytes(out, _mm_shuffle_epi8(bytes, LoadShuffle(PairShuffles[longer])), size, size + left - count);
}

/// Sixteen units of three bytes each: the bytes of the units 0 to 3 and 8 to 11, and of the others, at the front of
/// each half.
struct SLongUTF8 {
    __m256i even;
    __m256i odd;

    VLM_KERNEL explicit SLongUTF8(__m256i units)
    {
        __m256i const closeGaps =
            _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
        __m256i const lead = _mm256_srli_epi16(units, 12);
        __m256i const middle = _mm256_and_si256(_mm256_slli_epi16(units, 2), _mm256_set1_epi16(0x3F00));
        __m256i const front =
            _mm256_or_si256(_mm256_or_si256(lead, middle), _mm256_set1_epi16(static_cast<short>(0x80E0)));
        __m256i const last = _mm256_or_si256(_mm256_and_si256(units, _mm256_set1_epi16(0x3F)), _mm256_set1_epi16(0x80));
        even = _mm256_shuffle_epi8(_mm256_unpacklo_epi16(front, last), closeGaps);
        odd = _mm256_shuffle_epi8(_mm256_unpackhi_epi16(front, last), closeGaps);
    }
};

/// Writes the first `taken` of sixteen units of three bytes each; `left` characters are to come from these on.
VLM_KERNEL VLM_INLINE u8* WriteSomeLong(u8* out, __m256i units, u64 taken, u64 left)
{
    SLongUTF8 const bytes(units);
    __m128i const groups[] = {_mm256_castsi256_si128(bytes.even), _mm256_castsi256_si128(bytes.odd),
                              _mm256_extracti128_si256(bytes.even, 1), _mm256_extracti128_si256(bytes.odd, 1)};
    u8* const end = out + 3 * taken;
    u64 room = 2 * taken + left;
    for (u64 group = 0; group < 4 && out < end; ++group, room -= 12)
        out = StoreBytes(out, groups[group], std::min<u64>(12, static_cast<u64>(end - out)), room);
    return end;
}

/// Writes the first `taken` of sixteen units, none of them a surrogate, as UTF-8.
VLM_KERNEL VLM_INLINE u8* WriteUnitsAsUTF8(u8* out, __m256i units, u64 taken, u64 left)
{
    // What is not taken becomes zeros, which are written by nobody.
    __m256i const kept = _mm256_and_si256(units, Load256(KeepUnits.data() + 32 - 2 * taken));
    __m128i const low = _mm256_castsi256_si128(kept);
    __m128i const high = _mm256_extracti128_si256(kept, 1);
    if (_mm256_testz_si256(kept, _mm256_set1_epi16(static_cast<short>(0xFF80))) != 0)
        return StoreBytes(out, _mm_packus_epi16(low, high), taken, left);
    __m256i const isShort = _mm256_cmpeq_epi16(_mm256_and_si256(kept, _mm256_set1_epi16(static_cast<short>(0xF800))),
                                               _mm256_setzero_si256());
    u64 const shortUnits = MaskOf256(isShort);
    u64 const first = std::min<u64>(taken, 8);
    if (shortUnits == BitsBelow(32)) {
        out = WriteEightShort(out, low, first, left);
        return taken > 8 ? WriteEightShort(out, high, taken - 8, left - 8) : out;
    }
    if ((shortUnits & BitsBelow(2 * taken)) == 0)
        return WriteSomeLong(out, kept, taken, left);
    out = WriteFourUTF8(out, _mm_cvtepu16_epi32(low), std::min<u64>(taken, 4), left);
    if (taken > 4)
        out = WriteFourUTF8(out, _mm_cvtepu16_epi32(_mm_srli_si128(low, 8)), first - 4, left - 4);
    if (taken > 8)
        out = WriteFourUTF8(out, _mm_cvtepu16_epi32(high), std::min<u64>(taken - 8, 4), left - 8);
    if (taken > 12)
        out = WriteFourUTF8(out, _mm_cvtepu16_epi32(_mm_srli_si128(high, 8)), taken - 12, left - 12);
    return out;
}

/// Converts some of the characters that begin in the next sixteen units, at least one.
template <bool PlaneZero>
VLM_KERNEL VLM_INLINE void ConvertNext16To8(SRunning const state)
{
    auto const& [in, out, count] = state;
    if (count < 16 && BytesToPageEnd(in) < 32)
        return state.Take(ConvertPlainly16To8<PlaneZero>(in, out, 1));
    __m256i const units = LoadAround256(in);
    u64 const most = std::min<u64>(count, 16);
    u32 surrogates = 0;
    if constexpr (!PlaneZero) {
        surrogates =
            static_cast<u32>(BitsBelow(2 * most)) &
            MaskOf256(_mm256_cmpeq_epi16(_mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(0xF800))),
                                         _mm256_set1_epi16(static_cast<short>(0xD800))));
    }
    if (surrogates == 0)
        return state.Go(2 * most, WriteUnitsAsUTF8(out, units, most, count), most);
    if ((surrogates & 1) == 0) {
        u64 const taken = static_cast<u64>(std::countr_zero(surrogates)) / 2;
        return state.Go(2 * taken, WriteUnitsAsUTF8(out, units, taken, count), taken);
    }
    // Pairs with any unit but zero behind the surrogate.
    __m128i const low = _mm256_castsi256_si128(units);
    u32 const cut = MaskOf128(_mm_cmpeq_epi32(_mm_srli_epi32(low, 16), _mm_setzero_si128()));
    u32 const other = (surrogates ^ 0x1111) & 0x1111;
    u64 const pairs = std::min(static_cast<u64>(std::countr_zero(other | cut | 0x10000)) / 4, count);
    __m128i const codePoints = _mm_or_si128(_mm_slli_epi32(_mm_and_si128(low, _mm_set1_epi32(0x7FF)), 9),
                                            _mm_and_si128(_mm_srli_epi32(low, 16), _mm_set1_epi32(0x3FF)));
    __m128i const isFour = _mm_cmpgt_epi32(codePoints, _mm_set1_epi32(0x3FFFF));
    u64 const fours = static_cast<u64>(_mm_movemask_ps(_mm_castsi128_ps(isFour)));
    if (pairs == 0 || (fours & BitsBelow(pairs)) != 0)
        return state.Take(ConvertPlainly16To8<false>(in, out, std::max<u64>(pairs, 1)));
    u8* const end = WriteFourUTF8(out, codePoints, pairs, count);
    // A constant, where it is one, lets the next step begin early.
    if (pairs == 4)
        return state.Go(16, end, 4);
    state.Go(4 * pairs, end, pairs);
}

/// Converts the characters that begin in front of `stop`.
template <bool PlaneZero>
VLM_KERNEL VLM_SEPARATE SConverted ConvertShort16To8(u8 const* in, u8* out, u64 const most, u8 const* stop)
{
    u64 count = most;
    while (count != 0 && in < stop)
        ConvertNext16To8<PlaneZero>({in, out, count});
    return {in, out, most - count};
}

/// Converts all characters.
template <bool PlaneZero>
VLM_KERNEL VLM_INLINE u8* ConvertRest16To8(u8 const* in, u64 count, u8* out)
{
    while (count != 0)
        ConvertNext16To8<PlaneZero>({in, out, count});
    return out;
}
