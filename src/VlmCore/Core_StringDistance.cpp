#include "Core_Text.h"

#include <vlmcore/strings.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

using namespace Encodings;

namespace {

/// `count` code points of a text read with the given rules, whatever its own encoding is. Nothing outside its `size`
/// bytes is read: units that lie there count as zero.
template <class Rules>
void ReadForeignCodePoints(u8 const* text, u64 size, u64 count, u32* out)
{
    u64 offset = 0;
    for (u64 index = 0; index < count; ++index) {
        u8 window[8] = {};
        if (offset < size)
            std::memcpy(window, text + offset, std::min<u64>(size - offset, 4));
        auto const [codePoint, taken] = Rules::Read(window);
        out[index] = codePoint;
        offset += taken;
    }
}

/// The `count` code points of a text in its own encoding.
template <class Rules>
void ReadOwnCodePoints(u8 const* text, u64 count, u32* out)
{
    if constexpr (Rules::UnitSize == 4)
        std::memcpy(out, text, count * 4);
    else
        Text::ConvertCharacters<Rules, SUTF32>(text, count, reinterpret_cast<u8*>(out));
}

struct SCodePoints {
    u32 const* data;
    u64 count;
};

/// Takes off what both begin and end with: it does not count.
void Trim(SCodePoints& left, SCodePoints& right)
{
    u64 const shorter = std::min(left.count, right.count);
    u64 same = 0;
    while (same < shorter && left.data[same] == right.data[same])
        ++same;
    left = {left.data + same, left.count - same};
    right = {right.data + same, right.count - same};
    while (left.count != 0 && right.count != 0 && left.data[left.count - 1] == right.data[right.count - 1]) {
        --left.count;
        --right.count;
    }
}

constexpr u64 WordBits = 64;

/// Where the code points of the shorter text stand in it: a row of bits for each different one. Row 0 is empty, for all
/// code points that do not occur.
class CPlaces {
public:
    static constexpr u64 DirectCount = 256;

    /// Slots of the table for code points from DirectCount on: twice as many as there can be, a power of two.
    [[nodiscard]] static u64 GetSlotCount(u64 length)
    {
        u64 slots = 16;
        while (slots < 2 * length)
            slots *= 2;
        return slots;
    }
    [[nodiscard]] static u64 GetWordCount(u64 length) { return (length + WordBits - 1) / WordBits; }
    /// Bytes of memory for the constructor.
    [[nodiscard]] static u64 GetSize(u64 length)
    {
        return (std::min(length, DirectCount) + length + 1) * GetWordCount(length) * sizeof(u64) +
               DirectCount * sizeof(u32) + GetSlotCount(length) * sizeof(SSlot);
    }

    CPlaces(SCodePoints const& text, u8* memory)
        : m_wordCount(GetWordCount(text.count)), m_slotMask(GetSlotCount(text.count) - 1)
    {
        m_direct = reinterpret_cast<u32*>(memory);
        m_slots = reinterpret_cast<SSlot*>(memory + DirectCount * sizeof(u32));
        m_rows = reinterpret_cast<u64*>(memory + DirectCount * sizeof(u32) + (m_slotMask + 1) * sizeof(SSlot));
        std::memset(m_direct, 0, DirectCount * sizeof(u32));
        m_hasSlots = std::any_of(text.data, text.data + text.count, [](u32 c) { return c >= DirectCount; });
        if (m_hasSlots)
            std::memset(static_cast<void*>(m_slots), 0, (m_slotMask + 1) * sizeof(SSlot));
        AddRow();
        for (u64 index = 0; index < text.count; ++index) {
            u32& row = text.data[index] < DirectCount ? m_direct[text.data[index]] : FindSlot(text.data[index]).row;
            if (row == 0)
                row = AddRow();
            m_rows[row * m_wordCount + index / WordBits] |= u64{1} << (index % WordBits);
        }
    }

    /// The row of a code point, one word for every 64 places.
    [[nodiscard]] u64 const* GetRow(u32 codePoint) const
    {
        u32 row = 0;
        if (codePoint < DirectCount)
            row = m_direct[codePoint];
        else if (m_hasSlots)
            row = FindSlot(codePoint).row;
        return m_rows + row * m_wordCount;
    }

private:
    struct SSlot {
        u32 codePoint;
        u32 row; ///< 0 while the slot is free
    };

    u32 AddRow()
    {
        std::memset(m_rows + m_rowCount * m_wordCount, 0, m_wordCount * sizeof(u64));
        return m_rowCount++;
    }

    /// The slot of a code point, or the free one where it belongs.
    [[nodiscard]] SSlot& FindSlot(u32 codePoint) const
    {
        u64 index = (codePoint * 0x9E3779B1u >> 7) & m_slotMask;
        while (m_slots[index].row != 0 && m_slots[index].codePoint != codePoint)
            index = (index + 1) & m_slotMask;
        if (m_slots[index].row == 0)
            m_slots[index].codePoint = codePoint;
        return m_slots[index];
    }

    u64 m_wordCount;
    u64 m_slotMask;
    u32* m_direct;
    SSlot* m_slots;
    u64* m_rows;
    u32 m_rowCount = 0;
    bool m_hasSlots = false;
};

/// 64 cells of a column of the matrix, as differences to the cell above: +1 where `plus` has a bit, -1 where `minus` has.
struct SColumn {
    u64 plus;
    u64 minus;
};

/// Moves a word of the column on by one code point of the longer text, whose places in the shorter one are `equal`.
/// The carries hold, in their lowest bit, how the cell above the word changed from column to column, and afterwards how
/// the word's cell `last` did.
inline void Advance(SColumn& column, u64 equal, u64 last, u64& plusCarry, u64& minusCarry)
{
    u64 const vertical = equal | column.minus;
    equal |= minusCarry;
    u64 const horizontal = (((equal & column.plus) + column.plus) ^ column.plus) | equal;
    u64 plus = column.minus | ~(horizontal | column.plus);
    u64 minus = column.plus & horizontal;
    u64 const plusOut = plus >> last & 1;
    u64 const minusOut = minus >> last & 1;
    plus = plus << 1 | plusCarry;
    minus = minus << 1 | minusCarry;
    column = {minus | ~(vertical | plus), plus & vertical};
    plusCarry = plusOut;
    minusCarry = minusOut;
}

/// The distance column by column, 64 cells at a time (Myers' method, in Hyyro's form for longer texts).
u64 GetColumnDistance(SCodePoints const& longer, SCodePoints const& shorter, CPlaces const& places, SColumn* columns)
{
    u64 const words = CPlaces::GetWordCount(shorter.count);
    u64 const lastOfAll = (shorter.count - 1) % WordBits;
    for (u64 word = 0; word < words; ++word)
        columns[word] = {~u64{0}, 0};
    u64 distance = shorter.count;
    for (u64 index = 0; index < longer.count; ++index) {
        u64 const* const equal = places.GetRow(longer.data[index]);
        u64 plusCarry = 1;
        u64 minusCarry = 0;
        for (u64 word = 0; word + 1 < words; ++word)
            Advance(columns[word], equal[word], WordBits - 1, plusCarry, minusCarry);
        Advance(columns[words - 1], equal[words - 1], lastOfAll, plusCarry, minusCarry);
        distance += plusCarry;
        distance -= minusCarry;
    }
    return distance;
}

} // namespace

u64 IString::GetDistance(CString const& other) const
{
    u64 const ownLength = GetLength();
    u64 const otherLength = other.GetLength();
    if (ownLength == 0 || otherLength == 0)
        return ownLength + otherLength;
    u64 const shorterLength = std::min(ownLength, otherLength);
    if (ownLength + otherLength > u64{1} << 31)
        throw CBadAllocation(); // the rows are numbered with 32 bits, and there is no such memory
    u64 const columnsSize = CPlaces::GetWordCount(shorterLength) * sizeof(SColumn);
    u64 const codePointsSize = (ownLength + otherLength + 1) / 2 * 2 * sizeof(u32);
    // One block for everything, of eight-byte cells first.
    void* const block = Memory::Malloc(columnsSize + codePointsSize + CPlaces::GetSize(shorterLength), EHeap::Pool8);
    if (block == nullptr)
        throw CBadAllocation();
    SColumn* const columns = static_cast<SColumn*>(block);
    u32* const own = reinterpret_cast<u32*>(static_cast<u8*>(block) + columnsSize);
    u32* const others = own + ownLength;
    Dispatch(m_encoding, [&](auto rules) {
        using Rules = decltype(rules);
        ReadOwnCodePoints<Rules>(AsBytes(m_data), ownLength, own);
        if (Normalize(other.GetEncoding()) == Rules::Encoding)
            ReadOwnCodePoints<Rules>(AsBytes(other.GetData()), otherLength, others);
        else
            ReadForeignCodePoints<Rules>(AsBytes(other.GetData()), other.GetAllocatedSize(), otherLength, others);
    });
    SCodePoints longer{own, ownLength};
    SCodePoints shorter{others, otherLength};
    Trim(longer, shorter);
    if (longer.count < shorter.count)
        std::swap(longer, shorter);
    u64 distance = longer.count;
    if (shorter.count != 0) {
        CPlaces const places(shorter, static_cast<u8*>(block) + columnsSize + codePointsSize);
        distance = GetColumnDistance(longer, shorter, places, columns);
    }
    Memory::Free(block);
    return distance;
}

} // namespace Velmor
