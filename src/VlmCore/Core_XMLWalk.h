// The fast walk of the XML tokenizer: takes the tokens of ordinary text by vector instructions, and leaves everything
// unusual to the plain scan, which it can always hand over to. Both report the same tokens in the same order.
//
// Included by one source file per instruction set, which defines
//     XML_WALK       the name of the function
//     XML_VECTOR     the wrapper of a vector register
//     XML_TARGET     the mark of functions that use it (Core_ProcessorFeatures.h)
//
// The walk looks at 64 bytes at a time, a window, and turns each class of characters that ends a token into 64 bits. A
// token that lies in the window is found by counting zero bits; a window is left for another when it holds no whole
// token any more. What makes a byte search exact in UTF-8, even damaged, is the window's `suspect` bits: bytes that a
// longer character claims as its own, and lead bytes that could spell an ASCII character the long way. A token that
// touches one goes to the plain scan.
#include "Core_XMLTokenizer.h"

#include <cstring>

namespace Velmor {
namespace {

using XMLText::SRange;

constexpr u64 WindowSize = 64;
// A walk reads up to two windows ahead of its position.
constexpr u64 Lookahead = 2 * WindowSize;
// Tokens behind this offset may be copied to the front in whole vectors without touching unread input.
constexpr u64 RoomyOffset = 3 * WindowSize;
// Found positions leave room for two more characters in the window.
constexpr u64 Findable = ~u64{0} >> 2;

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

XML_TARGET inline __attribute__((always_inline)) u64 FirstBit(u64 bits)
{
    return static_cast<u64>(__builtin_ctzll(bits));
}

/// Everything up to the lowest bit, that one included.
XML_TARGET inline __attribute__((always_inline)) u64 UpToFirst(u64 bits)
{
    return bits ^ (bits - 1);
}

XML_TARGET inline __attribute__((always_inline)) u64 LowestBit(u64 bits)
{
    return bits & (0 - bits);
}

class CWalk {
public:
    explicit CWalk(CXMLTokenizer& tokenizer)
        : m_tokenizer(tokenizer), m_stream(tokenizer.GetStream()), m_buffer(tokenizer.GetBuffer()),
          m_limit(tokenizer.GetSize() - Lookahead)
    {
    }

    XML_TARGET u64 Run(CXMLTokenizer::SCursor& cursor);

private:
    struct SWindow {
        u64 space;
        u64 high;
        u64 suspect;
        u64 special; // "=", white space beside a quote; each "<", "&", ">" and suspect, and the byte behind it
        // What is searched for, within Findable:
        u64 textEnd; // "<"; "&" and ">", which make the text one for a closer look
        u64 nameEnd; // of elements: white space, ">", "/"
        u64 quotes;
        u64 nonspace;
    };

    struct SFound {
        u64 offset; // of the byte, or from where the plain scan goes on
        bool found;
    };

    XML_TARGET void Look(u64 base);
    XML_TARGET static u64 FindSuspects(XML_VECTOR const& text, u64 high);
    template <u8 First, u8 Second, u8 Third>
    XML_TARGET SFound FindFar(u64 offset) const;
    XML_TARGET SFound FindTerminator(u32 state, u64 offset) const;
    XML_TARGET static void Copy(u8* target, u8 const* source, u64 size);
    XML_TARGET static void CopyShort(u8* target, u8 const* source, u64 size);

    [[nodiscard]] static CString View(u8 const* text) { return CString(text, EStringEncoding::UTF8); }

    XML_TARGET void ReportText(u64 begin, u64 size);
    XML_TARGET void ReportAttribute(u64 nameBegin, u64 nameSize, u64 valueSize);
    XML_TARGET bool ReportUnusualAttribute(u64 nameBegin, u64 nameSize, u64 valueEnd);

    CXMLTokenizer& m_tokenizer;
    CXMLStream& m_stream;
    u8* const m_buffer;
    u64 const m_limit; // the last offset at which a window may begin
    u64 m_base = 0;    // of the window
    SWindow m_window;
};

#define XML_INLINE XML_TARGET inline __attribute__((always_inline))

XML_INLINE u64 CWalk::FindSuspects(XML_VECTOR const& text, u64 high)
{
    u64 const lead = text.IsAtLeast(0xC0); // one more byte
    u64 claimed = lead << 1 | text.IsAtLeast(0xE0) << 2;
    u64 spelling = 0;
    if (text.HasRareLead()) {
        claimed |= text.IsAtLeast(0xF0) << 3;
        // Long spellings begin with 0xC0, 0xC1, or with 0xE0 or 0xF0 and a byte whose bits 4 and 5 are clear.
        spelling = text.IsMasked(0xFE, 0xC0) | (text.IsMasked(0xEF, 0xE0) << 1 & text.IsMasked(0x30, 0));
    }
    return (claimed & (~high | lead)) | spelling;
}

XML_TARGET __attribute__((noinline)) void CWalk::Look(u64 base)
{
    XML_VECTOR const text(m_buffer + base);
    u64 const space = text.IsSpace();
    u64 const textEnd = text.IsAnyOf('<', '&', '>');
    u64 const quotes = text.IsEither('"', '\'');
    u64 const high = text.IsHigh();
    u64 const suspect = high != 0 ? FindSuspects(text, high) : 0;
    m_base = base;
    m_window.space = space;
    m_window.high = high;
    m_window.suspect = suspect;
    u64 const odd = textEnd | suspect;
    m_window.special = odd | odd << 1 | text.Is('=') | ((quotes << 1 | quotes >> 1) & space);
    m_window.textEnd = textEnd & Findable;
    m_window.nameEnd = text.IsSpaceOrEither('>', '/') & Findable;
    m_window.quotes = quotes & Findable;
    m_window.nonspace = ~space & Findable;
}

/// Looks for one of three bytes, window by window, from a character's begin on.
template <u8 First, u8 Second, u8 Third>
XML_TARGET CWalk::SFound CWalk::FindFar(u64 offset) const
{
    while (offset <= m_limit) {
        XML_VECTOR const text(m_buffer + offset);
        u64 hits = text.Is(First);
        if (Second != First)
            hits |= text.Is(Second);
        if (Third != First)
            hits |= text.Is(Third);
        u64 const high = text.IsHigh();
        if (high == 0) {
            if (hits != 0)
                return {offset + FirstBit(hits), true};
            offset += WindowSize;
            continue;
        }
        if (FindSuspects(text, high) != 0)
            return {offset, false};
        if (hits != 0)
            return {offset + FirstBit(hits), true};
        // The next window begins with a character that this one cuts off.
        u8 const* const end = m_buffer + offset + WindowSize;
        offset += WindowSize - (end[-1] >= 0xC0 ? 1 : end[-2] >= 0xE0 ? 2 : end[-3] >= 0xF0 ? 3 : 0);
    }
    return {offset, false};
}

/// Looks for the end of an instruction, comment or CDATA section; gives the offset of its ">". A character that breaks
/// a match is not tried as the begin of another.
XML_TARGET inline CWalk::SFound CWalk::FindTerminator(u32 state, u64 offset) const
{
    static_assert(Lookahead >= WindowSize + 3);
    u8 const first = state == EXMLState::Instruction ? '?' : state == EXMLState::Comment ? '-' : ']';
    u64 const repeats = state == EXMLState::Instruction ? 1 : 2;
    for (;;) {
        SFound const begin = first == '?'   ? FindFar<'?', '?', '?'>(offset)
                             : first == '-' ? FindFar<'-', '-', '-'>(offset)
                                            : FindFar<']', ']', ']'>(offset);
        if (!begin.found)
            return begin;
        offset = begin.offset + 1;
        u64 matched = 1;
        while (matched < repeats && m_buffer[offset] == first) {
            ++offset;
            ++matched;
        }
        if (matched == repeats && m_buffer[offset] == '>')
            return {offset, true};
        u8 const next = m_buffer[offset];
        if (next < 0x80)
            ++offset;
        else if (next == 0xC0 || next == 0xC1 || next == 0xE0 || next == 0xF0)
            return {begin.offset, false}; // perhaps a long spelling of what goes on with the match
    }
}

/// Copies up to 64 bytes and terminates them; may write any byte of a window at `target`.
XML_INLINE void CWalk::Copy(u8* target, u8 const* source, u64 size)
{
    // All of it, since lengths around a half would be guessed wrong too often.
    XML_VECTOR::CopyHalf(target, source);
    XML_VECTOR::CopyHalf(target + WindowSize / 2, source + WindowSize / 2);
    target[size] = 0;
}

/// The same for names and values, which are short as a rule.
XML_INLINE void CWalk::CopyShort(u8* target, u8 const* source, u64 size)
{
    XML_VECTOR::CopyHalf(target, source);
    if (size > WindowSize / 2) [[unlikely]]
        XML_VECTOR::CopyHalf(target + WindowSize / 2, source + WindowSize / 2);
    target[size] = 0;
}

/// A text of this window, without suspects and references.
XML_INLINE void CWalk::ReportText(u64 begin, u64 size)
{
    u64 const shift = begin - m_base;
    u64 const range = (u64{1} << size) - 1;
    u64 const kept = ~(m_window.space >> shift) & range;
    if (kept == 0) {
        m_stream.OnText(nullptr);
        return;
    }
    if (begin < RoomyOffset) [[unlikely]] {
        m_tokenizer.ReportText({static_cast<u32>(begin), static_cast<u32>(begin + size)});
        return;
    }
    u64 const first = FirstBit(kept);
    u8* const buffer = m_buffer;
    Copy(buffer, buffer + begin + first, WindowSize - static_cast<u64>(__builtin_clzll(kept)) - first);
    CString const text = View(buffer);
    m_stream.OnText(&text);
}

/// An ordinary attribute.
XML_INLINE void CWalk::ReportAttribute(u64 nameBegin, u64 nameSize, u64 valueSize)
{
    u64 const valueBegin = nameBegin + nameSize + 2;
    if (nameBegin < RoomyOffset) [[unlikely]] {
        m_tokenizer.ReportAttribute({static_cast<u32>(nameBegin), static_cast<u32>(nameBegin + nameSize)},
                                    {static_cast<u32>(valueBegin), static_cast<u32>(valueBegin + valueSize)});
        return;
    }
    u8* const name = m_buffer;
    u8* const value = name + nameSize + 1;
    CopyShort(name, name + nameBegin, nameSize);
    CopyShort(value, name + valueBegin, valueSize);
    m_stream.OnAttribute({View(name), View(value)});
}

/// An attribute of this window that has more in it than its "="; false when it is one for the plain scan.
XML_TARGET __attribute__((noinline)) bool CWalk::ReportUnusualAttribute(u64 nameBegin, u64 nameSize, u64 valueEnd)
{
    u64 const nameEnd = nameBegin + nameSize;
    u64 const range = (u64{2} << (valueEnd - nameBegin)) - 1;
    if ((m_window.suspect >> (nameBegin - m_base) & range) != 0 ||
        std::memchr(m_buffer + nameBegin, '=', nameSize + 1) != m_buffer + nameEnd ||
        std::memchr(m_buffer + nameBegin, '>', valueEnd - nameBegin) != nullptr)
        return false;
    if (m_stream.OnAttribute)
        m_tokenizer.ReportAttribute({static_cast<u32>(nameBegin), static_cast<u32>(nameEnd)},
                                    {static_cast<u32>(nameEnd + 2), static_cast<u32>(valueEnd)});
    return true;
}

/// Walks from cursor.mark, where a state has just begun, and returns from where the plain scan goes on; the cursor then
/// says in which state, and where its token begins.
XML_TARGET u64 CWalk::Run(CXMLTokenizer::SCursor& cursor)
{
    u8 const* const buffer = m_buffer; // a member would be read again after every byte that is written
    u64 offset = cursor.mark;
    auto const leave = [&cursor](u32 state, u64 mark) {
        cursor.state = state;
        cursor.mark = static_cast<u32>(mark);
        return mark;
    };
    if (offset > m_limit)
        return offset;
    switch (cursor.state) {
    case EXMLState::Text:
        Look(offset);
        goto text;
    case EXMLState::Instruction:
    case EXMLState::Comment:
    case EXMLState::CData:
        goto far;
    case EXMLState::ElementName:
        Look(offset);
        goto elementName;
    case EXMLState::EndTagName:
        Look(offset);
        goto endTagName;
    case EXMLState::BetweenAttributes:
        Look(offset);
        goto betweenAttributes;
    case EXMLState::AttributeName:
        Look(offset);
        goto attributeName;
    case EXMLState::BehindSelfClosing:
        Look(offset);
        goto behindSelfClosing;
    default:
        return offset;
    }

text: {
    u64 end = 0;
    u64 found = m_window.textEnd >> (offset - m_base);
    if (found == 0) {
        if (offset > m_limit)
            return leave(EXMLState::Text, offset);
        Look(offset);
        found = m_window.textEnd;
    }
    if (found != 0) {
        end = offset + FirstBit(found);
        if ((m_window.suspect >> (offset - m_base) & UpToFirst(found)) != 0)
            return leave(EXMLState::Text, offset);
    }
    if (found == 0 || buffer[end] != '<') {
        found = 0;
        SFound const far = FindFar<'<', '<', '<'>(offset);
        if (!far.found || far.offset > m_limit) {
            leave(EXMLState::Text, offset);
            return far.found ? offset : far.offset;
        }
        end = far.offset;
    }
    u8 const next = buffer[end + 1];
    u8 const kind = ByteClasses.classes[next];
    if (next != '/' && (kind == EByte::Other || kind == EByte::Close))
        return leave(EXMLState::Text, offset);
    if (m_stream.OnText) {
        if (found != 0)
            ReportText(offset, end - offset);
        else
            m_tokenizer.ReportText({static_cast<u32>(offset), static_cast<u32>(end)});
    }
    if (found == 0)
        Look(end);
    offset = end + 1;
    if (next != '/' && kind == EByte::NameStart)
        goto elementName;
    ++offset;
    if (next == '/')
        goto endTagName;
    if (kind == EByte::Exclamation)
        return leave(EXMLState::Markup, offset);
    leave(EXMLState::Instruction, offset);
    goto far;
}

elementName: {
    u64 found = m_window.nameEnd >> (offset - m_base);
    if (found == 0) {
        if (offset > m_limit)
            return leave(EXMLState::ElementName, offset);
        Look(offset);
        found = m_window.nameEnd;
        if (found == 0)
            return leave(EXMLState::ElementName, offset);
    }
    u64 const end = offset + FirstBit(found);
    u8 const delimiter = buffer[end];
    if ((m_window.high >> (offset - m_base) & UpToFirst(found)) != 0 || (delimiter == '/' && buffer[end + 1] != '>'))
        return leave(EXMLState::ElementName, offset);
    if (m_stream.OnElementBegin) {
        if (offset >= RoomyOffset)
            CopyShort(m_buffer, buffer + offset, end - offset);
        else
            m_tokenizer.ExtractTrimmed({static_cast<u32>(offset), static_cast<u32>(end)}, 0);
        m_stream.OnElementBegin(View(buffer));
    }
    offset = end + 1;
    if (delimiter == '>')
        goto text;
    if (delimiter != '/') {
        if (ByteClasses.classes[buffer[offset]] == EByte::NameStart)
            goto attributeName;
        goto betweenAttributes;
    }
    ++offset;
    if (m_stream.OnText)
        m_stream.OnText(nullptr);
    goto behindSelfClosing;
}

endTagName: {
    u64 found = m_window.nameEnd >> (offset - m_base);
    if (found == 0) {
        if (offset > m_limit)
            return leave(EXMLState::EndTagName, offset);
        Look(offset);
        found = m_window.nameEnd;
        if (found == 0)
            return leave(EXMLState::EndTagName, offset);
    }
    u64 const end = offset + FirstBit(found);
    if ((m_window.high >> (offset - m_base) & UpToFirst(found)) != 0 || buffer[end] != '>')
        return leave(EXMLState::EndTagName, offset);
    if (m_stream.OnElementEnd) {
        if (offset >= RoomyOffset)
            CopyShort(m_buffer, buffer + offset, end - offset);
        else
            m_tokenizer.ExtractTrimmed({static_cast<u32>(offset), static_cast<u32>(end)}, 0);
        CString const name = View(buffer);
        m_stream.OnElementEnd(&name);
    }
    offset = end + 1;
    goto text;
}

betweenAttributes: {
    u64 found = m_window.nonspace >> (offset - m_base);
    if (found == 0) {
        if (offset > m_limit)
            return leave(EXMLState::BetweenAttributes, offset);
        Look(offset);
        found = m_window.nonspace;
        if (found == 0)
            return leave(EXMLState::BetweenAttributes, offset);
    }
    u64 const next = offset + FirstBit(found);
    u8 const kind = ByteClasses.classes[buffer[next]];
    if (kind == EByte::NameStart) {
        offset = next;
        goto attributeName;
    }
    if (kind == EByte::Close) {
        offset = next + 1;
        goto text;
    }
    if (kind != EByte::Slash || buffer[next + 1] != '>')
        return leave(EXMLState::BetweenAttributes, offset);
    offset = next + 2;
    if (m_stream.OnText)
        m_stream.OnText(nullptr);
    goto behindSelfClosing;
}

attributeName: {
    // As a rule the name ends at "=", the first quote follows at once, the second one ends the value, and nothing else
    // up to there is special. Anything odd in the place of the "=" would show behind it, too.
    u64 const shift = offset - m_base;
    u64 const quotes = m_window.quotes >> shift;
    u64 const closingQuotes = quotes & (quotes - 1);
    if (closingQuotes == 0) {
        if (shift == 0)
            goto longAttribute;
        if (offset > m_limit)
            return leave(EXMLState::AttributeName, offset);
        Look(offset);
        goto attributeName;
    }
    u64 const nameSize = FirstBit(quotes) - 1;
    u64 const valueEnd = offset + FirstBit(closingQuotes);
    bool const isPlain = (m_window.special >> shift & UpToFirst(closingQuotes)) == LowestBit(quotes) >> 1;
    if (((m_window.space >> shift) & UpToFirst(quotes)) != 0)
        return leave(EXMLState::AttributeName, offset);
    if (isPlain) [[likely]] {
        if (m_stream.OnAttribute)
            ReportAttribute(offset, nameSize, valueEnd - offset - nameSize - 2);
    }
    else if (!ReportUnusualAttribute(offset, nameSize, valueEnd))
        return leave(EXMLState::AttributeName, offset);
    // What mostly follows the last one, without a look at the window.
    offset = valueEnd + 1;
    if (buffer[offset] != '>')
        goto betweenAttributes;
    ++offset;
    goto text;
}

longAttribute: {
    // It begins with the window and does not end in it.
    if (m_window.quotes == 0)
        return leave(EXMLState::AttributeName, offset);
    u64 const nameEnd = offset + FirstBit(m_window.quotes) - 1;
    u64 const range = UpToFirst(m_window.quotes);
    if ((m_window.special & range) != LowestBit(m_window.quotes) >> 1 || (m_window.space & range) != 0)
        return leave(EXMLState::AttributeName, offset);
    SFound const far = FindFar<'"', '\'', '>'>(nameEnd + 2);
    if (!far.found || far.offset > m_limit || buffer[far.offset] == '>')
        return leave(EXMLState::AttributeName, offset);
    if (m_stream.OnAttribute)
        m_tokenizer.ReportAttribute({static_cast<u32>(offset), static_cast<u32>(nameEnd)},
                                    {static_cast<u32>(nameEnd + 2), static_cast<u32>(far.offset)});
    offset = far.offset + 1;
    if (offset > m_limit)
        return leave(EXMLState::BetweenAttributes, offset);
    Look(offset);
    goto betweenAttributes;
}

behindSelfClosing:
    if (buffer[offset] >= 0x80)
        return leave(EXMLState::BehindSelfClosing, offset);
    if (m_stream.OnElementEnd)
        m_stream.OnElementEnd(nullptr);
    ++offset;
    if (offset - m_base >= WindowSize) {
        if (offset > m_limit)
            return leave(EXMLState::Text, offset);
        Look(offset);
    }
    goto text;

far: {
    SFound const far = FindTerminator(cursor.state, offset);
    if (!far.found)
        return far.offset;
    u64 const delimiterSize = cursor.state == EXMLState::Instruction ? 2 : 3;
    m_tokenizer.ReportMarkup(cursor.state, {cursor.mark, static_cast<u32>(far.offset + 1 - delimiterSize)});
    offset = far.offset + 1;
    if (offset > m_limit)
        return leave(EXMLState::Text, offset);
    Look(offset);
    goto text;
}
}

} // namespace

u64 XML_WALK(CXMLTokenizer& tokenizer, CXMLTokenizer::SCursor& cursor)
{
    return CWalk(tokenizer).Run(cursor);
}

} // namespace Velmor
