// The tokenizer behind CXMLStream: one call's walk over one buffer.
#pragma once

#include <Core_XMLText.h>

#include <vlmcore/xml_stream.h>

namespace Velmor {

/// States of the stream.
namespace EXMLState {
enum Type : u32 {
    Text = 0,
    Markup = 1,
    Instruction = 2,
    Comment = 3,
    CData = 4,
    ElementName = 5,
    EndTagName = 6,
    BehindEndTagName = 7,
    BetweenAttributes = 8,
    AttributeName = 9,
    BeforeValue = 10,
    Value = 11,
    BehindSelfClosing = 12,
    Malformed = 13,
};
} // namespace EXMLState

/// The messages of the exceptions, and what each takes.
namespace XMLMessage {
inline constexpr char const* BufferTooSmall = // the state
    "src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of state 0x%x is not splittable.";
inline constexpr char const* Malformed = "src/VlmCore/Core_XMLStream.cpp(631): XML parser error (malformed XML).";
inline constexpr char const* Collision =
    "src/VlmCore/Core_XMLStream.cpp(188): Stack collides with unread buffer data. XML Data corruption imminent.";
} // namespace XMLMessage

class CXMLTokenizer {
public:
    /// How a walk ended.
    enum class EOutcome {
        Consumed,       ///< GetConsumed says how much; 0: the attribute or the held back end needs more text
        BufferTooSmall, ///< no delimiter in the whole buffer, and the state's token cannot be split
        Malformed,      ///< a ">" inside an attribute, just before GetMark
    };

    /// A tokenizer of one buffer; the stream keeps what outlives it.
    CXMLTokenizer(CXMLStream& stream, void* buffer, u32 size);

    /// Walks the buffer and calls back; throws what a callback throws.
    [[nodiscard]] EOutcome Run();

    /// Bytes consumed from the front.
    [[nodiscard]] u32 GetConsumed() const { return m_stream.m_committed; }
    /// Offset behind the last delimiter.
    [[nodiscard]] u32 GetMark() const { return m_stream.m_mark; }

    // ---- For the fast walk ------------------------------------------------------------------------------------------

    /// A state that has just begun, and where its token begins.
    struct SCursor {
        u32 state;
        u32 mark;
    };

    [[nodiscard]] CXMLStream& GetStream() const { return m_stream; }
    [[nodiscard]] u8* GetBuffer() const { return m_buffer; }
    [[nodiscard]] u32 GetSize() const { return m_size; }

    /// Report a token to a callback that is set.
    void ReportText(XMLText::SRange token);
    void ReportAttribute(XMLText::SRange name, XMLText::SRange value);
    /// Reports an instruction, comment or CDATA section, if its callback is set.
    void ReportMarkup(u32 state, XMLText::SRange token);
    /// Copies a token, trimmed, to `target` and terminates it; returns the offset behind the terminator.
    u32 ExtractTrimmed(XMLText::SRange token, u32 target);

private:
    void Scan();
    [[nodiscard]] bool ScanToken(u64& offset);
    [[nodiscard]] bool CanWalk(u64 offset) const;
    [[nodiscard]] EOutcome FinishWithoutDelimiter();
    void Transition(u32 begin, u32 end, u32 next);
    void Report(u32 begin, u32 next);
    void ReportTrimmed(TDelegate<void(CString)> const& callback, XMLText::SRange token);
    void ReportTrimmed(TDelegate<void(CString const*)> const& callback, XMLText::SRange token);
    u32 ExtractDecoded(XMLText::SRange token, u32 target, bool& insideLongReference);
    void CheckRoom(XMLText::SRange token, u32 target) const;
    template <class Deliver>
    void DeliverPartial(u32 textEnd, u32 consumed, Deliver const& deliver);
    void ReportPartialText();

    [[nodiscard]] CString View(u32 offset) const { return CString(reinterpret_cast<char const*>(m_buffer + offset)); }

    CXMLStream& m_stream;
    u8* const m_buffer;
    u32 const m_size;
    u32 m_pendingBegin = 0; // begin of what may become a delimiter or a character, when the scan has ended
};

/// A fast walk: takes tokens from cursor.mark on and returns from where, at the begin of a character, the plain scan
/// goes on. The buffer has at least XMLWalkMinimum bytes.
using XMLWalk = u64 (*)(CXMLTokenizer& tokenizer, CXMLTokenizer::SCursor& cursor);
inline constexpr u32 XMLWalkMinimum = 128;

u64 WalkXMLBaseline(CXMLTokenizer& tokenizer, CXMLTokenizer::SCursor& cursor);
u64 WalkXMLAVX2(CXMLTokenizer& tokenizer, CXMLTokenizer::SCursor& cursor);

/// The walk that this processor is best at.
[[nodiscard]] XMLWalk ChooseXMLWalk();

/// Makes every stream use that walk; null for the plain scan alone. For tests.
void SetXMLWalk(XMLWalk walk);

} // namespace Velmor
