// The fast walk of the XML tokenizer: takes the tokens of ordinary text by vector instructions, and leaves everything
// unusual to the plain scan, which it can always hand over to. Both report the same tokens in the same order.
//
// Included by one source file per instruction set, which defines
//     XML_WALK       the name of the function
//     XML_VECTOR     the wrapper of a vector register
//     XML_TARGET     the mark of functions that use it (Core_ProcessorFeatures.h)
//
// The walk first turns a stretch of text into a table: 64 bits for each class of characters that ends a token and each
// 64 bytes. A token's end is then found by counting zero bits, without a loop and without looking at what lies between.
// What makes a byte search exact in UTF-8, even damaged, is the table's `suspect` bits: bytes that a longer character
// claims as its own, and bytes that could spell an ASCII character the long way. A token that touches one goes to the
// plain scan, and so does every token of 64 bytes and more, unless only one delimiter matters in it.
#include "Core_XMLTokenizer.h"

#include <cstring>

namespace Velmor {
namespace {

using XMLText::SRange;

constexpr u64 BlockSize = SXMLTable::BlockSize;
// Bytes that Copy may write or read, and how far the strings of an attribute reach.
constexpr u64 CopySize = 64;
constexpr u64 RoomyOffset = 3 * CopySize;

namespace EByte {
enum Type : u8 { Other, NameStart, Close, Slash, Exclamation, Question };
} // namespace EByte

struct SByteClasses {
    u8 classes[256] = {};
    constexpr SByteClasses()
    {
        for (int c = 'a'; c <= 'z'; ++c)
            classes[c] = classes[c - 'a' + 'A'] = EByte::NameStart;
        classes[static_cast<u8>('_')] = classes[static_cast<u8>(':')] = EByte::NameStart;
        classes[static_cast<u8>('>')] = EByte::Close;
        classes[static_cast<u8>('/')] = EByte::Slash;
        classes[static_cast<u8>('!')] = EByte::Exclamation;
        classes[static_cast<u8>('?')] = EByte::Question;
    }
};
constexpr SByteClasses ByteClasses;

inline u64 FirstBit(u64 bits)
{
    return static_cast<u64>(__builtin_ctzll(bits));
}

/// The bits below a bit.
inline u64 Below(u64 bit)
{
    return (u64{1} << bit) - 1;
}

class CWalk {
public:
    CWalk(CXMLTokenizer& tokenizer, SXMLTable& table)
        : m_tokenizer(tokenizer), m_stream(tokenizer.GetStream()), m_table(table), m_buffer(tokenizer.GetBuffer()),
          m_size(tokenizer.GetSize())
    {
    }

    XML_TARGET u64 Run(CXMLTokenizer::SCursor& cursor);

private:
    struct SFound {
        u64 offset; // of the byte, or from where the plain scan goes on
        bool found;
    };

    // What characters at the end of a block claim of the next.
    struct SCarry {
        u64 claimed = 0;
        u64 spelling = 0;
    };

    using Block = SXMLTable::SBlock;

    XML_TARGET void FillTable(u64 begin);
    XML_TARGET static void FillBlock(Block& block, u8 const* bytes, SCarry& carry);
    XML_TARGET static u64 FindSuspects(XML_VECTOR const& text, u64 high, SCarry& carry);
    template <u8 First, u8 Second, u8 Third>
    XML_TARGET SFound FindFar(u64 offset) const;
    XML_TARGET SFound FindTerminator(u32 state, u64 offset) const;
    XML_TARGET void Copy(u64 target, u64 source, u64 size);
    XML_TARGET void CopyName(u64 source, u64 size);

    /// Makes the table hold the byte at `offset`, which a character begins with; false behind the buffer.
    XML_TARGET bool Cover(u64 offset);
    /// The 64 bits of a question from `offset` on.
    [[nodiscard]] u64 Fetch(u64 Block::* question, u64 offset) const
    {
        u64 const position = offset - m_table.begin;
        Block const* const block = m_table.blocks + position / BlockSize;
        u64 const shift = position % BlockSize;
        return block[0].*question >> shift | block[1].*question << (BlockSize - 1 - shift) << 1;
    }

    /// True when a token there may be copied to the front in whole vectors: neither unread input is touched nor anything
    /// behind the buffer.
    [[nodiscard]] bool IsRoomy(u64 offset) const { return offset >= RoomyOffset && offset + 2 * CopySize <= m_size; }

    [[nodiscard]] CString View(u64 offset) const { return CString(m_buffer + offset, EStringEncoding::UTF8); }
    [[nodiscard]] static SRange Range(u64 begin, u64 end) { return {static_cast<u32>(begin), static_cast<u32>(end)}; }

    XML_TARGET void ReportText(u64 offset, u64 size);
    XML_TARGET void ReportAttribute(u64 offset, u64 nameSize, u64 valueEnd, u64 odd);

    CXMLTokenizer& m_tokenizer;
    CXMLStream& m_stream;
    SXMLTable& m_table;
    u8* const m_buffer;
    u64 const m_size;
};

#define XML_INLINE XML_TARGET inline __attribute__((always_inline))

XML_INLINE u64 CWalk::FindSuspects(XML_VECTOR const& text, u64 high, SCarry& carry)
{
    u64 const continuation = text.IsBelow(-64);  // 0x80 to 0xBF, as signed bytes the lowest
    u64 const lead = high & ~continuation;       // 0xC0 and above: one more byte
    u64 const third = high & ~text.IsBelow(-32); // 0xE0 and above: two more
    u64 const fourth = high & ~text.IsBelow(-16);
    u64 const claimed = lead << 1 | third << 2 | fourth << 3 | carry.claimed;
    carry.claimed = lead >> 63 | third >> 62 | fourth >> 61;
    // Long spellings begin with 0xC0, 0xC1, or with 0xE0 or 0xF0 and a byte whose bits 4 and 5 are clear.
    u64 const spelling = text.IsMasked(0xEF, 0xE0);
    u64 const suspects = (claimed & ~continuation) | text.IsMasked(0xFE, 0xC0) |
                         ((spelling << 1 | carry.spelling) & text.IsMasked(0x30, 0));
    carry.spelling = spelling >> 63;
    return suspects;
}

XML_INLINE void CWalk::FillBlock(Block& block, u8 const* bytes, SCarry& carry)
{
    XML_VECTOR const text(bytes);
    u64 const space = text.IsSpace();
    u64 const close = text.Is('>');
    block.open = text.Is('<');
    block.nameEnd = space | close | text.Is('/');
    block.attributeEnd = space | close | text.Is('=');
    block.valueEnd = close | text.IsEither('"', '\'');
    block.nonspace = ~space;
    block.ampersand = text.Is('&');
    block.high = text.IsHigh();
    block.suspect = (block.high | carry.claimed) != 0 ? FindSuspects(text, block.high, carry) : 0;
}

XML_TARGET inline void CWalk::FillTable(u64 begin)
{
    SCarry carry;
    u64 const end =
        begin + BlockSize * SXMLTable::BlockCount < m_size ? begin + BlockSize * SXMLTable::BlockCount : m_size;
    m_table.begin = begin;
    m_table.end = end;
    // One block more than is covered: a fetch looks 64 bytes ahead.
    Block* block = m_table.blocks;
    for (u64 offset = begin; offset < end + BlockSize; offset += BlockSize, ++block) {
        if (offset + BlockSize <= m_size) {
            FillBlock(*block, m_buffer + offset, carry);
            continue;
        }
        // The end of the buffer, and nothing behind it: no delimiter is found in the padding.
        u8 padded[BlockSize] = {};
        if (offset < m_size)
            std::memcpy(padded, m_buffer + offset, m_size - offset);
        FillBlock(*block, padded, carry);
    }
}

XML_INLINE bool CWalk::Cover(u64 offset)
{
    if (offset - m_table.begin < m_table.end - m_table.begin) [[likely]]
        return true;
    if (offset >= m_size)
        return false;
    FillTable(offset);
    return true;
}

/// Looks for one of three bytes, block by block, from a character's begin on.
template <u8 First, u8 Second, u8 Third>
XML_TARGET CWalk::SFound CWalk::FindFar(u64 offset) const
{
    while (offset + BlockSize <= m_size) {
        XML_VECTOR const text(m_buffer + offset);
        u64 hits = text.Is(First);
        if (Second != First)
            hits |= text.Is(Second);
        if (Third != First)
            hits |= text.Is(Third);
        u64 const high = text.IsHigh();
        SCarry carry;
        if (high != 0 && FindSuspects(text, high, carry) != 0)
            return {offset, false};
        if (hits != 0)
            return {offset + FirstBit(hits), true};
        // The next block begins with a character that this one cuts off.
        u8 const* const end = m_buffer + offset + BlockSize;
        offset += BlockSize - (end[-1] >= 0xC0 ? 1 : end[-2] >= 0xE0 ? 2 : end[-3] >= 0xF0 ? 3 : 0);
    }
    return {offset, false};
}

/// Looks for the end of an instruction, comment or CDATA section; gives the offset of its ">". A character that breaks
/// a match is not tried as the begin of another.
XML_TARGET inline CWalk::SFound CWalk::FindTerminator(u32 state, u64 offset) const
{
    u8 const first = state == EXMLState::Instruction ? '?' : state == EXMLState::Comment ? '-' : ']';
    u64 const repeats = state == EXMLState::Instruction ? 1 : 2;
    for (;;) {
        SFound const begin = first == '?'   ? FindFar<'?', '?', '?'>(offset)
                             : first == '-' ? FindFar<'-', '-', '-'>(offset)
                                            : FindFar<']', ']', ']'>(offset);
        if (!begin.found)
            return begin;
        if (begin.offset + repeats >= m_size)
            return {begin.offset, false};
        offset = begin.offset + 1;
        if (repeats == 2 && m_buffer[offset] == first)
            ++offset;
        u8 const next = m_buffer[offset];
        if (next == '>' && offset - begin.offset == repeats)
            return {offset, true};
        if (next < 0x80)
            ++offset;
        else if (next == 0xC0 || next == 0xC1 || next == 0xE0 || next == 0xF0)
            return {begin.offset, false}; // perhaps a long spelling of what goes on with the match
    }
}

XML_INLINE void CWalk::Copy(u64 target, u64 source, u64 size)
{
    XML_VECTOR::Copy(m_buffer + target, m_buffer + source, size);
    m_buffer[target + size] = 0;
}

XML_INLINE void CWalk::CopyName(u64 source, u64 size)
{
    if (IsRoomy(source))
        Copy(0, source, size);
    else
        m_tokenizer.ExtractTrimmed(Range(source, source + size), 0);
}

/// A text of less than 64 bytes, without suspects.
XML_INLINE void CWalk::ReportText(u64 offset, u64 size)
{
    u64 const kept = Fetch(&Block::nonspace, offset) & Below(size);
    if (kept == 0) {
        m_stream.OnText(nullptr);
        return;
    }
    if ((Fetch(&Block::ampersand, offset) & Below(size)) != 0 || !IsRoomy(offset)) {
        m_tokenizer.ReportText(Range(offset, offset + size));
        return;
    }
    u64 const first = FirstBit(kept);
    Copy(0, offset + first, 64 - static_cast<u64>(__builtin_clzll(kept)) - first);
    CString const text = View(0);
    m_stream.OnText(&text);
}

/// An attribute of less than 64 bytes, without suspects; its value ends at the quote at `valueEnd`, counted from `offset`.
XML_INLINE void CWalk::ReportAttribute(u64 offset, u64 nameSize, u64 valueEnd, u64 odd)
{
    u64 const valueBegin = nameSize + 2;
    // White space is below 0x21; of an empty value these are its quotes.
    bool const trimmed = m_buffer[offset + valueBegin] > ' ' && m_buffer[offset + valueEnd - 1] > ' ';
    if (!trimmed || !IsRoomy(offset) || (odd != 0 && (Fetch(&Block::ampersand, offset) & Below(valueEnd)) != 0)) {
        m_tokenizer.ReportAttribute(Range(offset, offset + nameSize), Range(offset + valueBegin, offset + valueEnd));
        return;
    }
    Copy(0, offset, nameSize);
    Copy(nameSize + 1, offset + valueBegin, valueEnd - valueBegin);
    m_stream.OnAttribute({View(0), View(nameSize + 1)});
}

/// Walks from cursor.mark, where a state has just begun, and returns from where the plain scan goes on; the cursor then
/// says in which state, and where its token begins.
XML_TARGET u64 CWalk::Run(CXMLTokenizer::SCursor& cursor)
{
    u64 offset = cursor.mark;
    auto const leave = [&cursor, &offset](u32 state) {
        cursor.state = state;
        cursor.mark = static_cast<u32>(offset);
        return offset;
    };
    switch (cursor.state) {
    case EXMLState::Text:
        goto text;
    case EXMLState::Instruction:
    case EXMLState::Comment:
    case EXMLState::CData:
        goto markup;
    case EXMLState::ElementName:
        goto elementName;
    case EXMLState::EndTagName:
        goto endTagName;
    case EXMLState::BetweenAttributes:
        goto betweenAttributes;
    case EXMLState::AttributeName:
        goto attributeName;
    case EXMLState::BehindSelfClosing:
        goto behindSelfClosing;
    default:
        return offset;
    }

text: {
    if (!Cover(offset))
        return leave(EXMLState::Text);
    u64 const opens = Fetch(&Block::open, offset);
    u64 end = 0;
    if (opens != 0) [[likely]] {
        u64 const size = FirstBit(opens);
        end = offset + size;
        if ((Fetch(&Block::high, offset) & Below(size)) != 0 &&
            (Fetch(&Block::suspect, offset) & (opens ^ (opens - 1))) != 0)
            return leave(EXMLState::Text);
    }
    else {
        SFound const far = FindFar<'<', '<', '<'>(offset);
        if (!far.found) {
            leave(EXMLState::Text);
            return far.offset;
        }
        end = far.offset;
    }
    if (end + 1 >= m_size)
        return leave(EXMLState::Text);
    u8 const kind = ByteClasses.classes[m_buffer[end + 1]];
    if (kind == EByte::Other || kind == EByte::Close)
        return leave(EXMLState::Text);
    if (m_stream.OnText) {
        if (opens != 0)
            ReportText(offset, end - offset);
        else
            m_tokenizer.ReportText(Range(offset, end));
    }
    offset = end + 1;
    if (kind == EByte::NameStart)
        goto elementName;
    ++offset;
    if (kind == EByte::Slash)
        goto endTagName;
    if (kind == EByte::Exclamation)
        return leave(EXMLState::Markup);
    leave(EXMLState::Instruction);
    goto markup;
}

elementName: {
    if (!Cover(offset))
        return leave(EXMLState::ElementName);
    u64 const ends = Fetch(&Block::nameEnd, offset);
    if (ends == 0)
        return leave(EXMLState::ElementName);
    u64 const size = FirstBit(ends);
    u8 const delimiter = m_buffer[offset + size];
    if ((Fetch(&Block::high, offset) & Below(size)) != 0 ||
        (delimiter == '/' && (offset + size + 1 >= m_size || m_buffer[offset + size + 1] != '>')))
        return leave(EXMLState::ElementName);
    if (m_stream.OnElementBegin) {
        CopyName(offset, size);
        m_stream.OnElementBegin(View(0));
    }
    offset += size + 1;
    if (delimiter == '>')
        goto text;
    if (delimiter != '/')
        goto betweenAttributes;
    ++offset;
    if (m_stream.OnText)
        m_stream.OnText(nullptr);
    goto behindSelfClosing;
}

endTagName: {
    if (!Cover(offset))
        return leave(EXMLState::EndTagName);
    u64 const ends = Fetch(&Block::nameEnd, offset);
    if (ends == 0)
        return leave(EXMLState::EndTagName);
    u64 const size = FirstBit(ends);
    if ((Fetch(&Block::high, offset) & Below(size)) != 0 || m_buffer[offset + size] != '>')
        return leave(EXMLState::EndTagName);
    if (m_stream.OnElementEnd) {
        CopyName(offset, size);
        CString const name = View(0);
        m_stream.OnElementEnd(&name);
    }
    offset += size + 1;
    goto text;
}

betweenAttributes: {
    if (!Cover(offset))
        return leave(EXMLState::BetweenAttributes);
    u64 const nonspaces = Fetch(&Block::nonspace, offset);
    if (nonspaces == 0)
        return leave(EXMLState::BetweenAttributes);
    u64 const next = offset + FirstBit(nonspaces);
    if (next + 1 >= m_size)
        return leave(EXMLState::BetweenAttributes);
    u8 const kind = ByteClasses.classes[m_buffer[next]];
    if (kind == EByte::NameStart) {
        offset = next;
        goto attributeName;
    }
    if (kind == EByte::Close) {
        offset = next + 1;
        goto text;
    }
    if (kind != EByte::Slash || m_buffer[next + 1] != '>')
        return leave(EXMLState::BetweenAttributes);
    offset = next + 2;
    if (m_stream.OnText)
        m_stream.OnText(nullptr);
    goto behindSelfClosing;
}

attributeName: {
    if (!Cover(offset))
        return leave(EXMLState::AttributeName);
    u64 const nameEnds = Fetch(&Block::attributeEnd, offset);
    u64 const quotes = Fetch(&Block::valueEnd, offset);
    if (nameEnds == 0 || quotes == 0)
        return leave(EXMLState::AttributeName);
    // As a rule: the name ends at "=", the first quote follows at once, the second one ends the value.
    u64 const nameSize = FirstBit(nameEnds);
    if (FirstBit(quotes) != nameSize + 1 || m_buffer[offset + nameSize] != '=' ||
        m_buffer[offset + nameSize + 1] == '>' || (Fetch(&Block::high, offset) & Below(nameSize)) != 0)
        return leave(EXMLState::AttributeName);
    u64 const closingQuotes = quotes & (quotes - 1);
    if (closingQuotes != 0) [[likely]] {
        u64 const valueEnd = FirstBit(closingQuotes);
        u64 const odd = (Fetch(&Block::high, offset) | Fetch(&Block::ampersand, offset)) & Below(valueEnd);
        if (m_buffer[offset + valueEnd] == '>' ||
            (odd != 0 && (Fetch(&Block::suspect, offset) & (closingQuotes ^ (closingQuotes - 1))) != 0))
            return leave(EXMLState::AttributeName);
        if (m_stream.OnAttribute)
            ReportAttribute(offset, nameSize, valueEnd, odd);
        offset += valueEnd + 1;
        goto betweenAttributes;
    }
    u64 const valueBegin = offset + nameSize + 2;
    SFound const far = FindFar<'"', '\'', '>'>(valueBegin);
    if (!far.found || m_buffer[far.offset] == '>')
        return leave(EXMLState::AttributeName);
    if (m_stream.OnAttribute)
        m_tokenizer.ReportAttribute(Range(offset, offset + nameSize), Range(valueBegin, far.offset));
    offset = far.offset + 1;
    goto betweenAttributes;
}

behindSelfClosing:
    if (offset >= m_size || m_buffer[offset] >= 0x80)
        return leave(EXMLState::BehindSelfClosing);
    if (m_stream.OnElementEnd)
        m_stream.OnElementEnd(nullptr);
    ++offset;
    goto text;

markup: {
    SFound const far = FindTerminator(cursor.state, offset);
    if (!far.found)
        return far.offset;
    u64 const delimiterSize = cursor.state == EXMLState::Instruction ? 2 : 3;
    m_tokenizer.ReportMarkup(cursor.state, Range(cursor.mark, far.offset + 1 - delimiterSize));
    offset = far.offset + 1;
    goto text;
}
}

} // namespace

u64 XML_WALK(CXMLTokenizer& tokenizer, SXMLTable& table, CXMLTokenizer::SCursor& cursor)
{
    return CWalk(tokenizer, table).Run(cursor);
}

} // namespace Velmor
