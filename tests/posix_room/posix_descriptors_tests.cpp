// A process that has no descriptors left, at every point of what archives do: what cannot be opened is an exception
// with the system's text, and nothing stays open.
#include "TestHeap.h"
#include "Texts.h"
#include "platform/Platform_Folder.h"
#include "platform/Platform_SystemError.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/archives.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CTemporaryFolder;
using TestSupport::WriteText;
using VlmTest::Bytes;

namespace fs = std::filesystem;

namespace {

/// Lets the process have descriptors below `count` only.
class CFewDescriptors {
public:
    explicit CFewDescriptors(unsigned count)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit few = m_before;
        few.rlim_cur = count;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    CFewDescriptors(CFewDescriptors const&) = delete;
    CFewDescriptors& operator=(CFewDescriptors const&) = delete;
    ~CFewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

/// Takes the numbers below the highest descriptor that are free, so that the next one is the count of all.
class CGaplessDescriptors {
public:
    CGaplessDescriptors()
    {
        do
            m_taken.push_back(::open("/dev/null", O_RDONLY));
        while (static_cast<unsigned>(m_taken.back()) + 1 != CountOpen());
    }
    CGaplessDescriptors(CGaplessDescriptors const&) = delete;
    CGaplessDescriptors& operator=(CGaplessDescriptors const&) = delete;
    ~CGaplessDescriptors()
    {
        for (int const descriptor : m_taken)
            ::close(descriptor);
    }
    [[nodiscard]] static unsigned CountOpen() { return TestSupport::OpenHandleCount() - 1; } // but for its own

private:
    std::vector<int> m_taken;
};

// Runs `action` with no descriptor to spare, then with one, two, ... until it gets through; returns how many it took.
template <class Action>
unsigned CountNeeded(Action const& action)
{
    CGaplessDescriptors const gapless;
    unsigned const open = gapless.CountOpen();
    for (unsigned spare = 0; spare < 50; ++spare) {
        bool isDone = false;
        try {
            CFewDescriptors const few(open + spare);
            action();
            isDone = true;
        }
        catch (CFileException const& error) {
            EXPECT_EQ(error.GetFileError(), EFileError::Unknown);
            EXPECT_EQ(Bytes(error.GetText()), std::strerror(EMFILE));
        }
        EXPECT_EQ(gapless.CountOpen(), open) << spare;
        if (isDone)
            return spare;
    }
    ADD_FAILURE() << "never got through";
    return 0;
}

class Descriptors : public ::testing::Test {
protected:
    Descriptors()
    {
        fs::create_directories(folder.Path() / "t" / "1" / "2" / "3" / "4" / "5" / "6" / "7");
        WriteText(folder.Path() / "t" / "1" / "2" / "3" / "file", "here");
    }

    CTemporaryFolder folder;
    std::u16string root = folder.Text();
    CFolderArchive archive{CString(root)};
};

} // namespace

TEST_F(Descriptors, RemovalTakesOneALevel)
{
    unsigned const needed = CountNeeded([&] { archive.RemoveFolder("t"); });
    EXPECT_EQ(needed, 9u); // the folder's own, and that of what holds it
    EXPECT_FALSE(fs::exists(folder.Path() / "t"));
    EXPECT_TRUE(fs::exists(folder.Path()));
}

namespace {

// Folders within each other below `top`, deeper than a path reaches; some with a file and a link beside the next one.
void MakeDeepTree(fs::path const& top, unsigned depth, std::string const& name, fs::path const& linked)
{
    fs::create_directory(top);
    int folder = ::open(top.c_str(), O_RDONLY | O_DIRECTORY);
    for (unsigned level = 0; level < depth; ++level) {
        if (level % 50 == 0) {
            ::close(::openat(folder, "file", O_CREAT | O_WRONLY, 0600));
            ASSERT_EQ(::symlinkat(linked.c_str(), folder, "link"), 0);
        }
        ASSERT_EQ(::mkdirat(folder, name.c_str(), 0700), 0) << level;
        int const next = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_NE(next, -1) << level;
        ::close(folder);
        folder = next;
    }
    ::close(folder);
}

} // namespace

TEST_F(Descriptors, ATreeOfAnyDepthIsRemovedWithAFew)
{
    fs::create_directory(folder.Path() / "outside");
    WriteText(folder.Path() / "outside" / "stays", "here");
    for (auto const& [depth, length] : {std::pair{100u, 3u}, {3000u, 250u}}) {
        SCOPED_TRACE(depth);
        MakeDeepTree(folder.Path() / "deep", depth, std::string(length, 'n'), folder.Path() / "outside");
        CFewDescriptors const few(CGaplessDescriptors::CountOpen() + 18);
        try {
            archive.RemoveFolder("deep");
        }
        catch (CFileException const& error) {
            ADD_FAILURE() << Bytes(error.GetText());
        }
        EXPECT_FALSE(fs::exists(folder.Path() / "deep"));
        EXPECT_EQ(TestSupport::ReadText(folder.Path() / "outside" / "stays"), "here");
    }
}

TEST_F(Descriptors, ADeepTreeWithBranchesIsRemoved)
{
    // Folders beside the way down on every level: each of those is opened again on the way back.
    fs::path way = folder.Path() / "branches";
    for (unsigned level = 0; level < 60; ++level) {
        for (char const* const name : {"a", "m", "z"})
            fs::create_directories(way / name / "below");
        WriteText(way / "z" / "file", "");
        way /= "m";
    }
    unsigned const needed = CountNeeded([&] { archive.RemoveFolder("branches"); });
    EXPECT_EQ(needed, 17u); // sixteen levels and what holds the tree
    EXPECT_FALSE(fs::exists(folder.Path() / "branches"));
}

TEST_F(Descriptors, AFolderThatIsMovedAwayMeanwhileIsNotFollowed)
{
    using Platform::CFolder;
    fs::create_directories(folder.Path() / "a" / "b");
    fs::create_directories(folder.Path() / "elsewhere");
    CFolder top;
    CFolder a;
    CFolder b;
    ASSERT_EQ(top.Open(root.c_str(), Platform::EFolderUse::Hold), 0u);
    ASSERT_EQ(a.OpenEntry(top, u"a"), 0u);
    ASSERT_EQ(b.OpenEntry(a, u"b"), 0u);
    unsigned const open = TestSupport::OpenHandleCount();
    a.Park();
    EXPECT_EQ(TestSupport::OpenHandleCount(), open - 1);
    EXPECT_EQ(a.Resume(b), 0u);
    EXPECT_EQ(TestSupport::OpenHandleCount(), open);
    Platform::SEntryKind kind;
    EXPECT_EQ(a.DescribeEntry(u"b", kind), 0u);

    a.Park();
    fs::rename(folder.Path() / "a" / "b", folder.Path() / "elsewhere" / "b");
    EXPECT_EQ(a.Resume(b), u32{Platform::ESystemError::PathNotFound});
    EXPECT_EQ(TestSupport::OpenHandleCount(), open - 1);
}

TEST_F(Descriptors, ListingAndOpeningTakeOne)
{
    EXPECT_EQ(CountNeeded([&] {
                  TVector<CMutableString, 1> files;
                  TVector<CMutableString, 1> folders;
                  archive.List("t/1/2/3", files, folders);
                  EXPECT_EQ(files.GetCount(), 1u);
                  EXPECT_EQ(folders.GetCount(), 1u);
              }),
              1u);
    EXPECT_EQ(CountNeeded([&] { EXPECT_TRUE(archive.OpenFile("t/1/2/3/file", EFileOpen::Read)); }), 1u);
    CArchiveCollection all;
    all.Add(archive);
    EXPECT_EQ(CountNeeded([&] { EXPECT_TRUE(all.OpenFile("t/1/2/3/file", EFileOpen::Read)); }), 1u);
}

TEST_F(Descriptors, AskingAndChangingTakeNone)
{
    EXPECT_EQ(CountNeeded([&] { EXPECT_TRUE(archive.Contains("t/1/2/3/file")); }), 0u);
    EXPECT_EQ(CountNeeded([&] { EXPECT_FALSE(archive.Contains("t/none")); }), 0u);
    EXPECT_EQ(CountNeeded([&] { archive.CreateFolder("t/new"); }), 0u);
    EXPECT_EQ(CountNeeded([&] { archive.RemoveFile("t/1/2/3/file"); }), 0u);
    EXPECT_FALSE(archive.Contains("t/1/2/3/file"));
}
