#include "TestHeap.h"
#include "internal/xml_recorder.h"

#include <vlmcore/xml_stream.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

using namespace Velmor;
using namespace Velmor::Test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Lines = std::vector<std::string>;

/// One call on a buffer of exactly that size (the address sanitizer sees every byte beyond it).
class CCall {
public:
    CCall(CXMLStream& stream, std::string_view input) : m_input(input), m_buffer(std::make_unique<char[]>(input.size()))
    {
        std::memcpy(m_buffer.get(), input.data(), input.size());
        try {
            consumed = stream.ProcessData(m_buffer.get(), static_cast<unsigned>(input.size()));
        }
        catch (CException const& exception) {
            error = static_cast<char const*>(exception.GetText().GetData());
        }
    }

    /// The bytes that the stream has not consumed, as they stand in the buffer now.
    [[nodiscard]] std::string Unread() const { return {m_buffer.get() + consumed, m_input.size() - consumed}; }

    unsigned consumed = 0;
    std::string error;

private:
    std::string m_input;
    std::unique_ptr<char[]> m_buffer;
};

/// The callbacks of a whole document in one buffer.
Lines Tokens(std::string_view input, unsigned callbacks = AllXMLCallbacks)
{
    CXMLRecorder recorder(callbacks);
    CCall const call(recorder.stream, input);
    Lines lines = ToLines(recorder.events);
    if (!call.error.empty())
        lines.push_back(call.error);
    return lines;
}

/// Feeds the input in calls that end at the given offsets; the tail of a call is presented again.
Lines SplitTokens(std::string_view input, std::vector<std::size_t> ends, unsigned callbacks = AllXMLCallbacks)
{
    CXMLRecorder recorder(callbacks);
    std::size_t begin = 0;
    ends.push_back(input.size());
    for (std::size_t end : ends) {
        CCall const call(recorder.stream, input.substr(begin, end - begin));
        EXPECT_EQ(call.error, "");
        begin += call.consumed;
    }
    return ToLines(recorder.events);
}

constexpr char const* MalformedText = "src/VlmCore/Core_XMLStream.cpp(631): XML parser error (malformed XML).";

std::string TooSmallText(char state)
{
    return std::string("src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of state 0x") + state +
           " is not splittable.";
}

unsigned Only(SXMLEvent::EKind kind)
{
    return 1u << kind;
}

} // namespace

TEST(XMLNames, TablesHoldTheNameStartRanges)
{
    u32 const low[16] = {0x3A,  0x41,   0x5F,   0x61,   0xC0,   0xD8,   0xF8,   0x370,
                         0x37F, 0x200C, 0x2070, 0x2C00, 0x3001, 0xF900, 0xFDF0, 0x10000};
    u32 const high[16] = {0x3A,   0x5A,   0x5F,   0x7A,   0xD6,   0xF6,   0x2FF,  0x37D,
                          0x1FFF, 0x200D, 0x218F, 0x2FEF, 0xD7FF, 0xFDCF, 0xFFFD, 0xEFFFF};
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(CXMLStream::NameLowChar[i], low[i]) << i;
        EXPECT_EQ(CXMLStream::NameHiChar[i], high[i]) << i;
    }
}

// Every code point that UTF-8 of up to four bytes can carry begins an element exactly when a range holds it.
TEST(XMLNames, EveryCodePointBeginsAnElementOrNot)
{
    unsigned begun = 0;
    CXMLStream stream;
    stream.OnElementBegin = [&](CString) { ++begun; };
    for (u32 codePoint = 1; codePoint < 0x110000; ++codePoint) {
        bool expected = false;
        for (int i = 0; i < 16; ++i)
            expected = expected || (codePoint >= CXMLStream::NameLowChar[i] && codePoint <= CXMLStream::NameHiChar[i]);
        char text[8] = {'<'};
        unsigned size = 1;
        auto const add = [&](u32 byte) { text[size++] = static_cast<char>(static_cast<u8>(byte)); };
        if (codePoint < 0x80)
            add(codePoint);
        else if (codePoint < 0x800) {
            add(0xC0 | codePoint >> 6);
            add(0x80 | (codePoint & 0x3F));
        }
        else if (codePoint < 0x10000) {
            add(0xE0 | codePoint >> 12);
            add(0x80 | (codePoint >> 6 & 0x3F));
            add(0x80 | (codePoint & 0x3F));
        }
        else {
            add(0xF0 | codePoint >> 18);
            add(0x80 | (codePoint >> 12 & 0x3F));
            add(0x80 | (codePoint >> 6 & 0x3F));
            add(0x80 | (codePoint & 0x3F));
        }
        if (codePoint == '!' || codePoint == '/' || codePoint == '?')
            continue;
        add('>');
        begun = 0;
        stream.Reset();
        stream.ProcessData(text, size);
        ASSERT_EQ(begun, expected ? 1u : 0u) << std::hex << codePoint;
    }
}

TEST(XMLStream, ElementWithAttributesAndText)
{
    EXPECT_THAT(Tokens("<a x=\"1\" y='2'>hi &amp; bye</a>"),
                ElementsAre("text none", "begin a", "attribute x=1", "attribute y=2", "text hi & bye", "end a"));
}

TEST(XMLStream, SelfClosingElementEndsAtTheNextCharacterWhichIsSwallowed)
{
    EXPECT_THAT(Tokens("<br/>"), ElementsAre("text none", "begin br", "text none"));
    EXPECT_THAT(Tokens("<br/>X"), ElementsAre("text none", "begin br", "text none", "end none"));
    // The bracket of the second one is lost, so that it is text.
    EXPECT_THAT(Tokens("<br/><br/>X<c>"),
                ElementsAre("text none", "begin br", "text none", "end none", "text br/>X", "begin c"));
}

TEST(XMLStream, SwallowedCharacterIsSwallowedWhole)
{
    EXPECT_THAT(Tokens("<a/>\xE2\x82\xACX<b>"),
                ElementsAre("text none", "begin a", "text none", "end none", "text X", "begin b"));
    // Cut off inside the character: the whole of it is waited for.
    EXPECT_THAT(SplitTokens("<a/>\xE2\x82\xACX<b>", {6}),
                ElementsAre("text none", "begin a", "text none", "end none", "text X", "begin b"));
}

TEST(XMLStream, ThirdHyphenKeepsACommentOpen)
{
    EXPECT_THAT(Tokens("<!--a-->"), ElementsAre("text none", "comment a"));
    EXPECT_THAT(Tokens("<!--a--->b-->"), ElementsAre("text none", "comment a--->b"));
    // The counter begins again with the fourth.
    EXPECT_THAT(Tokens("<!--a----->"), ElementsAre("text none", "comment a---"));
}

TEST(XMLStream, ThirdBracketKeepsACDataSectionOpen)
{
    EXPECT_THAT(Tokens("<![CDATA[ a &lt; b ]]>"), ElementsAre("text none", "text a &lt; b"));
    EXPECT_THAT(Tokens("<![CDATA[a]]]>b]]>"), ElementsAre("text none", "text a]]]>b"));
    EXPECT_THAT(Tokens("<![CDATA[]]>"), ElementsAre("text none", "text "));
}

TEST(XMLStream, DoubledQuestionMarkKeepsAnInstructionOpen)
{
    EXPECT_THAT(Tokens("<?xml version='1.0'?>"), ElementsAre("text none", "instruction xml version='1.0'"));
    EXPECT_THAT(Tokens("<?a?"
                       "?>b?>"),
                ElementsAre("text none", "instruction a?"
                                         "?>b"));
}

TEST(XMLStream, DoubledOpeningBracketIsText)
{
    EXPECT_THAT(Tokens("<<a>b<c>"), ElementsAre("text <<a>b", "begin c"));
    EXPECT_THAT(Tokens("<<<a>"), ElementsAre("text <<", "begin a"));
    EXPECT_THAT(Tokens("1 < 2 <3 <a>"), ElementsAre("text 1 < 2 <3", "begin a"));
}

TEST(XMLStream, DeclarationsEndAtTheFirstBracketOrHyphens)
{
    EXPECT_THAT(Tokens("<!DOCTYPE a SYSTEM \"b\">"), ElementsAre("text none", "declaration DOCTYPE a SYSTEM \"b\""));
    EXPECT_THAT(Tokens("<!>"), ElementsAre("text none", "declaration "));
    // An inner declaration ends the outer one.
    EXPECT_THAT(Tokens("<!DOCTYPE a [<!ENTITY b 'c'>]><d>"),
                ElementsAre("text none", "declaration DOCTYPE a [<!ENTITY b 'c'", "text ]>", "begin d"));
    // Two hyphens anywhere in it begin a comment, and what stood before them is dropped.
    EXPECT_THAT(Tokens("<!DOCTYPE a -- b -->"), ElementsAre("text none", "comment b"));
    EXPECT_THAT(Tokens("<!x[CDATA[y]]>"), ElementsAre("text none", "text y"));
    EXPECT_THAT(Tokens("<![[CDATA[y]]>"), ElementsAre("text none", "declaration [[CDATA[y]]"));
}

TEST(XMLStream, ElementNamesEndAtWhiteSpaceSlashOrBracket)
{
    for (char const* space : {" ", "\t", "\r", "\n"})
        EXPECT_THAT(Tokens(std::string("<a") + space + ">"), ElementsAre("text none", "begin a")) << space;
    EXPECT_THAT(Tokens("<a\f>"), ElementsAre("text none", "begin a\f"));
    EXPECT_THAT(Tokens("<a/b>"), ElementsAre("text none", "begin a/b"));
    EXPECT_THAT(Tokens("<a//>"), ElementsAre("text none", "begin a//"));
    EXPECT_THAT(Tokens("<a />x"), ElementsAre("text none", "begin a", "text none", "end none"));
    EXPECT_THAT(Tokens("<a / >x<b>"), ElementsAre("text none", "begin a", "text x", "begin b"));
    EXPECT_THAT(Tokens("<a 1 b='2'>"), ElementsAre("text none", "begin a", "attribute b=2"));
}

TEST(XMLStream, EndTags)
{
    EXPECT_THAT(Tokens("</a>"), ElementsAre("text none", "end a"));
    EXPECT_THAT(Tokens("</a b='c' / >d<e>"), ElementsAre("text none", "end a", "text d", "begin e"));
    EXPECT_THAT(Tokens("</ a>"), ElementsAre("text none", "end "));
    EXPECT_THAT(Tokens("</>"), ElementsAre("text none", "end "));
}

TEST(XMLStream, EitherQuoteEndsAValue)
{
    EXPECT_THAT(Tokens("<a b=\"it's\" c='d'>"),
                ElementsAre("text none", "begin a", "attribute b=it", "attribute s\"=d"));
    EXPECT_THAT(Tokens("<a b='1\">"), ElementsAre("text none", "begin a", "attribute b=1"));
}

TEST(XMLStream, WhatStandsBeforeAQuoteIsSkipped)
{
    EXPECT_THAT(Tokens("<a b = c / '1'>"), ElementsAre("text none", "begin a", "attribute b=1"));
    EXPECT_THAT(Tokens("<a b\n'1'>"), ElementsAre("text none", "begin a", "attribute b=1"));
    EXPECT_THAT(Tokens("<a b=' 1 \n'>"), ElementsAre("text none", "begin a", "attribute b=1"));
    EXPECT_THAT(Tokens("<a b='&lt;&#x41;'c='2'>"),
                ElementsAre("text none", "begin a", "attribute b=<A", "attribute c=2"));
}

TEST(XMLStream, BracketInsideAnAttributeIsMalformedForGood)
{
    CXMLRecorder recorder;
    EXPECT_EQ(CCall(recorder.stream, "<a b>").error, MalformedText);
    EXPECT_EQ(recorder.stream.GetState(), 13u);
    EXPECT_EQ(CCall(recorder.stream, "<a>").error, TooSmallText('d'));
    EXPECT_EQ(CCall(recorder.stream, "").error, TooSmallText('d'));
    recorder.stream.Reset();
    EXPECT_EQ(CCall(recorder.stream, "<a>").error, "");

    EXPECT_THAT(Tokens("<a b/>"), ElementsAre("text none", "begin a", MalformedText));
    EXPECT_THAT(Tokens("<a b=>"), ElementsAre("text none", "begin a", MalformedText));
    // What was read of the value is reported first.
    EXPECT_THAT(Tokens("<a b='1>2'>"), ElementsAre("text none", "begin a", "attribute b=1", MalformedText));
}

TEST(XMLStream, TextIsTrimmedAndNoneWhenNothingIsLeft)
{
    EXPECT_THAT(Tokens(" \t\r\n<a> b\nc <d>"), ElementsAre("text none", "begin a", "text b\nc", "begin d"));
    EXPECT_THAT(Tokens("&nothing;<a>"), ElementsAre("text none", "begin a"));
    EXPECT_THAT(Tokens("<a>&#32;</a>"), ElementsAre("text none", "begin a", "text  ", "end a"));
    EXPECT_THAT(Tokens("<!-- a -->"), ElementsAre("text none", "comment a"));
    EXPECT_THAT(Tokens("<? a ?>"), ElementsAre("text none", "instruction a"));
}

struct SReference {
    char const* text;
    char const* decoded;
};

class XMLReference : public testing::TestWithParam<SReference> {};

TEST_P(XMLReference, Decodes)
{
    std::string const document = std::string("<a>[") + GetParam().text + "]</a>";
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Text)),
                ElementsAre("text none", std::string("text ") + GetParam().decoded));
}

INSTANTIATE_TEST_SUITE_P(
    XMLReferences, XMLReference,
    testing::Values(SReference{"&amp;&lt;&gt;&apos;&quot;", "[&<>'\"]"}, SReference{"&#x41;&#65;", "[AA]"},
                    SReference{"&#x20AC;", "[\xE2\x82\xAC]"}, SReference{"&#xe9;", "[\xC3\xA9]"},
                    SReference{"&unknown;", "[]"}, SReference{"&;", "[]"}, SReference{"&#;", "[]"},
                    SReference{"&#x;", "[]"}, SReference{"&#0;", "[]"}, SReference{"&AMP;", "[]"},
                    SReference{"&#X41;", "[]"}, SReference{"&amp ;", "[]"}, SReference{"& amp;", "[]"},
                    SReference{"&lt;&bad;&gt;", "[<>]"},
                    // Numbers follow the number rules of the strings: they end at what is no digit, and wrap.
                    SReference{"&#65b;", "[A]"}, SReference{"&#x100000041;", "[A]"},
                    // The library's own UTF-8: three bytes up to 0x3FFFF, a constant first byte above.
                    SReference{"&#x1F600;", "[\xEF\x98\x80]"}, SReference{"&#x40000;", "[\xE0\xE0\x80\x80]"},
                    SReference{"&#x50000;", "[\xE0\xF0\x80\x80]"},
                    // A reference is not looked for inside another.
                    SReference{"&a&lt;", "[]"}, SReference{"&amp;lt;", "[&lt;]"},
                    // 15 code points are the longest name, whatever they weigh.
                    SReference{"&#00000000000065;", "[A]"}, SReference{"&#000000000000065;", "[]"},
                    SReference{"&abcdefghijklmnop;x", "[x]"}, SReference{"&a&b;c", "[c]"},
                    // Nothing closes it: the text ends there.
                    SReference{"1&2", "[1"}, SReference{"1&0123456789012345678901234567890123456789", "[1"}));

TEST(XMLStream, NulBytesAreCharactersButEndTheStringsThatHoldThem)
{
    using namespace std::string_view_literals;
    EXPECT_THAT(Tokens("<a\0b c='1\0002'>x\0y</a>"sv),
                ElementsAre("text none", "begin a", "attribute c=1", "text x", "end a"));
    EXPECT_THAT(Tokens("\0<a>"sv), ElementsAre("text ", "begin a"));
}

TEST(XMLStream, EmptyCallbacksAreSkipped)
{
    std::string const document = "<?i?><!d><!--c--><a b='1'>t<![CDATA[u]]></a><e/> ";
    EXPECT_THAT(Tokens(document, 0), IsEmpty());
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::ElementBegin)), ElementsAre("begin a", "begin e"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::ElementEnd)), ElementsAre("end a", "end none"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Attribute)), ElementsAre("attribute b=1"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Declaration)), ElementsAre("declaration d"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Instruction)), ElementsAre("instruction i"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Comment)), ElementsAre("comment c"));
    EXPECT_THAT(Tokens(document, Only(SXMLEvent::Text)),
                ElementsAre("text none", "text none", "text none", "text none", "text t", "text u", "text none",
                            "text none", "text none"));
}

TEST(XMLStream, StringsLieInTheBufferAndEndWithZero)
{
    std::string buffer = "  <abc  def = 'g&amp;h' >i&lt;j</abc>";
    CXMLStream stream;
    auto const inside = [&](CString const& text) {
        char const* const data = static_cast<char const*>(text.GetData());
        EXPECT_EQ(text.GetEncoding(), EStringEncoding::UTF8);
        return data >= buffer.data() && data + std::strlen(data) < buffer.data() + buffer.size();
    };
    int count = 0;
    stream.OnElementBegin = [&](CString name) { count += inside(name); };
    stream.OnAttribute = [&](TPair<CString, CString> attribute) {
        count += inside(attribute.first) + inside(attribute.second);
        EXPECT_EQ(attribute.first.GetData(), buffer.data());
    };
    stream.OnText = [&](CString const* text) { count += text != nullptr && inside(*text); };
    stream.OnElementEnd = [&](CString const* name) { count += inside(*name); };
    stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size()));
    EXPECT_EQ(count, 5);
}

TEST(XMLSplit, AttributeThatIsCutOffComesAgainFromItsName)
{
    CXMLRecorder recorder;
    CCall const first(recorder.stream, "<a bc='1' def = '2");
    EXPECT_EQ(first.consumed, 10u);
    EXPECT_EQ(first.Unread(), "def = '2");
    EXPECT_EQ(recorder.stream.GetState(), 9u);
    CCall const second(recorder.stream, "def = '2");
    EXPECT_EQ(second.consumed, 0u);
    EXPECT_EQ(second.Unread(), "def = '2");
    EXPECT_EQ(recorder.stream.GetState(), 9u);
    CCall const third(recorder.stream, "def = '23'>");
    EXPECT_EQ(third.consumed, 11u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text none", "begin a", "attribute bc=1", "attribute def=23"));
}

TEST(XMLSplit, StatesThatCannotSplitThrowAndMayBeCalledAgain)
{
    struct SCase {
        char const* before; // consumed whole
        char const* tail;   // too small
        char state;
    };
    for (SCase const& c : {SCase{"<!", "DOCTYPE", '1'}, SCase{"<", "longname", '5'}, SCase{"</", "longname", '6'},
                           SCase{"</a ", "  ", '7'}, SCase{"<a ", "  ", '8'}, SCase{"<a ", "name", '9'},
                           SCase{"<a/>", "\xE2\x82", 'c'}}) {
        CXMLRecorder recorder;
        std::string const whole = std::string(c.before) + c.tail;
        CCall const first(recorder.stream, whole);
        ASSERT_EQ(first.error, "");
        ASSERT_EQ(first.Unread(), c.tail);
        CCall const second(recorder.stream, c.tail);
        EXPECT_EQ(second.error, TooSmallText(c.state));
        EXPECT_EQ(second.Unread(), c.tail) << "nothing changed";
        EXPECT_EQ(CCall(recorder.stream, "").error, TooSmallText(c.state));
    }
    CXMLRecorder recorder;
    EXPECT_EQ(CCall(recorder.stream, "<").consumed, 0u);
    EXPECT_EQ(CCall(recorder.stream, "<a").consumed, 1u);
    EXPECT_EQ(CCall(recorder.stream, "a").error, TooSmallText('5'));
    EXPECT_EQ(CCall(recorder.stream, "ab>").consumed, 3u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text none", "begin ab"));
}

TEST(XMLSplit, EmptyBufferDoesNothingWhereTokensSplit)
{
    for (char const* before : {"", "<?", "<!--", "<![CDATA["}) {
        CXMLRecorder recorder;
        CCall(recorder.stream, before);
        recorder.events.clear();
        CCall const call(recorder.stream, "");
        EXPECT_EQ(call.error, "");
        EXPECT_EQ(call.consumed, 0u);
        EXPECT_THAT(recorder.events, IsEmpty());
    }
}

TEST(XMLSplit, TextComesInPiecesUntrimmed)
{
    EXPECT_THAT(SplitTokens(" ab cd </a>", {4}), ElementsAre("text  ab ", "text cd", "end a"));
    EXPECT_THAT(SplitTokens("<![CDATA[ ab cd ]]>", {9, 13}), ElementsAre("text none", "text  ab ", "text cd"));
    EXPECT_THAT(SplitTokens("<!-- ab cd -->", {4, 8}), ElementsAre("text none", "comment  ab ", "comment cd"));
    EXPECT_THAT(SplitTokens("<? ab cd ?>", {2, 6}), ElementsAre("text none", "instruction  ab ", "instruction cd"));
}

TEST(XMLSplit, PiecesEndBeforeWhatMayBeADelimiter)
{
    for (unsigned callbacks : {AllXMLCallbacks, Only(SXMLEvent::ElementBegin)}) {
        CXMLRecorder recorder(callbacks);
        EXPECT_EQ(CCall(recorder.stream, "ab<").consumed, 2u);
        EXPECT_EQ(CCall(recorder.stream, "<").consumed, 0u);
        EXPECT_EQ(CCall(recorder.stream, "<a>").consumed, 3u);
        EXPECT_EQ(recorder.events.back().text, "a");
    }
    // The second bracket ended the match: no delimiter can begin at it.
    EXPECT_THAT(SplitTokens("ab<<c>d<e>", {4}), ElementsAre("text ab<<", "text c>d", "begin e"));
    EXPECT_THAT(SplitTokens("<!--ab-->", {4, 7}), ElementsAre("text none", "comment ab", "comment "));
    EXPECT_THAT(SplitTokens("<!--ab-->", {4, 8}), ElementsAre("text none", "comment ab", "comment "));
    EXPECT_THAT(SplitTokens("<!--ab--->-->", {4, 9}), ElementsAre("text none", "comment ab---", "comment >"));
    EXPECT_THAT(SplitTokens("<![CDATA[ab]]>", {9, 13}), ElementsAre("text none", "text ab", "text "));
    EXPECT_THAT(SplitTokens("<?ab?>", {2, 5}), ElementsAre("text none", "instruction ab", "instruction "));
    // Without the callback the piece is consumed the same way.
    EXPECT_THAT(SplitTokens("<!--ab--><c>", {4, 8}, Only(SXMLEvent::ElementBegin)), ElementsAre("begin c"));
    EXPECT_THAT(SplitTokens("<![CDATA[ab]]><c>", {9, 13}, Only(SXMLEvent::ElementBegin)), ElementsAre("begin c"));
}

TEST(XMLSplit, PiecesEndBeforeWhatMayBeAReference)
{
    for (std::size_t end = 2; end < 7; ++end)
        EXPECT_THAT(SplitTokens("1&amp;2<a>", {end}), end < 6    ? ElementsAre("text 1", "text &2", "begin a")
                                                      : end == 6 ? ElementsAre("text 1&", "text 2", "begin a")
                                                                 : ElementsAre("text 1&2", "text none", "begin a"))
            << end;
    CXMLRecorder recorder;
    EXPECT_EQ(CCall(recorder.stream, "&#x4").consumed, 0u);
    EXPECT_THAT(recorder.events, IsEmpty());
    // A CDATA section has no references.
    EXPECT_THAT(SplitTokens("<![CDATA[1&amp;]]>", {9, 13}), ElementsAre("text none", "text 1&am", "text p;"));
}

TEST(XMLSplit, TooLongReferenceIsDroppedAcrossPieces)
{
    std::string const document = "1&abcdefghijklmnopqrst;2<a>";
    for (std::size_t end = 18; end < 23; ++end) // from the 16th code point on it cannot be one
        EXPECT_THAT(SplitTokens(document, {end}), ElementsAre("text 1", "text 2", "begin a")) << end;
    EXPECT_THAT(SplitTokens(document, {17}), ElementsAre("text 1", "text 2", "begin a"));
    EXPECT_THAT(SplitTokens(document, {20, 21, 22}),
                ElementsAre("text 1", "text none", "text none", "text 2", "begin a"));
    EXPECT_THAT(SplitTokens("1&abcdefghijklmnopqrst<a>;2<b>", {20}),
                ElementsAre("text 1", "text none", "begin a", "text ;2", "begin b"));
}

TEST(XMLSplit, PiecesEndBeforeACutOffCharacter)
{
    EXPECT_THAT(SplitTokens("a\xE2\x82\xAC<b>", {2}), ElementsAre("text a", "text \xE2\x82\xAC", "begin b"));
    EXPECT_THAT(SplitTokens("a\xE2\x82\xAC<b>", {3}), ElementsAre("text a", "text \xE2\x82\xAC", "begin b"));
    EXPECT_THAT(SplitTokens("<!--a\xC3\xA9-->", {4, 6}), ElementsAre("text none", "comment a", "comment \xC3\xA9"));
}

TEST(XMLSplit, EndOfAFullBufferComesFromTheScratchInTwoPiecesWhenLong)
{
    // 63 bytes and the terminator fit the scratch.
    std::string const small(63, 'x');
    CXMLRecorder recorder;
    EXPECT_EQ(CCall(recorder.stream, small).consumed, 63u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text " + small));

    std::string const large(64, 'y');
    recorder.events.clear();
    EXPECT_EQ(CCall(recorder.stream, large).consumed, 64u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text y", "text " + large.substr(1)));

    // Not inside a character.
    std::string euros;
    for (int i = 0; i < 30; ++i)
        euros += "\xE2\x82\xAC";
    recorder.events.clear();
    EXPECT_EQ(CCall(recorder.stream, "x" + euros).consumed, 91u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text x" + euros.substr(0, 27), "text " + euros.substr(27)));

    // A decoded reference leaves room in the buffer itself.
    recorder.events.clear();
    EXPECT_EQ(CCall(recorder.stream, large + "&lt;").consumed, 68u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text " + large + "<"));

    // What is held back stays as it is.
    recorder.events.clear();
    CCall const held(recorder.stream, large + "&lt");
    EXPECT_EQ(held.consumed, 64u);
    EXPECT_EQ(held.Unread(), "&lt");
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text y", "text " + large.substr(1)));
}

TEST(XMLStream, CallbackMayExchangeCallbacksAndThrow)
{
    CXMLStream stream;
    std::string seen;
    stream.OnElementBegin = [&](CString) {
        seen += 'b';
        stream.OnText = [&](CString const* text) { seen += text != nullptr ? 't' : '-'; };
        stream.OnElementBegin = nullptr;
    };
    std::string buffer = "u<a>v<b>w</b>";
    stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size()));
    EXPECT_EQ(seen, "btt");

    stream.OnText = [](CString const*) { throw 5; };
    buffer = "u<a>v<b>w</b>";
    EXPECT_THROW(stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size())), int);
    stream.Reset();
    stream.OnText = [&](CString const* text) { seen = static_cast<char const*>(text->GetData()); };
    buffer = "u<a>";
    EXPECT_EQ(stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size())), 4u);
    EXPECT_EQ(seen, "u");
}

TEST(XMLStream, ResetForgetsTheReferenceThatATextEndedIn)
{
    CXMLStream stream;
    std::string seen;
    stream.OnText = [&](CString const* text) {
        seen = text != nullptr ? static_cast<char const*>(text->GetData()) : "none";
    };
    std::string buffer = "t&abcdefghijklmnopqrst"; // too long already, its rest would be dropped
    EXPECT_EQ(stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size())), buffer.size());
    EXPECT_EQ(seen, "t");
    stream.Reset();
    buffer = "x;y<b>";
    EXPECT_EQ(stream.ProcessData(buffer.data(), static_cast<unsigned>(buffer.size())), buffer.size());
    EXPECT_EQ(seen, "x;y");
}

TEST(XMLStream, NothingIsAllocated)
{
    std::string document;
    for (int i = 0; i < 1000; ++i)
        document += "<a b='1&amp;2' c=\"d\">text &lt;&#65;&unknown; <![CDATA[x]]><!-- y --><?z?><e/> </a>\n";
    CXMLStream stream;
    unsigned count = 0;
    stream.OnElementBegin = [&](CString) { ++count; };
    stream.OnElementEnd = [&](CString const*) { ++count; };
    stream.OnAttribute = [&](TPair<CString, CString>) { ++count; };
    stream.OnText = [&](CString const*) { ++count; };
    stream.OnDeclaration = [&](CString) { ++count; };
    stream.OnProcessingInstruction = [&](CString) { ++count; };
    stream.OnComment = [&](CString) { ++count; };
    Memory::SStatistics before;
    Memory::SStatistics after;
    ASSERT_TRUE(Memory::GetStatistics(before));
    stream.ProcessData(document.data(), static_cast<unsigned>(document.size()));
    ASSERT_TRUE(Memory::GetStatistics(after));
    EXPECT_EQ(count, 16000u);
    EXPECT_EQ(after.allocationCount, before.allocationCount);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(after.pools[i].allocationCount, before.pools[i].allocationCount);
}
