#include "Core_Text.h"

#include <vlmcore/strings.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

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

/// 64 cells of a column of the matrix, as differences to the cell above: +1 where `plus` has a bit, -1 where `minus`
/// has.
struct SColumn {
    u64 plus;
    u64 minus;
};

/// What one word of a column hands to the word below it: the carry of the addition, and how the cell between them
/// changed from column to column.
struct SCarries {
    u64 sum;
    u64 plus;
    u64 minus;
};

/// Carries from one stripe of the matrix to the one below, a byte for each column.
inline u8 Pack(SCarries carries)
{
    return static_cast<u8>(carries.sum | carries.plus << 1 | carries.minus << 2);
}
inline SCarries Unpack(u8 packed)
{
    return {packed & u64{1}, packed >> 1 & u64{1}, packed >> 2 & u64{1}};
}

/// Moves a word of the column on by one code point of the longer text, whose places in the shorter one are `equal`. The
/// words are one long number: only the carry of its addition goes from word to word without delay.
inline SCarries Advance(SColumn& column, u64 equal, SCarries carries)
{
    u64 const sum = (equal & column.plus) + column.plus;
    u64 const whole = sum + carries.sum;
    u64 const carry = static_cast<u64>(sum < column.plus) | static_cast<u64>(whole < sum);
    u64 const diagonal = (whole ^ column.plus) | equal | column.minus;
    u64 const plus = column.minus | ~(diagonal | column.plus);
    u64 const minus = column.plus & diagonal;
    u64 const plusBelow = plus << 1 | carries.plus;
    u64 const minusBelow = minus << 1 | carries.minus;
    column = {minusBelow | ~(diagonal | plusBelow), plusBelow & diagonal};
    return {carry, plus >> 63, minus >> 63};
}

/// The distance column by column, 64 cells at a time (Myers' bit-vector method, its words joined by carries), in one
/// stripe of the matrix or in the whole. `border` has for each column what the stripe above hands down, and gets what
/// this one does. Returns by how much the last column changes from the top of the stripe to its end.
template <bool IsWhole>
i64 AdvanceStripe(SCodePoints const& longer, u64 cells, CPlaces const& places, SColumn* columns, u8* border)
{
    u64 const words = CPlaces::GetWordCount(cells);
    for (u64 word = 0; word < words; ++word)
        columns[word] = {~u64{0}, 0};
    for (u64 index = 0; index < longer.count; ++index) {
        u64 const* const equal = places.GetRow(longer.data[index]);
        SCarries carries = IsWhole ? SCarries{0, 1, 0} : Unpack(border[index]);
        for (u64 word = 0; word < words; ++word)
            carries = Advance(columns[word], equal[word], carries);
        if constexpr (!IsWhole)
            border[index] = Pack(carries);
    }
    i64 change = 0;
    for (u64 word = 0; word < words; ++word) {
        u64 const used = ~u64{0} >> (WordBits - std::min(cells - word * WordBits, WordBits));
        change += std::popcount(columns[word].plus & used) - std::popcount(columns[word].minus & used);
    }
    return change;
}

/// The distance when the shorter text has 64 code points at the most: one word, which stays in registers. `getRow`
/// gives the places of a code point in it.
template <class GetRow>
u64 GetWordDistance(SCodePoints const& longer, SCodePoints const& shorter, GetRow const& getRow)
{
    SColumn column = {~u64{0}, 0};
    for (u64 index = 0; index < longer.count; ++index)
        Advance(column, getRow(longer.data[index]), {0, 1, 0});
    u64 const used = ~u64{0} >> (WordBits - shorter.count);
    return longer.count + static_cast<u64>(std::popcount(column.plus & used)) -
           static_cast<u64>(std::popcount(column.minus & used));
}

/// Rows for code points below CPlaces::DirectCount, of which only those that occur are cleared.
struct SDirectRows {
    u64 rows[CPlaces::DirectCount];

    /// False when the text has a code point without a row.
    [[nodiscard]] bool TryClear(SCodePoints const& text)
    {
        for (u64 index = 0; index < text.count; ++index) {
            if (text.data[index] >= CPlaces::DirectCount)
                return false;
            rows[text.data[index]] = 0;
        }
        return true;
    }
};

/// The same with rows that were cleared for both texts.
u64 GetDirectDistance(SCodePoints const& longer, SCodePoints const& shorter, SDirectRows& direct)
{
    for (u64 index = 0; index < shorter.count; ++index)
        direct.rows[shorter.data[index]] |= u64{1} << index;
    return GetWordDistance(longer, shorter, [&direct](u32 codePoint) { return direct.rows[codePoint]; });
}

/// A block of the heap for one call.
class CBlock {
public:
    explicit CBlock(u64 size) : m_block(Memory::Malloc(size, EHeap::Pool8))
    {
        if (m_block == nullptr)
            throw CBadAllocation();
    }
    ~CBlock() { Memory::FreeQuietly(m_block); }
    CBlock(CBlock const&) = delete;
    CBlock& operator=(CBlock const&) = delete;

    [[nodiscard]] u8* Get() const { return static_cast<u8*>(m_block); }

private:
    void* m_block;
};

/// Rows of the matrix that are worked on at once: so the table of places and the column stay in the processor's cache,
/// and memory grows with the texts, not with their product.
constexpr u64 StripeCells = 4096;

/// The same stripe by stripe of the shorter text. `border` has a byte for each column.
u64 GetStripedDistance(SCodePoints const& longer, SCodePoints const& shorter, u8* tableMemory, SColumn* columns,
                       u8* border)
{
    std::memset(border, Pack({0, 1, 0}), longer.count);
    u64 distance = longer.count;
    for (u64 begin = 0; begin < shorter.count; begin += StripeCells) {
        SCodePoints const stripe{shorter.data + begin, std::min(shorter.count - begin, StripeCells)};
        CPlaces const places(stripe, tableMemory);
        distance += static_cast<u64>(AdvanceStripe<false>(longer, stripe.count, places, columns, border));
    }
    return distance;
}

/// The distance of texts that begin and end differently, with the table of places on the stack when it is small.
u64 GetTableDistance(SCodePoints const& longer, SCodePoints const& shorter, SColumn* columns)
{
    constexpr u64 StackSize = 4096;
    alignas(8) u8 stack[StackSize];
    bool const isStriped = shorter.count > StripeCells;
    u64 const tableSize = CPlaces::GetSize(std::min(shorter.count, StripeCells));
    u64 const size = tableSize + (isStriped ? longer.count : 0);
    std::optional<CBlock> block;
    if (size > StackSize)
        block.emplace(size);
    u8* const memory = block ? block->Get() : stack;
    if (isStriped)
        return GetStripedDistance(longer, shorter, memory, columns, memory + tableSize);
    CPlaces const places(shorter, memory);
    if (shorter.count <= WordBits)
        return GetWordDistance(longer, shorter, [&places](u32 codePoint) { return *places.GetRow(codePoint); });
    return longer.count + static_cast<u64>(AdvanceStripe<true>(longer, shorter.count, places, columns, nullptr));
}

} // namespace

u64 IString::GetDistance(CString const& other) const
{
    u64 const ownLength = GetLength();
    u64 const otherLength = other.GetLength();
    if (ownLength == 0 || otherLength == 0)
        return ownLength + otherLength;
    // Of the heap for short texts, too: whether a call needs memory does not depend on how long the texts are.
    u64 const columnsSize = CPlaces::GetWordCount(std::min({ownLength, otherLength, StripeCells})) * sizeof(SColumn);
    CBlock const block(columnsSize + (ownLength + otherLength) * sizeof(u32));
    SColumn* const columns = reinterpret_cast<SColumn*>(block.Get());
    u32* const own = reinterpret_cast<u32*>(block.Get() + columnsSize);
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
    if (shorter.count == 0)
        return longer.count;
    if (SDirectRows direct; shorter.count <= WordBits && direct.TryClear(longer) && direct.TryClear(shorter))
        return GetDirectDistance(longer, shorter, direct);
    return GetTableDistance(longer, shorter, columns);
}

} // namespace Velmor
