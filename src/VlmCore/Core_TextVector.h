/// \file
/// Lanes and blocks: what every vector kernel is made of, written once over the register width. The including file has
/// defined VectorWidth (bytes of a register), VLM_KERNEL (the mark of functions that use its instructions), MaskOf (a
/// bit for each byte's highest) and SumOf (of the bytes), and includes this inside its own unnamed namespace: nothing
/// here may be shared between instruction sets.
///
/// Not a header on its own, and without a guard: each instruction set includes it once.

constexpr u64 PageSize = 4096;
/// Long stretches are taken in chunks of four registers. An aligned chunk lies in one page.
constexpr u64 ChunkSize = 4 * VectorWidth;

/// A register of units and the operators of the language on it, lane by lane.
template <class Unit>
struct SLanesOf {
    typedef Unit Type __attribute__((vector_size(VectorWidth)));
    typedef Unit Unaligned __attribute__((vector_size(VectorWidth), aligned(1), may_alias));
};
template <class Unit>
using TLanes = typename SLanesOf<Unit>::Type;
using CLanes8 = TLanes<u8>;

template <class Unit>
VLM_KERNEL VLM_READS_AROUND inline TLanes<Unit> LoadAround(u8 const* place)
{
    return *reinterpret_cast<typename SLanesOf<Unit>::Unaligned const*>(place);
}

template <class Unit>
VLM_KERNEL inline TLanes<Unit> Load(u8 const* place)
{
    return *reinterpret_cast<typename SLanesOf<Unit>::Unaligned const*>(place);
}

template <class Unit>
VLM_KERNEL inline void Store(u8* place, TLanes<Unit> lanes)
{
    *reinterpret_cast<typename SLanesOf<Unit>::Unaligned*>(place) = lanes;
}

template <class Unit>
VLM_KERNEL inline TLanes<Unit> Fill(Unit unit)
{
    return TLanes<Unit>{} + unit;
}

template <class Lanes>
VLM_KERNEL inline Lanes Least(Lanes left, Lanes right)
{
    return left < right ? left : right;
}

/// `left - right`, 0 where that is negative.
VLM_KERNEL inline CLanes8 SubtractDownTo0(CLanes8 left, CLanes8 right)
{
    return left > right ? left - right : CLanes8{};
}

/// A bit for every byte of the lanes that hold, in a comparison's result.
template <class Comparison>
VLM_KERNEL inline u64 MaskWhere(Comparison comparison)
{
    return MaskOf(reinterpret_cast<CLanes8>(comparison));
}

template <class Lanes>
VLM_KERNEL inline bool HasZero(Lanes lanes)
{
    return MaskWhere(lanes == Lanes{}) != 0;
}

// ---- Masks and addresses --------------------------------------------------------------------------------------------

VLM_KERNEL inline u32 LowestBit(u64 mask)
{
    return static_cast<u32>(std::countr_zero(mask));
}

VLM_KERNEL inline u64 CountBits(u64 mask)
{
    return static_cast<u64>(std::popcount(mask));
}

/// All bits below the lowest one; all of them when there is none.
VLM_KERNEL inline u64 BelowLowest(u64 mask)
{
    return (mask - 1) & ~mask;
}

VLM_KERNEL inline u64 BitsBelow(u64 count)
{
    return count >= 64 ? ~u64{0} : (u64{1} << count) - 1;
}

VLM_KERNEL inline u64 BytesBehind(u8 const* place, u64 alignment)
{
    return reinterpret_cast<std::uintptr_t>(place) % alignment;
}

VLM_KERNEL inline u64 BytesToPageEnd(u8 const* place)
{
    return PageSize - BytesBehind(place, PageSize);
}

/// One bit in each unit of a block.
template <class Unit>
constexpr u64 UnitBits = sizeof(Unit) == 1   ? ~u64{0}
                         : sizeof(Unit) == 2 ? 0x5555555555555555
                                             : 0x1111111111111111;

// ---- Terminators and differences ------------------------------------------------------------------------------------

template <class Unit>
VLM_KERNEL u64 GetTextSize(u8 const* text)
{
    u64 size = 0;
    if (BytesBehind(text, sizeof(Unit)) != 0) {
        while (Encodings::Load<Unit>(text + size) != 0)
            size += sizeof(Unit);
        return size;
    }
    u64 const ahead = BytesBehind(text, VectorWidth);
    u8 const* place = text - ahead;
    if (u64 const zeros = MaskWhere(LoadAround<Unit>(place) == TLanes<Unit>{}) >> ahead; zeros != 0)
        return LowestBit(zeros);
    for (;;) {
        place += VectorWidth;
        if (BytesBehind(place, ChunkSize) == 0) {
            while (!HasZero(
                Least(Least(LoadAround<Unit>(place), LoadAround<Unit>(place + VectorWidth)),
                      Least(LoadAround<Unit>(place + 2 * VectorWidth), LoadAround<Unit>(place + 3 * VectorWidth)))))
                place += ChunkSize;
        }
        if (u64 const zeros = MaskWhere(LoadAround<Unit>(place) == TLanes<Unit>{}); zeros != 0)
            return static_cast<u64>(place - text) + LowestBit(zeros);
    }
}

/// Zero in the lanes where the texts differ or the left one ends.
template <class Unit>
VLM_KERNEL inline TLanes<Unit> GoOn(u8 const* left, u8 const* right)
{
    TLanes<Unit> const units = LoadAround<Unit>(left);
    return units & reinterpret_cast<TLanes<Unit>>(units == LoadAround<Unit>(right));
}

template <class Unit>
VLM_KERNEL inline u64 StopMask(u8 const* left, u8 const* right)
{
    return MaskWhere(GoOn<Unit>(left, right) == TLanes<Unit>{});
}

template <class Unit>
VLM_SEPARATE u64 FindDifferencePlainly(u8 const* left, u8 const* right, u64 offset, u64 stop)
{
    for (; offset < stop; offset += sizeof(Unit)) {
        Unit const unit = Encodings::Load<Unit>(left + offset);
        if (unit != Encodings::Load<Unit>(right + offset) || unit == 0)
            break;
    }
    return offset;
}

/// True when a chunk of both texts is the same and has no terminator.
template <class Unit>
VLM_KERNEL inline bool IsSameChunk(u8 const* left, u8 const* right)
{
    TLanes<Unit> least = Fill<Unit>(static_cast<Unit>(~Unit{0}));
    if constexpr (VectorWidth == 64) {
        // Differences are collected in one instruction; compilers would compare and join masks, which is slower.
        TLanes<Unit> different{};
        for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth) {
            TLanes<Unit> const units = LoadAround<Unit>(left + offset);
            different |= units ^ LoadAround<Unit>(right + offset);
            asm("" : "+v"(different));
            least = Least(least, units);
        }
        return MaskWhere((different != TLanes<Unit>{}) | (least == TLanes<Unit>{})) == 0;
    }
    auto isSame = least == least;
    for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth) {
        TLanes<Unit> const units = LoadAround<Unit>(left + offset);
        isSame &= units == LoadAround<Unit>(right + offset);
        least = Least(least, units);
    }
    return !HasZero(least & reinterpret_cast<TLanes<Unit>>(isSame));
}

/// The same in a chunk that has such a unit.
template <class Unit>
VLM_KERNEL inline u64 FindDifferenceInChunk(u8 const* left, u8 const* right, u64 offset)
{
    for (;; offset += VectorWidth) {
        if (u64 const mask = StopMask<Unit>(left + offset, right + offset); mask != 0)
            return offset + LowestBit(mask);
    }
}

/// The same from `offset` up to `stop`, within a page of the right text; `stop` when there is none.
template <class Unit>
VLM_KERNEL u64 FindDifferenceBefore(u8 const* left, u8 const* right, u64 offset, u64 stop)
{
    if (stop < VectorWidth)
        return FindDifferencePlainly<Unit>(left, right, offset, stop);
    while (offset < stop) {
        u64 const place = std::min(offset, stop - VectorWidth);
        if (u64 const mask = StopMask<Unit>(left + place, right + place); mask != 0)
            return place + LowestBit(mask);
        offset = place + VectorWidth;
    }
    return stop;
}

/// The same for texts that are alike for a register. From the first chunk of the left text on it is read at whole
/// chunks, so that only the right one can come to the end of its page in one.
template <class Unit>
VLM_KERNEL VLM_SEPARATE u64 FindDifferenceFurther(u8 const* left, u8 const* right)
{
    u64 offset = ChunkSize - BytesBehind(left, ChunkSize);
    if (std::min(BytesToPageEnd(left), BytesToPageEnd(right)) >= ChunkSize) {
        if (!IsSameChunk<Unit>(left, right))
            return FindDifferenceInChunk<Unit>(left, right, 0);
    }
    else {
        // Up to the end of the right text's page, and on from there.
        u64 const stop = std::min(BytesToPageEnd(right), offset);
        if (u64 const place = FindDifferenceBefore<Unit>(left, right, 0, stop); place != stop)
            return place;
        if (u64 const place = FindDifferenceBefore<Unit>(left, right, stop, offset); place != offset)
            return place;
    }
    for (;; offset += ChunkSize) {
        u64 const stop = offset + BytesToPageEnd(right + offset);
        for (; stop - offset >= ChunkSize; offset += ChunkSize) {
            if (!IsSameChunk<Unit>(left + offset, right + offset))
                return FindDifferenceInChunk<Unit>(left, right, offset);
        }
        // Where the right text goes on to the end of its page, it may be read across.
        if (u64 const place = FindDifferenceBefore<Unit>(left, right, offset, stop); place != stop)
            return place;
        if (!IsSameChunk<Unit>(left + offset, right + offset))
            return FindDifferenceInChunk<Unit>(left, right, offset);
    }
}

/// The byte offset for any two texts.
template <class Unit>
VLM_KERNEL VLM_SEPARATE u64 FindDifferenceAnywhere(u8 const* left, u8 const* right)
{
    if ((BytesBehind(left, sizeof(Unit)) | BytesBehind(right, sizeof(Unit))) != 0)
        return FindDifferencePlainly<Unit>(left, right, 0, ~u64{0});
    // One of them has less than a register to the end of its page.
    u64 const stop = std::min(BytesToPageEnd(left), BytesToPageEnd(right));
    u64 const place = FindDifferencePlainly<Unit>(left, right, 0, stop);
    if (place != stop)
        return place;
    left += stop;
    right += stop;
    if (std::min(BytesToPageEnd(left), BytesToPageEnd(right)) < VectorWidth)
        return stop + FindDifferenceAnywhere<Unit>(left, right);
    u64 const mask = StopMask<Unit>(left, right);
    return stop + (mask != 0 ? LowestBit(mask) : FindDifferenceFurther<Unit>(left, right));
}

template <class Unit>
VLM_KERNEL inline int OrderAt(u8 const* left, u8 const* right, u64 offset)
{
    Unit const first = Encodings::Load<Unit>(left + offset);
    Unit const second = Encodings::Load<Unit>(right + offset);
    return (first > second) - (first < second);
}

template <class Unit>
VLM_KERNEL VLM_SEPARATE int CompareFurther(u8 const* left, u8 const* right)
{
    return OrderAt<Unit>(left, right, FindDifferenceFurther<Unit>(left, right));
}

template <class Unit>
VLM_KERNEL VLM_SEPARATE int CompareAnywhere(u8 const* left, u8 const* right)
{
    return OrderAt<Unit>(left, right, FindDifferenceAnywhere<Unit>(left, right));
}

/// Order of two texts as their units: negative, zero, positive.
template <class Unit>
VLM_KERNEL int CompareUnits(u8 const* left, u8 const* right)
{
    constexpr u64 LastPlace = PageSize - BlockSize;
    if (BytesBehind(left, PageSize) > LastPlace || BytesBehind(right, PageSize) > LastPlace ||
        (BytesBehind(left, sizeof(Unit)) | BytesBehind(right, sizeof(Unit))) != 0)
        return CompareAnywhere<Unit>(left, right);
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= StopMask<Unit>(left + offset, right + offset) << offset;
    return mask != 0 ? OrderAt<Unit>(left, right, LowestBit(mask)) : CompareFurther<Unit>(left, right);
}

/// Units that are alike in texts of different widths and stand for themselves, from the front on, in whole steps.
template <class Narrow, class Wide>
VLM_KERNEL VLM_READS_AROUND u64 SkipSame(u8 const* narrow, u8 const* wide)
{
    constexpr u64 Step = 16;
    using NarrowUnit = typename Narrow::Unit;
    using WideUnit = typename Wide::Unit;
    typedef NarrowUnit CNarrow __attribute__((vector_size(Step * Narrow::UnitSize), aligned(1), may_alias));
    typedef WideUnit CWide __attribute__((vector_size(Step * Wide::UnitSize), aligned(1), may_alias));
    constexpr WideUnit limit = Narrow::UnitSize == 1 ? 0x80 : 0xD800;
    u64 done = 0;
    for (; BytesToPageEnd(narrow) >= sizeof(CNarrow) && BytesToPageEnd(wide) >= sizeof(CWide); done += Step) {
        CWide const units = *reinterpret_cast<CWide const*>(wide);
        CWide const others = __builtin_convertvector(*reinterpret_cast<CNarrow const*>(narrow), CWide);
        auto const different = (units != others) | (units == CWide{}) | (units >= CWide{} + limit);
        u64 words[sizeof(CWide) / sizeof(u64)];
        std::memcpy(words, &different, sizeof(words));
        u64 any = 0;
        for (u64 const word : words)
            any |= word;
        if (any != 0)
            break;
        narrow += sizeof(CNarrow);
        wide += sizeof(CWide);
    }
    return done;
}

// ---- Conversions ----------------------------------------------------------------------------------------------------

/// What a part of a conversion has done: where it has come to, and how many characters it took.
struct SConverted {
    u8 const* in;
    u8* out;
    u64 count;
};

/// The plain rule for some characters, where a block is irregular.
template <class From, class To>
VLM_SEPARATE SConverted ConvertPlainly(u8 const* in, u8* out, u64 count)
{
    u8* const end = TextRules::ConvertCharactersFrom<From, To>(in, count, out);
    return {in, end, count};
}

/// The same for UTF-16, which may be taken for plain units.
template <bool PlaneZero>
VLM_SEPARATE SConverted ConvertPlainly16To8(u8 const* in, u8* out, u64 count)
{
    if constexpr (!PlaneZero)
        return ConvertPlainly<SUTF16, SUTF8>(in, out, count);
    u8* const end = TextRules::ConvertPlaneZeroUnits(in, count, out);
    return {in + 2 * count, end, count};
}

/// A conversion in registers: as three values, since a structure would go through memory with every step.
struct SRunning {
    u8 const*& in;
    u8*& out;
    u64& count;

    VLM_INLINE void Go(u64 bytes, u8* end, u64 characters) const
    {
        in += bytes;
        out = end;
        count -= characters;
    }
    VLM_INLINE void Take(SConverted const& done) const
    {
        in = done.in;
        out = done.out;
        count -= done.count;
    }
};

// ---- UTF-8 blocks ---------------------------------------------------------------------------------------------------

/// One bit per byte of a block of 64.
struct SBytes {
    u64 zero;
    u64 high;         ///< 0x80 and above
    u64 continuation; ///< 0x80 to 0xBF
    u64 three;        ///< 0xE0 and above
    u64 four;         ///< 0xF0 and above

    /// Lead bytes of two bytes and more.
    [[nodiscard]] VLM_KERNEL u64 GetLeads() const { return high & ~continuation; }
    /// Bytes that a character beginning in the block covers besides its lead.
    [[nodiscard]] VLM_KERNEL u64 GetCovered() const { return GetLeads() << 1 | three << 2 | four << 3; }
    /// The same for the block behind.
    [[nodiscard]] VLM_KERNEL u64 GetCarried() const { return GetLeads() >> 63 | three >> 62 | four >> 61; }
    /// Last bytes of the characters that lie in the block whole. Only where covered and continuation bytes are the
    /// same.
    [[nodiscard]] VLM_KERNEL u64 GetEnds() const
    {
        return ~high | (GetLeads() & ~three) << 1 | (three & ~four) << 2 | four << 3;
    }
};

/// The bytes of an aligned block, those of `valid` alone.
VLM_KERNEL inline SBytes ReadBytes(u8 const* block, u64 valid)
{
    SBytes bytes{};
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth) {
        CLanes8 const lanes = LoadAround<u8>(block + offset);
        bytes.zero |= MaskWhere(lanes == CLanes8{}) << offset;
        bytes.high |= MaskOf(lanes) << offset;
    }
    bytes.zero &= valid;
    bytes.high &= valid;
    if (bytes.high == 0)
        return bytes;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth) {
        CLanes8 const lanes = LoadAround<u8>(block + offset);
        bytes.continuation |= MaskWhere(reinterpret_cast<TLanes<i8>>(lanes) < Fill<i8>(-64)) << offset;
        bytes.three |= MaskOf(SubtractDownTo0(lanes, Fill<u8>(0xE0 - 0x80))) << offset;
        bytes.four |= MaskOf(SubtractDownTo0(lanes, Fill<u8>(0xF0 - 0x80))) << offset;
    }
    bytes.continuation &= valid;
    bytes.three &= valid;
    bytes.four &= valid;
    return bytes;
}

VLM_KERNEL inline u64 EqualBytes(u8 const* block, CLanes8 wanted)
{
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= MaskWhere(LoadAround<u8>(block + offset) == wanted) << offset;
    return mask;
}

VLM_KERNEL inline u64 HighBytes(u8 const* block)
{
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= MaskOf(LoadAround<u8>(block + offset)) << offset;
    return mask;
}

VLM_KERNEL inline u64 BytesBelow(u8 const* block, u8 limit)
{
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= MaskWhere(LoadAround<u8>(block + offset) < Fill<u8>(limit)) << offset;
    return mask;
}

/// The lead byte of the character that goes on behind `place`, where text is regular and such a character there.
VLM_KERNEL inline u8 const* LeadBefore(u8 const* place)
{
    do
        --place;
    while (*place < 0xC0);
    return place;
}

/// Bytes of a block and behind that the character before it covers, in regular text.
VLM_KERNEL inline u64 CarriedInto(u8 const* block)
{
    u64 const first = block[-1] >= 0xC0 || block[-2] >= 0xE0 || block[-3] >= 0xF0 ? 1 : 0;
    u64 const second = block[-1] >= 0xE0 || block[-2] >= 0xF0 ? 2 : 0;
    u64 const third = block[-1] >= 0xF0 ? 4 : 0;
    return first | second | third;
}
