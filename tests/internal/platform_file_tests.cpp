// The contract of the file, folder, path and error seams, which both rooms keep; and the policy right above it.
#include "../TestHeap.h"
#include "../Texts.h"
#include "../support/Folders.h"

#include "Core_FileError.h"
#include "Core_Path.h"
#include "platform/Platform_File.h"
#include "platform/Platform_Folder.h"
#include "platform/Platform_Path.h"
#include "platform/Platform_Resource.h"
#include "platform/Platform_SystemError.h"

#include <vlmcore/archives.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

using namespace Velmor;
using namespace Velmor::Platform;
using TestSupport::CTemporaryFolder;
using TestSupport::WriteText;
using VlmTest::Bytes;

namespace fs = std::filesystem;

namespace {

std::u16string Units(PathUnits const& path)
{
    std::u16string text(path.GetData(), path.GetData() + path.GetCount());
    if (!text.empty() && text.back() == 0)
        text.pop_back();
    return text;
}

std::u16string Resolved(std::u16string const& text)
{
    PathUnits path;
    for (char16_t const unit : text)
        path.Append(unit);
    Path::ResolveDotParts(path);
    return Units(path);
}

u32 Open(std::u16string const& path, u32 rights, EFileCreation creation, FileHandle& handle)
{
    return OpenFileHandle(path.c_str(), rights, creation, handle);
}

std::set<std::u16string> NamesIn(CFolder& folder)
{
    std::set<std::u16string> names;
    SFolderEntry entry;
    u32 error = 0;
    while (folder.ReadEntry(entry, error))
        EXPECT_TRUE(names.insert(entry.name).second);
    EXPECT_EQ(error, 0u);
    return names;
}

} // namespace

// ---- error numbers ----

TEST(FileErrorKinds, FollowTheTable)
{
    std::set<u32> const notFound = {2, 3, 1921, 4350};
    std::set<u32> const corrupt = {276, 1392, 1393};
    std::set<u32> const invalid = {206, 222, 223, 665, 1006};
    std::set<u32> const denied = {32, 80, 145, 183, 1920, 6002, 6009};
    for (u32 number = 1; number < 20000; ++number) {
        u32 const expected = notFound.count(number) != 0  ? 1
                             : corrupt.count(number) != 0 ? 2
                             : invalid.count(number) != 0 ? 3
                             : denied.count(number) != 0  ? 4
                                                          : 0;
        ASSERT_EQ(GetFileErrorKind(number), expected) << number;
    }
    EXPECT_EQ(GetFileErrorKind(5), EFileError::Unknown);
}

TEST(FileErrors, ZeroReturns)
{
    EXPECT_NO_THROW(RaiseFileError(0));
}

TEST(FileErrors, CarryTheSystemsTextAndKind)
{
    for (u32 const number : {2u, 5u, 32u, 145u, 206u, 1392u}) {
        char text[SystemErrorTextCapacity];
        GetSystemErrorText(number, text);
        EXPECT_NE(text[0], '\0') << number;
        try {
            RaiseFileError(number);
            ADD_FAILURE() << number;
        }
        catch (CFileException const& error) {
            EXPECT_EQ(Bytes(error.GetText()), text);
            EXPECT_EQ(error.GetFileError(), GetFileErrorKind(number));
        }
    }
    char text[SystemErrorTextCapacity];
    GetSystemErrorText(2, text);
    EXPECT_EQ(std::string(text), TestSupport::FileNotFoundText());
}

TEST(FileErrors, WithoutATextTellTheNumber)
{
    try {
        RaiseFileError(123456789);
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Error code 123456789");
        EXPECT_EQ(error.GetFileError(), EFileError::Unknown);
    }
}

TEST(FileErrors, OfAKindDoWithoutAText)
{
    // Not every system has a text for each of the table's numbers; only an error of no kind then tells its number.
    for (u32 const number : {1921u, 4350u, 276u, 1006u, 665u, 6002u, 6009u}) {
        char text[SystemErrorTextCapacity];
        GetSystemErrorText(number, text);
        try {
            RaiseFileError(number);
            ADD_FAILURE() << number;
        }
        catch (CFileException const& error) {
            EXPECT_EQ(Bytes(error.GetText()), text) << number;
            EXPECT_NE(error.GetFileError(), EFileError::Unknown) << number;
        }
    }
}

// ---- dot parts ----

TEST(DotParts, EveryShape)
{
    EXPECT_EQ(Resolved(u"\\a\\b"), u"\\a\\b");
    EXPECT_EQ(Resolved(u"\\a\\.\\b"), u"\\a\\b");
    EXPECT_EQ(Resolved(u"\\a\\..\\b"), u"\\b");
    EXPECT_EQ(Resolved(u"\\..\\..\\b"), u"\\b");
    EXPECT_EQ(Resolved(u"\\a\\.."), u"\\");
    EXPECT_EQ(Resolved(u"\\a\\b\\.."), u"\\a");
    EXPECT_EQ(Resolved(u"\\a\\b\\..\\"), u"\\a\\");
    EXPECT_EQ(Resolved(u"\\a\\b\\."), u"\\a\\b");
    EXPECT_EQ(Resolved(u"\\a\\b\\.\\"), u"\\a\\b\\");
    EXPECT_EQ(Resolved(u"\\..inner\\...\\x..\\.y"), u"\\..inner\\...\\x..\\.y");
    EXPECT_EQ(Resolved(u"/a//b\\/c/"), u"\\a\\b\\c\\");
    EXPECT_EQ(Resolved(u"/"), u"\\");
    EXPECT_EQ(Resolved(u"\\"), u"\\");
    EXPECT_EQ(Resolved(u"/../"), u"\\");
    EXPECT_EQ(Resolved(u"C:\\a\\..\\..\\b"), u"C:\\b");
    EXPECT_EQ(Resolved(u"C:/x/../"), u"C:\\");
    EXPECT_EQ(Resolved(u"\\\\server\\share\\..\\x"), u"\\\\server\\share\\..\\x");
    EXPECT_EQ(Resolved(u"\\\\x"), u"\\\\x");
    EXPECT_EQ(Resolved(u""), u"");
}

// ---- normalised paths ----

TEST(Normalize, RootsAndTheCurrentFolder)
{
    std::u16string const current = TestSupport::ToText(fs::current_path());
    std::u16string const root = TestSupport::ToText(fs::current_path().root_path());
    EXPECT_EQ(Units(Path::Normalize("")), root);
    EXPECT_EQ(Units(Path::Normalize(CString())), root);
    EXPECT_EQ(Units(Path::Normalize("\\")), root);
    EXPECT_EQ(Units(Path::Normalize("/")), root);
    EXPECT_EQ(Units(Path::Normalize(".")), current);
    EXPECT_EQ(Units(Path::Normalize("x\\..")), current);
    EXPECT_EQ(Units(Path::Normalize("a\\..\\b")), current + u"\\b");
    EXPECT_EQ(Units(Path::Normalize("a/b/")), current + u"\\a\\b\\");
    PathUnits folder;
    EXPECT_EQ(GetCurrentFolder(folder), 0u);
    EXPECT_EQ(Units(folder), current);
}

TEST(Normalize, ExecutableAndWithin)
{
    PathUnits executable;
    ASSERT_EQ(GetExecutablePath(executable), 0u);
    EXPECT_TRUE(Units(executable).find(u"\\platform_file_tests") != std::u16string::npos);
    PathUnits const a = Path::Normalize("a");
    PathUnits const ab = Path::Normalize("a\\b");
    PathUnits const a2 = Path::Normalize("a2");
    PathUnits const root = Path::Normalize("\\");
    EXPECT_TRUE(Path::IsWithin(a, a));
    EXPECT_TRUE(Path::IsWithin(a, ab));
    EXPECT_TRUE(Path::IsWithin(root, a));
    EXPECT_FALSE(Path::IsWithin(a, a2));
    EXPECT_FALSE(Path::IsWithin(ab, a));
}

// ---- open files ----

TEST(FileSeam, ErrorsAreTheSystemsNumbers)
{
    CTemporaryFolder folder;
    FileHandle handle = nullptr;
    EXPECT_EQ(Open(folder.Text(u"none"), EFileRights::Read, EFileCreation::OpenExisting, handle), 2u);
    EXPECT_EQ(handle, InvalidFileHandle());
    EXPECT_EQ(Open(folder.Text(), EFileRights::Read, EFileCreation::OpenExisting, handle), 5u);
    EXPECT_EQ(handle, InvalidFileHandle());
    u32 const tooLong = Open(folder.Text() + u"\\" + std::u16string(40000, u'x'), EFileRights::Read,
                             EFileCreation::OpenExisting, handle);
    EXPECT_NE(tooLong, 0u);
    EXPECT_EQ(CreateFolderEntry(folder.Text().c_str()), 183u);
    EXPECT_TRUE(GetFileErrorKind(CreateFolderEntry(folder.Text(u"no\\folder").c_str())) == EFileError::NotFound);
    EXPECT_EQ(DeleteFileEntry(folder.Text(u"none").c_str()), 2u);
    WriteText(folder.Path() / "file", "x");
    EXPECT_EQ(DeleteFolderPath(folder.Text().c_str()), 145u);
    EXPECT_EQ(DeleteFileEntry(folder.Text().c_str()), 5u);
}

TEST(FileSeam, TransfersAndMoves)
{
    CTemporaryFolder folder;
    FileHandle handle = nullptr;
    ASSERT_EQ(Open(folder.Text(u"f"), EFileRights::Read | EFileRights::Write, EFileCreation::CreateAlways, handle), 0u);
    u64 done = 0;
    EXPECT_EQ(WriteFileHandle(handle, "abcdef", 6, done), 0u);
    EXPECT_EQ(done, 6u);
    u64 position = 0;
    EXPECT_EQ(MoveFilePosition(handle, -2, EMoveFrom::End, position), 0u);
    EXPECT_EQ(position, 4u);
    EXPECT_EQ(MoveFilePosition(handle, -5, EMoveFrom::Current, position), 131u);
    char text[8] = {};
    EXPECT_EQ(ReadFileHandle(handle, text, 8, done), 0u);
    EXPECT_EQ(done, 2u);
    EXPECT_STREQ(text, "ef");
    EXPECT_EQ(ReadFileHandle(handle, text, 8, done), 0u);
    EXPECT_EQ(done, 0u);
    u64 size = 0;
    EXPECT_EQ(GetFileSize(handle, size), 0u);
    EXPECT_EQ(size, 6u);
    CloseFileHandle(handle);
    ASSERT_EQ(Open(folder.Text(u"f"), EFileRights::Read, EFileCreation::OpenExisting, handle), 0u);
    EXPECT_EQ(WriteFileHandle(handle, "x", 1, done), 5u);
    EXPECT_EQ(done, 0u);
    CloseFileHandle(handle);
}

// ---- folders ----

TEST(FolderSeam, ListsDescribesAndRemoves)
{
    CTemporaryFolder temporary;
    fs::create_directory(temporary.Path() / "sub");
    WriteText(temporary.Path() / u"\u00E4\U0001F600", "x");
    CFolder folder;
    ASSERT_EQ(folder.Open(temporary.Text().c_str(), EFolderUse::Hold), 0u);
    EXPECT_EQ(NamesIn(folder), (std::set<std::u16string>{u"sub", u"\u00E4\U0001F600"}));
    SEntryKind kind{};
    EXPECT_EQ(folder.DescribeEntry(u"sub", kind), 0u);
    EXPECT_TRUE(kind.isFolder);
    EXPECT_FALSE(kind.isLink);
    EXPECT_EQ(folder.DescribeEntry(u"\u00E4\U0001F600", kind), 0u);
    EXPECT_FALSE(kind.isFolder);
    EXPECT_EQ(folder.DescribeEntry(u"none", kind), 2u);
    CFolder child;
    EXPECT_EQ(child.OpenEntry(folder, u"\u00E4\U0001F600"), 267u);
    EXPECT_EQ(child.OpenEntry(folder, u"none"), 2u);
    EXPECT_EQ(child.OpenEntry(folder, u"sub"), 0u);
    EXPECT_TRUE(NamesIn(child).empty());
    child.Close();
    EXPECT_EQ(folder.DeleteFolderEntry(u"sub"), 0u);
    EXPECT_EQ(folder.DeleteFileEntry(u"\u00E4\U0001F600"), 0u);
    EXPECT_EQ(folder.DeleteFileEntry(u"none"), 2u);
    EXPECT_TRUE(fs::is_empty(temporary.Path()));
    EXPECT_NE(folder.Open(temporary.Text(u"none").c_str(), EFolderUse::Hold), 0u);
}

TEST(FolderSeam, AnEntryThatIsALinkIsNotOpened)
{
    CTemporaryFolder temporary;
    fs::create_directory(temporary.Path() / "target");
    if (!TestSupport::MakeLink(temporary.Path() / "target", temporary.Path() / "link"))
        GTEST_SKIP() << "no links here";
    CFolder folder;
    ASSERT_EQ(folder.Open(temporary.Text().c_str(), EFolderUse::Hold), 0u);
    SEntryKind kind{};
    EXPECT_EQ(folder.DescribeEntry(u"link", kind), 0u);
    EXPECT_TRUE(kind.isLink);
    EXPECT_TRUE(kind.isFolder);
    CFolder child;
    EXPECT_EQ(child.OpenEntry(folder, u"link"), 267u);
    PathUnits resolved;
    EXPECT_EQ(ResolveLinks(temporary.Text(u"link").c_str(), resolved), 0u);
    EXPECT_EQ(Units(resolved), temporary.Text(u"target"));
}

// What RemoveFolder relies on: the folder that was opened stays the one that is worked in.
TEST(FolderSeam, AnOpenFolderCannotBeSwappedForALink)
{
    CTemporaryFolder temporary;
    CTemporaryFolder outside;
    WriteText(outside.Path() / "precious", "kept");
    fs::create_directory(temporary.Path() / "folder");
    WriteText(temporary.Path() / "folder" / "precious", "goes");
    CFolder parent;
    CFolder folder;
    ASSERT_EQ(parent.Open(temporary.Text().c_str(), EFolderUse::Hold), 0u);
    ASSERT_EQ(folder.OpenEntry(parent, u"folder"), 0u);
    std::error_code refused;
    fs::rename(temporary.Path() / "folder", temporary.Path() / "moved", refused);
    if (!refused)
        (void)TestSupport::MakeLink(outside.Path(), temporary.Path() / "folder");
    EXPECT_EQ(folder.DeleteFileEntry(u"precious"), 0u);
    EXPECT_EQ(TestSupport::ReadText(outside.Path() / "precious"), "kept");
}

TEST(FolderSeam, AFolderThatIsLookedAtIsInNobodysWay)
{
    CTemporaryFolder temporary;
    fs::create_directory(temporary.Path() / "folder");
    WriteText(temporary.Path() / "folder" / "file", "");
    CFolder folder;
    ASSERT_EQ(folder.Open(temporary.Text(u"folder").c_str(), EFolderUse::Look), 0u);
    std::error_code refused;
    fs::rename(temporary.Path() / "folder", temporary.Path() / "moved", refused);
    EXPECT_FALSE(refused) << refused.message();
}

// ---- resources ----

TEST(ResourceSeam, AProgramWithoutResourcesHasNone)
{
    EXPECT_EQ(LocateResource({10, nullptr}, 101), nullptr);
    EXPECT_EQ(LocateResource({0, u"MYDATA"}, 101), nullptr);
    EXPECT_EQ(LocateResource({0, u""}, 101), nullptr);
}

// ---- memory running out ----

namespace {

u64 allocationsLeft = ~u64{0};

void* LimitedMalloc(u64 size)
{
    return allocationsLeft == 0 ? nullptr : (--allocationsLeft, std::malloc(size));
}

void* LimitedRealloc(void* block, u64 size)
{
    return allocationsLeft == 0 ? nullptr : (--allocationsLeft, std::realloc(block, size));
}

// Runs `action` with memory that runs out after 0, 1, 2, ... allocations until it gets through.
template <class Action>
int CountAttempts(Action action)
{
    Memory::Deinitialize();
    Memory::Initialize(&LimitedMalloc, &LimitedRealloc, &std::free, EHeapFlag::Passthrough, 0);
    int attempts = 0;
    for (bool done = false; !done && attempts < 2000; ++attempts) {
        allocationsLeft = static_cast<u64>(attempts);
        try {
            action();
            done = true;
        }
        catch (std::bad_alloc const&) {
            // what is left behind is checked below
        }
        allocationsLeft = ~u64{0};
        Memory::SStatistics statistics{};
        EXPECT_TRUE(Memory::GetStatistics(statistics));
        EXPECT_EQ(statistics.liveCount, 0u) << "after " << attempts << " allocations";
    }
    Memory::Deinitialize();
    Memory::Initialize(0, 0);
    return attempts;
}

} // namespace

TEST(MemoryRunsOut, NativeFilesLeakNothing)
{
    CTemporaryFolder folder;
    std::u16string const path = folder.Text(u"a.txt");
    unsigned before = 0;
    int const attempts = CountAttempts([&] {
        before = TestSupport::OpenHandleCount();
        TResourcePtr<IFile> const file =
            MakeResource<CNativeFile>(CString(path), EFileOpen::Write | EFileOpen::OpenAlways);
        file->Write("x", 1);
    });
    EXPECT_GT(attempts, 4);
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}

TEST(MemoryRunsOut, MemoryFilesKeepTheirState)
{
    int const attempts = CountAttempts([] {
        CMemoryFile file("m");
        file.Write("abc", 3);
        try {
            file.Write("defgh", 5);
        }
        catch (std::bad_alloc const&) {
            EXPECT_EQ(file.GetSizeByte(), 3u);
            EXPECT_EQ(file.GetPosition(), 3u);
            EXPECT_EQ(std::string(static_cast<char const*>(file.GetNativeHandle()), 3), "abc");
            throw;
        }
        try {
            file.Seek(ESeek::Begin, 100);
        }
        catch (std::bad_alloc const&) {
            EXPECT_EQ(file.GetSizeByte(), 8u);
            EXPECT_EQ(file.GetPosition(), 8u);
            throw;
        }
    });
    EXPECT_GT(attempts, 4);
}

TEST(MemoryRunsOut, ListingAndRemovalLeakNothing)
{
    CTemporaryFolder folder;
    std::u16string const root = folder.Text();
    unsigned const before = TestSupport::OpenHandleCount();
    int const attempts = CountAttempts([&] {
        fs::create_directories(folder.Path() / "t" / "a");
        WriteText(folder.Path() / "t" / "a" / "f", "");
        CFolderArchive archive{CString(root)};
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        archive.List("t", files, folders);
        archive.RemoveFolder("t");
        EXPECT_FALSE(fs::exists(folder.Path() / "t"));
    });
    EXPECT_GT(attempts, 10);
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}

TEST(MemoryRunsOut, ResourceArchivesLeakNothing)
{
    int const attempts = CountAttempts([] {
        CResourceArchive archive;
        EXPECT_FALSE(archive.OpenFile(":RCDATA/101", EFileOpen::Read));
        EXPECT_FALSE(archive.Contains(":MYDATA/1"));
        EXPECT_FALSE(archive.OpenFile("no-such-file", EFileOpen::Read));
    });
    EXPECT_GT(attempts, 4);
}
