/// \file
/// CXMLStream, an incremental XML tokenizer, and ReadXML, which feeds a file through one.
///
/// The stream reports each token to a callback while the text streams in. It builds no tree, checks no nesting, loads
/// nothing and allocates nothing: the strings it hands out lie in the host's own buffer. Use it to take values out of
/// large documents at the speed of memory; do not use it to validate a document, it accepts far more than XML.
///
///     CXMLStream stream;
///     stream.OnElementBegin = [&](CString name) { ... };
///     stream.OnAttribute = [&](TPair<CString, CString> attribute) { ... };
///     ReadXML(file, stream);
///
/// What it does on purpose otherwise than a validating parser is listed in docs/xml.md; the main points are that the
/// character behind "/>" is swallowed, that a value opened with one kind of quote ends at either, and that texts and
/// values lose the white space at both ends.
#pragma once

#include <vlmcore/exceptions.h>
#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Delegate.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

class IFile;

/// Incremental XML tokenizer. One stream belongs to one thread at a time; different streams are independent.
///
/// Set the callbacks, then call ProcessData with UTF-8 text. An empty callback is skipped, and tokens that nobody asked
/// for are neither copied nor decoded. The strings are views of text inside the buffer (or, for the end of a partial
/// text, inside the stream), zero terminated, and valid during the callback only. A callback may exchange callbacks,
/// but must not call ProcessData of its own stream. When a callback throws, the exception leaves ProcessData; go on
/// with a new document after Reset only.
///
/// States and what ends them, tried in this order; a space stands for white space (space, tab, carriage return, line
/// feed), "*" for a name character, which stays to be read in the next state:
///
///     0 text              "<?" 2   "<!" 1   "<*" 5   "</" 6
///     1 after "<!"        "--" 3   "[CDATA[" 4   ">" 0
///     2 instruction       "?>" 0
///     3 comment           "-->" 0
///     4 CDATA             "]]>" 0
///     5 element name      space 8   "/>" 12   ">" 0
///     6 end-tag name      space 7   ">" 0
///     7 behind that name  ">" 0
///     8 in the tag        "*" 9   "/>" 12   ">" 0
///     9 attribute name    space 10   "=" 10   ">" 13
///     10 before a value   either quote 11   ">" 13
///     11 attribute value  either quote 8   ">" 13
///     12 behind "/>"      any character, swallowed, 0
///     13 malformed        nothing, for good until Reset
class VLM_API CXMLStream {
public:
    /// First and last code points of the 16 ranges of characters that may begin a name, in ascending order.
    static u32 const NameLowChar[16];
    static u32 const NameHiChar[16];

    CXMLStream() = default;
    CXMLStream(CXMLStream const&) = delete;
    CXMLStream& operator=(CXMLStream const&) = delete;

    /// Tokenizes `size` bytes at `buffer` and returns how many of them, from the front, are consumed. Present the rest
    /// again at the front of the next buffer, with more text behind it; a result of 0 says that the token at the front
    /// needs more text. The consumed part of the buffer is overwritten with token strings; the rest is left as it is,
    /// and nothing outside the buffer is touched.
    ///
    /// A text, CDATA section, comment or instruction that fills the whole buffer is reported in pieces. A piece ends
    /// before what may be the beginning of a delimiter, of an entity reference or of a character.
    ///
    /// Throws CException:
    /// - "XML parser error (malformed XML).": a ">" inside an attribute. The stream stays malformed.
    /// - "XML Read buffer is too small. Data of state 0x%x is not splittable.": an element name, end tag or declaration
    ///   fills the whole buffer. Nothing was consumed: call again with a larger buffer.
    unsigned int ProcessData(void* buffer, unsigned int size);

    /// Begins a new document. The callbacks stay.
    void Reset();

    /// The state reached, 0 to 13 (see above).
    [[nodiscard]] u32 GetState() const { return m_state; }

private:
    u32 m_stackTop = 0;    // where the next token string goes
    u32 m_valueOffset = 0; // where an attribute's value goes, behind its name
    u32 m_state = 0;
    u8* m_buffer = nullptr; // of the current call
    u32 m_mark = 0;         // where the pending token begins
    u32 m_committed = 0;    // up to where the input is consumed

public:
    /// The name of an element.
    TDelegate<void(CString)> OnElementBegin;
    /// The name of an end tag; null for the end of an element that closes itself.
    TDelegate<void(CString const*)> OnElementEnd;
    /// Name and value.
    TDelegate<void(TPair<CString, CString>)> OnAttribute;
    /// A text between tags, its references decoded, or a CDATA section as it stands; null where a tag, declaration,
    /// instruction or comment begins with no text before it, and at the end of an element that closes itself.
    TDelegate<void(CString const*)> OnText;
    /// What stands between "<!" and ">" when it is neither a comment nor a CDATA section.
    TDelegate<void(CString)> OnDeclaration;
    /// What stands between "<?" and "?>".
    TDelegate<void(CString)> OnProcessingInstruction;
    /// What stands between "<!--" and "-->".
    TDelegate<void(CString)> OnComment;

private:
    friend class CXMLTokenizer;

    static constexpr u32 ScratchSize = 64;

    u32 m_nameBegin = 0; // the attribute's name, until its value closes
    u32 m_nameEnd = 0;
    bool m_insideLongReference = false; // the text's next bytes belong to a reference whose name is too long
    char m_scratch[ScratchSize] = {};   // the end of a partial text whose buffer has no room for a terminator
};

/// What a ReadXML did.
struct SXMLReadStatistics {
    u64 byteCount;       ///< bytes read from the file
    u64 callCount;       ///< passes over the buffer
    u64 passedByteCount; ///< bytes of all passes together, less than four times byteCount whatever is in them
    u64 bufferSize;      ///< bytes of the largest buffer that was needed
    u64 leftover;        ///< bytes at the end that no token claimed: the begin of a tag, reference or character
    bool complete;       ///< the file ended between two tags, with nothing left over
};

/// An error of the tokenizer while ReadXML read a file. The message is the tokenizer's, followed by " At byte N.".
class VLM_API CXMLException : public CException {
public:
    /// `sentence` is taken as it stands.
    CXMLException(char const* sentence, u64 byteOffset);
    CXMLException(CXMLException const& other);
    CXMLException& operator=(CXMLException const& other);
    ~CXMLException() override;

    [[nodiscard]] CXMLException* Clone() const override;

    /// Offset of the ">" that made the text malformed, or of the token that did not fit; counted from the position at
    /// which ReadXML found the file.
    [[nodiscard]] u64 GetByteOffset() const { return m_byteOffset; }

private:
    u64 m_byteOffset;
};

/// Feeds a file, from its position to its end, through a stream: a document, so the stream is Reset first. Callbacks
/// and their order are those of ProcessData on a buffer of that size.
///
/// The buffer has `bufferSize` bytes (at least 1, at most 4 GiB less one) and comes from the memory manager. It grows
/// by doubling when an element name, end tag, attribute or declaration does not fit, up to 4 GiB; texts, comments and
/// the like are reported in pieces instead. The time is linear in the size of the file, whatever is in it.
///
/// The end of the file stands for the character that "/>" swallows, so that the last element ends in any case. A file
/// that ends inside a tag or declaration is an error, one that ends inside a text, comment, CDATA section or
/// instruction is not: see `complete`.
///
/// Throws CXMLException for an error in the text, CFileException when reading fails, CBadAllocation, and what a
/// callback throws.
VLM_API SXMLReadStatistics ReadXML(IFile& file, CXMLStream& stream, u64 bufferSize = 64 * 1024);

} // namespace Velmor
