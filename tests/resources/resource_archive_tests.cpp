// The archive over the resources of this executable (sample.rc) and the files beside it.
#include "TestHeap.h"
#include "Texts.h"
#include "support/DebuggedProcess.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>
#include <vlmcore/xml_stream.h>

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
using VlmTest::Units;

namespace fs = std::filesystem;

namespace {

std::string const SampleData("sample \0\1\2\xff data\n", 17);
std::string const PageData("<p>page</p>\n");

constexpr EFileOpen::Type NoMode = static_cast<EFileOpen::Type>(0);

// A folder beside the executable that goes at the end.
class CFolderBeside {
public:
    CFolderBeside() : m_path(fs::path(TestSupport::GetProgramPath()).parent_path() / "beside")
    {
        TestSupport::RemoveTree(m_path);
        fs::create_directories(m_path / "inner" / u"\u00E4");
        TestSupport::WriteText(m_path / "one.txt", "one");
        TestSupport::WriteText(m_path / "inner" / "two.txt", "two");
        TestSupport::WriteText(m_path / "inner" / u"\u00E4" / "three.txt", "three");
    }
    CFolderBeside(CFolderBeside const&) = delete;
    CFolderBeside& operator=(CFolderBeside const&) = delete;
    ~CFolderBeside() { TestSupport::RemoveTree(m_path); }
    [[nodiscard]] fs::path const& Path() const { return m_path; }

private:
    fs::path m_path;
};

std::string ContentOf(CString const& path)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const file = archive.OpenFile(path, EFileOpen::Read);
    return file ? ReadAll(*file) : "(missing)";
}

using SListing = TestSupport::TListing<std::vector<std::string>>;

SListing List(CString const& path)
{
    return TestSupport::ListArchive<std::vector<std::string>>(CResourceArchive(), path);
}

bool IsResource(std::string const& entry)
{
    return entry.starts_with(':');
}

void ExpectRefused(CString const& path, u32 mode)
{
    CResourceArchive archive;
    try {
        (void)archive.OpenFile(path, static_cast<EFileOpen::Type>(mode));
        ADD_FAILURE() << "opened " << Bytes(path) << " with mode " << mode;
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Resources are read only.");
        EXPECT_EQ(error.GetFileError(), EFileError::Denied);
    }
}

} // namespace

TEST(ResourceArchive, HasOneName)
{
    CResourceArchive const first;
    CResourceArchive const second;
    EXPECT_EQ(Bytes(first.GetName()), "Resources");
    EXPECT_EQ(&first.GetName(), &second.GetName());
}

TEST(ResourceArchive, NameIsBuiltOnce)
{
    IString const* names[4] = {};
    std::vector<std::thread> threads;
    for (IString const*& name : names)
        threads.emplace_back([&name] { name = &CResourceArchive().GetName(); });
    for (std::thread& thread : threads)
        thread.join();
    for (IString const* const name : names)
        EXPECT_EQ(name, names[0]);
}

TEST(ResourceArchive, SeveralThreadsReadOneArchive)
{
    CFolderBeside const beside;
    CResourceArchive resources;
    std::u16string const folderText = TestSupport::ToText(beside.Path());
    CFolderArchive folder{CString(folderText)};
    CArchiveCollection all("all");
    all.Add(folder);
    all.Add(resources);
    std::vector<std::thread> threads;
    std::vector<int> failures(4);
    for (int& failed : failures)
        threads.emplace_back([&all, &failed] {
            for (int round = 0; round < 20; ++round) {
                TResourcePtr<IFile> const resource = all.OpenFile(":RCDATA/101", EFileOpen::Read);
                TResourcePtr<IFile> const file = all.OpenFile("inner\\two.txt", EFileOpen::Read);
                failed += !resource || ReadAll(*resource) != SampleData;
                failed += !file || ReadAll(*file) != "two";
                failed += all.Contains("inner\\three.txt") || !all.Contains(u":MYDATA/300");
                TVector<CMutableString, 1> files;
                TVector<CMutableString, 1> folders;
                all.List("inner", files, folders);
                failed += files.GetCount() != 1 || folders.GetCount() != 1;
                files.Clear();
                all.archives[1]->List("beside", files, folders);
                failed += files.GetCount() != 13; // ten resources, three files
                unsigned attributes = 0;
                CXMLStream stream;
                stream.OnAttribute = [&attributes](TPair<CString, CString> const&) { ++attributes; };
                TResourcePtr<IFile> const document = all.OpenFile(":24/6", EFileOpen::Read);
                failed += !document || !ReadXML(*document, stream, 8).complete || attributes != 2;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(4));
}

TEST(ResourceArchive, OneResourceHasSeveralPaths)
{
    for (char const* const path :
         {":RCDATA/101", ":10/101", ":0xA/101", ":#10/101", ":RCDATA/65637", ":65546/101", ":10/101x"})
        EXPECT_EQ(ContentOf(path), SampleData) << path;
    EXPECT_EQ(ContentOf(u":RCDATA/101"), SampleData);
    EXPECT_EQ(ContentOf(U":RCDATA/101"), SampleData);
}

TEST(ResourceArchive, FindsEveryKindOfType)
{
    EXPECT_EQ(ContentOf(":HTML/1"), PageData);
    EXPECT_EQ(ContentOf(":23/1"), PageData);
    EXPECT_EQ(ContentOf(":MYDATA/300"), SampleData);
    EXPECT_EQ(ContentOf(":mydata/300"), SampleData); // named types are found without regard to case
    EXPECT_EQ(ContentOf(":Other/65535"), PageData);
    EXPECT_EQ(ContentOf(":77/12"), PageData);
    EXPECT_EQ(ContentOf(":25/5"), SampleData);
    EXPECT_EQ(ContentOf(":RCDATA/42"), "");
}

TEST(ResourceArchive, MissesWhatIsNotThere)
{
    for (char const* const path : {":RCDATA/9999", ":RCDATA/abc", ":RCDATA/", ":RCDATA", ":", ":/", "://", ":/101",
                                   ":rcdata/101", ":Html/1", ":MYDATA/301", ":NOSUCH/1", ":RCDATA\\101",
                                   ":RCDATA/NAMED", ":0/101", ":99999/1", ":RCDATA /101", ":#/101"}) {
        EXPECT_EQ(ContentOf(path), "(missing)") << path;
        EXPECT_FALSE(CResourceArchive().Contains(path)) << path;
    }
    EXPECT_TRUE(CResourceArchive().Contains(":RCDATA/101"));
    EXPECT_TRUE(CResourceArchive().Contains(u":MYDATA/300"));
}

TEST(ResourceArchive, MissingIsEmptyOrThrown)
{
    CResourceArchive archive;
    EXPECT_FALSE(archive.OpenFile(":RCDATA/9999", EFileOpen::Read));
    try {
        (void)archive.OpenFile(u":RCDATA/9999", EFileOpen::Read | EFileOpen::ThrowIfMissing);
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Resource :RCDATA/9999 could not be found or is not of type RT_RCDATA.");
        EXPECT_EQ(error.GetFileError(), EFileError::NotFound);
        EXPECT_EQ(error.GetKind(), 1);
    }
    try {
        (void)archive.OpenFile(":", EFileOpen::Read | EFileOpen::ThrowIfMissing); // the colon alone makes it a resource
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Resource : could not be found or is not of type RT_RCDATA.");
    }
    EXPECT_FALSE(archive.OpenFile("no\\such.file", EFileOpen::Read));
    try {
        (void)archive.OpenFile("no-such.file", EFileOpen::Read | EFileOpen::ThrowIfMissing);
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), TestSupport::FileNotFoundText());
        EXPECT_EQ(error.GetFileError(), EFileError::NotFound);
    }
}

TEST(ResourceArchive, WritesNothing)
{
    CFolderBeside const beside;
    for (u32 const mode : {2u, 3u, 4u, 5u, 8u, 9u, 11u, 14u, 31u}) {
        ExpectRefused(":RCDATA/101", mode);
        ExpectRefused("beside\\one.txt", mode);
        ExpectRefused("beside\\new.txt", mode);
    }
    EXPECT_FALSE(fs::exists(beside.Path() / "new.txt"));
}

TEST(ResourceArchive, OpensFilesBesideTheExecutable)
{
    CFolderBeside const beside;
    EXPECT_EQ(ContentOf("beside\\one.txt"), "one");
    EXPECT_EQ(ContentOf("beside/inner/two.txt"), "two");
    EXPECT_EQ(ContentOf(u"beside\\inner\\\u00E4\\three.txt"), "three");
    CResourceArchive archive;
    EXPECT_TRUE(archive.Contains("beside"));
    EXPECT_TRUE(archive.Contains("beside\\"));
    EXPECT_TRUE(archive.Contains(""));
    EXPECT_FALSE(archive.Contains("beside\\two.txt"));
    // A folder is no missing file: what the system says passes.
    EXPECT_THROW((void)archive.OpenFile("beside", EFileOpen::Read), CFileException);
}

TEST(ResourceArchive, HandsOutNothingWritable)
{
    CFolderBeside const beside;
    CResourceArchive archive;
    for (EFileOpen::Type const mode : {NoMode, EFileOpen::ThrowIfMissing, EFileOpen::Read}) {
        TResourcePtr<IFile> const file = archive.OpenFile("beside\\one.txt", mode);
        ASSERT_TRUE(file);
        EXPECT_TRUE(file->IsReadable());
        EXPECT_FALSE(file->IsWritable());
        EXPECT_THROW(file->Write("x", 1), CFileException);
        EXPECT_EQ(ReadAll(*file), "one");
    }
}

TEST(ResourceFile, BehavesAsAReadOnlyFile)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const file = archive.OpenFile(":RCDATA/101", NoMode);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetRefCount(), 1);
    EXPECT_EQ(Bytes(file->GetPath()), "");
    EXPECT_EQ(Bytes(file->GetFileName()), ":RCDATA/101");
    EXPECT_EQ(Bytes(file->GetFileExt()), "");
    EXPECT_TRUE(file->IsReadable());
    EXPECT_FALSE(file->IsWritable());
    EXPECT_EQ(file->GetSizeByte(), 17u);
    EXPECT_EQ(std::string(static_cast<char const*>(file->GetNativeHandle()), 17), SampleData);
    try {
        file->Write("x", 1);
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Resource files cannot be modified.");
        EXPECT_EQ(error.GetFileError(), EFileError::Denied);
    }
}

TEST(ResourceFile, SeeksWithoutBounds)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const file = archive.OpenFile(":RCDATA/101", EFileOpen::Read);
    ASSERT_TRUE(file);
    char text[32] = {};
    EXPECT_EQ(file->Seek(ESeek::End, -5), 12u); // adds to the end, as a native file
    EXPECT_EQ(file->Read(text, 32), 5u);
    EXPECT_STREQ(text, "data\n");
    EXPECT_TRUE(file->ReachedEOF());
    EXPECT_EQ(file->Seek(ESeek::End, 0), 17u);
    EXPECT_TRUE(file->ReachedEOF());
    EXPECT_EQ(file->Seek(ESeek::Begin, 2), 2u);
    EXPECT_EQ(file->Seek(ESeek::Current, 3), 5u);
    EXPECT_EQ(file->Seek(static_cast<ESeek::Type>(9), 1), 6u); // any other origin is the current position
    EXPECT_EQ(file->Read(text, 1), 1u);
    EXPECT_EQ(text[0], ' ');
    EXPECT_EQ(file->Seek(ESeek::Begin, 18), 18u);
    EXPECT_FALSE(file->ReachedEOF());
    EXPECT_EQ(file->Read(text, 32), 0u);
    EXPECT_EQ(file->GetPosition(), 18u);
    EXPECT_EQ(file->Seek(ESeek::Begin, -1), ~u64{0});
    EXPECT_EQ(file->Read(text, 32), 0u);
    EXPECT_EQ(file->Read(nullptr, 0), 0u);
}

TEST(ResourceFile, EmptyResource)
{
    CResourceArchive archive;
    TResourcePtr<IFile> const file = archive.OpenFile(":RCDATA/42", EFileOpen::Read);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetSizeByte(), 0u);
    EXPECT_TRUE(file->ReachedEOF());
    char byte;
    EXPECT_EQ(file->Read(&byte, 1), 0u);
}

TEST(ResourceListing, NamesEveryResourceOnceInOrder)
{
    CFolderBeside const beside;
    SListing const listing = List("beside");
    std::vector<std::string> resources;
    std::copy_if(listing.files.begin(), listing.files.end(), std::back_inserter(resources), IsResource);
    std::vector<std::string> const expected = {":MYDATA/300", ":OTHER/65535", ":RCDATA/7", ":RCDATA/42", ":RCDATA/101",
                                               ":HTML/1",     ":HTML/8",      ":24/6",     ":25/5",      ":77/12"};
    EXPECT_EQ(resources, expected);
    for (std::string const& path : resources)
        EXPECT_TRUE(CResourceArchive().Contains(path.c_str())) << path;
}

TEST(ResourceListing, NamesTheTreeWithThePathInFront)
{
    CFolderBeside const beside;
    SListing const listing = List("beside");
    std::multiset<std::string> files;
    for (std::string const& file : listing.files)
        if (!IsResource(file))
            files.insert(file);
    EXPECT_EQ(files, (std::multiset<std::string>{"beside\\one.txt", "beside\\inner\\two.txt",
                                                 "beside\\inner\\\u00E4\\three.txt"}));
    // A folder comes before what is in it.
    EXPECT_EQ(listing.folders, (std::vector<std::string>{"beside\\inner", "beside\\inner\\\u00E4"}));
}

TEST(ResourceListing, EmptyPathListsBesideTheExecutable)
{
    CFolderBeside const beside;
    for (SListing const& listing : {List(""), List(u""), List(U"")}) {
        std::set<std::string> const files(listing.files.begin(), listing.files.end());
        EXPECT_EQ(files.count("beside\\one.txt"), 1u);
        EXPECT_EQ(files.count("beside\\inner\\two.txt"), 1u);
        EXPECT_EQ(files.count(":RCDATA/101"), 1u);
        std::string const program = fs::path(TestSupport::GetProgramPath()).filename().string();
        EXPECT_EQ(files.count(program), 1u) << program;
        std::set<std::string> const folders(listing.folders.begin(), listing.folders.end());
        EXPECT_EQ(folders.count("beside"), 1u);
        EXPECT_EQ(folders.count("beside\\inner"), 1u);
    }
}

TEST(ResourceListing, AMissingFolderThrowsAfterTheResources)
{
    CResourceArchive const archive;
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    files.Append(CMutableString("before"));
    try {
        archive.List("no-such-folder", files, folders);
        ADD_FAILURE();
    }
    catch (CFileException const& error) {
        EXPECT_EQ(error.GetFileError(), EFileError::NotFound);
    }
    ASSERT_EQ(files.GetCount(), 11u);
    EXPECT_EQ(Bytes(files[0]), "before");
    EXPECT_EQ(folders.GetCount(), 0u);
}

TEST(ResourceListing, LinksAreNamedAndNotEntered)
{
    CFolderBeside const beside;
    fs::path const link = beside.Path() / "inner" / "up";
    if (!TestSupport::MakeLink(beside.Path(), link))
        GTEST_SKIP() << "no links here";
    SListing const listing = List("beside");
    EXPECT_EQ(std::count(listing.folders.begin(), listing.folders.end(), "beside\\inner\\up"), 1);
    EXPECT_EQ(listing.folders.size(), 3u);
    EXPECT_EQ(std::count_if(listing.files.begin(), listing.files.end(),
                            [](std::string const& file) { return !IsResource(file); }),
              3);
}

TEST(ResourceArchive, WorksInACollection)
{
    CFolderBeside const beside;
    CResourceArchive resources;
    CArchiveCollection all;
    all.Add(resources);
    TResourcePtr<IFile> const file = all.OpenFile(":HTML/1", EFileOpen::Read);
    ASSERT_TRUE(file);
    EXPECT_EQ(ReadAll(*file), PageData);
    EXPECT_FALSE(all.OpenFile(":HTML/2", EFileOpen::Read | EFileOpen::ThrowIfMissing)); // nobody contains it
}
