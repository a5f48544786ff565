/// \file
/// Vector kernels continued (see Core_TextVector.h, included the same way): counting what a text has or would take.
///
/// A text is regular where exactly those units continue a character that a unit before them covers. Then no walk is
/// needed: characters are the units that do not continue one, and sizes follow from each unit alone. Long stretches are
/// judged register by register, the ends of a text by masks of blocks, and irregular blocks go by the plain rule.
///
/// Not a header on its own, and without a guard: each instruction set includes it once.

/// What a block adds, up to the terminator.
struct SMeasured {
    u64 zero;      ///< terminators
    u64 irregular; ///< units that only the plain rule can judge
    u64 carried;   ///< units behind the block that its last character covers
    u64 amount;
};

// ---- UTF-8 ----------------------------------------------------------------------------------------------------------

/// A register of bytes and those one to three places before them.
struct SNeighbours {
    CLanes8 bytes;
    CLanes8 before1;
    CLanes8 before2;
    CLanes8 before3;

    VLM_KERNEL explicit SNeighbours(u8 const* place)
        : bytes(LoadAround<u8>(place)), before1(LoadAround<u8>(place - 1)), before2(LoadAround<u8>(place - 2)),
          before3(LoadAround<u8>(place - 3))
    {
    }

    /// The highest bit is set where the text is not regular.
    [[nodiscard]] VLM_KERNEL CLanes8 GetIrregular() const
    {
        CLanes8 const covered = SubtractDownTo0(before1, Fill<u8>(0xC0 - 0x80)) |
                                SubtractDownTo0(before2, Fill<u8>(0xE0 - 0x80)) |
                                SubtractDownTo0(before3, Fill<u8>(0xF0 - 0x80));
        return covered ^ reinterpret_cast<CLanes8>(reinterpret_cast<TLanes<i8>>(bytes) < Fill<i8>(-64));
    }
    /// 1 where a character begins.
    [[nodiscard]] VLM_KERNEL CLanes8 GetStarts() const
    {
        return -reinterpret_cast<CLanes8>(reinterpret_cast<TLanes<i8>>(bytes) > Fill<i8>(-65));
    }
};

/// For measures that take every register alike.
template <class Unit>
struct SNothingRare {
    static constexpr bool HasRare(u8 const*) { return false; }
    static void TakeRare(u8 const*, TLanes<Unit>&, TLanes<Unit>&) {}
};

/// What measures of UTF-8 share.
struct SMeasure8 {
    using Rules = SUTF8;

    /// The lead byte of the character that reaches behind `place`, in regular text.
    static u8 const* LeadBefore(u8 const* place)
    {
        do
            --place;
        while (*place < 0xC0);
        return place;
    }

    /// Bits for the bytes behind `place` that the character before it covers, in regular text.
    static u64 GetCarried(u8 const* place)
    {
        u64 const first = place[-1] >= 0xC0 || place[-2] >= 0xE0 || place[-3] >= 0xF0 ? 1 : 0;
        u64 const second = place[-1] >= 0xE0 || place[-2] >= 0xF0 ? 2 : 0;
        u64 const third = place[-1] >= 0xF0 ? 4 : 0;
        return first | second | third;
    }

    /// Passes chunks of ASCII, where all bytes are above 0 as signed ones.
    VLM_KERNEL static u8 const* SkipSimple(u8 const* place, u64& amount)
    {
        if (place[-1] >= 0x80)
            return place;
        while (MaskWhere(Least(Least(LoadAround<i8>(place), LoadAround<i8>(place + VectorWidth)),
                               Least(LoadAround<i8>(place + 2 * VectorWidth),
                                     LoadAround<i8>(place + 3 * VectorWidth))) < Fill<i8>(1)) == 0) {
            place += ChunkSize;
            amount += ChunkSize;
        }
        return place;
    }
};

/// Characters.
struct SCharacters8 : SMeasure8, SNothingRare<u8> {
    VLM_KERNEL static SMeasured Read(u8 const* block, u64 valid, u64 carried)
    {
        SBytes const bytes = ReadBytes(block, valid);
        u64 const inText = valid & BelowLowest(bytes.zero);
        u64 const irregular = bytes.continuation ^ (bytes.GetCovered() | carried);
        return {bytes.zero, irregular & inText, bytes.GetCarried(), CountBits(~bytes.continuation & inText)};
    }
    VLM_KERNEL static void Take(u8 const* place, CLanes8& irregular, CLanes8& least, CLanes8& amount)
    {
        SNeighbours const lanes(place);
        irregular |= lanes.GetIrregular();
        least = Least(least, lanes.bytes);
        amount += lanes.GetStarts();
    }
    static u64 GetAmount(SCharacter const&) { return 1; }
    static u64 GetCountedFor(u8 const*) { return 1; }
};

/// 16-bit units: two for a character of four bytes. What begins with EF BF may be the one of three bytes that takes
/// two, what begins with F0 and a byte below 90 one of four that takes one; both are left to the plain rule.
struct SUnits8 : SMeasure8 {
    VLM_KERNEL static SMeasured Read(u8 const* block, u64 valid, u64 carried)
    {
        SBytes const bytes = ReadBytes(block, valid);
        u64 const inText = valid & BelowLowest(bytes.zero);
        u64 irregular = bytes.continuation ^ (bytes.GetCovered() | carried);
        if ((bytes.three | carried) != 0) {
            u64 const leads = (EqualBytes(block, Fill<u8>(0xEF)) | EqualBytes(block, Fill<u8>(0xF0))) & bytes.three;
            u64 const first = carried & -carried; // where the block is read from, when a character goes on there
            u8 const before = carried != 0 ? block[static_cast<i64>(LowestBit(first)) - 1] : u8{0};
            irregular |= (leads << 1 | (before == 0xEF || before == 0xF0 ? first : 0)) &
                         (EqualBytes(block, Fill<u8>(0xBF)) | BytesBelow(block, 0x90));
        }
        u64 const amount = CountBits(~bytes.continuation & inText) + CountBits(bytes.four & inText);
        // The terminator counts as a byte below 90: what it cuts short may be smaller, too.
        return {bytes.zero, irregular & (inText | (bytes.zero & -bytes.zero)), bytes.GetCarried(), amount};
    }
    VLM_KERNEL static void Take(u8 const* place, CLanes8& irregular, CLanes8& least, CLanes8& amount)
    {
        SCharacters8::Take(place, irregular, least, amount);
    }
    /// Most text has no lead bytes from EF on, nor does what lies just in front of it.
    VLM_KERNEL static bool HasRare(u8 const* chunk)
    {
        CLanes8 highest{};
        for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth) {
            CLanes8 const bytes = LoadAround<u8>(chunk + offset);
            highest = highest > bytes ? highest : bytes;
        }
        return chunk[-1] >= 0xEF || MaskOf(SubtractDownTo0(highest, Fill<u8>(0xEF - 0x80))) != 0;
    }
    /// What such lead bytes add.
    VLM_KERNEL static void TakeRare(u8 const* place, CLanes8& irregular, CLanes8& amount)
    {
        CLanes8 const bytes = LoadAround<u8>(place);
        CLanes8 const before = LoadAround<u8>(place - 1);
        auto const last = (before == Fill<u8>(0xEF)) & (bytes == Fill<u8>(0xBF));
        auto const small = (before == Fill<u8>(0xF0)) & (bytes < Fill<u8>(0x90));
        irregular |= reinterpret_cast<CLanes8>(last | small);
        amount -= reinterpret_cast<CLanes8>(bytes >= Fill<u8>(0xF0));
    }
    static u64 GetAmount(SCharacter const& character) { return SUTF16::GetWrittenSize(character.codePoint) / 2; }
    static u64 GetCountedFor(u8 const* lead) { return *lead < 0xF0 ? 1 : 2; }
};

// ---- Wider units ----------------------------------------------------------------------------------------------------

/// The units of a block that `IsSuch` holds for, all bits of each.
template <class Unit, class IsSuch>
VLM_KERNEL inline u64 MaskBlock(u8 const* block)
{
    u64 mask = 0;
    for (u64 offset = 0; offset < BlockSize; offset += VectorWidth)
        mask |= MaskWhere(IsSuch::Test(LoadAround<Unit>(block + offset))) << offset;
    return mask;
}

struct SIsSurrogate {
    VLM_KERNEL static auto Test(TLanes<u16> units) { return (units & Fill<u16>(0xF800)) == Fill<u16>(0xD800); }
};
struct SIsLowSurrogate {
    VLM_KERNEL static auto Test(TLanes<u16> units) { return (units & Fill<u16>(0xFC00)) == Fill<u16>(0xDC00); }
};
template <class Unit, Unit Limit>
struct SIsAtLeast {
    VLM_KERNEL static auto Test(TLanes<Unit> units) { return units >= Fill<Unit>(Limit); }
};
template <class Unit>
struct SIsZero {
    VLM_KERNEL static auto Test(TLanes<Unit> units) { return units == TLanes<Unit>{}; }
};

/// What measures of wider units share. Where no surrogate is about, a unit is a character.
template <class R>
struct SMeasureUnits : SNothingRare<typename R::Unit> {
    using Rules = R;
    using Unit = typename Rules::Unit;

    static u8 const* LeadBefore(u8 const* place) { return place - Rules::UnitSize; }
    static u64 GetCarried(u8 const*) { return 0; }
    VLM_KERNEL static u8 const* SkipSimple(u8 const* place, u64&) { return place; }
    VLM_KERNEL static void Judge(TLanes<Unit> units, TLanes<Unit>& irregular, TLanes<Unit>& least)
    {
        if constexpr (Rules::UnitSize == 2)
            irregular |= reinterpret_cast<TLanes<Unit>>(SIsSurrogate::Test(units));
        least = Least(least, units);
    }
};

/// Characters of UTF-16. Pairs of a high and a low surrogate are regular in blocks.
struct SCharacters16 : SMeasureUnits<SUTF16> {
    VLM_KERNEL static SMeasured Read(u8 const* block, u64 valid, u64 carried)
    {
        u64 const zero = MaskBlock<u16, SIsZero<u16>>(block) & valid;
        u64 const inText = valid & BelowLowest(zero);
        u64 const low = MaskBlock<u16, SIsLowSurrogate>(block) & valid;
        u64 const high = MaskBlock<u16, SIsSurrogate>(block) & valid & ~low;
        return {zero, (low ^ (high << 2 | carried)) & inText, high >> 62, CountBits(inText & ~low) / 2};
    }
    VLM_KERNEL static void Take(u8 const* place, TLanes<u16>& irregular, TLanes<u16>& least, TLanes<u16>& amount)
    {
        Judge(LoadAround<u16>(place), irregular, least);
        amount += Fill<u16>(1);
    }
    static u64 GetCarried(u8 const* place) { return (Encodings::Load<u16>(place - 2) & 0xFC00) == 0xD800 ? 3 : 0; }
    static u64 GetAmount(SCharacter const&) { return 1; }
    static u64 GetCountedFor(u8 const*) { return 1; }
};

/// Target units of text without surrogates: one for every unit, and one more for each limit that it reaches.
template <class R, class To, typename R::Unit... Limits>
struct SConvertedSize : SMeasureUnits<R> {
    using Unit = typename R::Unit;

    VLM_KERNEL static SMeasured Read(u8 const* block, u64 valid, u64)
    {
        u64 const zero = MaskBlock<Unit, SIsZero<Unit>>(block) & valid;
        u64 const inText = valid & BelowLowest(zero);
        u64 irregular = 0;
        if constexpr (sizeof(Unit) == 2)
            irregular = MaskBlock<Unit, SIsSurrogate>(block) & inText;
        u64 const bits =
            CountBits(inText) + (CountBits(MaskBlock<Unit, SIsAtLeast<Unit, Limits>>(block) & inText) + ...);
        return {zero, irregular, 0, bits / sizeof(Unit)};
    }
    VLM_KERNEL static void Take(u8 const* place, TLanes<Unit>& irregular, TLanes<Unit>& least, TLanes<Unit>& amount)
    {
        TLanes<Unit> const units = LoadAround<Unit>(place);
        SMeasureUnits<R>::Judge(units, irregular, least);
        amount += Fill<Unit>(1);
        ((amount -= reinterpret_cast<TLanes<Unit>>(SIsAtLeast<Unit, Limits>::Test(units))), ...);
    }
    static u64 GetAmount(SCharacter const& character) { return To::GetWrittenSize(character.codePoint) / To::UnitSize; }
    static u64 GetCountedFor(u8 const*) { return 0; }
};

// ---- The walk -------------------------------------------------------------------------------------------------------

template <class Unit>
VLM_KERNEL inline u64 SumLanes(TLanes<Unit> lanes)
{
    if constexpr (sizeof(Unit) == 1)
        return SumOf(lanes);
    u64 sum = 0;
    for (u64 lane = 0; lane < VectorWidth / sizeof(Unit); ++lane)
        sum += lanes[lane];
    return sum;
}

/// Adds up whole chunks while they are regular and the text goes on.
template <class Measure>
VLM_KERNEL u8 const* MeasureChunks(u8 const* place, u64& amount)
{
    using Unit = typename Measure::Rules::Unit;
    using Lanes = TLanes<Unit>;
    // A lane grows by 4 at the most for each register, and must not overflow.
    constexpr u64 MostChunks = sizeof(Unit) == 1 ? 15 : 4095;
    for (;;) {
        place = Measure::SkipSimple(place, amount);
        Lanes sums{};
        bool goesOn = true;
        for (u64 chunk = 0; chunk < MostChunks; ++chunk) {
            Lanes irregular{};
            Lanes least = Fill<Unit>(static_cast<Unit>(~Unit{0}));
            Lanes added{};
            for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth)
                Measure::Take(place + offset, irregular, least, added);
            if (Measure::HasRare(place)) {
                for (u64 offset = 0; offset < ChunkSize; offset += VectorWidth)
                    Measure::TakeRare(place + offset, irregular, added);
            }
            goesOn = (MaskWhere(irregular) | MaskWhere(least == Lanes{})) == 0;
            if (!goesOn)
                break;
            sums += added;
            place += ChunkSize;
        }
        amount += SumLanes<Unit>(sums);
        if (!goesOn)
            return place;
    }
}

/// Adds up the characters of a text from a block on that begins in it, and gives its size. `carried` bytes of the block
/// belong to the character in front of it.
template <class Measure>
VLM_KERNEL VLM_SEPARATE u64 MeasureFurther(u8 const* text, u8 const* start, u64 carried, u64 amount, u64& size)
{
    using Rules = typename Measure::Rules;
    for (;;) {
        u64 const ahead = BytesBehind(start, BlockSize);
        u8 const* block = start - ahead;
        carried <<= ahead;
        // A text that is not aligned to its units is irregular as a whole.
        for (u64 valid = ~u64{0} << ahead; ahead % Rules::UnitSize == 0; valid = ~u64{0}) {
            SMeasured const measured = Measure::Read(block, valid, carried);
            if (measured.irregular != 0)
                break;
            amount += measured.amount;
            if (measured.zero != 0) {
                size = static_cast<u64>(block - text) + LowestBit(measured.zero);
                return amount;
            }
            carried = measured.carried;
            block += BlockSize;
            // What a chunk looks back at must have been judged; only UTF-8 looks back.
            if (BytesBehind(block, ChunkSize) == 0 && block - start >= 4 && (Rules::UnitSize == 1 || carried == 0)) {
                block = MeasureChunks<Measure>(block, amount);
                carried = Measure::GetCarried(block);
            }
        }
        // By the plain rule to the end of the block, from the character on that reaches into it.
        u8 const* const stop = block + BlockSize;
        start = std::max(start, block);
        if (carried != 0) {
            start = Measure::LeadBefore(start);
            amount -= Measure::GetCountedFor(start);
        }
        for (; start < stop; start += Rules::Read(start).size) {
            if (Encodings::IsEnd<Rules>(start)) {
                size = static_cast<u64>(start - text);
                return amount;
            }
            amount += Measure::GetAmount(Rules::Read(start));
        }
        carried = 0;
    }
}

/// Adds up the characters of a text, and gives its size. Most texts end in the block that they begin.
template <class Measure>
VLM_KERNEL u64 MeasureText(u8 const* text, u64& size)
{
    if (BytesBehind(text, PageSize) > PageSize - BlockSize || BytesBehind(text, Measure::Rules::UnitSize) != 0)
        return MeasureFurther<Measure>(text, text, 0, 0, size);
    SMeasured const measured = Measure::Read(text, ~u64{0}, 0);
    // What is carried must fit into what the next aligned block has left.
    if (measured.irregular != 0 || (measured.zero == 0 && BytesBehind(text, BlockSize) > BlockSize - 4))
        return MeasureFurther<Measure>(text, text, 0, 0, size);
    if (measured.zero == 0)
        return MeasureFurther<Measure>(text, text + BlockSize, measured.carried, measured.amount, size);
    size = LowestBit(measured.zero);
    return measured.amount;
}

VLM_KERNEL u64 CountUTF32(u8 const* text, u64& size)
{
    size = GetTextSize<u32>(text);
    return size / 4;
}

/// Bytes of a text in another encoding.
template <class Measure, class To>
VLM_KERNEL u64 GetSizeAs(u8 const* text)
{
    u64 size;
    return MeasureText<Measure>(text, size) * To::UnitSize;
}
