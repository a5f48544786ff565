// Paths that systems treat each in its own way, and trees that are deeper than descriptors last.
#include "TestHeap.h"
#include "Texts.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CTemporaryFolder;
using TestSupport::FileErrorOf;
using TestSupport::HasDrives;
using TestSupport::ReadAll;
using TestSupport::ReadText;
using TestSupport::WriteText;
using VlmTest::Bytes;

namespace fs = std::filesystem;

namespace {

using Names = std::multiset<std::string>;

class ArchiveNames : public ::testing::Test {
protected:
    [[nodiscard]] fs::path const& Root() const { return folder.Path(); }

    // Files and folders.
    [[nodiscard]] Names List(CString const& path) const
    {
        auto const listing = TestSupport::ListArchive<Names>(archive, path);
        Names names = listing.files;
        for (std::string const& name : listing.folders)
            names.insert(name + "\\");
        return names;
    }

    void Write(CString const& path, std::string const& content)
    {
        archive.OpenFile(path, EFileOpen::Write | EFileOpen::CreateAlways)->Write(content.data(), content.size());
    }

    CTemporaryFolder folder;
    std::u16string rootText = folder.Text();
    CFolderArchive archive{CString(rootText)};
};

using DeepTrees = ArchiveNames;

} // namespace

TEST_F(ArchiveNames, SeparatorsMix)
{
    for (char const* const path : {"a", "a/b", "a\\b/c", "/a\\b\\/d"})
        archive.CreateFolder(path);
    Write("a/b\\c/file", "1");
    for (char const* const path :
         {"a\\b\\c\\file", "a/b/c/file", "a\\b/c\\file", "\\a/b//c\\\\file", "./a/.\\b/../b/c/file"}) {
        EXPECT_TRUE(archive.Contains(path)) << path;
        EXPECT_EQ(ReadAll(*archive.OpenFile(path, EFileOpen::Read)), "1") << path;
    }
    EXPECT_EQ(List("a/b\\"), (Names{"c\\", "d\\"}));
    EXPECT_EQ(List("a\\b/c/"), (Names{"file"}));
    EXPECT_FALSE(archive.Contains("a/b/c/file/"));
    archive.RemoveFile("/a\\b/c\\file");
    archive.RemoveFolder("a\\b//c/");
    EXPECT_EQ(List("a/b"), (Names{"d\\"}));
    archive.RemoveFolder("./a\\");
    EXPECT_EQ(List(""), Names{});
}

TEST_F(ArchiveNames, TrailingDotsAndBlanks)
{
    Write("file.txt", "1");
    archive.CreateFolder("sub");
    if (HasDrives()) {
        // They are no part of a name.
        for (char const* const path : {"file.txt.", "file.txt ", "file.txt...", "file.txt. ."}) {
            EXPECT_TRUE(archive.Contains(path)) << path;
            EXPECT_EQ(ReadAll(*archive.OpenFile(path, EFileOpen::Read)), "1") << path;
        }
        EXPECT_EQ(FileErrorOf([&] { archive.CreateFolder("sub. "); }), EFileError::Denied);
        Write("new . .", "2");
        EXPECT_EQ(List(""), (Names{"file.txt", "new", "sub\\"}));
        archive.RemoveFile("file.txt..");
        archive.RemoveFolder("sub.");
        EXPECT_EQ(List(""), (Names{"new"}));
        return;
    }
    // They are like any other character.
    EXPECT_FALSE(archive.Contains("file.txt."));
    EXPECT_EQ(FileErrorOf([&] { (void)archive.OpenFile("file.txt ", EFileOpen::Read); }), EFileError::NotFound);
    archive.CreateFolder("sub. ");
    Write("file.txt.", "2");
    Write("sub. \\ . .", "3");
    EXPECT_EQ(List(""), (Names{"file.txt", "file.txt.", "sub\\", "sub. \\"}));
    EXPECT_EQ(ReadText(Root() / "file.txt"), "1");
    archive.RemoveFile("file.txt.");
    archive.RemoveFolder("sub. ");
    EXPECT_EQ(List(""), (Names{"file.txt", "sub\\"}));
}

TEST_F(ArchiveNames, NamesOfDevices)
{
    // Where they name devices nothing comes into being; elsewhere they are names like others.
    EFileOpen::Type const create = EFileOpen::Write | EFileOpen::CreateAlways;
    for (char const* const name : {"NUL", "nul"}) {
        TResourcePtr<IFile> const file = archive.OpenFile(name, create);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->Write("swallowed", 9), 9u);
    }
    if (HasDrives()) {
        EXPECT_EQ(List(""), Names{});
        EXPECT_THROW(archive.RemoveFolder("NUL"), CFileException);
        EXPECT_THROW(archive.RemoveFile("NUL"), CFileException);
        // A serial port that is not there, by name and with an extension.
        EXPECT_THROW((void)archive.OpenFile("COM9", EFileOpen::Read), CFileException);
        EXPECT_THROW((void)archive.OpenFile("COM9.txt", EFileOpen::Read), CFileException);
        EXPECT_EQ(List(""), Names{});
        return;
    }
    EXPECT_EQ(List(""), (Names{"NUL", "nul"}));
    EXPECT_EQ(ReadText(Root() / "NUL"), "swallowed");
    archive.CreateFolder("CON");
    Write("CON/aux.txt", "1");
    archive.RemoveFolder("CON");
    EXPECT_EQ(FileErrorOf([&] { (void)archive.OpenFile("COM9", EFileOpen::Read); }), EFileError::NotFound);
    archive.RemoveFile("nul");
    EXPECT_EQ(List(""), (Names{"NUL"}));
}

TEST_F(ArchiveNames, NamesThatLookLikePathsOfOtherKinds)
{
    // A colon, a tilde and dots inside the path are characters of names, where the system allows them at all.
    archive.CreateFolder("...x");
    Write("...x\\~", "1");
    EXPECT_EQ(List("...x"), (Names{"~"}));
    EXPECT_EQ(ReadAll(*archive.OpenFile("...x/~", EFileOpen::Read)), "1");
    // Resource paths belong to the archive of resources.
    EXPECT_FALSE(archive.Contains(":RCDATA/101"));
    EXPECT_THROW((void)archive.OpenFile(":RCDATA/101", EFileOpen::Read), CFileException);
}

TEST_F(ArchiveNames, ATildeInFrontOfTheRootIsTheDocumentsFolder)
{
    std::u16string const documents = TestSupport::UseDocumentsFolder(Root());
    CFolderArchive home("~");
    EXPECT_EQ(VlmTest::Units(home.GetName()), documents);
    CFolderArchive below("~\\vlmcore-test-archive");
    EXPECT_EQ(VlmTest::Units(below.GetName()), documents + u"\\vlmcore-test-archive");
    home.CreateFolder("vlmcore-test-archive");
    below.OpenFile("~", EFileOpen::Write | EFileOpen::CreateAlways)->Write("1", 1); // only in front
    EXPECT_TRUE(home.Contains("vlmcore-test-archive\\~"));
    EXPECT_TRUE(below.Contains("~"));
    below.RemoveFolder("");
    EXPECT_FALSE(home.Contains("vlmcore-test-archive"));
}

TEST_F(ArchiveNames, RemovingALinkToAFileLeavesTheFile)
{
    WriteText(Root() / "precious", "kept");
    if (!TestSupport::MakeLink(Root() / "precious", Root() / "link"))
        GTEST_SKIP() << "no links here";
    EXPECT_EQ(List(""), (Names{"link", "precious"}));
    EXPECT_EQ(ReadAll(*archive.OpenFile("link", EFileOpen::Read)), "kept");
    if (!TestSupport::LinksAreNative())
        GTEST_SKIP() << "links that the system itself does not see";
    archive.RemoveFile("link");
    EXPECT_EQ(List(""), (Names{"precious"}));
    EXPECT_EQ(ReadText(Root() / "precious"), "kept");
}

// ---- deep trees ----

// One descriptor a level, and no more, is what a walk may hold: processes have a thousand as a rule.
TEST_F(DeepTrees, AreRemovedWhole)
{
    int const levels = HasDrives() ? 100 : 600; // every step walks the whole path on a system that is emulated
    std::u16string path = u"t";
    archive.CreateFolder(path);
    for (int level = 1; level < levels; ++level) {
        path += u"\\d";
        archive.CreateFolder(path);
    }
    std::u16string const file = path + u"\\file";
    Write(file, "bottom");
    EXPECT_EQ(List(path), (Names{"file"}));
    EXPECT_EQ(ReadAll(*archive.OpenFile(file, EFileOpen::Read)), "bottom");
    unsigned const before = TestSupport::OpenHandleCount();
    archive.RemoveFolder("t");
    EXPECT_FALSE(archive.Contains("t"));
    EXPECT_EQ(List(""), Names{});
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}

namespace {

// Asks what is in the folder before every removal in it.
class CLookingArchive : public CFolderArchive {
public:
    using CFolderArchive::CFolderArchive;
    void RemoveFile(CString const& path) override
    {
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        List("t", files, folders);
        counts.push_back(files.GetCount());
        CFolderArchive::RemoveFile(path);
    }
    std::vector<u64> counts;
};

} // namespace

TEST_F(ArchiveNames, AFolderMayBeListedAgainWhileItIsRemoved)
{
    archive.CreateFolder("t");
    for (char const* const name : {"t/1", "t/2", "t/3"})
        Write(name, "");
    CLookingArchive looking{CString(rootText)};
    looking.RemoveFolder("t");
    EXPECT_EQ(looking.counts, (std::vector<u64>{3, 2, 1}));
    EXPECT_FALSE(archive.Contains("t"));
}

namespace {

// Swaps the folder t/a for a link that leads outside, before or after its removal has begun.
class CSwappingArchive : public CFolderArchive {
public:
    CSwappingArchive(CString const& root, fs::path rootPath, fs::path outside, std::string swapBefore)
        : CFolderArchive(root), m_rootPath(std::move(rootPath)), m_outside(std::move(outside)),
          m_swapBefore(std::move(swapBefore))
    {
    }
    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override
    {
        Swap("list " + Bytes(path));
        CFolderArchive::List(path, files, folders);
    }
    void RemoveFolder(CString const& path) override
    {
        Swap("folder " + Bytes(path));
        CFolderArchive::RemoveFolder(path);
    }
    void RemoveFile(CString const& path) override
    {
        Swap("file " + Bytes(path));
        CFolderArchive::RemoveFile(path);
    }
    mutable bool isSwapped = false;

private:
    void Swap(std::string const& call) const
    {
        if (call != m_swapBefore)
            return;
        std::error_code refused;
        fs::rename(m_rootPath / "t" / "a", m_rootPath / "moved", refused);
        isSwapped = !refused && TestSupport::MakeLink(m_outside, m_rootPath / "t" / "a");
    }
    fs::path m_rootPath;
    fs::path m_outside;
    std::string m_swapBefore;
};

} // namespace

// Whenever it happens, what the link leads to stays.
TEST_F(ArchiveNames, AFolderThatIsSwappedForALinkDoesNotLeadTheRemovalAstray)
{
    for (char const* const moment : {"folder t", "list t", "folder t/a", "list t/a", "folder t/a/b", "list t/a/b",
                                     "file t/a/b/precious", "file t/a/precious"}) {
        CTemporaryFolder outside;
        fs::create_directories(outside.Path() / "b");
        WriteText(outside.Path() / "precious", "kept");
        WriteText(outside.Path() / "b" / "precious", "kept");
        fs::create_directories(Root() / "t" / "a" / "b");
        WriteText(Root() / "t" / "a" / "precious", "goes");
        WriteText(Root() / "t" / "a" / "b" / "precious", "goes");
        CSwappingArchive swapping(CString(rootText), Root(), outside.Path(), moment);
        try {
            swapping.RemoveFolder("t");
        }
        catch (CFileException const&) {
            // where links are foreign to the system, the link itself is what it cannot remove
        }
        if (!HasDrives()) // elsewhere an open folder keeps its name
            EXPECT_TRUE(swapping.isSwapped) << moment;
        EXPECT_EQ(ReadText(outside.Path() / "precious"), "kept") << moment;
        EXPECT_EQ(ReadText(outside.Path() / "b" / "precious"), "kept") << moment;
        if (!swapping.isSwapped || TestSupport::LinksAreNative())
            EXPECT_FALSE(archive.Contains("t")) << moment;
        TestSupport::RemoveTree(Root() / "t");
        TestSupport::RemoveTree(Root() / "moved");
    }
}
