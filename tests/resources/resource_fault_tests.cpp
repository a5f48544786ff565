// A host's work over resources, files beside the program and collections of both, once for every request of memory that
// it makes: that one refused, or that one and all behind it. Whatever is refused, the outcome is bad_alloc, things are
// as they were before the call, and nothing is lost to the hooks or to the system.
#include "support/CountingHooks.h"
#include "support/DebuggedProcess.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>
#include <vlmcore/xml_stream.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::IsServed;
using TestSupport::ReadAll;
using TestSupport::SFaultMode;
using Velmor::Test::CCountingHooks;

namespace fs = std::filesystem;

namespace {

std::string const SampleData("sample \0\1\2\xff data\n", 17);

// The folder that the listings see, and that nobody else uses.
class CFolderBeside {
public:
    CFolderBeside() : m_path(fs::path(TestSupport::GetProgramPath()).parent_path() / "beside-fault")
    {
        TestSupport::RemoveTree(m_path);
        fs::create_directories(m_path / "inner");
        TestSupport::WriteText(m_path / "one.txt", "one");
        TestSupport::WriteText(m_path / "inner" / "two.txt", "two");
    }
    CFolderBeside(CFolderBeside const&) = delete;
    CFolderBeside& operator=(CFolderBeside const&) = delete;
    ~CFolderBeside() { TestSupport::RemoveTree(m_path); }
    [[nodiscard]] std::u16string Text() const { return TestSupport::ToText(m_path); }

private:
    fs::path m_path;
};

// ASCII text of any encoding, without asking the library for memory.
std::string Bytes(CString const& text)
{
    auto const narrow = [](auto const* units) {
        std::string bytes;
        for (; *units != 0; ++units)
            bytes += static_cast<char>(*units);
        return bytes;
    };
    return text.GetEncoding() == EStringEncoding::UTF8    ? narrow(static_cast<char const*>(text.GetData()))
           : text.GetEncoding() == EStringEncoding::UTF16 ? narrow(static_cast<char16_t const*>(text.GetData()))
                                                          : narrow(static_cast<char32_t const*>(text.GetData()));
}

using Lines = std::vector<std::string>;

Lines ToLines(TVector<CMutableString, 1> const& texts)
{
    Lines lines;
    for (CMutableString const& text : texts)
        lines.push_back(Bytes(text));
    return lines;
}

bool IsBeginOf(Lines const& part, Lines const& whole)
{
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

class CScenario {
public:
    CScenario(bool isOnce, std::u16string folderText) : m_isOnce(isOnce), m_folderText(std::move(folderText)) {}

    void Run()
    {
        RunArchive();
        RunListing("beside-fault");
        RunListing(u"beside-fault");
        RunListing(U"beside-fault");
        RunCollection();
        RunXML();
    }

    /// The order in which the system names what lies in the folder; from a run with all the memory it wants.
    void SetExpectedListing(Lines files, Lines folders)
    {
        m_files = std::move(files);
        m_folders = std::move(folders);
    }

private:
    /// Calls the action until it is served or stays refused; a refusal that is the only one is over with it.
    template <class Action>
    bool Do(Action const& action)
    {
        bool const isServed = IsServed(action) || IsServed(action);
        EXPECT_TRUE(isServed || !m_isOnce) << "refused a second time";
        return isServed;
    }

    void RunArchive()
    {
        CResourceArchive archive;
        EXPECT_EQ(Bytes(archive.GetName()), "Resources");
        Do([&] { EXPECT_TRUE(archive.Contains(":RCDATA/101")); });
        Do([&] { EXPECT_TRUE(archive.Contains(u":MYDATA/300")); });
        Do([&] { EXPECT_TRUE(archive.Contains(U"beside-fault\\inner")); });
        Do([&] { EXPECT_FALSE(archive.Contains("beside-fault\\none")); });

        TResourcePtr<IFile> file;
        if (Do([&] { file = archive.OpenFile(":RCDATA/101", EFileOpen::Read); })) {
            ASSERT_TRUE(file);
            EXPECT_EQ(file->GetRefCount(), 1);
            EXPECT_EQ(Bytes(file->GetFileName()), ":RCDATA/101");
            u64 const before = CCountingHooks::GetRequests();
            EXPECT_EQ(ReadAll(*file), SampleData);
            file->Seek(ESeek::End, -5);
            EXPECT_EQ(file->GetPosition(), 12u);
            EXPECT_EQ(CCountingHooks::GetRequests(), before); // reading asks for nothing
            Do([&] {
                try {
                    file->Write("x", 1);
                    ADD_FAILURE();
                }
                catch (CFileException const& error) {
                    EXPECT_EQ(error.GetFileError(), EFileError::Denied);
                }
            });
            EXPECT_EQ(file->GetPosition(), 12u);
        }
        // The file that is held stays when the next cannot be had.
        IFile* const held = file.Get();
        if (!IsServed([&] { file = archive.OpenFile(u":HTML/1", EFileOpen::Read); }))
            EXPECT_EQ(file.Get(), held);

        Do([&] { EXPECT_FALSE(archive.OpenFile(":RCDATA/9999", EFileOpen::Read)); });
        Do([&] { EXPECT_FALSE(archive.OpenFile("beside-fault\\none", EFileOpen::Read)); });
        Do([&] { ExpectError(archive, ":RCDATA/9999", EFileOpen::ThrowIfMissing, EFileError::NotFound); });
        Do([&] { ExpectError(archive, "beside-fault/none", EFileOpen::ThrowIfMissing, EFileError::NotFound); });
        Do([&] { ExpectError(archive, "beside-fault/one.txt", EFileOpen::Write, EFileError::Denied); });
        if (Do([&] { file = archive.OpenFile("beside-fault\\one.txt", EFileOpen::Read); }))
            EXPECT_EQ(ReadAll(*file), "one");
    }

    static void ExpectError(CResourceArchive& archive, CString const& path, EFileOpen::Type mode,
                            EFileError::Type expected)
    {
        try {
            (void)archive.OpenFile(path, mode);
            ADD_FAILURE() << Bytes(path) << " was opened";
        }
        catch (CFileException const& error) {
            EXPECT_EQ(error.GetFileError(), expected);
        }
    }

    void RunListing(CString const& path)
    {
        CResourceArchive const archive;
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        if (!IsServed([&] { archive.List(path, files, folders); })) {
            // What was appended stays, whole and in order.
            if (!m_files.empty()) {
                EXPECT_TRUE(IsBeginOf(ToLines(files), m_files));
                EXPECT_TRUE(IsBeginOf(ToLines(folders), m_folders));
            }
            files.Clear();
            folders.Clear();
            if (!Do([&] { archive.List(path, files, folders); }))
                return;
        }
        if (m_files.empty())
            SetExpectedListing(ToLines(files), ToLines(folders));
        EXPECT_EQ(ToLines(files), m_files);
        EXPECT_EQ(ToLines(folders), m_folders);
    }

    void RunCollection()
    {
        Do([&] {
            CResourceArchive resources;
            CFolderArchive folder{CString(m_folderText)};
            CArchiveCollection all("game");
            // The list grows by one at a time, past its first storage.
            for (u64 count = 0; count < 6; ++count) {
                try {
                    all.Add(count == 1 ? static_cast<IArchive&>(folder) : resources);
                }
                catch (std::bad_alloc const&) {
                    EXPECT_EQ(all.archives.GetCount(), count);
                    for (IArchive* const archive : all.archives)
                        EXPECT_TRUE(archive == &resources || archive == &folder);
                    throw;
                }
            }
            EXPECT_EQ(all.archives.GetCount(), 6u);
            EXPECT_EQ(Bytes(all.GetName()), "game");
            TResourcePtr<IFile> const resource = all.OpenFile(":RCDATA/101", EFileOpen::Read);
            EXPECT_EQ(ReadAll(*resource), SampleData);
            TResourcePtr<IFile> const file = all.OpenFile("inner\\two.txt", EFileOpen::Read);
            EXPECT_EQ(ReadAll(*file), "two");
            TVector<CMutableString, 1> files;
            TVector<CMutableString, 1> folders;
            all.List("inner", files, folders);
            EXPECT_EQ(ToLines(files), Lines{"two.txt"});
            EXPECT_EQ(folders.GetCount(), 0u);
        });
    }

    // From a buffer of one byte: it grows for the names and the attributes.
    void RunXML()
    {
        CResourceArchive archive;
        TResourcePtr<IFile> file;
        if (!Do([&] { file = archive.OpenFile(":24/6", EFileOpen::Read); }))
            return;
        CXMLStream stream;
        unsigned elements = 0;
        unsigned attributes = 0;
        unsigned ends = 0;
        stream.OnElementBegin = [&](CString const&) { ++elements; };
        stream.OnAttribute = [&](TPair<CString, CString> const&) { ++attributes; };
        stream.OnElementEnd = [&](CString const*) { ++ends; };
        Do([&] {
            elements = attributes = ends = 0;
            file->Seek(ESeek::Begin, 0);
            EXPECT_TRUE(ReadXML(*file, stream, 1).complete);
            EXPECT_EQ(elements, 1u);
            EXPECT_EQ(attributes, 2u);
            EXPECT_EQ(ends, 1u);
        });
    }

    bool m_isOnce;
    std::u16string m_folderText;
    Lines m_files;
    Lines m_folders;
};

class ResourceFaults : public ::testing::TestWithParam<SFaultMode> {
protected:
    void SetUp() override { before = (RunWith(0), TestSupport::OpenHandleCount()); }

    // Runs the scenario with the n-th request refused (0: none); false when it makes fewer requests than that.
    bool RunWith(u64 failing)
    {
        return TestSupport::IsRefusalReached(GetParam(), failing, [&] {
            CScenario scenario(GetParam().isOnce, beside.Text());
            scenario.SetExpectedListing(files, folders);
            scenario.Run();
            if (files.empty())
                KeepListing();
        });
    }

    void KeepListing()
    {
        TVector<CMutableString, 1> listedFiles;
        TVector<CMutableString, 1> listedFolders;
        CResourceArchive().List("beside-fault", listedFiles, listedFolders);
        files = ToLines(listedFiles);
        folders = ToLines(listedFolders);
        EXPECT_EQ(files.size(), 12u); // ten resources and two files
        EXPECT_EQ(folders, Lines{"beside-fault\\inner"});
    }

    CFolderBeside beside;
    Lines files;
    Lines folders;
    unsigned before = 0;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, ResourceFaults, TestSupport::FaultModes(), TestSupport::NameOf);

TEST_P(ResourceFaults, EveryRequestMayBeRefused)
{
    TestSupport::RefuseEachInTurn(GetParam(), 200, [&](u64 failing) { return RunWith(failing); });
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}
