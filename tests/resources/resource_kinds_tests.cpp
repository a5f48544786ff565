// Every type that has a name in resource paths, in a program whose resources come from two files; and what paths of
// files beside it look like in a listing.
#include "TestHeap.h"
#include "Texts.h"
#include "support/DebuggedProcess.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::ReadAll;
using VlmTest::Bytes;

namespace fs = std::filesystem;

namespace {

std::string const SampleData("sample \0\1\2\xff data\n", 17);

struct SKind {
    char const* name;
    int number;
};

constexpr SKind Kinds[] = {{"CURSOR", 1},  {"BITMAP", 2},     {"ICON", 3},     {"STRING", 6}, {"FONT", 8},
                           {"RCDATA", 10}, {"ANICURSOR", 21}, {"ANIICON", 22}, {"HTML", 23}};

std::string ContentOf(std::string const& path)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const file = archive.OpenFile(path.c_str(), EFileOpen::Read);
    return file ? ReadAll(*file) : "(missing)";
}

// Without the resources, those apart.
struct SListing {
    std::multiset<std::string> resources;
    std::multiset<std::string> files;
    std::multiset<std::string> folders;
};

SListing List(CString const& path)
{
    auto const all = TestSupport::ListArchive<std::multiset<std::string>>(CResourceArchive(), path);
    SListing listing;
    for (std::string const& file : all.files)
        (file.starts_with(':') ? listing.resources : listing.files).insert(file);
    listing.folders = all.folders;
    return listing;
}

class FilesBeside : public ::testing::Test {
protected:
    FilesBeside()
    {
        TestSupport::RemoveTree(path);
        fs::create_directories(path / "inner");
        TestSupport::WriteText(path / "one.txt", "one");
        TestSupport::WriteText(path / "inner" / "two.txt", "two");
    }
    ~FilesBeside() override { TestSupport::RemoveTree(path); }

    fs::path path = fs::path(TestSupport::GetProgramPath()).parent_path() / "beside-kinds";
};

} // namespace

TEST(ResourceKinds, EachNameIsItsNumber)
{
    SListing const listing = List("");
    for (SKind const& kind : Kinds) {
        std::string const byName = std::string(":") + kind.name + "/9";
        std::string const byNumber = ":" + std::to_string(kind.number) + "/9";
        EXPECT_EQ(ContentOf(byName), SampleData) << byName;
        EXPECT_EQ(ContentOf(byNumber), SampleData) << byNumber;
        EXPECT_TRUE(CResourceArchive().Contains(byName.c_str()));
        EXPECT_TRUE(CResourceArchive().Contains(byNumber.c_str()));
        EXPECT_EQ(listing.resources.count(byName), 1u) << byName;
        EXPECT_EQ(listing.resources.count(byNumber), 0u) << byNumber;
        // Names are compared exactly, and are whole.
        std::string lower = byName;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        EXPECT_EQ(ContentOf(lower), "(missing)") << lower;
        EXPECT_EQ(ContentOf(std::string(":") + kind.name + "S/9"), "(missing)");
    }
}

TEST(ResourceKinds, ResourcesOfBothFilesAreThere)
{
    EXPECT_EQ(List("").resources.size(), 19u);
    EXPECT_EQ(ContentOf(":MYDATA/300"), SampleData);
    EXPECT_EQ(ContentOf(":RCDATA/101"), SampleData);
    EXPECT_EQ(ContentOf(":RCDATA/9"), SampleData);
}

TEST(ResourceKinds, TheFilesNameIsThePathAsItWasOpened)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const narrow = archive.OpenFile(":ICON/9", EFileOpen::Read);
    TResourcePtr<IFile> const wide = archive.OpenFile(u":3/9", EFileOpen::Read);
    TResourcePtr<IFile> const odd = archive.OpenFile(U":0x3/9 and more", EFileOpen::Read);
    ASSERT_TRUE(narrow && wide && odd);
    EXPECT_EQ(Bytes(narrow->GetFileName()), ":ICON/9");
    EXPECT_EQ(Bytes(wide->GetFileName()), ":3/9");
    EXPECT_EQ(wide->GetFileName().GetEncoding(), EStringEncoding::UTF16);
    EXPECT_EQ(Bytes(odd->GetFileName()), ":0x3/9 and more");
    // All of them are the same bytes, in place.
    EXPECT_EQ(narrow->GetNativeHandle(), wide->GetNativeHandle());
    EXPECT_EQ(narrow->GetNativeHandle(), odd->GetNativeHandle());
    // Each has a position of its own, and the path outlives what it was opened with.
    narrow->Seek(ESeek::Begin, 5);
    EXPECT_EQ(wide->GetPosition(), 0u);
}

TEST_F(FilesBeside, WildcardsAndFoldersAreContained)
{
    CResourceArchive const archive;
    EXPECT_TRUE(archive.Contains("beside-kinds\\*.txt"));
    EXPECT_TRUE(archive.Contains("beside-kinds/inner\\t?o.*"));
    EXPECT_FALSE(archive.Contains("beside-kinds\\*.bin"));
    EXPECT_FALSE(archive.Contains("beside-kinds\\one.txt\\"));
}

TEST_F(FilesBeside, EntriesBeginWithThePathAsItWasAsked)
{
    SListing const plain = List("beside-kinds");
    EXPECT_EQ(plain.files, (std::multiset<std::string>{"beside-kinds\\one.txt", "beside-kinds\\inner\\two.txt"}));
    EXPECT_EQ(plain.folders, (std::multiset<std::string>{"beside-kinds\\inner"}));
    EXPECT_EQ(List("beside-kinds/inner").files, (std::multiset<std::string>{"beside-kinds/inner\\two.txt"}));
    EXPECT_EQ(List("./beside-kinds").folders, (std::multiset<std::string>{"./beside-kinds\\inner"}));
    // A separator at the end is followed by another; the entries open all the same.
    SListing const trailing = List("beside-kinds\\");
    EXPECT_EQ(trailing.files,
              (std::multiset<std::string>{"beside-kinds\\\\one.txt", "beside-kinds\\\\inner\\two.txt"}));
    CResourceArchive archive;
    for (SListing const& listing : {plain, trailing})
        for (std::string const& file : listing.files)
            EXPECT_TRUE(archive.OpenFile(file.c_str(), EFileOpen::Read)) << file;
}

TEST_F(FilesBeside, ListingAFileOrAResourceThrowsAfterTheResources)
{
    for (char const* const asked : {"beside-kinds\\one.txt", ":RCDATA/101"}) {
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        EXPECT_THROW(CResourceArchive().List(asked, files, folders), CFileException) << asked;
        EXPECT_EQ(files.GetCount(), 19u);
        EXPECT_EQ(folders.GetCount(), 0u);
    }
}

// A folder that goes between being named and being listed is missing; whatever happens, nothing stays open.
TEST_F(FilesBeside, FoldersMayVanishWhileTheTreeIsListed)
{
    constexpr int Folders = 100;
    auto const folderPath = [&](int index) { return path / "inner" / std::to_string(index); };
    for (int index = 0; index < Folders; ++index)
        fs::create_directories(folderPath(index) / "x");
    unsigned const before = TestSupport::OpenHandleCount();
    std::thread remover([&] {
        for (int index = 0; index < Folders; ++index) {
            std::error_code ignored;
            fs::remove(folderPath(index) / "x", ignored);
            fs::remove(folderPath(index), ignored);
        }
    });
    for (int repetition = 0; repetition < 10; ++repetition) {
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        try {
            CResourceArchive().List("beside-kinds", files, folders);
            EXPECT_EQ(files.GetCount(), 21u); // what does not vanish: nineteen resources, two files
        }
        catch (CFileException const& error) {
            // Where a folder is still there in part, the system may refuse it in other ways.
            EXPECT_FALSE(error.GetText().IsEmpty());
        }
        EXPECT_LE(folders.GetCount(), 1u + 2 * Folders);
    }
    remover.join();
    EXPECT_LE(TestSupport::OpenHandleCount(), before);
    // Where a folder that is being listed cannot be removed, some are left.
    TestSupport::RemoveTree(path / "inner");
    EXPECT_TRUE(List("beside-kinds").folders.empty());
}

// One descriptor a level.
TEST_F(FilesBeside, DeepTreesAreListed)
{
    int const levels = TestSupport::HasDrives() ? 60 : 600;
    CFolderArchive folder{CString(TestSupport::ToText(path).c_str())};
    std::u16string text = u"d";
    for (int level = 0; level < levels; ++level, text += u"\\d")
        folder.CreateFolder(text);
    SListing const listing = List("beside-kinds");
    EXPECT_EQ(listing.folders.size(), static_cast<std::size_t>(levels) + 1);
    EXPECT_EQ(listing.files.size(), 2u);
    std::string deepest = "beside-kinds";
    for (int level = 0; level < levels; ++level)
        deepest += "\\d";
    EXPECT_EQ(listing.folders.count(deepest), 1u);
    folder.RemoveFolder("d");
}
