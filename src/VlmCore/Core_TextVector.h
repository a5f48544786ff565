/// \file
/// The kernels that need nothing but loads, compares and masks, written once over a vector type. The including file has
/// defined SVector (one register and its operations) and VLM_KERNEL (the mark of functions that use its instructions),
/// and includes this inside its own unnamed namespace: nothing here may be shared between instruction sets.
///
/// Not a header on its own, and without a guard: each instruction set includes it once.

constexpr u64 PageSize = 4096;

VLM_KERNEL inline u32 LowestBit(u64 mask)
{
    return static_cast<u32>(std::countr_zero(mask));
}

/// Bytes of a block in front of the end of its last whole character.
VLM_KERNEL inline u64 WholeSize(u64 ends)
{
    return BlockSize - static_cast<u64>(std::countl_zero(ends));
}

VLM_KERNEL inline u64 BitsBelow(u64 count)
{
    return count >= 64 ? ~u64{0} : (u64{1} << count) - 1;
}

// ---- Terminators and differences ------------------------------------------------------------------------------------

template <class Unit>
VLM_KERNEL VLM_READS_AROUND u64 GetTextSize(u8 const* text, u64 limit)
{
    u64 const address = reinterpret_cast<std::uintptr_t>(text);
    if (address % sizeof(Unit) != 0) {
        u64 size = 0;
        while (size < limit && !IsZero<Unit>(text + size))
            size += sizeof(Unit);
        return size;
    }
    u64 const ahead = address % SVector::Width;
    u8 const* place = text - ahead;
    u64 const first = SVector::EqualMask<Unit>(SVector::LoadAround(place), SVector::Zero()) >> ahead;
    if (first != 0)
        return LowestBit(first);
    for (;;) {
        place += SVector::Width;
        u64 const size = static_cast<u64>(place - text);
        if (size >= limit)
            return limit;
        if (u64 const mask = SVector::EqualMask<Unit>(SVector::LoadAround(place), SVector::Zero()); mask != 0)
            return size + LowestBit(mask);
    }
}

VLM_KERNEL inline bool IsNearPageEnd(u8 const* place)
{
    return reinterpret_cast<std::uintptr_t>(place) % PageSize > PageSize - SVector::Width;
}

template <class Unit>
VLM_KERNEL VLM_READS_AROUND u64 FindDifference(u8 const* left, u8 const* right)
{
    u64 offset = 0;
    for (;;) {
        if (IsNearPageEnd(left + offset) || IsNearPageEnd(right + offset)) {
            for (u64 const stop = offset + SVector::Width; offset < stop; offset += sizeof(Unit)) {
                if (std::memcmp(left + offset, right + offset, sizeof(Unit)) != 0 || IsZero<Unit>(left + offset))
                    return offset;
            }
            continue;
        }
        SVector const first = SVector::LoadAround(left + offset);
        SVector const second = SVector::LoadAround(right + offset);
        u64 const same = SVector::EqualMask<Unit>(first, second);
        u64 const zero = SVector::EqualMask<Unit>(first, SVector::Zero());
        if (u64 const stop = (same ^ SVector::FullMask) | zero; stop != 0)
            return offset + LowestBit(stop);
        offset += SVector::Width;
    }
}

// ---- UTF-8 blocks ---------------------------------------------------------------------------------------------------

/// One bit per byte of a block.
struct SBytes {
    u64 high;         ///< 0x80 and above
    u64 continuation; ///< 0x80 to 0xBF
    u64 three;        ///< 0xE0 and above
    u64 four;         ///< 0xF0 and above

    /// Lead bytes of two bytes and more.
    [[nodiscard]] VLM_KERNEL u64 GetLeads() const { return high & ~continuation; }
    /// Bytes that a character beginning in the block covers besides its lead.
    [[nodiscard]] VLM_KERNEL u64 GetCovered() const { return GetLeads() << 1 | three << 2 | four << 3; }
    /// Last bytes of the characters that lie in the block whole. Only where covered and continuation bytes are the same.
    [[nodiscard]] VLM_KERNEL u64 GetEnds() const
    {
        return ~high | (GetLeads() & ~three) << 1 | (three & ~four) << 2 | four << 3;
    }
};

VLM_KERNEL inline u64 ReadHigh(u8 const* block)
{
    u64 high = 0;
    for (u64 offset = 0; offset < BlockSize; offset += SVector::Width)
        high |= SVector::Load(block + offset).HighBits() << offset;
    return high;
}

VLM_KERNEL inline SBytes ReadBytes(u8 const* block)
{
    SBytes bytes{};
    for (u64 offset = 0; offset < BlockSize; offset += SVector::Width) {
        SVector const vector = SVector::Load(block + offset);
        bytes.high |= vector.HighBits() << offset;
        bytes.continuation |= vector.BelowSigned8(-64) << offset;
        bytes.three |= vector.AtLeast8(0xE0) << offset;
        bytes.four |= vector.AtLeast8(0xF0) << offset;
    }
    return bytes;
}

VLM_KERNEL inline u64 EqualBytes(u8 const* block, u8 value)
{
    u64 mask = 0;
    SVector const wanted = SVector::Set<u8>(value);
    for (u64 offset = 0; offset < BlockSize; offset += SVector::Width)
        mask |= SVector::EqualMask<u8>(SVector::Load(block + offset), wanted) << offset;
    return mask;
}

/// True when the block's characters are all in their shortest form and of three bytes at most: then equal code points are
/// equal bytes. The cut character at the end is not judged.
VLM_KERNEL inline bool IsCanonical(u8 const* block, SBytes const& bytes)
{
    if (bytes.high == 0)
        return true;
    if (bytes.continuation != bytes.GetCovered() || bytes.four != 0)
        return false;
    if (((EqualBytes(block, 0xC0) | EqualBytes(block, 0xC1)) & bytes.high) != 0)
        return false;
    u64 const zeroLeads = EqualBytes(block, 0xE0);
    if (zeroLeads == 0)
        return true;
    u64 atLeastA0 = 0;
    for (u64 offset = 0; offset < BlockSize; offset += SVector::Width)
        atLeastA0 |= SVector::Load(block + offset).AtLeast8(0xA0) << offset;
    return ((zeroLeads << 1) & ~atLeastA0) == 0;
}

VLM_KERNEL u64 CountUTF8(u8 const* text, u64 size)
{
    u64 count = 0;
    u8 const* const end = text + size;
    // Signed: the last character may be cut, and its stride lead past the end.
    while (end - text >= static_cast<std::ptrdiff_t>(BlockSize)) {
        if (ReadHigh(text) == 0) {
            count += BlockSize;
            text += BlockSize;
            continue;
        }
        SBytes const bytes = ReadBytes(text);
        if (bytes.continuation == bytes.GetCovered()) {
            u64 const ends = bytes.GetEnds();
            count += static_cast<u64>(std::popcount(ends));
            text += WholeSize(ends);
            continue;
        }
        for (u8 const* const stop = text + BlockSize; text < stop && text < end; ++count)
            text += SUTF8::LeadSize(*text);
    }
    for (; text < end; ++count)
        text += SUTF8::LeadSize(*text);
    return count;
}

/// Bytes as UTF-16.
VLM_KERNEL u64 GetSize8As16(u8 const* text, u64 size)
{
    u64 units = 0;
    u8 const* const end = text + size;
    while (static_cast<u64>(end - text) >= BlockSize) {
        if (ReadHigh(text) == 0) {
            units += BlockSize;
            text += BlockSize;
            continue;
        }
        SBytes const bytes = ReadBytes(text);
        bool regular = bytes.continuation == bytes.GetCovered() && bytes.four == 0;
        if (regular && bytes.three != 0) {
            // EF BF BF is the one character of three bytes that takes two units.
            u64 const last = EqualBytes(text, 0xBF);
            regular = (EqualBytes(text, 0xEF) << 2 & last << 1 & last) == 0;
        }
        if (regular) {
            u64 const ends = bytes.GetEnds();
            units += static_cast<u64>(std::popcount(ends));
            text += WholeSize(ends);
            continue;
        }
        for (u8 const* const stop = text + BlockSize; text < stop && text < end;) {
            SCharacter const character = SUTF8::Read(text);
            units += SUTF16::GetWrittenSize(character.codePoint) / 2;
            text += character.size;
        }
    }
    while (text < end) {
        SCharacter const character = SUTF8::Read(text);
        units += SUTF16::GetWrittenSize(character.codePoint) / 2;
        text += character.size;
    }
    return units * 2;
}

VLM_KERNEL u8 const* SkipTo8(u8 const* place, u64 size, u32 first, u32 last, u64 lastOffset, u64& index)
{
    u8 const* const end = place + size;
    u64 const shift = lastOffset < BlockSize ? lastOffset : 0;
    while (static_cast<u64>(end - place) >= BlockSize) {
        u64 candidates = EqualBytes(place, static_cast<u8>(first));
        if (shift != 0 && candidates != 0)
            candidates &= EqualBytes(place, static_cast<u8>(last)) >> shift | ~BitsBelow(BlockSize - shift);
        u64 whole = BlockSize;
        u64 starts = ~u64{0};
        if (ReadHigh(place) != 0) {
            SBytes const bytes = ReadBytes(place);
            if (!IsCanonical(place, bytes))
                return place;
            u64 const ends = bytes.GetEnds();
            whole = WholeSize(ends);
            starts = ~bytes.continuation & BitsBelow(whole);
            candidates &= starts;
        }
        if (candidates != 0) {
            u32 const offset = LowestBit(candidates);
            index += static_cast<u64>(std::popcount(starts & BitsBelow(offset)));
            return place + offset;
        }
        index += static_cast<u64>(std::popcount(starts));
        place += whole;
    }
    return place;
}

VLM_KERNEL u64 MapCase8(u8* text, u64 size, u32 first)
{
    u64 done = 0;
    while (size - done >= BlockSize) {
        u8* const block = text + done;
        u64 whole = BlockSize;
        if (ReadHigh(block) != 0) {
            SBytes const bytes = ReadBytes(block);
            if (!IsCanonical(block, bytes))
                return done;
            whole = WholeSize(bytes.GetEnds());
        }
        // Letters are single bytes here; those of a character that goes on behind the block are none.
        for (u64 offset = 0; offset < BlockSize; offset += SVector::Width)
            SVector::Load(block + offset).FlipCase<u8>(first).Store(block + offset);
        done += whole;
    }
    return done;
}

// ---- Blocks of wider units ------------------------------------------------------------------------------------------

/// Mask of the units of a register: every unit gives as many equal bits as it has bytes.
VLM_KERNEL inline u64 SurrogateMask(u8 const* block)
{
    return SVector::EqualMask<u16>(SVector::Load(block).And(SVector::Set<u16>(0xF800)), SVector::Set<u16>(0xD800));
}

VLM_KERNEL u64 CountUTF16(u8 const* text, u64 size)
{
    u64 count = 0;
    u8 const* const end = text + size;
    while (static_cast<u64>(end - text) >= SVector::Width) {
        u64 const surrogates = SurrogateMask(text);
        if (surrogates == 0) {
            count += SVector::Width / 2;
            text += SVector::Width;
            continue;
        }
        u64 const low =
            SVector::EqualMask<u16>(SVector::Load(text).And(SVector::Set<u16>(0xFC00)), SVector::Set<u16>(0xDC00));
        u64 const high = surrogates & ~low;
        u64 const covered = high << 2 & SVector::FullMask;
        if (low == covered) {
            // Well-formed pairs; one that goes on behind the register is left for the next round.
            bool const cut = (high >> (SVector::Width - 1) & 1) != 0;
            count += static_cast<u64>(std::popcount(~low & SVector::FullMask)) / 2 - (cut ? 1 : 0);
            text += SVector::Width - (cut ? 2 : 0);
            continue;
        }
        for (u8 const* const stop = text + SVector::Width; text < stop && text < end; ++count)
            text += SUTF16::GetSize(text);
    }
    for (; text < end; ++count)
        text += SUTF16::GetSize(text);
    return count;
}

VLM_KERNEL u64 CountUTF32(u8 const*, u64 size)
{
    return size / 4;
}

VLM_KERNEL u64 GetSize16As8(u8 const* text, u64 size)
{
    u64 bytes = 0;
    u8 const* const end = text + size;
    while (text < end) {
        if (static_cast<u64>(end - text) >= SVector::Width && SurrogateMask(text) == 0) {
            SVector const units = SVector::Load(text);
            u64 const one = SVector::EqualMask<u16>(units.And(SVector::Set<u16>(0xFF80)), SVector::Zero());
            u64 const two = SVector::EqualMask<u16>(units.And(SVector::Set<u16>(0xF800)), SVector::Zero());
            bytes += SVector::Width / 2 * 3 - static_cast<u64>(std::popcount(one) + std::popcount(two)) / 2;
            text += SVector::Width;
            continue;
        }
        for (u8 const* const stop = text + SVector::Width; text < stop && text < end;) {
            SCharacter const character = SUTF16::Read(text);
            bytes += SUTF8::GetWrittenSize(character.codePoint);
            text += character.size;
        }
    }
    return bytes;
}

template <class Rules>
VLM_KERNEL u8 const* SkipToUnit(u8 const* place, u64 size, u32 first, u32 last, u64 lastOffset, u64& index)
{
    using Unit = typename Rules::Unit;
    constexpr u64 UnitSize = sizeof(Unit);
    u8 const* const end = place + size;
    SVector const wanted = SVector::Set<Unit>(static_cast<Unit>(first));
    SVector const wantedLast = SVector::Set<Unit>(static_cast<Unit>(last));
    while (static_cast<u64>(end - place) >= SVector::Width + lastOffset) {
        if (UnitSize == 2 && SurrogateMask(place) != 0)
            return place;
        u64 candidates = SVector::EqualMask<Unit>(SVector::Load(place), wanted);
        if (UnitSize == 4 && candidates != 0)
            candidates &= SVector::EqualMask<Unit>(SVector::Load(place + lastOffset), wantedLast);
        if (candidates != 0) {
            u32 const offset = LowestBit(candidates);
            index += offset / UnitSize;
            return place + offset;
        }
        index += SVector::Width / UnitSize;
        place += SVector::Width;
    }
    return place;
}

VLM_KERNEL u64 MapCase16(u8* text, u64 size, u32 first)
{
    u64 done = 0;
    for (; size - done >= SVector::Width; done += SVector::Width) {
        SVector const units = SVector::Load(text + done);
        // A unit of 0xFFFF would hide the one behind it, a surrogate is read with it.
        if (SurrogateMask(text + done) != 0 || SVector::EqualMask<u16>(units, SVector::Set<u16>(0xFFFF)) != 0)
            return done;
        units.FlipCase<u16>(first).Store(text + done);
    }
    return done;
}

VLM_KERNEL u64 MapCase32(u8* text, u64 size, u32 first)
{
    u64 done = 0;
    for (; size - done >= SVector::Width; done += SVector::Width)
        SVector::Load(text + done).FlipCase<u32>(first).Store(text + done);
    return done;
}

// ---- Conversions ----------------------------------------------------------------------------------------------------

/// Characters that stay behind for the plain rule: writing whole registers may go past what was written.
constexpr u64 SpareCharacters = 32;

/// The plain rule for some characters, where a block is irregular.
template <class From, class To>
VLM_KERNEL void ConvertPlainly(SConversion& state, u64 count)
{
    u8 const* in = state.in;
    u8* out = state.out;
    for (u64 index = 0; index < count; ++index) {
        SCharacter const character = From::Read(in);
        out = To::Write(character.codePoint, out);
        in += character.size;
    }
    state = {in, out, state.count - count};
}
