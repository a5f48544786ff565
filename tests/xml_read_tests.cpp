// ReadXML: the feeding loop, its errors, and hostile documents.
#include "TestHeap.h"
#include "Texts.h"
#include "internal/xml_recorder.h"
#include "support/ProducedFile.h"

#include <vlmcore/files.h>
#include <vlmcore/xml_stream.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using namespace Velmor;
using namespace Velmor::Test;
using testing::ElementsAre;
using TestSupport::CProducedFile;
using VlmTest::Bytes;

namespace {

/// Bytes by their place, given in pieces of at most `pieceSize`.
class CGeneratedFile : public CProducedFile {
public:
    CGeneratedFile(u64 size, u64 pieceSize, char (*byteAt)(u64))
        : CProducedFile(size), m_pieceSize(pieceSize), m_byteAt(byteAt)
    {
    }
    u64 Read(void* buffer, u64 size) override { return CProducedFile::Read(buffer, std::min(size, m_pieceSize)); }

protected:
    void Produce(char* bytes, u64 position, u64 count) override
    {
        for (u64 i = 0; i < count; ++i)
            bytes[i] = m_byteAt(position + i);
    }

private:
    u64 m_pieceSize;
    char (*m_byteAt)(u64);
};

SXMLReadStatistics Read(CXMLStream& stream, std::string_view text, u64 bufferSize)
{
    auto const file = MakeResource<CByteStreamFile>("a.xml", static_cast<void const*>(text.data()), text.size());
    return ReadXML(*file, stream, bufferSize);
}

/// Events with the pieces of texts and instructions joined, white space at their ends and empty texts dropped:
/// what does not depend on where a buffer ended.
std::vector<std::string> Join(std::vector<SXMLEvent> const& events)
{
    std::vector<std::string> lines;
    std::string text;
    auto const flush = [&] {
        std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '\t'; });
        if (!text.empty())
            lines.push_back("text " + text);
        text.clear();
    };
    for (SXMLEvent const& event : events) {
        if (event.kind == SXMLEvent::Text || event.kind == SXMLEvent::Instruction) {
            text += event.text;
            continue;
        }
        flush();
        lines.push_back(ToLine(event));
    }
    flush();
    return lines;
}

constexpr char const* Document = "<?xml version='1.0'?>\n<root a=\"1\" bcd=\"some value\">\n text &amp; text "
                                 "<b/>\n<c>d</c> more\xE2\x82\xAC\n<e f='g'/>\n</root>\n";

struct SCounts {
    u64 elements = 0;
    u64 ends = 0;
    u64 attributes = 0;
    friend bool operator==(SCounts const&, SCounts const&) = default;
};

void PrintTo(SCounts const& counts, std::ostream* out)
{
    *out << counts.elements << " elements, " << counts.ends << " ends, " << counts.attributes << " attributes";
}

void Count(CXMLStream& stream, SCounts& counts)
{
    stream.OnElementBegin = [&counts](CString const&) { ++counts.elements; };
    stream.OnElementEnd = [&counts](CString const*) { ++counts.ends; };
    stream.OnAttribute = [&counts](TPair<CString, CString> const&) { ++counts.attributes; };
}

} // namespace

TEST(XMLRead, ReportsWhatOneBufferReports)
{
    CXMLRecorder recorder;
    SXMLReadStatistics const statistics = Read(recorder.stream, Document, 64 * 1024);
    EXPECT_THAT(ToLines(recorder.events),
                ElementsAre("text none", "instruction xml version='1.0'", "text none", "begin root", "attribute a=1",
                            "attribute bcd=some value", "text text & text", "begin b", "text none", "end none",
                            "text none", "begin c", "text d", "end c", "text more\xE2\x82\xAC", "begin e",
                            "attribute f=g", "text none", "end none", "text none", "end root", "text \n"));
    EXPECT_EQ(statistics.byteCount, 110u);
    EXPECT_EQ(statistics.callCount, 2u); // the line end behind the root comes by itself
    EXPECT_EQ(statistics.bufferSize, 65536u);
    EXPECT_EQ(statistics.leftover, 0u);
    EXPECT_TRUE(statistics.complete);
}

TEST(XMLRead, EveryBufferSizeGivesTheSameTokens)
{
    CXMLRecorder whole;
    Read(whole.stream, Document, 1000);
    for (u64 size = 0; size <= 140; ++size) {
        CXMLRecorder recorder;
        SXMLReadStatistics const statistics = Read(recorder.stream, Document, size);
        EXPECT_EQ(Join(recorder.events), Join(whole.events)) << size;
        EXPECT_TRUE(statistics.complete) << size;
        EXPECT_GE(statistics.bufferSize, std::max<u64>(size, 16))
            << size; // bcd="some value", or its quotes and one more
        EXPECT_LE(statistics.bufferSize, std::max<u64>(size, 64)) << size;
    }
}

TEST(XMLRead, ReadsFromThePositionOfTheFile)
{
    CXMLRecorder recorder;
    std::string_view const text = "garbage<a></a>";
    auto const file = MakeResource<CByteStreamFile>("a.xml", static_cast<void const*>(text.data()), text.size());
    file->Seek(ESeek::Begin, 7);
    EXPECT_EQ(ReadXML(*file, recorder.stream).byteCount, 7u);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text none", "begin a", "text none", "end a"));
}

TEST(XMLRead, FileThatGivesAByteAtATime)
{
    CXMLRecorder recorder;
    CXMLRecorder expected;
    Read(expected.stream, Document, 1000);
    auto const file = MakeResource<CGeneratedFile>(u64{110}, u64{1}, [](u64 i) { return Document[i]; });
    ReadXML(*file, recorder.stream);
    EXPECT_EQ(ToLines(recorder.events), ToLines(expected.events));
}

TEST(XMLRead, EndOfTheFileEndsASelfClosingElement)
{
    for (u64 size : {u64{1}, u64{4}, u64{100}}) {
        CXMLRecorder recorder;
        EXPECT_TRUE(Read(recorder.stream, "<a/>", size).complete);
        EXPECT_THAT(ToLines(recorder.events), ElementsAre("text none", "begin a", "text none", "end none"));
    }
}

TEST(XMLRead, EmptyFileIsComplete)
{
    CXMLRecorder recorder;
    SXMLReadStatistics const statistics = Read(recorder.stream, "", 10);
    EXPECT_EQ(statistics.byteCount, 0u);
    EXPECT_EQ(statistics.callCount, 0u);
    EXPECT_TRUE(statistics.complete);
}

TEST(XMLRead, UnfinishedTextIsTold)
{
    struct SCase {
        char const* text;
        u64 leftover;
    };
    for (SCase const& c : {SCase{"<a>b</a><", 1}, SCase{"<a>b &am", 3}, SCase{"<a>\xE2\x82", 2}, SCase{"<!-- b", 0},
                           SCase{"<!-- b --", 2}, SCase{"<![CDATA[ b", 0}, SCase{"<?b", 0}}) {
        CXMLRecorder recorder;
        SXMLReadStatistics const statistics = Read(recorder.stream, c.text, 100);
        EXPECT_EQ(statistics.leftover, c.leftover) << c.text;
        EXPECT_FALSE(statistics.complete) << c.text;
        EXPECT_EQ(statistics.byteCount, std::strlen(c.text)) << c.text;
    }
}

TEST(XMLRead, ErrorsTellTheirByte)
{
    struct SCase {
        char const* text;
        u64 offset;
        char const* message;
    };
    for (SCase const& c : {SCase{"<root>\n<a b='1' c></root>", 17,
                                 "src/VlmCore/Core_XMLStream.cpp(631): XML parser error (malformed XML). At byte 17."},
                           SCase{"<root>\n<abc", 8,
                                 "src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of state 0x5 "
                                 "is not splittable. At byte 8."},
                           SCase{"<root>\n<abc def='ghi' jkl='m", 22,
                                 "src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of state 0x9 "
                                 "is not splittable. At byte 22."},
                           SCase{"<a b='c'", 8,
                                 "src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of state 0x8 "
                                 "is not splittable. At byte 8."}})
        for (u64 size : {u64{1}, u64{5}, u64{16}, u64{1000}}) {
            CXMLRecorder recorder;
            try {
                Read(recorder.stream, c.text, size);
                ADD_FAILURE() << c.text;
            }
            catch (CException const& exception) {
                EXPECT_EQ(Bytes(exception.GetText()), c.message);
                EXPECT_EQ(exception.GetKind(), 0);
                CXMLException const* const error = dynamic_cast<CXMLException const*>(&exception);
                ASSERT_NE(error, nullptr);
                EXPECT_EQ(error->GetByteOffset(), c.offset);
                CException* const copy = error->Clone();
                EXPECT_EQ(dynamic_cast<CXMLException*>(copy)->GetByteOffset(), c.offset);
                Memory::Delete(copy);
            }
        }
}

TEST(XMLRead, BeginsANewDocumentAndGivesItsMemoryBack)
{
    CXMLRecorder recorder;
    EXPECT_THROW(Read(recorder.stream, "<a b>", 10), CXMLException);
    Memory::SStatistics before;
    Memory::SStatistics after;
    ASSERT_TRUE(Memory::GetStatistics(before));
    recorder.stream.OnText = [](CString const*) { throw 5; };
    EXPECT_THROW(Read(recorder.stream, "<a b='c'></a>", 1), int);
    recorder.stream.OnText = nullptr;
    EXPECT_TRUE(Read(recorder.stream, "<a b='c'></a>", 1).complete);
    ASSERT_TRUE(Memory::GetStatistics(after));
    EXPECT_EQ(after.liveCount, before.liveCount);
    EXPECT_EQ(after.bytesInUse, before.bytesInUse);
}

namespace {

/// A file that begins and ends in some way and holds one byte over and over between. Counts what a reader that consumes
/// nothing looks at: all that came so far, again after every call.
class CMonotonousFile : public CProducedFile {
public:
    CMonotonousFile(std::string_view begin, char filler, std::string_view end, u64 size)
        : CProducedFile(size), m_begin(begin), m_end(end), m_filler(filler)
    {
    }
    u64 Read(void* buffer, u64 size) override
    {
        u64 const count = CProducedFile::Read(buffer, size);
        m_lookedAt += GetPosition();
        ++m_callCount;
        return count;
    }

    [[nodiscard]] u64 GetCallCount() const { return m_callCount; }
    [[nodiscard]] u64 GetLookedAt() const { return m_lookedAt; }

protected:
    void Produce(char* bytes, u64 position, u64 count) override
    {
        std::memset(bytes, m_filler, count);
        for (u64 i = 0; i < count && position + i < m_begin.size(); ++i)
            bytes[i] = m_begin[position + i];
        u64 const endBegin = GetSizeByte() - m_end.size();
        for (u64 i = std::max(position, endBegin); i < position + count; ++i)
            bytes[i - position] = m_end[i - endBegin];
    }

private:
    std::string_view m_begin;
    std::string_view m_end;
    char m_filler;
    u64 m_callCount = 0;
    u64 m_lookedAt = 0;
};

constexpr u64 MiB = u64{1} << 20;

} // namespace

// A token that never ends must not be looked at again with every buffer: the buffer doubles, so the passes are few, and
// what they look at is less than four times what there is.
TEST(XMLRead, ATokenThatNeverEndsIsLookedAtAFewTimes)
{
    struct SCase {
        char const* begin;
        char filler;
        u64 offset; // of the token
        char state;
        u64 size;
    };
    for (SCase const& c :
         {SCase{"<", 'a', 1, '5', 64 * MiB}, SCase{"</", 'a', 2, '6', 4 * MiB}, SCase{"</a ", ' ', 4, '7', 4 * MiB},
          SCase{"<a ", '1', 3, '8', 4 * MiB}, SCase{"<a ", 'b', 3, '9', 4 * MiB}, SCase{"<a b=", ' ', 3, '9', 4 * MiB},
          SCase{"<a b='", 'v', 3, '9', 64 * MiB}, SCase{"<a b='", '&', 3, '9', 4 * MiB},
          SCase{"<!", 'd', 2, '1', 4 * MiB}}) {
        CXMLStream stream;
        u64 textBytes = 0;
        stream.OnText = [&textBytes](CString const* text) {
            textBytes += text != nullptr ? std::strlen(static_cast<char const*>(text->GetData())) : 0;
        };
        auto const file = MakeResource<CMonotonousFile>(c.begin, c.filler, "", c.size);
        try {
            ReadXML(*file, stream);
            ADD_FAILURE() << c.begin;
        }
        catch (CXMLException const& error) {
            EXPECT_EQ(error.GetByteOffset(), c.offset) << c.begin;
            EXPECT_NE(Bytes(error.GetText()).find(std::string("state 0x") + c.state), std::string::npos)
                << Bytes(error.GetText());
        }
        EXPECT_LE(file->GetCallCount(), 14u) << c.begin; // 64 KiB doubled ten times, the end, what was in front
        EXPECT_LT(file->GetLookedAt(), 4 * c.size) << c.begin;
        EXPECT_EQ(textBytes, 0u);
    }
}

TEST(XMLRead, ATokenThatEndsLateIsLookedAtAFewTimes)
{
    struct SCase {
        char const* begin;
        char filler;
        char const* end;
        SCounts counts;
        u64 size;
    };
    for (SCase const& c :
         {SCase{"<", 'a', ">", {1, 0, 0}, 4 * MiB}, SCase{"</", 'a', ">", {0, 1, 0}, 4 * MiB},
          SCase{"<a b='", 'v', "'>", {1, 0, 1}, 64 * MiB}, SCase{"<a ", 'b', "='v'>", {1, 0, 1}, 4 * MiB}}) {
        SCounts counts;
        CXMLStream stream;
        Count(stream, counts);
        auto const file = MakeResource<CMonotonousFile>(c.begin, c.filler, c.end, c.size);
        SXMLReadStatistics const statistics = ReadXML(*file, stream);
        EXPECT_EQ(counts, c.counts) << c.begin;
        EXPECT_TRUE(statistics.complete) << c.begin;
        EXPECT_EQ(statistics.byteCount, c.size);
        EXPECT_LE(statistics.callCount, 14u) << c.begin;
        EXPECT_LT(statistics.passedByteCount, 4 * c.size) << c.begin;
        EXPECT_EQ(statistics.bufferSize, c.size) << c.begin;
    }
}

// What may come in pieces needs no larger buffer, and is looked at once.
TEST(XMLRead, ATextOf64MiBThatNeverEndsComesInPieces)
{
    struct SCase {
        char const* begin;
        char filler;
        bool isReported;
    };
    for (SCase const& c :
         {SCase{"", 't', true}, SCase{"", '\xFF', true}, SCase{"<![CDATA[", ']', true}, SCase{"<![CDATA[", '<', true},
          SCase{"<!--", '-', true}, SCase{"<?", '?', true}, SCase{"&", 'n', false}}) {
        u64 const size = 64 * MiB;
        CXMLStream stream;
        u64 bytes = 0;
        auto const add = [&bytes](CString const& text) {
            bytes += std::strlen(static_cast<char const*>(text.GetData()));
        };
        stream.OnText = [&](CString const* text) {
            if (text != nullptr)
                add(*text);
        };
        stream.OnComment = add;
        stream.OnProcessingInstruction = add;
        auto const file = MakeResource<CMonotonousFile>(c.begin, c.filler, "", size);
        SXMLReadStatistics const statistics = ReadXML(*file, stream);
        EXPECT_EQ(statistics.bufferSize, 65536u) << c.begin;
        EXPECT_LE(statistics.callCount, size / 65536 + 3) << c.begin;
        EXPECT_LT(statistics.passedByteCount, size + size / 100) << c.begin;
        u64 const reported = size - std::strlen(c.begin) - statistics.leftover;
        EXPECT_EQ(bytes, c.isReported ? reported : 0u) << c.begin;
        EXPECT_LE(statistics.leftover, 4u) << c.begin;
    }
}

TEST(XMLRead, WhatIsPassedStaysBelowFourTimesTheFile)
{
    // Tokens that just do not fit, behind small ones: what the buffer could not take is presented again.
    for (u64 bufferSize : {u64{1}, u64{8}, u64{64}, u64{100}})
        for (u64 tokenSize = 1; tokenSize < 300; ++tokenSize) {
            std::string document;
            while (document.size() < 3000)
                document += "<a>t<" + std::string(tokenSize, 'n') + ">";
            CXMLStream stream;
            u64 elements = 0;
            stream.OnElementBegin = [&](CString const&) { ++elements; };
            SXMLReadStatistics const statistics = Read(stream, document, bufferSize);
            EXPECT_EQ(elements, document.size() / (tokenSize + 6) * 2);
            EXPECT_GE(statistics.passedByteCount, document.size());
            EXPECT_LT(statistics.passedByteCount, 4 * document.size()) << bufferSize << ", " << tokenSize;
        }
}

// Streams share nothing: what one remembers of a reference that was cut off does not show in another.
TEST(XMLRead, StreamsDoNotDisturbEachOther)
{
    std::string inner;
    CXMLStream other;
    other.OnText = [&](CString const* text) { inner += text != nullptr ? Bytes(*text) : "-"; };
    std::string outer;
    CXMLStream stream;
    stream.OnText = [&](CString const* text) {
        Read(other, "[&lt;&#65;&unknown;&amp;]<b>", 64); // a document of its own, in the midst of a token
        outer += text != nullptr ? Bytes(*text) : "-";
    };
    char first[] = "1&abcdefghijklmnopqrst";
    EXPECT_EQ(stream.ProcessData(first, sizeof first - 1), sizeof first - 1);
    char second[] = "uvw;2&gt;<a>";
    EXPECT_EQ(stream.ProcessData(second, sizeof second - 1), sizeof second - 1);
    EXPECT_EQ(outer, "12>");
    EXPECT_EQ(inner, "[<A&][<A&]");
}

// Each shape costs no more per byte than ordinary text: these would take minutes if anything were looked at twice per
// token.
TEST(XMLRead, HostileTextEnds)
{
    constexpr u64 Size = 4 << 20;
    CXMLStream stream;
    u64 calls = 0;
    stream.OnText = [&](CString const*) { ++calls; };
    stream.OnComment = [&](CString const&) { ++calls; };
    stream.OnElementBegin = [&](CString const&) { ++calls; };
    for (char (*byteAt)(u64) : std::initializer_list<char (*)(u64)>{
             [](u64) { return '\0'; }, [](u64) { return '<'; }, [](u64) { return '&'; }, [](u64) { return '\xFF'; },
             [](u64) { return '\xC3'; }, [](u64) { return '\x80'; }, [](u64 i) { return "<\xFF"[i % 2]; },
             [](u64 i) { return "&a"[i % 2]; }, [](u64 i) { return "&#x10FFFF;"[i % 10]; },
             [](u64 i) { return "\xF0<"[i % 2]; }, [](u64 i) { return i < 4 ? "<!--"[i] : '-'; },
             [](u64 i) { return i < 9 ? "<![CDATA["[i] : ']'; }, [](u64 i) { return i < 2 ? "<?"[i] : '?'; },
             [](u64 i) { return "<a>"[i % 3]; }, [](u64 i) { return i == 0 ? '&' : 'n'; },
             [](u64 i) { return "\xE0\x80\xBC"[i % 3]; }}) {
        auto const file = MakeResource<CGeneratedFile>(Size, Size, byteAt);
        SXMLReadStatistics const statistics = ReadXML(*file, stream, 4096);
        EXPECT_EQ(statistics.byteCount, Size);
        EXPECT_EQ(statistics.bufferSize, 4096u);
        EXPECT_LE(statistics.callCount, Size / 4096 * 2 + 2);
    }
    auto const declaration = MakeResource<CGeneratedFile>(Size, Size, [](u64 i) { return i < 2 ? "<!"[i] : '['; });
    EXPECT_THROW(ReadXML(*declaration, stream, 4096), CXMLException);
}

TEST(XMLRead, TheBufferIsAllThatIsAllocated)
{
    std::string document = "<list>\n";
    while (document.size() < 300'000)
        document += "<item key='1&amp;2'>some text &#65;<!-- and more --></item>\n<empty/>\n";
    document += "</list>\n";
    CByteStreamFile file("a.xml", static_cast<void const*>(document.data()), document.size());
    SCounts counts;
    CXMLStream stream;
    Count(stream, counts);
    stream.OnText = [](CString const*) {};
    Memory::SStatistics before{};
    Memory::SStatistics after{};
    ASSERT_TRUE(Memory::GetStatistics(before));
    SXMLReadStatistics const statistics = ReadXML(file, stream, 4096);
    ASSERT_TRUE(Memory::GetStatistics(after));
    EXPECT_EQ(statistics.bufferSize, 4096u);
    EXPECT_GT(counts.elements, 8000u);
    EXPECT_EQ(after.allocationCount, before.allocationCount + 1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(after.pools[i].allocationCount, before.pools[i].allocationCount);
    EXPECT_EQ(after.liveCount, before.liveCount);
}

// Other encodings are read as if they were UTF-8: a zero byte between two characters keeps a tag from being one.
TEST(XMLRead, OtherEncodingsAreTextWithoutTags)
{
    using namespace std::string_view_literals;
    for (std::string_view const text : {"\xFF\xFE<\0a\0 \0b\0=\0'\0"
                                        "1\0'\0/\0>\0\n\0"sv,
                                        "\xFE\xFF\0<\0a\0>\0t\0<\0/\0a\0>"sv, "\xFF\xFE\0\0<\0\0\0a\0\0\0>\0\0\0"sv})
        for (u64 bufferSize : {u64{1}, u64{7}, u64{1000}}) {
            SCounts counts;
            CXMLStream stream;
            Count(stream, counts);
            u64 texts = 0;
            stream.OnText = [&texts](CString const* part) { texts += part != nullptr ? 1 : 0; };
            SXMLReadStatistics const statistics = Read(stream, text, bufferSize);
            EXPECT_EQ(counts, SCounts());
            EXPECT_GT(texts, 0u);
            EXPECT_EQ(statistics.byteCount, text.size());
        }
    // In Latin 1 a letter beyond ASCII takes the two bytes behind it along, the ">" of its tag among them.
    CXMLRecorder recorder;
    Read(recorder.stream, "<caf\xE9>x<b>y</b>", 1000);
    EXPECT_THAT(ToLines(recorder.events), ElementsAre("text none", "begin caf\xE9>x<b", "text y", "end b"));
}

// A document type that would grow without end elsewhere: nothing is looked up, so nothing grows.
TEST(XMLRead, EntitiesOfEntitiesVanish)
{
    std::string document = "<!DOCTYPE a [\n<!ENTITY e0 \"lol\">\n";
    for (char digit = '1'; digit <= '9'; ++digit) {
        document += std::string("<!ENTITY e") + digit + " \"";
        for (int i = 0; i < 10; ++i)
            document += std::string("&e") + static_cast<char>(digit - 1) + ';';
        document += "\">\n";
    }
    document += "]>\n<a>[&e9;&e9;]</a>\n";
    CXMLRecorder recorder;
    SXMLReadStatistics const statistics = Read(recorder.stream, document, 64);
    EXPECT_TRUE(statistics.complete);
    std::vector<std::string> const lines = ToLines(recorder.events);
    ASSERT_GE(lines.size(), 3u);
    std::vector<std::string> const end(lines.end() - 4, lines.end());
    EXPECT_THAT(end, ElementsAre("begin a", "text []", "end a", "text \n"));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](std::string const& line) { return line.starts_with("declaration"); }),
              10); // the document type ends with its first declaration
}

namespace {

/// A file in memory whose read calls are given to `onRead` first: it may throw, or lower the count.
class CFaultyFile : public CByteStreamFile {
public:
    CFaultyFile(std::string_view text, std::function<u64(u64 call, u64 size)> onRead)
        : CByteStreamFile("faulty.xml", static_cast<void const*>(text.data()), text.size()), m_onRead(std::move(onRead))
    {
    }
    u64 Read(void* buffer, u64 size) override { return CByteStreamFile::Read(buffer, m_onRead(m_call++, size)); }
    [[nodiscard]] u64 GetCallCount() const { return m_call; }

private:
    std::function<u64(u64 call, u64 size)> m_onRead;
    u64 m_call = 0;
};

} // namespace

TEST(XMLRead, AReadMayFailAtAnyCall)
{
    constexpr u64 BufferSize = 16;
    Memory::SStatistics before{};
    CXMLRecorder whole;
    auto const counted = MakeResource<CFaultyFile>(Document, [](u64, u64 size) { return size; });
    ReadXML(*counted, whole.stream, BufferSize);
    ASSERT_GT(counted->GetCallCount(), 8u);
    for (u64 failing = 0; failing < counted->GetCallCount(); ++failing) {
        CXMLRecorder recorder;
        auto const file = MakeResource<CFaultyFile>(Document, [failing](u64 call, u64 size) {
            if (call == failing)
                throw CFileException("gone", EFileError::Corrupt);
            return size;
        });
        try {
            ReadXML(*file, recorder.stream, BufferSize);
            ADD_FAILURE() << "read " << failing << " did not fail";
        }
        catch (CFileException const& error) {
            EXPECT_EQ(Bytes(error.GetText()), "gone");
            EXPECT_EQ(error.GetFileError(), EFileError::Corrupt);
        }
        EXPECT_EQ(file->GetCallCount(), failing + 1);
        // What came before the failure was reported; the stream serves again.
        std::vector<std::string> const lines = ToLines(recorder.events);
        std::vector<std::string> const expected = ToLines(whole.events);
        ASSERT_LE(lines.size(), expected.size());
        EXPECT_TRUE(std::equal(lines.begin(), lines.end(), expected.begin()));
        recorder.events.clear();
        Read(recorder.stream, Document, BufferSize);
        EXPECT_EQ(ToLines(recorder.events), expected);
        if (failing == 0)
            Memory::GetStatistics(before); // the pools have grown to what they need
    }
    Memory::SStatistics after{};
    Memory::GetStatistics(after);
    EXPECT_EQ(after.liveCount, before.liveCount);
}

TEST(XMLRead, AReadMayBeShortAtAnyCall)
{
    CXMLRecorder whole;
    Read(whole.stream, Document, 64);
    std::vector<std::string> const expected = Join(whole.events);
    for (u64 shortCall = 0; shortCall < 12; ++shortCall) {
        CXMLRecorder recorder;
        auto const file = MakeResource<CFaultyFile>(
            Document, [shortCall](u64 call, u64 size) { return call == shortCall ? std::min<u64>(size, 1) : size; });
        SXMLReadStatistics const statistics = ReadXML(*file, recorder.stream, 64);
        EXPECT_EQ(statistics.byteCount, std::string_view(Document).size());
        EXPECT_TRUE(statistics.complete);
        EXPECT_EQ(Join(recorder.events), expected) << shortCall;
    }
}
