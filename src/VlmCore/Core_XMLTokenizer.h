// The tokenizer behind CXMLStream: one call's walk over one buffer.
#pragma once

#include <Core_XMLText.h>

#include <vlmcore/xml_stream.h>

namespace Velmor {

class CXMLTokenizer {
public:
    /// Why a walk ended.
    enum class EOutcome {
        Consumed,       ///< the stream's committed offset says how much
        BufferTooSmall, ///< no delimiter in the whole buffer, and the state's token cannot be split
    };

    /// A tokenizer of one buffer; the stream keeps what outlives it.
    CXMLTokenizer(CXMLStream& stream, void* buffer, u32 size);

    /// Walks the buffer and calls back. Throws the "malformed" exception, and what a callback throws.
    EOutcome Run();

    [[noreturn]] static void ThrowBufferTooSmall(CXMLStream const& stream);

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
