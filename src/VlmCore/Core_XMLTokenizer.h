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

private:
    void Scan();
    [[nodiscard]] EOutcome FinishWithoutDelimiter();
    void Transition(u32 begin, u32 end, u32 next);
    void Report(u32 begin, u32 next);
    [[nodiscard]] u32 ExtractTrimmed(XMLText::SRange token, u32 target);
    [[nodiscard]] u32 ExtractDecoded(XMLText::SRange token, u32 target);
    void CheckRoom(XMLText::SRange token, u32 target) const;
    template <class Deliver>
    void DeliverPartial(u32 textEnd, u32 consumed, Deliver const& deliver);
    void ReportText(XMLText::SRange token);
    void ReportPartialText();
    void ReportAttribute(u32 end);

    [[nodiscard]] CString View(u32 offset) const { return CString(reinterpret_cast<char const*>(m_buffer + offset)); }

    CXMLStream& m_stream;
    u8* const m_buffer;
    u32 const m_size;
    u32 m_pendingBegin = 0; // begin of what may become a delimiter or a character, when the walk has ended
};

} // namespace Velmor
