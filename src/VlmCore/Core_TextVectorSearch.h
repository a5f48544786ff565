/// \file
/// Vector kernels continued (see Core_TextVector.h, included the same way): searching, and ASCII case.
///
/// Not a header on its own, and without a guard: each instruction set includes it once.

// ---- Searching ------------------------------------------------------------------------------------------------------
//
// The first and the last unit of what is looked for are compared side by side, at their distance; where both are there
// the rest is compared, too. Looking back from the last unit never leaves the text.

/// One bit per byte of an aligned block.
struct SSearchBlock {
    u64 zero;
    u64 starts;    ///< where characters begin
    u64 irregular; ///< what may hold a character in another form than the one looked for
    u64 four;      ///< where characters of four bytes begin
};

/// What the block before has left open: bytes that its last character covers, and whether its last byte is E0 or F0.
struct SCarried {
    u64 covered;
    u64 shortest3;
    u64 shortest4;
};

/// Irregular are, besides bytes that no character covers or that one lacks, characters not in their shortest form:
/// they may be the one looked for in disguise.
VLM_KERNEL inline SSearchBlock ReadSearchBlock(SUTF8, u8 const* block, u64 valid, SCarried& carried)
{
    SBytes const bytes = ReadBytes(block, valid);
    if ((bytes.high | carried.covered) == 0)
        return {bytes.zero, valid, 0, 0};
    u64 irregular = bytes.continuation ^ (bytes.GetCovered() | carried.covered);
    irregular |= (EqualBytes(block, Fill<u8>(0xC0)) | EqualBytes(block, Fill<u8>(0xC1))) & bytes.high;
    u64 shortest3 = 0;
    u64 shortest4 = 0;
    if ((bytes.three | carried.shortest3 | carried.shortest4) != 0) {
        shortest3 = EqualBytes(block, Fill<u8>(0xE0)) & bytes.three;
        shortest4 = EqualBytes(block, Fill<u8>(0xF0)) & bytes.three;
        irregular |= (shortest3 << 1 | carried.shortest3) & BytesBelow(block, 0xA0);
        irregular |= (shortest4 << 1 | carried.shortest4) & BytesBelow(block, 0x90);
    }
    carried = {bytes.GetCarried(), shortest3 >> 63, shortest4 >> 63};
    return {bytes.zero, ~bytes.continuation & valid, irregular, bytes.four};
}

VLM_KERNEL inline SSearchBlock ReadSearchBlock(SUTF16, u8 const* block, u64 valid, SCarried&)
{
    return {MaskBlock<u16, SIsZero<u16>>(block) & valid, UnitBits<u16> & valid,
            MaskBlock<u16, SIsSurrogate>(block) & valid, 0};
}

VLM_KERNEL inline SSearchBlock ReadSearchBlock(SUTF32, u8 const* block, u64 valid, SCarried&)
{
    return {MaskBlock<u32, SIsZero<u32>>(block) & valid, UnitBits<u32> & valid, 0, 0};
}

template <class Unit>
VLM_KERNEL inline u64 EqualUnits(u8 const* block, TLanes<Unit> wanted)
{
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= MaskWhere(LoadAround<Unit>(block + offset) == wanted) << offset;
    return mask & UnitBits<Unit>;
}

/// Passes chunks of single units (ASCII, no surrogates, no terminator) that hold no candidate.
template <class Rules, bool IsOneUnit>
VLM_KERNEL u8 const* SkipChunks(u8 const* place, SNeedle const& needle)
{
    using Unit = typename Rules::Unit;
    // For bytes a signed minimum tells the terminator and everything beyond ASCII at once.
    using Number = std::conditional_t<sizeof(Unit) == 1, i8, Unit>;
    u64 const back = needle.size - sizeof(Unit);
    TLanes<Unit> const first = Fill<Unit>(Encodings::Load<Unit>(needle.units));
    TLanes<Unit> const last = Fill<Unit>(Encodings::Load<Unit>(needle.units + back));
    for (;; place += ChunkSize) {
        TLanes<Number> least = LoadAround<Number>(place);
        TLanes<Unit> differing = Fill<Unit>(static_cast<Unit>(~Unit{0})); // 0 where a candidate is
        for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth) {
            TLanes<Unit> const units = LoadAround<Unit>(place + offset);
            TLanes<Unit> difference = units ^ last;
            if constexpr (!IsOneUnit)
                difference |= LoadAround<Unit>(place + offset - back) ^ first;
            differing = Least(differing, difference);
            least = Least(least, reinterpret_cast<TLanes<Number>>(units));
            if constexpr (sizeof(Unit) == 2)
                least = Least(least, (units & Fill<u16>(0xF800)) ^ Fill<u16>(0xD800));
        }
        auto const isStop = least < Fill<Number>(1);
        if (MaskWhere(reinterpret_cast<CLanes8>(isStop) | reinterpret_cast<CLanes8>(differing == TLanes<Unit>{})) != 0)
            return place;
    }
}

/// Where the first character begins whose match would reach behind `place`; everything from `start` up to there is
/// regular, and the search's index counts its characters.
template <class Rules>
void StepBack(SNeedle const& needle, SSearch& search, u8 const* start, u8 const* place)
{
    using Unit = typename Rules::Unit;
    u64 const distance =
        std::min(needle.size - sizeof(Unit) + (sizeof(Unit) == 1 ? 3 : 0), static_cast<u64>(place - start));
    u8 const* back = place - distance;
    while (sizeof(Unit) == 1 && back != start && (*back & 0xC0) == 0x80)
        --back;
    search.place = back;
    for (; back < place; back += Rules::GetSize(back))
        --search.index;
}

template <class Rules>
VLM_KERNEL void FindUnits(SNeedle const& needle, SSearch& search)
{
    using Unit = typename Rules::Unit;
    u8 const* const start = search.place;
    u64 const ahead = BytesBehind(start, BlockSize);
    if (ahead % sizeof(Unit) != 0) {
        search.resume = start + BlockSize;
        return;
    }
    u64 const back = needle.size - sizeof(Unit);
    TLanes<Unit> const first = Fill<Unit>(Encodings::Load<Unit>(needle.units));
    TLanes<Unit> const last = Fill<Unit>(Encodings::Load<Unit>(needle.units + back));
    SCarried carried{};
    u64 valid = ~u64{0} << ahead;
    for (u8 const* block = start - ahead;; block += BlockSize, valid = ~u64{0}) {
        // Far enough behind the start that looking back stays behind it.
        bool const mayLookBack = block - start >= static_cast<std::ptrdiff_t>(back);
        if (BytesBehind(block, ChunkSize) == 0 && mayLookBack && block > start && carried.covered == 0) {
            u8 const* const from = block;
            block = back == 0 ? SkipChunks<Rules, true>(block, needle) : SkipChunks<Rules, false>(block, needle);
            search.index += static_cast<u64>(block - from) / sizeof(Unit);
        }
        SSearchBlock const units = ReadSearchBlock(Rules{}, block, valid, carried);
        u64 const inText = valid & BelowLowest(units.zero);
        // A character that the terminator cuts short may be read as another one.
        u64 const irregular = units.irregular & (inText | (units.zero & -units.zero));
        u64 candidates = EqualUnits<Unit>(block, last) & inText & BelowLowest(irregular);
        if (candidates != 0 && back != 0 && mayLookBack)
            candidates &= EqualUnits<Unit>(block - back, first);
        for (; candidates != 0; candidates &= candidates - 1) {
            u32 const bit = LowestBit(candidates);
            u8 const* const begin = block + bit - back;
            if (block + bit - start < static_cast<std::ptrdiff_t>(back) ||
                std::memcmp(begin, needle.units, needle.size) != 0)
                continue;
            search.place = begin;
            search.resume = begin + 1;
            search.index += CountBits(units.starts & BitsBelow(bit + 1)) - needle.length;
            return;
        }
        if (irregular != 0) {
            StepBack<Rules>(needle, search, start, std::max(start, block));
            search.resume = block + BlockSize;
            return;
        }
        search.index += CountBits(units.starts & inText);
        if (units.zero != 0) {
            search.place = block + LowestBit(units.zero);
            search.resume = search.place + 1;
            return;
        }
    }
}

// ---- Searching for one unit, and in short texts ---------------------------------------------------------------------

template <class Unit>
VLM_KERNEL inline TLanes<Unit> NotAlone(TLanes<Unit> units)
{
    if constexpr (sizeof(Unit) == 1)
        return units & Fill<u8>(0x80);
    else if constexpr (sizeof(Unit) == 2)
        return reinterpret_cast<TLanes<Unit>>(SIsSurrogate::Test(units));
    else
        return TLanes<Unit>{};
}

template <class Unit>
VLM_KERNEL inline u64 SimpleMask(u8 const* place, TLanes<Unit> wanted)
{
    TLanes<Unit> const units = LoadAround<Unit>(place);
    u64 const found = MaskWhere(Least(units, units ^ wanted) == TLanes<Unit>{});
    return sizeof(Unit) == 1 ? found | MaskOf(reinterpret_cast<CLanes8>(units))
                             : found | MaskWhere(NotAlone<Unit>(units));
}

/// From a register on that lies whole in its page.
template <class Unit>
VLM_KERNEL VLM_SEPARATE u8 const* FindSimpleFurther(u8 const* place, u32 unit)
{
    // For bytes a signed minimum tells all three at once.
    using Number = std::conditional_t<sizeof(Unit) == 1, i8, Unit>;
    TLanes<Unit> const wanted = Fill<Unit>(static_cast<Unit>(unit));
    for (;; place += VectorWidth) {
        while (BytesBehind(place, ChunkSize) == 0) {
            TLanes<Number> least = Fill<Number>(1);
            for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth) {
                TLanes<Unit> const units = LoadAround<Unit>(place + offset);
                least = Least(least, Least(reinterpret_cast<TLanes<Number>>(units),
                                           reinterpret_cast<TLanes<Number>>(units ^ wanted)));
                if constexpr (sizeof(Unit) == 2)
                    least = Least(least, (units & Fill<u16>(0xF800)) ^ Fill<u16>(0xD800));
            }
            if (MaskWhere(least < Fill<Number>(1)) != 0)
                break;
            place += ChunkSize;
        }
        if (u64 const mask = SimpleMask<Unit>(place, wanted); mask != 0)
            return place + LowestBit(mask);
    }
}

template <class Unit>
VLM_KERNEL VLM_SEPARATE u8 const* FindSimplePlainly(u8 const* text, u32 unit, u8 const* stop)
{
    for (; text < stop; text += sizeof(Unit)) {
        Unit const here = Encodings::Load<Unit>(text);
        bool const isAlone = sizeof(Unit) == 1 ? here < 0x80 : sizeof(Unit) != 2 || (here & 0xF800) != 0xD800;
        if (here == unit || here == 0 || !isAlone)
            return text;
    }
    return FindSimpleFurther<Unit>(text, unit);
}

template <class Unit>
VLM_KERNEL u8 const* FindSimple(u8 const* text, u32 unit)
{
    if (BytesBehind(text, PageSize) > PageSize - BlockSize || BytesBehind(text, sizeof(Unit)) != 0) {
        // Never aligned: never stopped.
        bool const isAligned = BytesBehind(text, sizeof(Unit)) == 0;
        return FindSimplePlainly<Unit>(
            text, unit, isAligned ? text + BytesToPageEnd(text) : reinterpret_cast<u8 const*>(~std::uintptr_t{0}));
    }
    TLanes<Unit> const wanted = Fill<Unit>(static_cast<Unit>(unit));
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= SimpleMask<Unit>(text + offset, wanted) << offset;
    if (mask != 0)
        return text + LowestBit(mask);
    u8 const* const next = text + BlockSize;
    return FindSimpleFurther<Unit>(next - BytesBehind(next, VectorWidth), unit);
}

/// Where a text is looked at as one block: from its first byte on, or with some bytes in front of it.
struct SBlockPlace {
    u8 const* block;
    u64 ahead; ///< bytes of the block in front of the text
};

/// For a text in the last block of its page. When it ends in there, it is looked at where it lies; otherwise it goes on
/// in the next page, which may be read for that.
VLM_KERNEL inline SBlockPlace PlaceAtPageEnd(u8 const* text)
{
    u64 const ahead = BytesBehind(text, BlockSize);
    u8 const* const block = text - ahead;
    return EqualBytes(block, CLanes8{}) >> ahead != 0 ? SBlockPlace{block, ahead} : SBlockPlace{text, 0};
}

/// Both texts in one block each.
VLM_KERNEL VLM_INLINE u64 FindInBlockAt(SBlockPlace text, SBlockPlace needle)
{
    u64 const textEnd = EqualBytes(text.block, CLanes8{}) >> text.ahead;
    u64 const needleEnd = EqualBytes(needle.block, CLanes8{}) >> needle.ahead;
    u64 const high = (HighBytes(text.block) >> text.ahead & BelowLowest(textEnd)) |
                     (HighBytes(needle.block) >> needle.ahead & BelowLowest(needleEnd));
    if (textEnd == 0 || needleEnd == 0 || high != 0)
        return Undecided;
    u8 const* const wanted = needle.block + needle.ahead;
    u64 const back = LowestBit(needleEnd) - 1;
    u64 candidates = EqualBytes(text.block, Fill<u8>(wanted[0])) >> text.ahead &
                     EqualBytes(text.block, Fill<u8>(wanted[back])) >> text.ahead >> back &
                     BelowLowest(textEnd) >> back;
    for (; candidates != 0; candidates &= candidates - 1) {
        u64 const index = LowestBit(candidates);
        if (std::memcmp(text.block + text.ahead + index, wanted, back) == 0)
            return index;
    }
    return ~u64{0};
}

VLM_KERNEL VLM_SEPARATE u64 FindInBlockAtPageEnd(u8 const* text, u8 const* needle)
{
    return FindInBlockAt(PlaceAtPageEnd(text), PlaceAtPageEnd(needle));
}

/// `needle` is not empty.
VLM_KERNEL u64 FindInBlock(u8 const* text, u8 const* needle)
{
    constexpr u64 LastPlace = PageSize - BlockSize;
    if (BytesBehind(text, PageSize) > LastPlace || BytesBehind(needle, PageSize) > LastPlace)
        return FindInBlockAtPageEnd(text, needle);
    return FindInBlockAt({text, 0}, {needle, 0});
}

// ---- ASCII case -----------------------------------------------------------------------------------------------------

/// Lanes from `first` to `first + 25` have their bit 5 flipped.
template <class Unit>
VLM_KERNEL inline TLanes<Unit> FlipCase(TLanes<Unit> units, u32 first)
{
    auto const isLetter = units - Fill<Unit>(static_cast<Unit>(first)) < Fill<Unit>(26);
    return units ^ (reinterpret_cast<TLanes<Unit>>(isLetter) & Fill<Unit>(0x20));
}

/// True where the plain rule must step: a unit of 0xFFFF would hide the one behind it, a surrogate is read with it.
VLM_KERNEL inline bool IsWide(TLanes<u16> units)
{
    return (MaskWhere(SIsSurrogate::Test(units)) | MaskWhere(units == Fill<u16>(0xFFFF))) != 0;
}
VLM_KERNEL inline bool IsWide(TLanes<u32>)
{
    return false;
}

template <class Unit>
VLM_KERNEL u64 MapCaseOfUnits(u8* text, u64 size, u32 first)
{
    u64 done = 0;
    for (; size - done >= VectorWidth; done += VectorWidth) {
        TLanes<Unit> const units = Load<Unit>(text + done);
        if (IsWide(units))
            break;
        Store<Unit>(text + done, FlipCase<Unit>(units, first));
    }
    return done;
}

/// Letters are single bytes where all characters are in their shortest form. One of four bytes is stepped over by
/// three.
VLM_KERNEL u64 MapCase8(u8* text, u64 size, u32 first)
{
    u64 done = 0;
    SCarried carried{};
    for (; size - done >= BlockSize; done += BlockSize) {
        SCarried const before = carried;
        SSearchBlock const block = ReadSearchBlock(SUTF8{}, text + done, ~u64{0}, carried);
        if ((block.irregular | block.four) != 0) {
            carried = before;
            break;
        }
        for (u64 offset = done; offset < done + BlockSize; offset += VectorWidth)
            Store<u8>(text + offset, FlipCase<u8>(Load<u8>(text + offset), first));
    }
    return carried.covered == 0 ? done : static_cast<u64>(SMeasure8::LeadBefore(text + done) - text);
}

/// All of them, with the conversions that the instruction set has.
VLM_KERNEL constexpr SKernels MakeKernels(ConvertKernel const (&convert)[3][3], ConvertKernel convertPlaneZero)
{
    return {
        {GetTextSize<u8>, GetTextSize<u16>, GetTextSize<u32>},
        {MeasureText<SCharacters8>, MeasureText<SCharacters16>, CountUTF32},
        {CompareUnits<u8>, CompareUnits<u16>, CompareUnits<u32>},
        {{nullptr, SkipSame<SUTF8, SUTF16>, SkipSame<SUTF8, SUTF32>},
         {nullptr, nullptr, SkipSame<SUTF16, SUTF32>},
         {nullptr, nullptr, nullptr}},
        {{nullptr, GetSizeAs<SUnits8, SUTF16>, TextRules::GetConvertedSize<SUTF8, SUTF32>},
         {GetSizeAs<SConvertedSize<SUTF16, SUTF8, 0x80, 0x800>, SUTF8>, nullptr,
          TextRules::GetConvertedSize<SUTF16, SUTF32>},
         {GetSizeAs<SConvertedSize<SUTF32, SUTF8, 0x80, 0x800, 0x40000>, SUTF8>,
          GetSizeAs<SConvertedSize<SUTF32, SUTF16, 0xFFFF>, SUTF16>, nullptr}},
        {{convert[0][0], convert[0][1], convert[0][2]},
         {convert[1][0], convert[1][1], convert[1][2]},
         {convert[2][0] != nullptr ? convert[2][0] : TextRules::ConvertCharacters<SUTF32, SUTF8>,
          convert[2][1] != nullptr ? convert[2][1] : TextRules::ConvertCharacters<SUTF32, SUTF16>, nullptr}},
        convertPlaneZero != nullptr ? convertPlaneZero : TextRules::ConvertPlaneZeroUnits,
        {FindUnits<SUTF8>, FindUnits<SUTF16>, FindUnits<SUTF32>},
        {FindSimple<u8>, FindSimple<u16>, FindSimple<u32>},
        FindInBlock,
        {MapCase8, MapCaseOfUnits<u16>, MapCaseOfUnits<u32>},
    };
}
