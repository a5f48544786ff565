// Files that go on behind 4 GiB: sparse ones, whose holes take no room, read around that line.
#include "TestHeap.h"
#include "Texts.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>
#include <vlmcore/xml_stream.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CTemporaryFolder;
using VlmTest::Bytes;

namespace fs = std::filesystem;

namespace {

constexpr u64 FourGiB = u64{1} << 32;
constexpr u64 Document = FourGiB + 1000; // where the XML lies
constexpr char DocumentText[] = "<list><item key='1'/> <item key='2'>text</item></list>\n";
constexpr u64 DocumentSize = sizeof DocumentText - 1;
constexpr u64 Size = Document + DocumentSize;

// Written by the library, at these offsets and nowhere else.
struct SMark {
    u64 offset;
    std::string text;
};

SMark const Marks[] = {
    {0, "the very begin"},     {(u64{1} << 31) - 3, "across 2 GiB"},
    {FourGiB - 20, "before"},  {FourGiB - 5, "across the line"},
    {FourGiB + 100, "behind"}, {Document, DocumentText},
};

class LargeFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::error_code ignored;
        if (fs::space(folder.Path(), ignored).available < (u64{64} << 20) || !TestSupport::MakeSparse(path))
            GTEST_SKIP() << "no room, or no sparse files here";
        std::u16string const text = folder.Text(u"large");
        CNativeFile file(text, EFileOpen::Write | EFileOpen::OpenAlways);
        for (SMark const& mark : Marks) {
            ASSERT_EQ(file.Seek(ESeek::Begin, static_cast<i64>(mark.offset)), mark.offset);
            ASSERT_EQ(file.Write(mark.text.data(), mark.text.size()), mark.text.size());
            ASSERT_EQ(file.GetPosition(), mark.offset + mark.text.size());
        }
        ASSERT_EQ(file.GetSizeByte(), Size);
    }

    [[nodiscard]] TResourcePtr<IFile> Open() const
    {
        std::u16string const root = folder.Text();
        return CFolderArchive{CString(root)}.OpenFile("large", EFileOpen::Read);
    }

    static std::string ReadAt(IFile& file, u64 offset, u64 size)
    {
        EXPECT_EQ(file.Seek(ESeek::Begin, static_cast<i64>(offset)), offset);
        std::string text(static_cast<std::size_t>(size), '?');
        text.resize(static_cast<std::size_t>(file.Read(text.data(), size)));
        return text;
    }

    CTemporaryFolder folder;
    fs::path path = folder.Path() / "large";
};

} // namespace

TEST_F(LargeFile, IsWhereTheStandardLibraryFindsIt)
{
    EXPECT_EQ(fs::file_size(path), Size);
    std::ifstream file(path, std::ios::binary);
    for (SMark const& mark : Marks) {
        std::string text(mark.text.size(), '?');
        file.seekg(static_cast<std::streamoff>(mark.offset));
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        EXPECT_EQ(text, mark.text) << mark.offset;
    }
}

TEST_F(LargeFile, ReadsAroundTheLine)
{
    TResourcePtr<IFile> const file = Open();
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetSizeByte(), Size);
    for (SMark const& mark : Marks)
        EXPECT_EQ(ReadAt(*file, mark.offset, mark.text.size()), mark.text) << mark.offset;
    std::string const expected = "before" + std::string(9, '\0') + "across the line" + std::string(90, '\0') + "behind";
    EXPECT_EQ(ReadAt(*file, FourGiB - 20, expected.size()), expected);
    EXPECT_EQ(file->GetPosition(), FourGiB - 20 + expected.size());
    // A cut to 32 bits would read these at the begin of the file.
    EXPECT_EQ(ReadAt(*file, FourGiB, 10), "s the line");
    EXPECT_EQ(ReadAt(*file, 0, 3), "the");
}

TEST_F(LargeFile, SeeksFromEveryOrigin)
{
    TResourcePtr<IFile> const file = Open();
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Seek(ESeek::Begin, static_cast<i64>(FourGiB + 100)), FourGiB + 100);
    EXPECT_EQ(file->GetPosition(), FourGiB + 100);
    EXPECT_EQ(file->Seek(ESeek::Current, -105), FourGiB - 5);
    EXPECT_EQ(file->Seek(ESeek::Current, -static_cast<i64>(FourGiB - 5)), 0u);
    EXPECT_EQ(file->Seek(ESeek::Current, static_cast<i64>(Size)), Size);
    EXPECT_TRUE(file->ReachedEOF());
    EXPECT_EQ(file->Seek(ESeek::End, -static_cast<i64>(Size)), 0u);
    EXPECT_FALSE(file->ReachedEOF());
    EXPECT_EQ(file->Seek(ESeek::End, -static_cast<i64>(DocumentSize)), Document);
    char begin[6] = {};
    EXPECT_EQ(file->Read(begin, 5), 5u);
    EXPECT_STREQ(begin, "<list");
    EXPECT_EQ(file->Seek(ESeek::End, static_cast<i64>(3 * FourGiB)), Size + 3 * FourGiB);
    EXPECT_EQ(file->Read(begin, 1), 0u);
    EXPECT_EQ(file->GetSizeByte(), Size);
    // The low words of position and size agree, the positions do not.
    EXPECT_EQ(file->Seek(ESeek::Begin, static_cast<i64>(Size - FourGiB)), Size - FourGiB);
    EXPECT_FALSE(file->ReachedEOF());
}

TEST_F(LargeFile, ReadingStopsAtTheEnd)
{
    TResourcePtr<IFile> const file = Open();
    ASSERT_TRUE(file);
    EXPECT_EQ(ReadAt(*file, Size - 8, 100), "</list>\n");
    EXPECT_TRUE(file->ReachedEOF());
    EXPECT_EQ(file->GetPosition(), Size);
}

TEST_F(LargeFile, GrowsByWhatIsWrittenBehindTheLine)
{
    std::u16string const text = folder.Text(u"large");
    CNativeFile file(text, EFileOpen::Read | EFileOpen::Write);
    EXPECT_EQ(file.Seek(ESeek::End, 0), Size);
    EXPECT_EQ(file.Write("more", 4), 4u);
    EXPECT_EQ(file.GetSizeByte(), Size + 4);
    EXPECT_EQ(ReadAt(file, FourGiB - 5, 15), "across the line");
    EXPECT_EQ(file.Seek(ESeek::Begin, static_cast<i64>(FourGiB - 5)), FourGiB - 5);
    EXPECT_EQ(file.Write("ACROSS THE LINE", 15), 15u);
    EXPECT_EQ(ReadAt(file, FourGiB - 5, 15), "ACROSS THE LINE");
    EXPECT_EQ(ReadAt(file, 0, 14), "the very begin");
    EXPECT_EQ(fs::file_size(path), Size + 4);
}

TEST_F(LargeFile, XMLIsReadBehindTheLine)
{
    TResourcePtr<IFile> const file = Open();
    ASSERT_TRUE(file);
    file->Seek(ESeek::Begin, static_cast<i64>(Document));
    CXMLStream stream;
    std::string names;
    stream.OnElementBegin = [&](CString name) { names += Bytes(name) + ' '; };
    SXMLReadStatistics const statistics = ReadXML(*file, stream, 16);
    EXPECT_EQ(names, "list item item ");
    EXPECT_EQ(statistics.byteCount, DocumentSize);
    EXPECT_TRUE(statistics.complete);
    EXPECT_EQ(file->GetPosition(), Size);
}
