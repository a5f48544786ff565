// Folder archives and collections on real trees.
#include "TestHeap.h"
#include "Texts.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CCurrentFolder;
using TestSupport::CTemporaryFolder;
using TestSupport::FileErrorOf;
using TestSupport::ReadAll;
using TestSupport::ReadText;
using TestSupport::WriteText;
using VlmTest::Bytes;
using VlmTest::Units;

namespace fs = std::filesystem;

namespace {

using Names = std::multiset<std::string>;

using SListing = TestSupport::TListing<Names>;

SListing List(IArchive const& archive, CString const& path)
{
    return TestSupport::ListArchive<Names>(archive, path);
}

// An archive on a fresh folder.
class FolderArchive : public ::testing::Test {
protected:
    [[nodiscard]] fs::path const& Root() const { return folder.Path(); }

    CTemporaryFolder folder;
    std::u16string rootText = folder.Text();
    CFolderArchive archive{CString(rootText)};
};

class Collection : public FolderArchive {};

} // namespace

// ---- names and roots ----

TEST_F(FolderArchive, KnowsItsFullName)
{
    EXPECT_EQ(Units(archive.GetName()), rootText);
    std::u16string const roundabout = rootText + u"\\x\\..\\.\\";
    EXPECT_EQ(Units(CFolderArchive(CString(roundabout)).GetName()), rootText + u"\\");
}

TEST_F(FolderArchive, OfTheEmptyPathIsTheRootOfTheDrive)
{
    CCurrentFolder const current(Root());
    std::u16string const drive = TestSupport::HasDrives() ? rootText.substr(0, 2) : std::u16string();
    EXPECT_EQ(Units(CFolderArchive("").GetName()), drive + u"\\");
    EXPECT_EQ(Units(CFolderArchive(CString()).GetName()), drive + u"\\");
    EXPECT_TRUE(CFolderArchive("").Contains("")); // which no search of Windows finds
}

TEST_F(FolderArchive, WithoutARootIsTheCurrentFolderOfThen)
{
    fs::create_directory(Root() / "a");
    CCurrentFolder const current(Root());
    CFolderArchive here;
    EXPECT_EQ(Units(here.GetName()), rootText);
    EXPECT_EQ(here.GetName().GetEncoding(), EStringEncoding::UTF16);
    CCurrentFolder const elsewhere(Root() / "a");
    EXPECT_TRUE(here.Contains("a")); // the root was full
}

TEST_F(FolderArchive, ARelativeRootFollowsTheCurrentFolder)
{
    fs::create_directories(Root() / "one" / "data");
    fs::create_directories(Root() / "two" / "data");
    WriteText(Root() / "one" / "data" / "first", "1");
    WriteText(Root() / "two" / "data" / "second", "2");
    CCurrentFolder const one(Root() / "one");
    CFolderArchive relative("data");
    EXPECT_TRUE(relative.Contains("first"));
    CCurrentFolder const two(Root() / "two");
    EXPECT_FALSE(relative.Contains("first"));
    EXPECT_TRUE(relative.Contains("second"));
    EXPECT_EQ(Units(relative.GetName()), rootText + u"\\one\\data");
}

// ---- opening ----

TEST_F(FolderArchive, OpensBelowItsRoot)
{
    fs::create_directory(Root() / "sub");
    WriteText(Root() / "sub" / "a.txt", "abc");
    TResourcePtr<IFile> const file = archive.OpenFile("sub\\a.txt", EFileOpen::Read);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetRefCount(), 1);
    EXPECT_EQ(ReadAll(*file), "abc");
    EXPECT_EQ(Units(file->GetPath()), rootText + u"\\sub");
    EXPECT_EQ(ReadAll(*archive.OpenFile(u"sub/a.txt", EFileOpen::Read)), "abc");
}

TEST_F(FolderArchive, CreatesByModeAlone)
{
    EXPECT_EQ(FileErrorOf([&] { (void)archive.OpenFile("new", EFileOpen::Read); }), EFileError::NotFound);
    EXPECT_FALSE(archive.Contains("new"));
    EXPECT_TRUE(archive.OpenFile("new", EFileOpen::Write | EFileOpen::OpenAlways));
    EXPECT_TRUE(archive.Contains("new"));
}

// ---- contains ----

TEST_F(FolderArchive, ContainsFilesFoldersAndItself)
{
    fs::create_directory(Root() / "sub");
    WriteText(Root() / "sub" / "a.txt", "");
    EXPECT_TRUE(archive.Contains("sub"));
    EXPECT_TRUE(archive.Contains("sub\\"));
    EXPECT_TRUE(archive.Contains("sub/"));
    EXPECT_TRUE(archive.Contains("sub\\a.txt"));
    EXPECT_TRUE(archive.Contains(""));
    EXPECT_TRUE(archive.Contains(CString()));
    EXPECT_TRUE(archive.Contains("."));
    EXPECT_FALSE(archive.Contains("sub\\b.txt"));
    EXPECT_FALSE(archive.Contains("sub\\a.txt\\")); // a file is no folder
    EXPECT_FALSE(archive.Contains("none\\a.txt"));
    std::u16string const missing = rootText + u"\\missing";
    EXPECT_FALSE(CFolderArchive(CString(missing)).Contains(""));
    EXPECT_FALSE(CFolderArchive(CString(missing)).Contains("a"));
}

TEST_F(FolderArchive, ContainsTakesWildcardsInTheLastPart)
{
    fs::create_directory(Root() / "sub");
    WriteText(Root() / "sub" / "data.txt", "");
    for (char const* const pattern : {"*", "*.*", "sub\\*.txt", "sub\\d?ta.*", "sub\\*t*", "s*", "???"})
        EXPECT_TRUE(archive.Contains(pattern)) << pattern;
    for (char const* const pattern : {"sub\\*.bin", "x*", "sub\\data.txt?.*x", "none\\*"})
        EXPECT_FALSE(archive.Contains(pattern)) << pattern;
}

TEST(FolderArchiveOnARoot, ContainsItself)
{
    fs::path const root = fs::current_path().root_path();
    std::u16string const text = TestSupport::ToText(root);
    CFolderArchive const archive{CString(text)};
    EXPECT_EQ(Units(archive.GetName()), text);
    EXPECT_TRUE(archive.Contains(""));
    SListing const listing = List(archive, "");
    EXPECT_FALSE(listing.folders.empty());
    EXPECT_TRUE(archive.Contains(listing.folders.begin()->c_str()));
}

// ---- listing ----

TEST_F(FolderArchive, ListsBareNamesBehindWhatIsThere)
{
    fs::create_directories(Root() / "sub" / "inner");
    WriteText(Root() / "sub" / "a.txt", "");
    WriteText(Root() / "sub" / "b", "");
    WriteText(Root() / "sub" / "inner" / "deep", "");
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    files.Append(CMutableString("file before"));
    folders.Append(CMutableString("folder before"));
    archive.List("sub", files, folders);
    ASSERT_EQ(files.GetCount(), 3u);
    ASSERT_EQ(folders.GetCount(), 2u);
    EXPECT_EQ(Bytes(files[0]), "file before");
    EXPECT_EQ(Bytes(folders[0]), "folder before");
    EXPECT_EQ(Bytes(folders[1]), "inner");
    EXPECT_EQ((Names{Bytes(files[1]), Bytes(files[2])}), (Names{"a.txt", "b"}));
}

TEST_F(FolderArchive, ListsInTheEncodingOfThePath)
{
    fs::create_directory(Root() / u"\u00E4\u65E5");
    WriteText(Root() / u"\u00F6.txt", "");
    for (SListing const& listing : {List(archive, ""), List(archive, u""), List(archive, U"")}) {
        EXPECT_EQ(listing.files, (Names{"\xC3\xB6.txt"}));
        EXPECT_EQ(listing.folders, (Names{"\xC3\xA4\xE6\x97\xA5"}));
    }
}

TEST_F(FolderArchive, EveryNameOfAWideListingOpensAgain)
{
    std::u16string const names[] = {u"plain",      u"\u00E4", u"\u65E5\u672C", u"\U0001F600", u"mixed \U00010348 x",
                                    u"e\u0301.txt"};
    for (std::u16string const& name : names)
        WriteText(Root() / name, "here");
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    archive.List(u"", files, folders);
    EXPECT_EQ(files.GetCount(), std::size(names));
    for (CMutableString const& file : files) {
        EXPECT_NE(std::find(std::begin(names), std::end(names), Units(file)), std::end(names));
        EXPECT_TRUE(archive.Contains(file));
        EXPECT_EQ(ReadAll(*archive.OpenFile(file, EFileOpen::Read)), "here");
    }
}

TEST_F(FolderArchive, ListingWhatIsNoFolderThrows)
{
    WriteText(Root() / "file", "");
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    EXPECT_EQ(FileErrorOf([&] { archive.List("missing", files, folders); }), EFileError::NotFound);
    EXPECT_EQ(FileErrorOf([&] { archive.List("missing\\too", files, folders); }), EFileError::NotFound);
    EXPECT_THROW(archive.List("file", files, folders), CFileException);
    EXPECT_EQ(files.GetCount() + folders.GetCount(), 0u);
    EXPECT_EQ(List(archive, "").files, (Names{"file"}));
}

TEST_F(FolderArchive, ListsThousandsOfEntries)
{
    constexpr u64 Count = 2000;
    for (u64 index = 0; index < Count; ++index)
        WriteText(Root() / ("file-" + std::to_string(index)), "");
    SListing const listing = List(archive, u"");
    EXPECT_EQ(listing.files.size(), Count);
    EXPECT_EQ(std::set<std::string>(listing.files.begin(), listing.files.end()).size(), Count);
    archive.RemoveFolder("");
    EXPECT_FALSE(fs::exists(Root()));
}

TEST_F(FolderArchive, EntriesMayVanishWhileAListingRuns)
{
    for (int index = 0; index < 400; ++index)
        fs::create_directory(Root() / std::to_string(index));
    std::atomic<bool> stop{false};
    std::thread remover([&] {
        for (int index = 0; index < 400 && !stop; ++index) {
            std::error_code ignored;
            fs::remove(Root() / std::to_string(index), ignored);
        }
    });
    for (int repetition = 0; repetition < 8; ++repetition)
        EXPECT_LE(List(archive, "").folders.size(), 400u);
    stop = true;
    remover.join();
}

// ---- changing ----

TEST_F(FolderArchive, CreatesOneFolderAtATime)
{
    archive.CreateFolder("a");
    archive.CreateFolder("a\\b");
    archive.CreateFolder(u"a/\u00E4");
    EXPECT_TRUE(fs::is_directory(Root() / "a" / "b"));
    EXPECT_TRUE(fs::is_directory(Root() / "a" / u"\u00E4"));
    EXPECT_EQ(FileErrorOf([&] { archive.CreateFolder("a"); }), EFileError::Denied);
    EXPECT_EQ(FileErrorOf([&] { archive.CreateFolder("x\\y"); }), EFileError::NotFound);
    EXPECT_FALSE(fs::exists(Root() / "x"));
    WriteText(Root() / "file", "");
    EXPECT_EQ(FileErrorOf([&] { archive.CreateFolder("file"); }), EFileError::Denied);
}

TEST_F(FolderArchive, RemovesFiles)
{
    WriteText(Root() / "file", "");
    archive.CreateFolder("folder");
    archive.RemoveFile("file");
    EXPECT_FALSE(fs::exists(Root() / "file"));
    EXPECT_EQ(FileErrorOf([&] { archive.RemoveFile("file"); }), EFileError::NotFound);
    EXPECT_EQ(FileErrorOf([&] { archive.RemoveFile("folder"); }), EFileError::Unknown);
    WriteText(Root() / "kept", "");
    EXPECT_EQ(FileErrorOf([&] { archive.RemoveFile("kept\\"); }),
              EFileError::Unknown); // the name, not a folder, is wrong
    EXPECT_TRUE(fs::exists(Root() / "kept"));
    EXPECT_TRUE(fs::exists(Root() / "folder"));
}

TEST_F(FolderArchive, RemovesATreeOfThreeLevels)
{
    fs::create_directories(Root() / "t" / "a" / "b" / "c");
    fs::create_directories(Root() / "t" / u"\U0001F600" / u"\u65E5");
    WriteText(Root() / "t" / "1", "");
    WriteText(Root() / "t" / "a" / "2", "");
    WriteText(Root() / "t" / "a" / "b" / "3", "");
    WriteText(Root() / "t" / u"\U0001F600" / u"\u65E5" / u"\U0001F601.txt", "");
    WriteText(Root() / "stays", "");
    archive.RemoveFolder("t"); // a UTF-8 path, names that only UTF-16 carries unchanged
    EXPECT_FALSE(fs::exists(Root() / "t"));
    EXPECT_TRUE(fs::exists(Root() / "stays"));
    EXPECT_EQ(FileErrorOf([&] { archive.RemoveFolder("t"); }), EFileError::NotFound);
    EXPECT_THROW(archive.RemoveFolder("stays"), CFileException);
    EXPECT_TRUE(fs::exists(Root() / "stays"));
}

TEST_F(FolderArchive, RemovesDeepTreesWithLongPaths)
{
    std::u16string path;
    for (int level = 0; level < 12; ++level) {
        path += (level == 0 ? u"" : u"\\") + std::u16string(60, static_cast<char16_t>(u'a' + level));
        archive.CreateFolder(path);
        std::u16string const file = path + u"\\file";
        archive.OpenFile(file, EFileOpen::Write | EFileOpen::CreateAlways)->Write("x", 1);
    }
    ASSERT_GT(path.size(), 700u);
    EXPECT_TRUE(archive.Contains(path));
    EXPECT_EQ(List(archive, path).files, (Names{"file"}));
    std::u16string const first(60, u'a');
    archive.RemoveFolder(first);
    EXPECT_FALSE(archive.Contains(first));
}

namespace {

// Records what the removal asks for.
class CRecordingArchive : public CFolderArchive {
public:
    using CFolderArchive::CFolderArchive;

    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override
    {
        Record("list " + Bytes(path));
        CFolderArchive::List(path, files, folders);
    }
    void RemoveFile(CString const& path) override
    {
        Record("file " + Bytes(path));
        if (Bytes(path) == refused)
            throw CFileException("refused", EFileError::Corrupt);
        CFolderArchive::RemoveFile(path);
    }
    void RemoveFolder(CString const& path) override
    {
        Record("folder " + Bytes(path));
        CFolderArchive::RemoveFolder(path);
    }

    mutable std::vector<std::string> calls;
    std::string refused;
    std::size_t failingCall = ~std::size_t{0}; // counted from 0

private:
    void Record(std::string call) const
    {
        calls.push_back(std::move(call));
        if (calls.size() - 1 == failingCall)
            throw CFileException("refused", EFileError::Corrupt);
    }
};

} // namespace

TEST_F(FolderArchive, RemovalGoesThroughTheVirtualOperationsFoldersFirst)
{
    fs::create_directories(Root() / "t" / "a");
    WriteText(Root() / "t" / "1", "");
    WriteText(Root() / "t" / "a" / "2", "");
    CRecordingArchive recording{CString(rootText)};
    recording.RemoveFolder("t");
    EXPECT_EQ(recording.calls,
              (std::vector<std::string>{"folder t", "list t", "folder t/a", "list t/a", "file t/a/2", "file t/1"}));
    EXPECT_FALSE(fs::exists(Root() / "t"));
}

TEST_F(FolderArchive, TheFirstFailureEndsARemoval)
{
    fs::create_directories(Root() / "t" / "a");
    WriteText(Root() / "t" / "1", "");
    WriteText(Root() / "t" / "a" / "2", "");
    CRecordingArchive recording{CString(rootText)};
    recording.refused = "t/1";
    EXPECT_EQ(FileErrorOf([&] { recording.RemoveFolder("t"); }), EFileError::Corrupt);
    EXPECT_FALSE(fs::exists(Root() / "t" / "a"));
    EXPECT_TRUE(fs::exists(Root() / "t" / "1"));
    // Nothing of the ended removal is left behind in the archive.
    recording.refused.clear();
    recording.RemoveFolder("t");
    EXPECT_FALSE(fs::exists(Root() / "t"));
}

TEST_F(FolderArchive, RemovalMayFailAtAnyCall)
{
    auto const makeTree = [&] {
        fs::create_directories(Root() / "t" / "a" / "b");
        WriteText(Root() / "t" / "a" / "b" / "1", "");
        WriteText(Root() / "t" / "a" / "2", "");
        WriteText(Root() / "t" / "3", "");
    };
    makeTree();
    CRecordingArchive whole{CString(rootText)};
    whole.RemoveFolder("t");
    ASSERT_EQ(whole.calls.size(), 9u); // three folders, a list each, three files
    for (std::size_t failing = 0; failing < whole.calls.size(); ++failing) {
        makeTree();
        CRecordingArchive recording{CString(rootText)};
        recording.failingCall = failing;
        EXPECT_EQ(FileErrorOf([&] { recording.RemoveFolder("t"); }), EFileError::Corrupt);
        // The first failure is the end; what was to be removed before it is gone, the rest stands.
        EXPECT_EQ(recording.calls,
                  std::vector<std::string>(whole.calls.begin(), whole.calls.begin() + static_cast<int>(failing) + 1));
        EXPECT_TRUE(fs::exists(Root() / "t"));
        EXPECT_EQ(fs::exists(Root() / "t" / "a" / "b" / "1"),
                  std::find(whole.calls.begin(), whole.calls.begin() + static_cast<int>(failing), "file t/a/b/1") ==
                      whole.calls.begin() + static_cast<int>(failing));
        CFolderArchive{CString(rootText)}.RemoveFolder("t");
        EXPECT_FALSE(fs::exists(Root() / "t"));
    }
}

TEST_F(Collection, EveryArchiveMayFailAtEveryCall)
{
    // The failure of the archive that is asked passes through, and no later one is tried.
    class CFailing : public CFolderArchive {
    public:
        using CFolderArchive::CFolderArchive;
        bool Contains(CString const& path) const override
        {
            if (failsContains)
                throw CFileException("gone", EFileError::Corrupt);
            return CFolderArchive::Contains(path);
        }
        TResourcePtr<IFile> OpenFile(CString const&, EFileOpen::Type) override
        {
            throw CFileException("gone", EFileError::Corrupt);
        }
        void List(CString const&, TVector<CMutableString, 1>&, TVector<CMutableString, 1>&) const override
        {
            throw CFileException("gone", EFileError::Corrupt);
        }
        bool failsContains = false;
    };
    WriteText(Root() / "file", "here");
    CTemporaryFolder empty;
    std::u16string const emptyText = empty.Text();
    for (std::size_t failing = 0; failing < 3; ++failing) {
        CFailing without{CString(emptyText)};
        CFailing with{CString(rootText)};
        CFolderArchive last{CString(rootText)};
        CArchiveCollection all;
        for (std::size_t index = 0; index < failing; ++index)
            all.Add(without);
        all.Add(with);
        all.Add(last);
        EXPECT_TRUE(all.Contains("file"));
        EXPECT_EQ(FileErrorOf([&] { (void)all.OpenFile("file", EFileOpen::Read); }), EFileError::Corrupt);
        EXPECT_EQ(FileErrorOf([&] { (void)List(all, ""); }), EFileError::Corrupt);
        with.failsContains = true;
        EXPECT_EQ(FileErrorOf([&] { (void)all.Contains("file"); }), EFileError::Corrupt);
        EXPECT_EQ(FileErrorOf([&] { (void)all.OpenFile("file", EFileOpen::Read); }), EFileError::Corrupt);
        EXPECT_EQ(FileErrorOf([&] { (void)List(all, "file"); }), EFileError::Corrupt);
    }
}

// ---- links and the root ----

TEST_F(FolderArchive, RemovalNeverFollowsLinks)
{
    CTemporaryFolder outside;
    WriteText(outside.Path() / "precious", "kept");
    fs::create_directories(Root() / "t" / "a");
    if (!TestSupport::MakeLink(outside.Path(), Root() / "t" / "a" / "link"))
        GTEST_SKIP() << "no links here";
    (void)TestSupport::MakeLink(outside.Path() / "precious", Root() / "t" / "a" / "file-link");
    (void)TestSupport::MakeLink(outside.Path(), Root() / "direct");
    if (TestSupport::LinksAreNative()) {
        archive.RemoveFolder("t");
        EXPECT_FALSE(fs::exists(Root() / "t"));
        archive.RemoveFolder("direct");
        EXPECT_FALSE(TestSupport::IsLink(Root() / "direct"));
    }
    else {
        EXPECT_THROW(archive.RemoveFolder("t"), CFileException);
        EXPECT_THROW(archive.RemoveFolder("direct"), CFileException);
    }
    EXPECT_EQ(ReadText(outside.Path() / "precious"), "kept");
}

TEST_F(FolderArchive, ALinkIsListedOnceAsWhatItLeadsTo)
{
    fs::create_directory(Root() / "target");
    WriteText(Root() / "target" / "inside", "");
    if (!TestSupport::MakeLink(Root() / "target", Root() / "link"))
        GTEST_SKIP() << "no links here";
    SListing const listing = List(archive, "");
    EXPECT_EQ(listing.folders, (Names{"link", "target"}));
    EXPECT_EQ(listing.files, Names{});
    EXPECT_TRUE(archive.Contains("link"));
    EXPECT_EQ(List(archive, "link").files, (Names{"inside"})); // asked for by name it is what it leads to
}

TEST_F(FolderArchive, TellsLinksFromWhatTheyLeadTo)
{
    fs::create_directory(Root() / "target");
    WriteText(Root() / "target" / "inside", "");
    for (char const* const path :
         {"", "target", "target\\", "target\\inside", "missing", "missing\\too", "target\\*", "..", "?"})
        EXPECT_FALSE(archive.IsLink(path)) << path;
    EXPECT_FALSE(archive.IsLink(CString()));
    if (!TestSupport::MakeLink(Root() / "target", Root() / "link"))
        GTEST_SKIP() << "no links here";
    for (CString const& path : {CString("link"), CString(u"link\\"), CString(U"target/../link/")})
        EXPECT_TRUE(archive.IsLink(path)) << Bytes(path);
    EXPECT_FALSE(archive.IsLink("link\\inside")); // behind a link everything is what it is
    // Two that lead back would make a walk endless; asked first, it ends.
    (void)TestSupport::MakeLink(Root(), Root() / "target" / "up");
    EXPECT_TRUE(archive.IsLink("target\\up"));
    EXPECT_FALSE(archive.IsLink("target\\up\\target"));
    std::u16string const linkText = rootText + u"\\link";
    EXPECT_TRUE(CFolderArchive{CString(linkText)}.IsLink("")); // its own root
}

TEST_F(FolderArchive, ALinkToAFileOrToNothingIsALink)
{
    WriteText(Root() / "file", "");
    if (!TestSupport::MakeLink(Root() / "file", Root() / "link") || !TestSupport::LinksAreNative())
        GTEST_SKIP() << "no links here, or none that the system itself sees";
    EXPECT_TRUE(archive.IsLink("link"));
    EXPECT_FALSE(archive.IsLink("file"));
    fs::remove(Root() / "file");
    EXPECT_TRUE(archive.IsLink("link"));
}

TEST_F(FolderArchive, RemoveFolderStaysWithinItsRoot)
{
    CTemporaryFolder outside;
    fs::create_directories(outside.Path() / "victim" / "a");
    fs::create_directories(Root() / "inner" / "sub");
    std::u16string const innerText = rootText + u"\\inner";
    CFolderArchive inner{CString(innerText)};
    fs::create_directory(Root() / "beside");
    fs::create_directory(Root() / "inner2"); // begins with the root's text and is not in it
    fs::create_directory(Root() / "outer");  // a name as long as the root's
    for (char const* const path :
         {"..\\beside", "../beside", "..", "sub\\..\\..\\beside", "..\\inner2", "..\\outer", "..\\..", "\\..\\beside"})
        EXPECT_EQ(FileErrorOf([&] { inner.RemoveFolder(path); }), EFileError::Denied) << path;
    EXPECT_TRUE(fs::exists(Root() / "beside"));
    EXPECT_TRUE(fs::exists(Root() / "inner2"));
    EXPECT_TRUE(fs::exists(Root() / "outer"));
    EXPECT_TRUE(fs::exists(Root() / "inner" / "sub"));

    if (TestSupport::MakeLink(outside.Path(), Root() / "inner" / "way-out")) {
        EXPECT_EQ(FileErrorOf([&] { inner.RemoveFolder("way-out\\victim"); }), EFileError::Denied);
        EXPECT_TRUE(fs::exists(outside.Path() / "victim" / "a"));
    }
    if (TestSupport::MakeLink(Root() / "inner" / "sub", Root() / "inner" / "way-in")) {
        fs::create_directory(Root() / "inner" / "sub" / "x");
        inner.RemoveFolder("way-in\\x"); // leads to a place within the root
        EXPECT_FALSE(fs::exists(Root() / "inner" / "sub" / "x"));
    }
    inner.RemoveFolder("..\\inner\\sub");
    EXPECT_FALSE(fs::exists(Root() / "inner" / "sub"));
}

TEST_F(FolderArchive, AnArchiveBehindALinkRemovesWhatIsInIt)
{
    fs::create_directories(Root() / "real" / "t" / "a");
    if (!TestSupport::MakeLink(Root() / "real", Root() / "mount"))
        GTEST_SKIP() << "no links here";
    std::u16string const mountText = rootText + u"\\mount";
    CFolderArchive mounted{CString(mountText)};
    mounted.RemoveFolder("t");
    EXPECT_FALSE(fs::exists(Root() / "real" / "t"));
    EXPECT_TRUE(fs::exists(Root() / "real"));
}

TEST_F(FolderArchive, NoHandleStaysOpen)
{
    auto const work = [&] {
        fs::create_directories(Root() / "t" / "a" / "b");
        WriteText(Root() / "t" / "f", "");
        (void)List(archive, "t");
        (void)archive.Contains("t\\f");
        archive.RemoveFolder("t");
        (void)FileErrorOf([&] { archive.RemoveFolder("t"); });
    };
    work();
    unsigned const before = TestSupport::OpenHandleCount();
    for (int repetition = 0; repetition < 8; ++repetition)
        work();
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}

// ---- collections ----

TEST_F(Collection, HasItsName)
{
    EXPECT_EQ(Bytes(CArchiveCollection().GetName()), "");
    CArchiveCollection const named(u"game");
    EXPECT_EQ(Bytes(named.GetName()), "game");
    EXPECT_EQ(named.GetName().GetEncoding(), EStringEncoding::UTF16);
    EXPECT_EQ(named.archives.GetCount(), 0u);
}

TEST_F(Collection, EmptyContainsNothing)
{
    CArchiveCollection all;
    EXPECT_FALSE(all.Contains(""));
    EXPECT_FALSE(all.OpenFile("x", EFileOpen::Read));
    EXPECT_EQ(List(all, "").files, Names{});
}

TEST_F(Collection, TheFirstThatContainsAnswers)
{
    fs::create_directories(Root() / "A" / "both");
    fs::create_directories(Root() / "B" / "both");
    fs::create_directories(Root() / "B" / "only");
    WriteText(Root() / "A" / "both" / "file", "from A");
    WriteText(Root() / "B" / "both" / "file", "from B");
    WriteText(Root() / "B" / "both" / "more", "B");
    WriteText(Root() / "B" / "only" / "file", "only B");
    std::u16string const aText = rootText + u"\\A";
    std::u16string const bText = rootText + u"\\B";
    CFolderArchive a{CString(aText)};
    CFolderArchive b{CString(bText)};
    CArchiveCollection all("all");
    all.archives.Append(&a);
    all.Add(b);
    ASSERT_EQ(all.archives.GetCount(), 2u);
    EXPECT_EQ(all.archives[1], &b);

    EXPECT_EQ(ReadAll(*all.OpenFile("both\\file", EFileOpen::Read)), "from A");
    EXPECT_EQ(ReadAll(*all.OpenFile("only\\file", EFileOpen::Read)), "only B");
    EXPECT_EQ(ReadAll(*all.OpenFile("both\\more", EFileOpen::Read)), "B");
    EXPECT_EQ(List(all, "both").files, (Names{"file"})); // nothing is merged
    EXPECT_EQ(List(all, "only").files, (Names{"file"}));
    EXPECT_EQ(List(all, "").folders, (Names{"both"}));
    EXPECT_EQ(List(all, "neither").files, Names{});
    EXPECT_TRUE(all.Contains("only"));
    EXPECT_FALSE(all.Contains("neither"));

    // What the one that contains it throws, passes; nobody else is tried.
    EXPECT_THROW((void)all.OpenFile("both", EFileOpen::Read), CFileException);

    std::swap(all.archives[0], all.archives[1]);
    EXPECT_EQ(ReadAll(*all.OpenFile("both\\file", EFileOpen::Read)), "from B");
}

TEST_F(Collection, CreatesNothing)
{
    CArchiveCollection all;
    all.Add(archive);
    EXPECT_FALSE(all.OpenFile("new", EFileOpen::Write | EFileOpen::CreateAlways));
    EXPECT_FALSE(fs::exists(Root() / "new"));
    EXPECT_TRUE(archive.OpenFile("new", EFileOpen::Write | EFileOpen::CreateAlways));
    EXPECT_TRUE(all.OpenFile("new", EFileOpen::Write));
}

TEST_F(Collection, NestsAndDoesNotOwn)
{
    WriteText(Root() / "file", "content");
    CArchiveCollection outer;
    {
        CArchiveCollection inner;
        inner.Add(archive);
        outer.Add(inner);
        EXPECT_EQ(ReadAll(*outer.OpenFile("file", EFileOpen::Read)), "content");
        outer.archives.Clear();
    }
    EXPECT_FALSE(outer.Contains("file"));
    EXPECT_TRUE(archive.Contains("file"));
}
