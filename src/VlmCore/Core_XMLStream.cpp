#include "Core_ProcessorFeatures.h"
#include "Core_XMLTokenizer.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

namespace Velmor {

using XMLText::SRange;

namespace {

constexpr u32 MostPatterns = 5;

// A delimiter: a space matches any white space, "*" any name character, which is left to the next state.
struct SPattern {
    char const* text;
    u32 length;
    u32 next;
};

struct SPatterns {
    u32 count;
    SPattern patterns[MostPatterns];
};

constexpr SPatterns StateTable[] = {
    {4,
     {{"<?", 2, EXMLState::Instruction},
      {"<!", 2, EXMLState::Markup},
      {"<*", 2, EXMLState::ElementName},
      {"</", 2, EXMLState::EndTagName}}},
    {3, {{"--", 2, EXMLState::Comment}, {"[CDATA[", 7, EXMLState::CData}, {">", 1, EXMLState::Text}}},
    {1, {{"?>", 2, EXMLState::Text}}},
    {1, {{"-->", 3, EXMLState::Text}}},
    {1, {{"]]>", 3, EXMLState::Text}}},
    {3, {{" ", 1, EXMLState::BetweenAttributes}, {"/>", 2, EXMLState::BehindSelfClosing}, {">", 1, EXMLState::Text}}},
    {2, {{" ", 1, EXMLState::BehindEndTagName}, {">", 1, EXMLState::Text}}},
    {1, {{">", 1, EXMLState::Text}}},
    {3, {{"*", 1, EXMLState::AttributeName}, {"/>", 2, EXMLState::BehindSelfClosing}, {">", 1, EXMLState::Text}}},
    {3, {{" ", 1, EXMLState::BeforeValue}, {"=", 1, EXMLState::BeforeValue}, {">", 1, EXMLState::Malformed}}},
    {3, {{"\"", 1, EXMLState::Value}, {"'", 1, EXMLState::Value}, {">", 1, EXMLState::Malformed}}},
    {3,
     {{"\"", 1, EXMLState::BetweenAttributes}, {"'", 1, EXMLState::BetweenAttributes}, {">", 1, EXMLState::Malformed}}},
};

bool Matches(char pattern, u32 codePoint)
{
    if (pattern == ' ')
        return XMLText::IsWhitespace(codePoint);
    if (pattern == '*')
        return XMLText::IsNameCharacter(codePoint);
    return codePoint == static_cast<u8>(pattern);
}

// For each byte the states, as bits, in which it may begin a delimiter. Bytes of longer characters may in every state,
// and any byte may behind "/>".
struct SBeginnings {
    u16 states[256] = {};
    constexpr SBeginnings()
    {
        for (u32 byte = 0; byte < 256; ++byte)
            for (u32 state = 0; state <= EXMLState::BehindSelfClosing; ++state)
                if (byte >= 0x80 || state == EXMLState::BehindSelfClosing ||
                    BeginsAny(StateTable[state], static_cast<char>(byte)))
                    states[byte] = static_cast<u16>(states[byte] | 1u << state);
    }

private:
    static constexpr bool BeginsAny(SPatterns const& patterns, char byte)
    {
        for (u32 i = 0; i < patterns.count; ++i) {
            char const first = patterns.patterns[i].text[0];
            bool const isSpace = byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
            bool const isLetter = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
            if (byte == first || (first == ' ' && isSpace) ||
                (first == '*' && (isLetter || byte == ':' || byte == '_')))
                return true;
        }
        return false;
    }
};
constexpr SBeginnings Beginnings;

bool MayBeginDelimiter(u8 byte, u32 state)
{
    return (Beginnings.states[byte] >> state & 1) != 0;
}

std::atomic<XMLWalk> chosenWalk{ChooseXMLWalk()};

} // namespace

XMLWalk ChooseXMLWalk()
{
    return GetProcessorFeatures().avx2 ? WalkXMLAVX2 : WalkXMLBaseline;
}

void SetXMLWalk(XMLWalk walk)
{
    chosenWalk.store(walk, std::memory_order_relaxed);
}

CXMLTokenizer::CXMLTokenizer(CXMLStream& stream, void* buffer, u32 size)
    : m_stream(stream), m_buffer(static_cast<u8*>(buffer)), m_size(size)
{
    stream.m_buffer = m_buffer;
    stream.m_mark = 0;
    stream.m_committed = 0;
}

CXMLTokenizer::EOutcome CXMLTokenizer::Run()
{
    bool const wasMalformed = m_stream.m_state == EXMLState::Malformed;
    Scan();
    if (m_stream.m_state == EXMLState::Malformed && !wasMalformed)
        return EOutcome::Malformed;
    if (m_stream.m_committed != m_stream.m_mark) {
        // An attribute is cut off: it comes again from its name.
        m_stream.m_state = EXMLState::AttributeName;
        return EOutcome::Consumed;
    }
    return m_stream.m_committed != 0 ? EOutcome::Consumed : FinishWithoutDelimiter();
}

void CXMLTokenizer::Scan()
{
    XMLWalk const walk = chosenWalk.load(std::memory_order_relaxed);
    u64 offset = 0;
    do {
        if (walk != nullptr && CanWalk(offset)) {
            SCursor cursor{m_stream.m_state, m_stream.m_mark};
            offset = walk(*this, cursor);
            m_stream.m_state = cursor.state;
            m_stream.m_mark = cursor.mark;
            m_stream.m_committed = cursor.mark;
        }
    } while (ScanToken(offset));
}

/// True where a state has just begun, nothing of its token is matched yet, and no attribute is open.
bool CXMLTokenizer::CanWalk(u64 offset) const
{
    return m_size >= XMLWalkMinimum && offset == m_stream.m_mark && m_stream.m_mark == m_stream.m_committed &&
           !m_stream.m_insideLongReference;
}

/// The plain scan, from a character on where no pattern is matched in part, up to the next delimiter. False at the end
/// of the buffer, and when the text is malformed.
bool CXMLTokenizer::ScanToken(u64& offset)
{
    u32 const stateNumber = m_stream.m_state;
    if (stateNumber == EXMLState::Malformed)
        return false;
    u32 matched[MostPatterns] = {};
    u64 matchedFrom[MostPatterns] = {};
    bool isMatching = false; // some pattern in part
    while (offset < m_size) {
        if (!isMatching && !MayBeginDelimiter(m_buffer[offset], stateNumber)) {
            ++offset;
            continue;
        }
        u64 const stride = XMLText::GetStride(m_buffer[offset]);
        if (offset + stride > m_size)
            break;
        if (stateNumber == EXMLState::BehindSelfClosing) {
            offset += stride;
            Transition(static_cast<u32>(offset), static_cast<u32>(offset), EXMLState::Text);
            return true;
        }
        isMatching = false;
        u32 const codePoint = XMLText::Decode(m_buffer + offset);
        SPatterns const& state = StateTable[stateNumber];
        for (u32 i = 0; i < state.count; ++i) {
            SPattern const& pattern = state.patterns[i];
            if (matched[i] == 0)
                matchedFrom[i] = offset;
            matched[i] = Matches(pattern.text[matched[i]], codePoint) ? matched[i] + 1 : 0;
            if (matched[i] != pattern.length) {
                isMatching = isMatching || matched[i] != 0;
                continue;
            }
            bool const nameFollows = pattern.text[pattern.length - 1] == '*';
            u32 const end = static_cast<u32>(offset) + (nameFollows ? 0 : 1);
            u32 const begin = static_cast<u32>(offset + 1) - pattern.length;
            offset += nameFollows ? 0 : stride;
            Transition(begin, end, pattern.next);
            return true;
        }
        offset += stride;
    }
    for (u32 i = 0; i < MostPatterns; ++i)
        if (matched[i] != 0)
            offset = std::min(offset, matchedFrom[i]);
    m_pendingBegin = static_cast<u32>(offset);
    return false;
}

void CXMLTokenizer::Transition(u32 begin, u32 end, u32 next)
{
    u32 const state = m_stream.m_state;
    Report(begin, next);
    if (next == EXMLState::BehindSelfClosing && m_stream.OnText)
        m_stream.OnText(nullptr);
    if (state == EXMLState::AttributeName) {
        m_stream.m_nameBegin = m_stream.m_mark;
        m_stream.m_nameEnd = begin;
    }
    if (state == EXMLState::Text)
        m_stream.m_insideLongReference = false;
    m_stream.m_mark = end;
    if (state != EXMLState::AttributeName && state != EXMLState::BeforeValue)
        m_stream.m_committed = end;
    m_stream.m_state = next;
}

/// Reports the token that the delimiter at `begin` ends.
void CXMLTokenizer::Report(u32 begin, u32 next)
{
    SRange const token{m_stream.m_mark, begin};
    switch (m_stream.m_state) {
    case EXMLState::Text:
        if (m_stream.OnText)
            ReportText(token);
        break;
    case EXMLState::Markup:
        if (next == EXMLState::Text)
            ReportTrimmed(m_stream.OnDeclaration, token);
        break;
    case EXMLState::Instruction:
    case EXMLState::Comment:
    case EXMLState::CData:
        ReportMarkup(m_stream.m_state, token);
        break;
    case EXMLState::ElementName:
        ReportTrimmed(m_stream.OnElementBegin, token);
        break;
    case EXMLState::EndTagName:
        ReportTrimmed(m_stream.OnElementEnd, token);
        break;
    case EXMLState::Value:
        if (m_stream.OnAttribute)
            ReportAttribute({m_stream.m_nameBegin, m_stream.m_nameEnd}, token);
        break;
    case EXMLState::BehindSelfClosing:
        if (m_stream.OnElementEnd)
            m_stream.OnElementEnd(nullptr);
        break;
    default:
        break;
    }
}

void CXMLTokenizer::ReportTrimmed(TDelegate<void(CString)> const& callback, SRange token)
{
    if (!callback)
        return;
    m_stream.m_stackTop = ExtractTrimmed(token, 0);
    callback(View(0));
}

void CXMLTokenizer::ReportTrimmed(TDelegate<void(CString const*)> const& callback, SRange token)
{
    if (!callback)
        return;
    m_stream.m_stackTop = ExtractTrimmed(token, 0);
    CString const text = View(0);
    callback(&text);
}

void CXMLTokenizer::ReportMarkup(u32 state, SRange token)
{
    if (state == EXMLState::CData)
        ReportTrimmed(m_stream.OnText, token);
    else
        ReportTrimmed(state == EXMLState::Comment ? m_stream.OnComment : m_stream.OnProcessingInstruction, token);
}

void CXMLTokenizer::ReportText(SRange token)
{
    m_stream.m_stackTop = ExtractDecoded(token, 0, m_stream.m_insideLongReference);
    if (m_stream.m_stackTop == 1) {
        m_stream.OnText(nullptr);
        return;
    }
    CString const text = View(0);
    m_stream.OnText(&text);
}

void CXMLTokenizer::ReportAttribute(SRange name, SRange value)
{
    // Name and value move to the front together: until the value closed, the name was unread input.
    bool insideLongReference = false;
    m_stream.m_valueOffset = ExtractTrimmed(name, 0);
    m_stream.m_stackTop = ExtractDecoded(value, m_stream.m_valueOffset, insideLongReference);
    m_stream.OnAttribute({View(0), View(m_stream.m_valueOffset)});
}

u32 CXMLTokenizer::ExtractTrimmed(SRange token, u32 target)
{
    token = XMLText::Trim(m_buffer, token);
    CheckRoom(token, target);
    u32 const size = token.end - token.begin;
    std::memmove(m_buffer + target, m_buffer + token.begin, size);
    m_buffer[target + size] = 0;
    return target + size + 1;
}

/// The same, with the entity references replaced.
u32 CXMLTokenizer::ExtractDecoded(SRange token, u32 target, bool& insideLongReference)
{
    token = XMLText::Trim(m_buffer, token);
    CheckRoom(token, target);
    u32 const end = XMLText::DecodeReferences(m_buffer, token, target, false, insideLongReference).end;
    m_buffer[end] = 0;
    return end + 1;
}

/// The last guard of the host's unread bytes: a token that is trimmed and moved to the front always has room there.
void CXMLTokenizer::CheckRoom(SRange token, u32 target) const
{
    if (u64{target} + (token.end - token.begin) > token.end)
        throw CException(XMLMessage::Collision);
}

/// No delimiter in the whole buffer: the token is reported in part where its state allows it.
CXMLTokenizer::EOutcome CXMLTokenizer::FinishWithoutDelimiter()
{
    auto const deliverText = [&](CString text) { m_stream.OnText(&text); };
    switch (m_stream.m_state) {
    case EXMLState::Text:
        if (m_stream.OnText)
            ReportPartialText();
        else
            m_stream.m_committed = m_pendingBegin;
        return EOutcome::Consumed;
    case EXMLState::CData:
        if (m_stream.OnText)
            DeliverPartial(m_pendingBegin, m_pendingBegin, deliverText);
        else
            m_stream.m_committed = m_pendingBegin;
        return EOutcome::Consumed;
    case EXMLState::Instruction:
    case EXMLState::Comment: {
        TDelegate<void(CString)> const& callback =
            m_stream.m_state == EXMLState::Comment ? m_stream.OnComment : m_stream.OnProcessingInstruction;
        if (callback)
            DeliverPartial(m_pendingBegin, m_pendingBegin, [&](CString text) { callback(text); });
        else
            m_stream.m_committed = m_pendingBegin;
        return EOutcome::Consumed;
    }
    default:
        return EOutcome::BufferTooSmall;
    }
}

void CXMLTokenizer::ReportPartialText()
{
    XMLText::SDecoded const decoded =
        XMLText::DecodeReferences(m_buffer, {0, m_pendingBegin}, 0, true, m_stream.m_insideLongReference);
    if (decoded.end == 0 && decoded.consumed != 0) {
        m_stream.m_committed = decoded.consumed;
        m_stream.OnText(nullptr);
        return;
    }
    DeliverPartial(decoded.end, decoded.consumed, [&](CString text) { m_stream.OnText(&text); });
}

/// Delivers the `textEnd` bytes at the front, the outcome of `consumed` bytes of input. Where there is a byte of
/// consumed input behind them it takes the terminator; otherwise the end of the text is delivered from the scratch, so
/// that neither unread input nor what lies behind the buffer is written to.
template <class Deliver>
void CXMLTokenizer::DeliverPartial(u32 textEnd, u32 consumed, Deliver const& deliver)
{
    m_stream.m_committed = consumed;
    if (consumed == 0)
        return;
    if (textEnd < consumed) {
        m_buffer[textEnd] = 0;
        deliver(View(0));
        return;
    }
    u32 constexpr room = CXMLStream::ScratchSize - 1;
    u32 cut = textEnd > room ? textEnd - room : 0;
    // Not inside a character: its bytes behind the first are 10xxxxxx, three at most.
    for (u32 i = 0; i < 3 && cut != 0 && (m_buffer[cut] & 0xC0) == 0x80; ++i)
        ++cut;
    std::memcpy(m_stream.m_scratch, m_buffer + cut, textEnd - cut);
    m_stream.m_scratch[textEnd - cut] = 0;
    if (cut != 0) {
        m_buffer[cut] = 0;
        deliver(View(0));
    }
    deliver(CString(m_stream.m_scratch));
}

unsigned int CXMLStream::ProcessData(void* buffer, unsigned int size)
{
    switch (CXMLTokenizer(*this, buffer, size).Run()) {
    case CXMLTokenizer::EOutcome::BufferTooSmall:
        throw CException(XMLMessage::BufferTooSmall, m_state);
    case CXMLTokenizer::EOutcome::Malformed:
        throw CException(XMLMessage::Malformed);
    default:
        return m_committed;
    }
}

void CXMLStream::Reset()
{
    m_state = EXMLState::Text;
    m_insideLongReference = false;
}

} // namespace Velmor
