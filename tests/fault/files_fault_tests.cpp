// Files of every kind and folder archives while memory runs out, once for every request that they make, and while there
// is no heap at all. Whatever is refused, the outcome is bad_alloc, files are as they were, and nothing is lost to the
// hooks or to the system.
#include "../support/CountingHooks.h"
#include "../support/Faults.h"
#include "../support/Files.h"
#include "../support/Folders.h"

#include <vlmcore/archives.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CTemporaryFolder;
using TestSupport::IsServed;
using TestSupport::ReadAll;
using TestSupport::SFaultMode;
using TestSupport::WriteText;
using Velmor::Test::CCountingHooks;

namespace fs = std::filesystem;

namespace {

// The same for what must fail: the file error's kind, or nothing for want of memory.
template <class Action>
void ExpectErrorOrNoMemory(EFileError::Type expected, Action const& action)
{
    IsServed([&] {
        try {
            action();
            ADD_FAILURE() << "nothing was thrown";
        }
        catch (CFileException const& error) {
            EXPECT_EQ(error.GetFileError(), expected);
        }
    });
}

void RunMemoryFile()
{
    std::string const piece(1500, 'm'); // beyond the pools' blocks: each growth is a request of its own
    std::string expected;
    IsServed([&] {
        CMemoryFile file("folder\\name.ext");
        for (int round = 0; round < 6; ++round) {
            u64 const before = file.GetPosition();
            if (IsServed([&] { EXPECT_EQ(file.Write(piece.data(), piece.size()), piece.size()); })) {
                expected += piece;
                continue;
            }
            EXPECT_EQ(file.GetPosition(), before);
            EXPECT_EQ(file.GetSizeByte(), expected.size());
        }
        EXPECT_EQ(ReadAll(file), expected);
        file.Seek(ESeek::Begin, expected.empty() ? 0 : 1); // behind the end it would grow
        if (!IsServed([&] { file.Seek(ESeek::End, -2000); })) {
            EXPECT_EQ(file.GetPosition(), std::min<u64>(1, expected.size()));
            EXPECT_EQ(file.GetSizeByte(), expected.size());
        }
        else {
            EXPECT_EQ(file.GetPosition(), expected.size() + 2000);
        }
        // Its own contents as the source of a write that makes it grow.
        u64 const sizeBefore = file.GetSizeByte();
        void* const contents = file.GetNativeHandle();
        file.Seek(ESeek::End, 0);
        if (sizeBefore >= 1500 && !IsServed([&] { file.Write(contents, 1500); })) {
            EXPECT_EQ(file.GetNativeHandle(), contents);
            EXPECT_EQ(file.GetSizeByte(), sizeBefore);
        }
    });
}

void RunByteStreams()
{
    char data[10] = {};
    IsServed([&] {
        CByteStreamFile file("folder\\name.ext", data, sizeof data);
        EXPECT_EQ(file.Write("abc", 3), 3u);
        CByteStreamFile readOnly(u"folder\\name.ext", static_cast<void const*>(data), sizeof data);
        ExpectErrorOrNoMemory(EFileError::Denied, [&] { readOnly.Write("x", 1); });
        EXPECT_EQ(readOnly.GetPosition(), 0u);
        EXPECT_EQ(ReadAll(readOnly), std::string("abc\0\0\0\0\0\0\0", 10));
        CNullFile const nothing(U"folder\\name.ext");
        EXPECT_EQ(nothing.GetSizeByte(), 0u);
    });
}

void RunNativeFiles(std::u16string const& root)
{
    std::u16string const path = root + u"\\native.txt";
    bool const isCreated = IsServed([&] {
        CNativeFile file(path.c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
        u64 const before = CCountingHooks::GetRequests();
        EXPECT_EQ(file.Write("native", 6), 6u);
        EXPECT_EQ(file.GetPosition(), 6u);
        EXPECT_EQ(CCountingHooks::GetRequests(), before); // writing asks for nothing
        ExpectErrorOrNoMemory(EFileError::Unknown, [&] { file.Seek(ESeek::Begin, -1); });
        EXPECT_EQ(file.GetPosition(), 6u);
    });
    IsServed([&] {
        try {
            CNativeFile file(CString(root.c_str()), "native.txt", EFileOpen::Read);
            EXPECT_EQ(ReadAll(file), "native");
        }
        catch (CFileException const& error) {
            EXPECT_FALSE(isCreated);
            EXPECT_EQ(error.GetFileError(), EFileError::NotFound);
        }
    });
    ExpectErrorOrNoMemory(EFileError::NotFound,
                          [&] { CNativeFile file(CString(root.c_str()), "missing\\file", EFileOpen::Read); });
}

void RunArchive(std::u16string const& root)
{
    IsServed([&] {
        CFolderArchive archive{CString(root.c_str())};
        IsServed([&] { EXPECT_TRUE(archive.Contains("kept.txt")); });
        IsServed([&] { EXPECT_FALSE(archive.Contains(u"missing.txt")); });
        for (CString const& path : {CString(""), CString(u""), CString(U"")}) {
            TVector<CMutableString, 1> files;
            TVector<CMutableString, 1> folders;
            if (IsServed([&] { archive.List(path, files, folders); }))
                EXPECT_EQ(folders.GetCount(), 1u);
            EXPECT_LE(files.GetCount(), 2u);
            for (CMutableString const& file : files)
                EXPECT_FALSE(file.IsEmpty());
        }
        ExpectErrorOrNoMemory(EFileError::Denied, [&] { archive.CreateFolder("sub"); });
        ExpectErrorOrNoMemory(EFileError::NotFound, [&] { archive.RemoveFile("missing.txt"); });
        ExpectErrorOrNoMemory(EFileError::Denied, [&] { archive.RemoveFolder(".."); });
        IsServed([&] { archive.RemoveFolder("sub"); });
    });
}

class FileFaults : public ::testing::TestWithParam<SFaultMode> {
protected:
    // Runs everything with the n-th request refused; false when it makes fewer requests than that.
    bool RunWith(u64 failing)
    {
        fs::create_directories(folder.Path() / "sub" / "a" / "b");
        WriteText(folder.Path() / "sub" / "a" / "1", "");
        WriteText(folder.Path() / "sub" / "a" / "b" / "2", "");
        fs::remove(folder.Path() / "native.txt");
        bool const isReached = TestSupport::IsRefusalReached(GetParam(), failing, [&] {
            RunMemoryFile();
            RunByteStreams();
            RunNativeFiles(root);
            RunArchive(root);
        });
        EXPECT_TRUE(fs::exists(folder.Path() / "kept.txt"));
        return isReached;
    }

    void SetUp() override
    {
        WriteText(folder.Path() / "kept.txt", "kept");
        (void)RunWith(0);
        handles = TestSupport::OpenHandleCount();
    }

    CTemporaryFolder folder;
    std::u16string root = folder.Text();
    unsigned handles = 0;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, FileFaults, TestSupport::FaultModes(), TestSupport::NameOf);

TEST_P(FileFaults, EveryRequestMayBeRefused)
{
    TestSupport::RefuseEachInTurn(GetParam(), 100, [&](u64 failing) { return RunWith(failing); });
    EXPECT_EQ(TestSupport::OpenHandleCount(), handles);
}

// ---- without a heap ----

TEST(FilesWithoutHeap, ConstructionThrowsAndCreatesNothing)
{
    ASSERT_FALSE(Memory::IsInitialized());
    CTemporaryFolder const folder;
    WriteText(folder.Path() / "file", "kept");
    std::u16string const path = folder.Text(u"file");
    std::u16string const missing = folder.Text(u"missing");
    unsigned const handles = TestSupport::OpenHandleCount();
    EXPECT_FALSE(IsServed([&] { CNativeFile file(path.c_str(), EFileOpen::Read); }));
    EXPECT_FALSE(IsServed([&] { CNativeFile file(missing.c_str(), EFileOpen::Write | EFileOpen::CreateAlways); }));
    EXPECT_FALSE(IsServed([&] { (void)MakeResource<CNativeFile>(path.c_str(), EFileOpen::Read); }));
    EXPECT_FALSE(IsServed([&] { CMemoryFile file("folder\\name.ext"); }));
    char data[4] = {};
    EXPECT_FALSE(IsServed([&] { CByteStreamFile file("folder\\name.ext", data, sizeof data); }));
    EXPECT_FALSE(IsServed([&] { CNullFile file("folder\\name.ext"); }));
    EXPECT_FALSE(IsServed([&] { CFolderArchive archive{CString(path.c_str())}; }));
    EXPECT_EQ(TestSupport::OpenHandleCount(), handles);
    EXPECT_FALSE(fs::exists(folder.Path() / "missing"));
    // What holds nothing needs nothing.
    CResourceArchive const resources;
    EXPECT_EQ(std::strcmp(static_cast<char const*>(resources.GetName().GetData()), "Resources"), 0);
    CArchiveCollection const all;
    EXPECT_FALSE(all.Contains("x"));
}

TEST(FilesWithoutHeap, WhatOutlivesTheHeapGoesQuietly)
{
    CTemporaryFolder const folder;
    std::u16string const path = folder.Text(u"file");
    std::u16string const root = folder.Text();
    unsigned const handles = TestSupport::OpenHandleCount();
    CCountingHooks::Reset();
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    {
        CNativeFile native(path.c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
        CMemoryFile memory("folder\\name.ext");
        memory.Write("abc", 3);
        CFolderArchive const archive{CString(root.c_str())};
        CArchiveCollection all("all");
        all.Add(*const_cast<CFolderArchive*>(&archive));
        TResourcePtr<IFile> const shared = MakeResource<CMemoryFile>("shared");
        Memory::Deinitialize();
        EXPECT_EQ(native.Write("late", 4), 4u);
        EXPECT_EQ(memory.GetSizeByte(), 3u);
    }
    EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    EXPECT_EQ(TestSupport::OpenHandleCount(), handles);
    EXPECT_EQ(TestSupport::ReadText(folder.Path() / "file"), "late");
    CCountingHooks::Reset();
}
