// What hosts that implement or stack archives rely on: the order of the operations, and what a collection asks whom.
#include "TestHeap.h"
#include "Texts.h"
#include "support/Files.h"
#include "support/Folders.h"
#include "support/VirtualSlots.h"

#include <vlmcore/archives.h>

#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CTemporaryFolder;
using TestSupport::FileErrorOf;
using TestSupport::ReadAll;
using TestSupport::SlotOf;
using VlmTest::Bytes;
using VlmTest::Units;

namespace {

using Log = std::vector<std::string>;

/// An archive of a host's own, which says what it is asked.
class CScriptedArchive : public IArchive {
public:
    CScriptedArchive(char const* name, Log& log) : m_name(name), m_log(log) {}

    TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type mode) override
    {
        Record("open " + Bytes(path) + " " + std::to_string(static_cast<u32>(mode)));
        if (throws)
            throw CFileException("locked", EFileError::Denied);
        return file;
    }
    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override
    {
        Record("list " + Bytes(path));
        files.Append(m_name + CString(".file"));
        folders.Append(m_name + CString(".folder"));
    }
    [[nodiscard]] bool Contains(CString const& path) const override
    {
        Record("contains " + Bytes(path));
        return contains;
    }
    [[nodiscard]] IString const& GetName() const override { return m_name; }

    bool contains = false;
    bool throws = false;
    TResourcePtr<IFile> file;

private:
    void Record(std::string const& call) const { m_log.push_back(Bytes(m_name) + ": " + call); }

    CMutableString m_name;
    Log& m_log;
};

class ScriptedCollection : public ::testing::Test {
protected:
    ScriptedCollection()
    {
        all.Add(a);
        all.Add(b);
        all.Add(c);
    }

    Log log;
    CScriptedArchive a{"A", log};
    CScriptedArchive b{"B", log};
    CScriptedArchive c{"C", log};
    CArchiveCollection all{"all"};
};

} // namespace

// ---- order of the operations ----

TEST(ArchiveInterface, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&IArchive::OpenFile), 2u);
    EXPECT_EQ(SlotOf(&IArchive::List), 3u);
    EXPECT_EQ(SlotOf(&IArchive::Contains), 4u);
    EXPECT_EQ(SlotOf(&IArchive::GetName), 5u);
    EXPECT_EQ(SlotOf(&IMutableArchive::RemoveFile), 6u);
    EXPECT_EQ(SlotOf(&IMutableArchive::CreateFolder), 7u);
    EXPECT_EQ(SlotOf(&IMutableArchive::RemoveFolder), 8u);
    EXPECT_EQ(SlotOf(&CFolderArchive::OpenFile), 2u);
    EXPECT_EQ(SlotOf(&CFolderArchive::RemoveFolder), 8u);
}

TEST(ArchiveInterface, FileOperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&IFile::GetPath), 2u);
    EXPECT_EQ(SlotOf(&IFile::GetFileName), 3u);
    EXPECT_EQ(SlotOf(&IFile::GetFileExt), 4u);
    EXPECT_EQ(SlotOf(&IFile::IsWritable), 5u);
    EXPECT_EQ(SlotOf(&IFile::GetSizeByte), 13u);
    EXPECT_EQ(SlotOf(&CResourceFile::GetPath), 2u);
    EXPECT_EQ(SlotOf(&CResourceFile::GetSizeByte), 13u);
}

TEST(ArchiveInterface, ArchivesAreNotCounted)
{
    EXPECT_FALSE((std::is_base_of_v<CResource, IArchive>));
    EXPECT_TRUE(std::has_virtual_destructor_v<IArchive>);
    EXPECT_TRUE((std::is_base_of_v<IArchive, IMutableArchive>));
    EXPECT_TRUE((std::is_base_of_v<IMutableArchive, CFolderArchive>));
    EXPECT_FALSE((std::is_base_of_v<IMutableArchive, CArchiveCollection>));
    EXPECT_FALSE((std::is_base_of_v<IMutableArchive, CResourceArchive>));
    // A pointer to the table, three words of a vector; the name follows.
    CArchiveCollection all;
    EXPECT_EQ(reinterpret_cast<u8 const*>(&all.archives) - reinterpret_cast<u8 const*>(&all), 8);
}

// ---- collections ----

TEST_F(ScriptedCollection, AsksInOrderUntilOneSaysYes)
{
    EXPECT_FALSE(all.Contains("x"));
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "C: contains x"}));
    log.clear();
    b.contains = c.contains = true;
    EXPECT_TRUE(all.Contains("x"));
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x"}));
}

TEST_F(ScriptedCollection, TheFirstThatContainsOpensWithTheModeAsItIs)
{
    a.file = MakeResource<CNullFile>("wrong");
    b.contains = c.contains = true;
    b.file = MakeResource<CNullFile>("right");
    TResourcePtr<IFile> const file = all.OpenFile("x", static_cast<EFileOpen::Type>(0x1000001B));
    ASSERT_TRUE(file);
    EXPECT_EQ(file.Get(), b.file.Get());
    EXPECT_EQ(file->GetRefCount(), 2);
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "B: open x 268435483"}));
}

TEST_F(ScriptedCollection, AnEmptyResultIsReturnedAsItIs)
{
    b.contains = c.contains = true;
    c.file = MakeResource<CNullFile>("later");
    EXPECT_FALSE(all.OpenFile("x", EFileOpen::Read));
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "B: open x 1"}));
}

TEST_F(ScriptedCollection, ExceptionsPassAndNobodyElseIsAsked)
{
    b.contains = c.contains = true;
    b.throws = true;
    c.file = MakeResource<CNullFile>("later");
    EXPECT_EQ(FileErrorOf([&] { (void)all.OpenFile("x", EFileOpen::Read); }), EFileError::Denied);
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "B: open x 1"}));
}

TEST_F(ScriptedCollection, WithoutAnyThatContainsNothingIsOpenedOrListed)
{
    a.file = MakeResource<CNullFile>("x");
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    files.Append(CMutableString("before"));
    EXPECT_FALSE(all.OpenFile("x", EFileOpen::Read | EFileOpen::ThrowIfMissing));
    all.List("x", files, folders);
    EXPECT_EQ(files.GetCount(), 1u);
    EXPECT_EQ(folders.GetCount(), 0u);
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "C: contains x", "A: contains x", "B: contains x",
                        "C: contains x"}));
}

TEST_F(ScriptedCollection, OnlyOneLists)
{
    b.contains = c.contains = true;
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    files.Append(CMutableString("before"));
    all.List("x", files, folders);
    ASSERT_EQ(files.GetCount(), 2u);
    EXPECT_EQ(Bytes(files[0]), "before");
    EXPECT_EQ(Bytes(files[1]), "B.file");
    ASSERT_EQ(folders.GetCount(), 1u);
    EXPECT_EQ(Bytes(folders[0]), "B.folder");
    EXPECT_EQ(log, (Log{"A: contains x", "B: contains x", "B: list x"}));
}

TEST_F(ScriptedCollection, FollowsItsListAsItIsNow)
{
    a.contains = b.contains = c.contains = true;
    std::swap(all.archives[0], all.archives[2]);
    EXPECT_TRUE(all.Contains("x"));
    all.archives.RemoveAt(0);
    EXPECT_TRUE(all.Contains("y"));
    all.archives.Clear();
    EXPECT_FALSE(all.Contains("z"));
    EXPECT_EQ(log, (Log{"C: contains x", "B: contains y"}));
}

TEST_F(ScriptedCollection, KeepsItsNameAndOwnsNoArchive)
{
    EXPECT_EQ(Bytes(all.GetName()), "all");
    {
        CArchiveCollection const copy(all);
        EXPECT_EQ(copy.archives.GetCount(), 3u);
        EXPECT_EQ(copy.archives[1], &b);
        EXPECT_EQ(Bytes(copy.GetName()), "all");
    }
    a.contains = true;
    EXPECT_TRUE(all.Contains("x")); // still there
    std::string text = "changes";
    CArchiveCollection const named(text.c_str());
    text = "changed";
    EXPECT_EQ(Bytes(named.GetName()), "changes"); // a copy
}

// ---- folder archives ----

TEST(FolderArchiveInterface, OpeningDoesNotAskContains)
{
    class CDenying : public CFolderArchive {
    public:
        using CFolderArchive::CFolderArchive;
        bool Contains(CString const&) const override { throw CFileException("asked", EFileError::Corrupt); }
    };
    CTemporaryFolder folder;
    TestSupport::WriteText(folder.Path() / "a", "abc");
    std::u16string const root = folder.Text();
    CDenying archive{CString(root)};
    EXPECT_EQ(ReadAll(*archive.OpenFile("a", EFileOpen::Read)), "abc");
    EXPECT_TRUE(archive.OpenFile("b", EFileOpen::Write | EFileOpen::OpenAlways));
    EXPECT_EQ(FileErrorOf([&] { (void)archive.OpenFile("c", EFileOpen::Read); }), EFileError::NotFound);
}

TEST(FolderArchiveInterface, ANullPathIsTheRoot)
{
    CTemporaryFolder folder;
    TestSupport::WriteText(folder.Path() / "a", "abc");
    std::u16string const root = folder.Text();
    CFolderArchive archive{CString(root)};
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    archive.List(CString(), files, folders);
    ASSERT_EQ(files.GetCount(), 1u);
    EXPECT_EQ(Bytes(files[0]), "a");
    EXPECT_THROW((void)archive.OpenFile(CString(), EFileOpen::Read), CFileException);
    EXPECT_THROW(archive.RemoveFile(CString()), CFileException);
    EXPECT_EQ(FileErrorOf([&] { archive.CreateFolder(CString()); }), EFileError::Denied);
    archive.RemoveFolder(CString());
    EXPECT_FALSE(std::filesystem::exists(folder.Path()));
}

TEST(FolderArchiveInterface, CopiesAreArchivesOfTheSameFolder)
{
    CTemporaryFolder folder;
    TestSupport::WriteText(folder.Path() / "a", "abc");
    std::u16string root = folder.Text();
    CFolderArchive archive{CString(root)};
    root.assign(root.size(), u'x'); // the root is the archive's own
    CFolderArchive const copy(archive);
    CFolderArchive assigned;
    assigned = copy;
    EXPECT_TRUE(copy.Contains("a"));
    EXPECT_TRUE(assigned.Contains("a"));
    EXPECT_EQ(Units(assigned.GetName()), folder.Text());
}

// Every path of more units than the system takes is refused; a path that is merely missing is not.
TEST(FolderArchiveInterface, ContainsThrowsForWhatIsNoPathOnly)
{
    CTemporaryFolder folder;
    std::u16string const root = folder.Text();
    CFolderArchive const archive{CString(root)};
    std::u16string path = u"a";
    for (int doubling = 0; doubling < 16; ++doubling) {
        try {
            EXPECT_FALSE(archive.Contains(path)) << path.size();
        }
        catch (CFileException const& error) {
            EXPECT_EQ(error.GetFileError(), EFileError::Invalid) << path.size();
            EXPECT_GT(path.size(), 2000u);
        }
        path += u"\\" + path;
    }
}
