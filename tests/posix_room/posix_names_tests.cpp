// Names between UTF-16 and the bytes of the system; compiled resource files from anywhere.
#include "../TestHeap.h"

#include "platform/Platform_SystemError.h"
#include "platform/posix/Posix_Errno.h"
#include "platform/posix/Posix_Path.h"
#include "platform/posix/Posix_ResourceFile.h"

#include <vlmcore/archives.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "support/Folders.h"

using namespace Velmor;
using namespace Velmor::Platform;

namespace {

std::u16string Widen(std::string const& bytes)
{
    std::u16string units(bytes.size(), u'\0');
    units.resize(static_cast<std::size_t>(WidenSystemText(bytes.data(), bytes.size(), units.data())));
    return units;
}

std::string Narrow(std::u16string const& units)
{
    CSystemPath const path(units.c_str());
    return path.GetError() == 0 ? path.Get() : "(error)";
}

} // namespace

TEST(PosixNames, StandardConversion)
{
    struct SCase {
        char const* bytes;
        char16_t const* units;
    };
    SCase const cases[] = {
        {"/home/u/a.txt", u"\\home\\u\\a.txt"},
        {"\xC3\xA4", u"\u00E4"},
        {"\xE6\x97\xA5", u"\u65E5"},
        {"\xF0\x9F\x98\x80", u"\xD83D\xDE00"},
        {"\xF0\x90\x80\x80", u"\xD800\xDC00"},
        {"\xF4\x8F\xBF\xBF", u"\xDBFF\xDFFF"},
        {"\xEF\xBF\xBF", u"\xFFFF"},
    };
    for (SCase const& entry : cases) {
        EXPECT_EQ(Widen(entry.bytes), entry.units);
        EXPECT_EQ(Narrow(entry.units), entry.bytes);
    }
}

TEST(PosixNames, WhatIsNoUTF8IsCarriedInLoneSurrogates)
{
    EXPECT_EQ(Widen("a\xFF"
                    "b"),
              u"a\xDCFF"
              u"b");
    EXPECT_EQ(Widen("\xC0\x80"), u"\xDCC0\xDC80");                     // too long a form
    EXPECT_EQ(Widen("\xC3"), u"\xDCC3");                               // cut short
    EXPECT_EQ(Widen("\xF4\x90\x80\x80"), u"\xDCF4\xDC90\xDC80\xDC80"); // above the last character
    EXPECT_EQ(Widen("a\\b"), u"a\xDC5C"
                             u"b");              // a backslash in a name is no separator
    EXPECT_EQ(Widen("\xED\xA1\xBD"), u"\xD87D"); // a lone surrogate as such
    EXPECT_EQ(Narrow(u"\xD87D\xFE00"), "\xED\xA1\xBD\xEF\xB8\x80");
    EXPECT_EQ(Widen("\xED\xA1\xBD\xEF\xB8\x80"), u"\xD87D\xFE00");
}

// Every name that a listing can return names the same bytes again.
TEST(PosixNames, BytesSurviveTheRoundTrip)
{
    std::string bytes;
    for (int first = 1; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            bytes = {static_cast<char>(first)};
            if (second != 0)
                bytes += static_cast<char>(second);
            ASSERT_EQ(Narrow(Widen(bytes)), bytes) << first << ' ' << second;
        }
    // Pieces that matter, in every order: surrogates of both halves, escapes, cut characters.
    char const* const pieces[] = {"a",
                                  "\\",
                                  "\xFF",
                                  "\xC3\xA4",
                                  "\xED\xA0\x80",
                                  "\xED\xB0\x80",
                                  "\xED\xB2\x80",
                                  "\xED\xB1\x9C",
                                  "\xF0\x9F\x98\x80",
                                  "\xED",
                                  "\xED\xA0"};
    constexpr u64 Count = std::size(pieces);
    for (u64 number = 0; number < Count * Count * Count * Count; ++number) {
        bytes.clear();
        for (u64 rest = number, place = 0; place < 4; ++place, rest /= Count)
            bytes += pieces[rest % Count];
        std::u16string const units = Widen(bytes);
        ASSERT_EQ(Narrow(units), bytes) << number;
        ASSERT_EQ(units.find(u'\\'), std::u16string::npos);
    }
}

TEST(PosixNames, TooLongIsRefusedNotCut)
{
    EXPECT_EQ(CSystemPath(std::u16string(PATH_MAX - 1, u'x').c_str()).GetError(), 0u);
    EXPECT_EQ(CSystemPath(std::u16string(PATH_MAX, u'x').c_str()).GetError(), 206u);
    EXPECT_EQ(CSystemPath(std::u16string(PATH_MAX / 3 + 1, u'\u65E5').c_str()).GetError(), 206u);
    EXPECT_STREQ(CSystemPath(std::u16string(PATH_MAX, u'x').c_str()).Get(), "");
}

TEST(PosixNames, StrangeNamesAreListedOpenedAndRemoved)
{
    TestSupport::CTemporaryFolder folder;
    std::string const names[] = {
        "back\\slash", "bytes \xFF\xFE", "\xED\xA0\x80", "line\nbreak", "trailing. ", "CON", "a:b", "*"};
    std::filesystem::create_directory(folder.Path() / "t");
    for (std::string const& name : names)
        TestSupport::WriteText(folder.Path() / "t" / name, name);
    std::u16string const root = folder.Text();
    CFolderArchive archive{CString(root)};
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    archive.List(u"t", files, folders);
    EXPECT_EQ(files.GetCount(), std::size(names));
    for (CMutableString const& name : files) {
        std::u16string const path = std::u16string(u"t\\") + static_cast<char16_t const*>(name.GetData());
        TResourcePtr<IFile> const file = archive.OpenFile(path, EFileOpen::Read);
        char content[32] = {};
        file->Read(content, sizeof content);
        EXPECT_EQ(Widen(content), static_cast<char16_t const*>(name.GetData()));
    }
    archive.RemoveFolder("t");
    EXPECT_FALSE(std::filesystem::exists(folder.Path() / "t"));
}

TEST(PosixErrors, HaveTheNumbersOfWindows)
{
    struct SCase {
        int number;
        u32 error;
    };
    SCase const cases[] = {{0, 0},       {ENOENT, 2},   {ENOTDIR, 3},    {EACCES, 5},      {EPERM, 5},
                           {EISDIR, 5},  {EBADF, 6},    {ENOMEM, 8},     {EROFS, 19},      {EBUSY, 32},
                           {EEXIST, 80}, {EINVAL, 87},  {ENOSPC, 112},   {ENOTEMPTY, 145}, {ENAMETOOLONG, 206},
                           {EFBIG, 223}, {ELOOP, 1921}, {EUCLEAN, 1392}, {EMFILE, 4}};
    for (SCase const& entry : cases)
        EXPECT_EQ(SystemErrorFromErrno(entry.number), entry.error) << entry.number;
    char text[SystemErrorTextCapacity];
    GetSystemErrorText(SystemErrorFromErrno(ENOSPC), text);
    EXPECT_STREQ(text, "No space left on device");
    GetSystemErrorText(SystemErrorFromErrno(ECONNREFUSED), text); // one that Windows has no number for
    EXPECT_STREQ(text, "Connection refused");
    GetSystemErrorText(4350, text);
    EXPECT_STREQ(text, "");
}

TEST(PosixDocuments, ComeFromTheUsersSettings)
{
    TestSupport::CTemporaryFolder home;
    PathUnits folder;
    auto const documents = [&folder] {
        GetDocumentsFolder(folder);
        return std::u16string(folder.GetData(), folder.GetData() + folder.GetCount());
    };
    ::unsetenv("XDG_DOCUMENTS_DIR");
    ::unsetenv("XDG_CONFIG_HOME");
    ::setenv("HOME", home.Path().c_str(), 1);
    EXPECT_EQ(documents(), home.Text(u"Documents"));
    std::filesystem::create_directory(home.Path() / ".config");
    TestSupport::WriteText(home.Path() / ".config" / "user-dirs.dirs",
                           "# comment\nXDG_MUSIC_DIR=\"$HOME/Music\"\nXDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
    EXPECT_EQ(documents(), home.Text(u"Papers"));
    TestSupport::WriteText(home.Path() / ".config" / "user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/papers/\"\n");
    EXPECT_EQ(documents(), u"\\srv\\papers");
    ::setenv("XDG_CONFIG_HOME", (home.Path() / "other").c_str(), 1);
    EXPECT_EQ(documents(), home.Text(u"Documents"));
    ::setenv("XDG_DOCUMENTS_DIR", "/data/docs", 1);
    EXPECT_EQ(documents(), u"\\data\\docs");
}

// ---- compiled resource files ----

namespace {

std::string const Marker("\0\0\0\0\x20\0\0\0\xFF\xFF\0\0\xFF\xFF\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32);
std::string const Entry("\3\0\0\0\x20\0\0\0\xFF\xFF\x0A\0\xFF\xFF\x65\0\0\0\0\0\0\0\x09\4\0\0\0\0\0\0\0\0abc\0", 36);
std::string const Named("\1\0\0\0\x24\0\0\0M\0Y\0\0\0\xFF\xFF\7\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0z\0\0\0", 40);

} // namespace

TEST(PosixResourceFile, ReadsEntries)
{
    std::string const file = Marker + Entry + Named;
    CResourceFileReader reader(file.data(), file.size());
    SResourceEntry entry;
    ASSERT_TRUE(reader.Next(entry));
    EXPECT_EQ(entry.type.number, 10u);
    EXPECT_EQ(entry.type.units, nullptr);
    EXPECT_EQ(entry.name.number, 101u);
    EXPECT_EQ(entry.language, 0x409u);
    EXPECT_EQ(std::string(reinterpret_cast<char const*>(entry.data), entry.size), "abc");
    ASSERT_TRUE(reader.Next(entry));
    EXPECT_EQ(entry.type.unitCount, 2u);
    EXPECT_EQ(entry.type.GetUnit(1), u'Y');
    EXPECT_EQ(entry.name.number, 7u);
    EXPECT_EQ(std::string(reinterpret_cast<char const*>(entry.data), entry.size), "z");
    EXPECT_FALSE(reader.Next(entry));
}

// Whatever the bytes are, entries lie within the file (exact copies on the heap: the address sanitizer watches).
TEST(PosixResourceFile, NothingLeadsOutOfTheFile)
{
    std::string const file = Marker + Entry + Named;
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        u64 const size = round < static_cast<int>(file.size()) ? static_cast<u64>(round) : random() % (file.size() + 1);
        std::unique_ptr<u8[]> const copy(new u8[size == 0 ? 1 : size]);
        std::memcpy(copy.get(), file.data(), size);
        for (u32 changes = random() % 4; changes > 0 && size != 0; --changes)
            copy[random() % size] = static_cast<u8>(random() % 3 == 0 ? 0xFF : random());
        CResourceFileReader reader(copy.get(), size);
        SResourceEntry entry;
        for (int count = 0; reader.Next(entry); ++count) {
            ASSERT_LT(count, 10);
            ASSERT_GE(entry.data, copy.get());
            ASSERT_LE(entry.data + entry.size, copy.get() + size);
            for (u64 unit = 0; unit < entry.type.unitCount; ++unit)
                ASSERT_NE(entry.type.GetUnit(unit), 0);
        }
    }
}
