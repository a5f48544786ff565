// Files of every kind through the public interface.
#include "TestHeap.h"
#include "Texts.h"
#include "support/Files.h"
#include "support/Folders.h"

#include <vlmcore/files.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::CCurrentFolder;
using TestSupport::CTemporaryFolder;
using TestSupport::FileErrorOf;
using TestSupport::HasDrives;
using TestSupport::ReadAll;
using TestSupport::ReadText;
using TestSupport::WriteText;
using VlmTest::Bytes;
using VlmTest::Units;

namespace fs = std::filesystem;

namespace {

constexpr EFileOpen::Type NoMode = static_cast<EFileOpen::Type>(0);
constexpr EFileOpen::Type ReadWrite = EFileOpen::Read | EFileOpen::Write;

} // namespace

// ---- the interface ----

TEST(FileConstants, HaveTheirValues)
{
    EXPECT_EQ(static_cast<u32>(ESeek::Begin), 0u);
    EXPECT_EQ(static_cast<u32>(ESeek::End), 1u);
    EXPECT_EQ(static_cast<u32>(ESeek::Current), 2u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::Read), 1u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::Write), 2u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::OpenAlways), 4u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::CreateAlways), 8u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::ThrowIfMissing), 16u);
    EXPECT_EQ(sizeof(ESeek::Type), 4u);
    EXPECT_EQ(sizeof(EFileOpen::Type), 4u);
    EXPECT_EQ(static_cast<u32>(EFileOpen::Read | EFileOpen::CreateAlways), 9u);
}

TEST(FileInterface, StartsWithReferenceCountZero)
{
    CNullFile file("x");
    EXPECT_EQ(file.GetRefCount(), 0);
    // The count follows the virtual table's pointer.
    CResource const* const counter = &file;
    EXPECT_EQ(reinterpret_cast<u8 const*>(counter) - reinterpret_cast<u8 const*>(&file), 8);
}

// The order of the virtual operations is part of the interface: each call through its slot reaches its operation.
namespace {

class CSlotFile : public IFile {
public:
    int* called;
    explicit CSlotFile(int* record) : called(record) {}
    CString GetPath() override { return Record(1), CString(); }
    CString GetFileName() override { return Record(2), CString(); }
    CString GetFileExt() override { return Record(3), CString(); }
    bool IsWritable() const override { return Record(4), false; }
    bool IsReadable() const override { return Record(5), false; }
    void* GetNativeHandle() const override { return Record(6), nullptr; }
    u64 Read(void*, u64) override { return Record(7), 0; }
    u64 Write(void const*, u64) override { return Record(8), 0; }
    u64 Seek(ESeek::Type, i64) override { return Record(9), 0; }
    u64 GetPosition() const override { return Record(10), 0; }
    bool ReachedEOF() const override { return Record(11), false; }
    u64 GetSizeByte() const override { return Record(12), 0; }

private:
    int Record(int number) const { return *called = number; }
};

} // namespace

TEST(FileInterface, SlotsAreInOrder)
{
    int called = 0;
    CSlotFile file(&called);
    // Both destructors come first in this compiler family's tables; the operations follow them.
    void* const* const table = *reinterpret_cast<void* const* const*>(&file);
    using BoolOperation = bool (*)(IFile const*);
    reinterpret_cast<BoolOperation>(table[2 + 3])(&file);
    EXPECT_EQ(called, 4);
    reinterpret_cast<BoolOperation>(table[2 + 4])(&file);
    EXPECT_EQ(called, 5);
    using PointerOperation = void* (*)(IFile const*);
    reinterpret_cast<PointerOperation>(table[2 + 5])(&file);
    EXPECT_EQ(called, 6);
    using ReadOperation = u64 (*)(IFile*, void*, u64);
    reinterpret_cast<ReadOperation>(table[2 + 6])(&file, nullptr, 0);
    EXPECT_EQ(called, 7);
    using WriteOperation = u64 (*)(IFile*, void const*, u64);
    reinterpret_cast<WriteOperation>(table[2 + 7])(&file, nullptr, 0);
    EXPECT_EQ(called, 8);
    using SeekOperation = u64 (*)(IFile*, ESeek::Type, i64);
    reinterpret_cast<SeekOperation>(table[2 + 8])(&file, ESeek::Begin, 0);
    EXPECT_EQ(called, 9);
    using NumberOperation = u64 (*)(IFile const*);
    reinterpret_cast<NumberOperation>(table[2 + 9])(&file);
    EXPECT_EQ(called, 10);
    reinterpret_cast<BoolOperation>(table[2 + 10])(&file);
    EXPECT_EQ(called, 11);
    reinterpret_cast<NumberOperation>(table[2 + 11])(&file);
    EXPECT_EQ(called, 12);
}

// ---- path splitting ----

namespace {

struct SSplitCase {
    char16_t const* path;
    char16_t const* folder;
    char16_t const* name;
    char16_t const* extension;
};

} // namespace

TEST(PathSplitting, EveryShape)
{
    SSplitCase const cases[] = {
        {u"C:\\data\\level.map.xml", u"C:\\data", u"level.map", u"xml"},
        {u".profile", u"", u"", u"profile"},
        {u"C:\\a.b\\c", u"C:\\a.b", u"c", u""},
        {u"archive.tar.gz", u"", u"archive.tar", u"gz"},
        {u"dir.old\\readme", u"dir.old", u"readme", u""},
        {u"readme", u"", u"readme", u""},
        {u"", u"", u"", u""},
        {u"\\", u"", u"", u""},
        {u"\\x", u"", u"x", u""},
        {u"folder\\", u"folder", u"", u""},
        {u"folder\\.x", u"folder", u"", u"x"},
        {u"name.", u"", u"name", u""},
        {u"a/b.c/d", u"", u"a/b", u"c/d"}, // only backslashes separate here
        {u"..\\..", u"..", u".", u""},
        {u"\u00E4\u4E2D\\\u00F6.\u00FC", u"\u00E4\u4E2D", u"\u00F6", u"\u00FC"},
        {u"\xD83D\\\xDE00.\xD83D", u"\xD83D", u"\xDE00", u"\xD83D"}, // half characters swallow no separator
    };
    for (SSplitCase const& entry : cases) {
        CNullFile file{CString(entry.path)};
        EXPECT_EQ(Units(file.GetPath()), entry.folder) << Bytes(entry.path);
        EXPECT_EQ(Units(file.GetFileName()), entry.name) << Bytes(entry.path);
        EXPECT_EQ(Units(file.GetFileExt()), entry.extension) << Bytes(entry.path);
    }
}

TEST(PathSplitting, TakesEveryEncodingAndKeepsUTF16)
{
    CNullFile narrow("a\\b.c");
    CNullFile wide(u"a\\b.c");
    CNullFile full(U"a\\b.c");
    for (CNullFile* const file : {&narrow, &wide, &full}) {
        EXPECT_EQ(file->GetPath().GetEncoding(), EStringEncoding::UTF16);
        EXPECT_EQ(Units(file->GetPath()), u"a");
        EXPECT_EQ(Units(file->GetFileName()), u"b");
        EXPECT_EQ(Units(file->GetFileExt()), u"c");
    }
    CNullFile null{CString()};
    EXPECT_EQ(Units(null.GetFileName()), u"");
}

TEST(PathSplitting, IsTheSameForEveryKind)
{
    char data[4] = {};
    CMemoryFile memory("x\\y\\name.ext");
    CByteStreamFile stream("x\\y\\name.ext", data, sizeof data);
    CTemporaryFolder folder;
    CNativeFile native(folder.Text(u"name.ext").c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
    for (IFile* const file :
         {static_cast<IFile*>(&memory), static_cast<IFile*>(&stream), static_cast<IFile*>(&native)}) {
        EXPECT_EQ(Units(file->GetFileName()), u"name");
        EXPECT_EQ(Units(file->GetFileExt()), u"ext");
    }
    EXPECT_EQ(Units(memory.GetPath()), u"x\\y");
    EXPECT_EQ(Units(stream.GetPath()), u"x\\y");
    EXPECT_EQ(Units(native.GetPath()), folder.Text());
}

// ---- null file ----

TEST(NullFile, HasANameAndNothingElse)
{
    CNullFile file("nowhere\\to.be");
    EXPECT_EQ(Units(file.GetPath()), u"nowhere");
    EXPECT_TRUE(file.IsWritable());
    EXPECT_TRUE(file.IsReadable());
    EXPECT_EQ(file.GetNativeHandle(), nullptr);
    char buffer[4] = "abc";
    EXPECT_EQ(file.Read(buffer, 4), 0u);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(file.Write(buffer, 4), 0u);
    EXPECT_EQ(file.Seek(ESeek::Begin, 100), 0u);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_TRUE(file.ReachedEOF());
    EXPECT_EQ(file.GetSizeByte(), 0u);
}

// ---- memory file ----

TEST(MemoryFile, StartsEmpty)
{
    CMemoryFile file("m.bin");
    EXPECT_TRUE(file.IsReadable());
    EXPECT_TRUE(file.IsWritable());
    EXPECT_EQ(file.GetNativeHandle(), nullptr);
    EXPECT_EQ(file.GetSizeByte(), 0u);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_TRUE(file.ReachedEOF());
    char byte = 'x';
    EXPECT_EQ(file.Read(&byte, 1), 0u);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(file.Write(nullptr, 0), 0u);
    EXPECT_EQ(file.Seek(ESeek::Begin, 0), 0u);
    EXPECT_EQ(file.GetNativeHandle(), nullptr);
}

TEST(MemoryFile, WritesAndReadsAtItsPosition)
{
    CMemoryFile file("m");
    EXPECT_EQ(file.Write("hello", 5), 5u);
    EXPECT_EQ(file.GetPosition(), 5u);
    EXPECT_EQ(file.GetSizeByte(), 5u);
    EXPECT_TRUE(file.ReachedEOF());
    EXPECT_EQ(file.Seek(ESeek::Begin, 1), 0u);
    EXPECT_EQ(file.Write("EL", 2), 2u);
    EXPECT_EQ(file.GetSizeByte(), 5u);
    EXPECT_EQ(file.GetPosition(), 3u);
    char rest[8] = {};
    EXPECT_EQ(file.Read(rest, 8), 2u);
    EXPECT_STREQ(rest, "lo");
    EXPECT_EQ(file.Read(rest, 8), 0u);
    EXPECT_EQ(ReadAll(file), "hELlo");
}

TEST(MemoryFile, GrowsExactly)
{
    CMemoryFile file("m");
    file.Write("abc", 3);
    EXPECT_EQ(Memory::GetSize(file.GetNativeHandle()), 3u);
    EXPECT_EQ(Memory::GetHeap(file.GetNativeHandle()), EHeap::Pool);
    file.Write("defg", 4);
    EXPECT_EQ(Memory::GetSize(file.GetNativeHandle()), 7u);
    file.Seek(ESeek::Begin, 2);
    file.Write("0123456789", 10);
    EXPECT_EQ(Memory::GetSize(file.GetNativeHandle()), 12u);
    EXPECT_EQ(ReadAll(file), "ab0123456789");
}

TEST(MemoryFile, SeekBehindTheEndGrows)
{
    CMemoryFile file("m");
    EXPECT_EQ(file.Seek(ESeek::Begin, 100), 0u);
    EXPECT_EQ(file.GetSizeByte(), 100u);
    EXPECT_EQ(file.GetPosition(), 100u);
    EXPECT_TRUE(file.ReachedEOF());
    file.Seek(ESeek::Begin, 0);
    std::vector<char> content(200);
    EXPECT_EQ(file.Read(content.data(), 200), 100u);
}

TEST(MemoryFile, SeeksByItsOwnRules)
{
    CMemoryFile file("m");
    file.Write("0123456789", 10);
    file.Seek(ESeek::End, 3);
    EXPECT_EQ(file.GetPosition(), 7u);
    file.Seek(ESeek::End, 20);
    EXPECT_EQ(file.GetPosition(), 0u);
    file.Seek(ESeek::Current, 4);
    EXPECT_EQ(file.GetPosition(), 4u);
    file.Seek(ESeek::Current, -1);
    EXPECT_EQ(file.GetPosition(), 3u);
    file.Seek(static_cast<ESeek::Type>(3), 5);
    EXPECT_EQ(file.GetPosition(), 3u);
    file.Seek(ESeek::Current, -10);
    EXPECT_EQ(file.GetPosition(), 0u);
    file.Seek(ESeek::Begin, -1);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(file.GetSizeByte(), 10u);
    file.Seek(ESeek::End, -2);
    EXPECT_EQ(file.GetPosition(), 12u);
    EXPECT_EQ(file.GetSizeByte(), 12u);
    i64 const smallest = std::numeric_limits<i64>::min();
    file.Seek(ESeek::Begin, smallest);
    EXPECT_EQ(file.GetPosition(), 0u);
    file.Seek(ESeek::Current, smallest);
    EXPECT_EQ(file.GetPosition(), 0u);
}

TEST(MemoryFile, RefusesImpossibleGrowthAndStaysAsItWas)
{
    CMemoryFile file("m");
    file.Write("0123456789", 10);
    file.Seek(ESeek::Begin, 4);
    EXPECT_THROW(file.Write("x", ~u64{0}), std::bad_alloc);
    EXPECT_THROW(file.Write("x", ~u64{0} - 3), std::bad_alloc);
    EXPECT_THROW(file.Write("x", u64{1} << 63), std::bad_alloc);
    EXPECT_THROW(file.Seek(ESeek::Begin, std::numeric_limits<i64>::max()), std::bad_alloc);
    EXPECT_THROW(file.Seek(ESeek::Current, std::numeric_limits<i64>::max()), std::bad_alloc);
    EXPECT_THROW(file.Seek(ESeek::End, std::numeric_limits<i64>::min()), std::bad_alloc);
    EXPECT_EQ(file.GetPosition(), 4u);
    EXPECT_EQ(file.GetSizeByte(), 10u);
    EXPECT_EQ(ReadAll(file), "0123456789");
}

TEST(MemoryFile, TakesItsOwnContentsAsSource)
{
    CMemoryFile file("m");
    file.Write("0123456789", 10);
    file.Write(static_cast<char const*>(file.GetNativeHandle()) + 2, 6);
    EXPECT_EQ(ReadAll(file), "0123456789234567");
    file.Seek(ESeek::Begin, 1);
    file.Write(file.GetNativeHandle(), 9); // overlapping, without growth
    EXPECT_EQ(ReadAll(file), "0012345678234567");
}

// ---- byte-stream file ----

TEST(ByteStreamFile, ConstnessDecides)
{
    char data[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    char const* const constant = data;
    CByteStreamFile writable("s", data, sizeof data);
    CByteStreamFile readOnly("s", constant, sizeof data);
    EXPECT_TRUE(writable.IsWritable());
    EXPECT_FALSE(readOnly.IsWritable());
    EXPECT_TRUE(readOnly.IsReadable());
    EXPECT_EQ(readOnly.GetNativeHandle(), data);
    EXPECT_EQ(readOnly.GetSizeByte(), 10u);
    try {
        readOnly.Write("x", 1);
        FAIL() << "a read-only stream was written";
    }
    catch (CFileException const& error) {
        EXPECT_EQ(Bytes(error.GetText()), "Bytestream is not writeable.");
        EXPECT_EQ(error.GetFileError(), EFileError::Denied);
        EXPECT_EQ(error.GetKind(), 1);
    }
    EXPECT_EQ(ReadAll(readOnly), "0123456789");
}

TEST(ByteStreamFile, WritesAllOrNothing)
{
    char data[10] = {};
    CByteStreamFile file("s", data, sizeof data);
    file.Seek(ESeek::Begin, 8);
    EXPECT_EQ(file.Write("abc", 3), 0u);
    EXPECT_EQ(file.GetPosition(), 8u);
    EXPECT_EQ(data[8], '\0');
    EXPECT_EQ(file.Write("ab", 2), 2u);
    EXPECT_TRUE(file.ReachedEOF());
    EXPECT_EQ(data[9], 'b');
    EXPECT_EQ(file.Write("c", 1), 0u);
    EXPECT_EQ(file.Write("c", 0), 0u);
    file.Seek(ESeek::Begin, 1);
    EXPECT_EQ(file.Write("c", ~u64{0}), 0u); // the end would wrap to 0
    EXPECT_EQ(file.GetPosition(), 1u);
}

TEST(ByteStreamFile, SeeksWithinItsBounds)
{
    char const data[11] = "0123456789";
    CByteStreamFile file("s", data, 10);
    EXPECT_EQ(file.Seek(ESeek::End, 3), 0u);
    EXPECT_EQ(file.GetPosition(), 7u);
    char rest[8] = {};
    EXPECT_EQ(file.Read(rest, 8), 3u);
    EXPECT_STREQ(rest, "789");
    file.Seek(ESeek::End, 20);
    EXPECT_EQ(file.GetPosition(), 0u);
    file.Seek(ESeek::Begin, 11);
    EXPECT_EQ(file.GetPosition(), 10u);
    file.Seek(ESeek::Current, -4);
    EXPECT_EQ(file.GetPosition(), 6u);
    file.Seek(ESeek::Current, std::numeric_limits<i64>::max());
    EXPECT_EQ(file.GetPosition(), 10u);
    file.Seek(static_cast<ESeek::Type>(77), 1);
    EXPECT_EQ(file.GetPosition(), 10u);
    file.Seek(ESeek::End, -5);
    EXPECT_EQ(file.GetPosition(), 10u);
    EXPECT_EQ(file.Read(rest, 8), 0u);
}

TEST(ByteStreamFile, PositionsStopInsteadOfWrapping)
{
    char byte = 0;
    CByteStreamFile file("s", &byte, ~u64{0}); // a view of all the memory there could be
    i64 const largest = std::numeric_limits<i64>::max();
    file.Seek(ESeek::Begin, largest);
    file.Seek(ESeek::Current, largest);
    EXPECT_EQ(file.GetPosition(), ~u64{0} - 1);
    file.Seek(ESeek::Current, 5);
    EXPECT_EQ(file.GetPosition(), ~u64{0});
    EXPECT_TRUE(file.ReachedEOF());
    file.Seek(ESeek::Current, -largest - 1);
    EXPECT_EQ(file.GetPosition(), static_cast<u64>(largest));
}

namespace {

// What a host's own kinds change: where the end is, and whether there is anything to write to.
template <class File>
class TEnded : public File {
public:
    using File::File;
    [[nodiscard]] bool ReachedEOF() const override { return isAtEnd; }
    bool isAtEnd = true;
};

class CLockedStream : public CByteStreamFile {
public:
    using CByteStreamFile::CByteStreamFile;
    [[nodiscard]] bool IsWritable() const override { return false; }
};

} // namespace

TEST(MemoryFile, AsksForTheEndVirtually)
{
    TEnded<CMemoryFile> file("m");
    file.Write("abc", 3);
    file.Seek(ESeek::Begin, 0);
    char text[4] = {};
    EXPECT_EQ(file.Read(text, 3), 0u);
    file.isAtEnd = false;
    EXPECT_EQ(file.Read(text, 3), 3u);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(file.Read(text, 3), 0u); // nothing there, whatever it says
}

TEST(ByteStreamFile, AsksForItsStateVirtually)
{
    char data[4] = "abc";
    TEnded<CByteStreamFile> file("s", static_cast<void*>(data), 3);
    char text[4] = {};
    EXPECT_EQ(file.Read(text, 3), 0u);
    file.isAtEnd = false;
    EXPECT_EQ(file.Read(text, 3), 3u);
    CLockedStream locked("s", static_cast<void*>(data), 3);
    EXPECT_THROW(locked.Write("x", 1), CFileException);
    EXPECT_STREQ(data, "abc");
}

TEST(ByteStreamFile, EmptyOnNothing)
{
    CByteStreamFile file("s", static_cast<void const*>(nullptr), 0);
    EXPECT_TRUE(file.ReachedEOF());
    EXPECT_EQ(file.Read(nullptr, 0), 0u);
    char byte;
    EXPECT_EQ(file.Read(&byte, 1), 0u);
}

// ---- native file ----

TEST(NativeFile, WritesReadsAndSeeks)
{
    CTemporaryFolder folder;
    std::u16string const path = folder.Text(u"a.txt");
    {
        CNativeFile file(path, ReadWrite | EFileOpen::CreateAlways);
        EXPECT_TRUE(file.IsReadable());
        EXPECT_TRUE(file.IsWritable());
        EXPECT_TRUE(file.ReachedEOF());
        EXPECT_EQ(file.Write("hello world", 11), 11u);
        EXPECT_EQ(file.GetPosition(), 11u);
        EXPECT_EQ(file.GetSizeByte(), 11u);
        EXPECT_EQ(file.Seek(ESeek::Begin, 6), 6u);
        EXPECT_FALSE(file.ReachedEOF());
        char text[16] = {};
        EXPECT_EQ(file.Read(text, 16), 5u);
        EXPECT_STREQ(text, "world");
        EXPECT_EQ(file.Read(text, 16), 0u);
        EXPECT_EQ(file.Seek(ESeek::End, -5), 6u); // adds to the end, unlike a memory file
        EXPECT_EQ(file.Seek(ESeek::Current, -6), 0u);
        EXPECT_EQ(file.Seek(ESeek::End, 4), 15u);
        EXPECT_EQ(file.GetSizeByte(), 11u);
        EXPECT_FALSE(file.ReachedEOF());
        EXPECT_EQ(file.Write("!", 1), 1u);
        EXPECT_EQ(file.GetSizeByte(), 16u);
    }
    EXPECT_EQ(ReadText(folder.Path() / "a.txt"), std::string("hello world\0\0\0\0!", 16));
}

TEST(NativeFile, SeekErrorsAndUnknownOrigins)
{
    CTemporaryFolder folder;
    CNativeFile file(folder.Text(u"a").c_str(), ReadWrite | EFileOpen::CreateAlways);
    file.Write("0123456789", 10);
    file.Seek(ESeek::Begin, 4);
    EXPECT_EQ(FileErrorOf([&] { file.Seek(ESeek::Begin, -1); }), EFileError::Unknown);
    EXPECT_EQ(FileErrorOf([&] { file.Seek(ESeek::End, -11); }), EFileError::Unknown);
    EXPECT_EQ(file.GetPosition(), 4u);
    EXPECT_EQ(file.Seek(static_cast<ESeek::Type>(3), 5), 4u);
    EXPECT_EQ(file.Seek(static_cast<ESeek::Type>(0xFFFFFFFF), -5), 4u);
    EXPECT_EQ(file.GetPosition(), 4u);
}

TEST(NativeFile, ModesDecideWhatExists)
{
    CTemporaryFolder folder;
    fs::path const present = folder.Path() / "present";
    std::u16string const presentText = folder.Text(u"present");
    std::u16string const missingText = folder.Text(u"missing");
    WriteText(present, "content");

    EXPECT_EQ(FileErrorOf([&] { CNativeFile file(missingText, EFileOpen::Read); }), EFileError::NotFound);
    EXPECT_EQ(FileErrorOf([&] { CNativeFile file(missingText, NoMode); }), EFileError::NotFound);
    EXPECT_FALSE(fs::exists(folder.Path() / "missing"));
    {
        CNativeFile file(missingText, EFileOpen::Read | EFileOpen::OpenAlways);
        EXPECT_EQ(file.GetSizeByte(), 0u);
    }
    EXPECT_TRUE(fs::exists(folder.Path() / "missing"));
    {
        CNativeFile file(presentText, ReadWrite | EFileOpen::OpenAlways);
        EXPECT_EQ(ReadAll(file), "content");
    }
    {
        CNativeFile file(presentText, EFileOpen::Read | EFileOpen::CreateAlways); // empties without the right to write
        EXPECT_EQ(file.GetSizeByte(), 0u);
    }
    EXPECT_EQ(ReadText(present), "");
    WriteText(present, "again");
    {
        CNativeFile file(presentText, EFileOpen::Write | EFileOpen::OpenAlways | EFileOpen::CreateAlways);
        EXPECT_EQ(file.GetSizeByte(), 0u);
    }
    {
        CNativeFile file(folder.Text(u"other").c_str(), EFileOpen::CreateAlways); // neither right: both
        EXPECT_EQ(file.Write("both", 4), 4u);
        EXPECT_EQ(ReadAll(file), "both");
    }
}

TEST(NativeFile, WithoutAccessBitsOpensForBothAndReportsNeither)
{
    CTemporaryFolder folder;
    WriteText(folder.Path() / "a", "abc");
    {
        CNativeFile file(folder.Text(u"a").c_str(), NoMode);
        EXPECT_FALSE(file.IsReadable());
        EXPECT_FALSE(file.IsWritable());
        EXPECT_EQ(ReadAll(file), "abc");
        EXPECT_EQ(file.Write("d", 1), 1u);
    }
    EXPECT_EQ(ReadText(folder.Path() / "a"), "abcd");
}

TEST(NativeFile, RightsAreEnforced)
{
    CTemporaryFolder folder;
    WriteText(folder.Path() / "a", "abc");
    CNativeFile reader(folder.Text(u"a").c_str(), EFileOpen::Read);
    EXPECT_TRUE(reader.IsReadable());
    EXPECT_FALSE(reader.IsWritable());
    EXPECT_EQ(FileErrorOf([&] { reader.Write("x", 1); }), EFileError::Unknown); // access denied has no kind of its own
    CNativeFile writer(folder.Text(u"a").c_str(), EFileOpen::Write);
    EXPECT_FALSE(writer.IsReadable());
    EXPECT_TRUE(writer.IsWritable());
    char byte;
    EXPECT_EQ(FileErrorOf([&] { writer.Read(&byte, 1); }), EFileError::Unknown);
    EXPECT_EQ(ReadText(folder.Path() / "a"), "abc");
}

TEST(NativeFile, SharesWithReadersAndWriters)
{
    CTemporaryFolder folder;
    std::u16string const path = folder.Text(u"a");
    CNativeFile first(path, ReadWrite | EFileOpen::CreateAlways);
    CNativeFile second(path, ReadWrite);
    first.Write("seen", 4);
    EXPECT_EQ(ReadAll(second), "seen");
}

TEST(NativeFile, MissingFilesSayWhatTheSystemSays)
{
    CTemporaryFolder folder;
    try {
        CNativeFile file(folder.Text(u"missing.txt").c_str(), EFileOpen::Read);
        FAIL() << "opened what is not there";
    }
    catch (CException const& error) {
        EXPECT_EQ(error.GetKind(), 1);
        EXPECT_EQ(Bytes(error.GetText()), TestSupport::FileNotFoundText());
        auto const* const file = dynamic_cast<CFileException const*>(&error);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(file->GetFileError(), EFileError::NotFound);
    }
    EXPECT_EQ(FileErrorOf([&] { CNativeFile file(folder.Text(u"no\\such\\folder").c_str(), EFileOpen::Read); }),
              EFileError::NotFound);
    EXPECT_EQ(FileErrorOf([&] {
                  CNativeFile file(folder.Text(u"no\\such").c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
              }),
              EFileError::NotFound);
}

// The device that swallows everything never looks at the bytes, so that they need no memory behind them.
TEST(NativeFile, WritesOfFourGiBAndMoreAreCarriedOutInFull)
{
    u64 const size = (u64{4} << 30) + 3;
    std::unique_ptr<char[]> const bytes(new (std::nothrow) char[size]);
    if (bytes == nullptr)
        GTEST_SKIP() << "no address space of that size";
    CNativeFile device(HasDrives() ? "NUL" : "/dev/null", EFileOpen::Write);
    EXPECT_EQ(device.Write(bytes.get(), size), size);
}

TEST(NativeFile, FoldersAreNoFiles)
{
    CTemporaryFolder folder;
    std::u16string const path = folder.Text();
    for (u32 mode : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 9u, 11u})
        EXPECT_EQ(FileErrorOf([&] { CNativeFile file(path, static_cast<EFileOpen::Type>(mode)); }), EFileError::Unknown)
            << mode;
    (void)FileErrorOf([&] { CNativeFile file("", EFileOpen::Read); });
    (void)FileErrorOf([&] { CNativeFile file(CString(), EFileOpen::Read); });
    (void)FileErrorOf([&] { CNativeFile file(".", EFileOpen::Read); });
}

TEST(NativeFile, ASeparatorBehindAFilesNameMakesTheNameInvalidNotMissing)
{
    CTemporaryFolder folder;
    WriteText(folder.Path() / "file", "abc");
    for (u32 mode : {0u, 1u, 2u, 4u, 9u}) {
        auto const open = [&](char16_t const* path) {
            return FileErrorOf(
                [&] { CNativeFile file(folder.Text(path).c_str(), static_cast<EFileOpen::Type>(mode)); });
        };
        EXPECT_EQ(open(u"file\\"), EFileError::Unknown) << mode;
        EXPECT_EQ(open(u"file//"), EFileError::Unknown) << mode;
        EXPECT_EQ(open(u"file\\x"), EFileError::NotFound) << mode; // a folder on the way is none
    }
    EXPECT_EQ(ReadText(folder.Path() / "file"), "abc");
}

TEST(NativeFile, NoHandleLeaksWhenOpeningFails)
{
    CTemporaryFolder folder;
    std::u16string const missing = folder.Text(u"missing");
    std::u16string const itself = folder.Text();
    auto const attempt = [&] {
        (void)FileErrorOf([&] { CNativeFile file(missing, EFileOpen::Read); });
        (void)FileErrorOf([&] { CNativeFile file(itself, EFileOpen::Read); });
        CNativeFile file(folder.Text(u"there").c_str(), EFileOpen::Read | EFileOpen::OpenAlways);
    };
    attempt();
    unsigned const before = TestSupport::OpenHandleCount();
    for (int repetition = 0; repetition < 20; ++repetition)
        attempt();
    EXPECT_EQ(TestSupport::OpenHandleCount(), before);
}

// What every call says when the system refuses it: most throw, two answer.
TEST(NativeFile, FailingCallsThrowAndTheTwoThatNeverDoAnswer)
{
    CTemporaryFolder folder;
    CNativeFile file(folder.Text(u"a").c_str(), ReadWrite | EFileOpen::CreateAlways);
    file.Write("0123456789", 10);
    file.Seek(ESeek::Begin, 4);
    EXPECT_EQ(file.GetSizeByte(), 10u);
    TestSupport::CloseNativeHandle(file.GetNativeHandle());
    char byte = 'x';
    EXPECT_EQ(FileErrorOf([&] { file.Read(&byte, 1); }), EFileError::Unknown);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(FileErrorOf([&] { file.Write(&byte, 1); }), EFileError::Unknown);
    EXPECT_EQ(FileErrorOf([&] { file.Seek(ESeek::Begin, 0); }), EFileError::Unknown);
    EXPECT_EQ(FileErrorOf([&] { (void)file.GetPosition(); }), EFileError::Unknown);
    EXPECT_TRUE(file.ReachedEOF());
    EXPECT_EQ(file.GetSizeByte(), 0u);
}

TEST(NativeFile, FolderAndPathAreJoinedAsTheyStand)
{
    CTemporaryFolder folder;
    fs::create_directory(folder.Path() / "sub");
    WriteText(folder.Path() / "sub" / "a.txt", "abc");
    std::u16string const root = folder.Text();
    for (char const* const path :
         {"sub\\a.txt", "sub/a.txt", "\\sub\\a.txt", "sub\\..\\sub\\.\\a.txt", "sub\\\\a.txt"}) {
        CNativeFile file(CString(root), path, EFileOpen::Read);
        EXPECT_EQ(ReadAll(file), "abc") << path;
        EXPECT_EQ(Units(file.GetPath()), root + u"\\sub") << path;
        EXPECT_EQ(Units(file.GetFileName()), u"a") << path;
    }
    CNativeFile trailing((root + u"\\").c_str(), U"sub\\a.txt", EFileOpen::Read);
    EXPECT_EQ(ReadAll(trailing), "abc");
}

// ---- path normalisation, as the open file tells it ----

TEST(Normalisation, DotPartsResolveAgainstTheCurrentFolder)
{
    CTemporaryFolder folder;
    fs::create_directories(folder.Path() / "a" / "..inner");
    fs::create_directories(folder.Path() / "b");
    CCurrentFolder const current(folder.Path() / "a");
    std::u16string const root = folder.Text();
    auto const folderOf = [](char16_t const* path) {
        CNativeFile file(path, EFileOpen::Write | EFileOpen::CreateAlways);
        return Units(file.GetPath());
    };
    EXPECT_EQ(folderOf(u"f"), root + u"\\a");
    EXPECT_EQ(folderOf(u".\\f"), root + u"\\a");
    EXPECT_EQ(folderOf(u"./f"), root + u"\\a");
    EXPECT_EQ(folderOf(u"..\\f"), root);
    EXPECT_EQ(folderOf(u"..\\b\\f"), root + u"\\b");
    EXPECT_EQ(folderOf(u"x\\..\\f"), root + u"\\a"); // a folder that is left again need not exist
    EXPECT_EQ(folderOf(u"..inner\\f"), root + u"\\a\\..inner");
    EXPECT_EQ(folderOf(u"..inner\\..\\..\\b\\.\\f"), root + u"\\b");
    EXPECT_EQ(folderOf(u"..//b\\/f"), root + u"\\b");
    EXPECT_TRUE(fs::exists(folder.Path() / "a" / "..inner" / "f"));
    EXPECT_TRUE(fs::exists(folder.Path() / "b" / "f"));
}

TEST(Normalisation, TheTildeIsTheDocumentsFolder)
{
    CTemporaryFolder folder;
    fs::create_directory(folder.Path() / "docs");
    CCurrentFolder const current(folder.Path());
    std::u16string const documents = TestSupport::UseDocumentsFolder(folder.Path() / "docs");
    std::u16string const documentsName = documents.substr(documents.rfind(u'\\') + 1);
    std::u16string const parent = documents.substr(0, documents.rfind(u'\\'));

    std::u16string const belowPath = documents + u"\\vlmcore-test-notes.txt";
    std::u16string const besidePath = documents + u"vlmcore-test-notes.txt";
    {
        CNativeFile below("~\\vlmcore-test-notes.txt", EFileOpen::Write | EFileOpen::CreateAlways);
        EXPECT_EQ(Units(below.GetPath()), documents);
        EXPECT_EQ(Units(below.GetFileName()), u"vlmcore-test-notes");
        // No separator is inserted: the last folder's name and the rest run together.
        CNativeFile beside("~vlmcore-test-notes.txt", EFileOpen::Write | EFileOpen::CreateAlways);
        EXPECT_EQ(Units(beside.GetPath()), parent);
        EXPECT_EQ(Units(beside.GetFileName()), documentsName + u"vlmcore-test-notes");
        CNativeFile inside("x\\..\\~vlmcore", EFileOpen::Write | EFileOpen::CreateAlways); // only in front
        EXPECT_EQ(Units(inside.GetFileName()), u"~vlmcore");
    }
    EXPECT_TRUE(fs::exists(folder.Path() / "~vlmcore"));
    for (std::u16string path : {belowPath, besidePath}) {
        if (!HasDrives())
            std::replace(path.begin(), path.end(), u'\\', u'/');
        EXPECT_TRUE(fs::remove(fs::path(path)));
    }
}

TEST(Normalisation, LongPathsWork)
{
    CTemporaryFolder folder;
    fs::path deep = folder.Path();
    std::u16string const part(100, u'p');
    std::u16string text = folder.Text();
    for (int level = 0; level < 5; ++level) {
        deep /= part;
        text += u'\\' + part;
    }
    std::error_code error;
    fs::create_directories(HasDrives() ? fs::path(u"\\\\?\\" + deep.u16string()) : deep, error);
    ASSERT_FALSE(error) << error.message();
    for (u64 nameUnits : {1u, 50u, 200u}) {
        std::u16string const path = text + u'\\' + std::u16string(nameUnits, u'n');
        ASSERT_GT(path.size(), 500u);
        {
            CNativeFile file(path, EFileOpen::Write | EFileOpen::CreateAlways);
            EXPECT_EQ(file.Write("deep", 4), 4u);
            EXPECT_EQ(Units(file.GetPath()), text);
        }
        CNativeFile file(path, EFileOpen::Read);
        EXPECT_EQ(ReadAll(file), "deep");
    }
}

TEST(Normalisation, PathsAroundTheOldLimitWork)
{
    CTemporaryFolder folder;
    std::u16string const root = folder.Text();
    fs::path const long1 = folder.Path() / std::string(200 - root.size() % 100, 'x');
    fs::create_directory(long1);
    std::u16string const base = TestSupport::ToText(long1);
    for (u64 length = 240; length <= 275; ++length) {
        ASSERT_LT(base.size() + 1, length);
        std::u16string const path = base + u'\\' + std::u16string(length - base.size() - 1, u'n');
        ASSERT_EQ(path.size(), length);
        {
            CNativeFile file(path, EFileOpen::Write | EFileOpen::CreateAlways);
            EXPECT_EQ(file.Write(&length, sizeof length), sizeof length);
        }
        u64 found = 0;
        CNativeFile file(path, EFileOpen::Read);
        EXPECT_EQ(file.Read(&found, sizeof found), sizeof found);
        EXPECT_EQ(found, length);
    }
}

TEST(Normalisation, PathsBeyondTheSystemsLimitAreRefusedWhole)
{
    CTemporaryFolder folder;
    std::u16string path = folder.Text();
    while (path.size() < 40000)
        path += u"\\" + std::u16string(100, u'q');
    EFileError::Type const kind =
        FileErrorOf([&] { CNativeFile file(path, EFileOpen::Write | EFileOpen::CreateAlways); });
    EXPECT_EQ(kind, EFileError::Invalid);
    EXPECT_TRUE(fs::is_empty(folder.Path()));
    std::u16string const name = folder.Text(std::u16string(300, u'r'));
    (void)FileErrorOf([&] { CNativeFile file(name, EFileOpen::Write | EFileOpen::CreateAlways); });
    EXPECT_TRUE(fs::is_empty(folder.Path()));
}

TEST(NativeFile, UnicodeNamesReachTheSystemUnchanged)
{
    CTemporaryFolder folder;
    std::u16string const names[] = {u"\u00E4\u00F6\u00FC.txt",
                                    u"\u65E5\u672C\u8A9E",
                                    u"\u0645\u0631\u062D\u0628\u0627",
                                    u"\U0001F600 smile.txt",
                                    u"e\u0301",
                                    u" leading"};
    for (std::u16string const& name : names) {
        CNativeFile file(folder.Text(name).c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
        file.Write("x", 1);
    }
    for (std::u16string const& name : names)
        EXPECT_TRUE(fs::exists(folder.Path() / name)) << Bytes(name);
    std::string root = Bytes(folder.Text().c_str());
    CNativeFile narrow((root + "\\\xC3\xA4\xC3\xB6\xC3\xBC.txt").c_str(), EFileOpen::Read);
    EXPECT_EQ(ReadAll(narrow), "x");
}

TEST(NativeFile, AFullDiskIsNotMissed)
{
    TResourcePtr<IFile> opened;
    for (char const* const candidate : {"/dev/full", "Z:\\dev\\full"}) {
        try {
            opened = MakeResource<CNativeFile>(candidate, EFileOpen::Write);
        }
        catch (CFileException const&) {
            // not on this system
        }
    }
    if (!opened)
        GTEST_SKIP() << "no device that is always full";
    IFile& file = *opened;
    std::string const data(100000, 'x');
    bool failed = false;
    // What the disk took may show as a short count first; the next call at the latest throws.
    for (int call = 0; call < 2 && !failed; ++call) {
        try {
            EXPECT_LT(file.Write(data.data(), data.size()), data.size());
        }
        catch (CFileException const& error) {
            failed = true;
            EXPECT_EQ(error.GetFileError(), EFileError::Unknown);
            EXPECT_FALSE(error.GetText().IsEmpty());
        }
    }
    EXPECT_TRUE(failed);
}

TEST(NativeFile, ViewsLiveAsLongAsTheFile)
{
    CTemporaryFolder folder;
    CNativeFile file(folder.Text(u"name.ext").c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
    CString const first = file.GetFileName();
    CString const second = file.GetFileName();
    EXPECT_EQ(first.GetData(), second.GetData());
}

TEST(NativeFile, HandlesCarryFilesAsResources)
{
    CTemporaryFolder folder;
    TResourcePtr<IFile> file =
        MakeResource<CNativeFile>(folder.Text(u"a").c_str(), EFileOpen::Write | EFileOpen::CreateAlways);
    EXPECT_EQ(file->GetRefCount(), 1);
    EXPECT_NE(file->GetNativeHandle(), nullptr);
    file->Write("abc", 3);
    file.Reset();
    EXPECT_EQ(ReadText(folder.Path() / "a"), "abc");
}
