#include <vlmcore/format.h>

#include "TestHeap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

using namespace Velmor;

namespace {

/// The formatted text as UTF-8 of the standard library; checks that the string's figures fit its text.
template <class... Arguments>
std::string Print(CString const& text, Arguments const&... arguments)
{
    CMutableString result;
    Format(result, text, arguments...);
    CString const view(result);
    EXPECT_EQ(result.GetLength(), view.GetLength());
    EXPECT_EQ(result.GetAllocatedSize(), view.GetAllocatedSize());
    EXPECT_EQ(result.GetEncoding(), text.GetEncoding());
    EXPECT_EQ(Memory::GetSize(result.GetData()), view.GetAllocatedSize());
    if (text.GetEncoding() == EStringEncoding::UTF8)
        return static_cast<char const*>(result.GetData());
    return static_cast<char const*>(result.ToUTF8().GetData());
}

template <class... Arguments>
u64 AllocationsOf(CMutableString& result, CString const& text, Arguments const&... arguments)
{
    Memory::SStatistics before{};
    Memory::SStatistics after{};
    EXPECT_TRUE(Memory::GetStatistics(before));
    Format(result, text, arguments...);
    EXPECT_TRUE(Memory::GetStatistics(after));
    u64 count = after.allocationCount - before.allocationCount;
    for (u64 i = 0; i < 4; ++i)
        count += after.pools[i].allocationCount - before.pools[i].allocationCount;
    return count;
}

std::u16string Wide(CMutableString const& text)
{
    EXPECT_EQ(text.GetEncoding(), EStringEncoding::UTF16);
    return static_cast<char16_t const*>(text.GetData());
}

enum EPlain : u8 { Three = 3 };
namespace EScoped {
enum Type : i32 { Minus = -4 };
}
enum class ERefused { One };

} // namespace

static_assert(Impl::IsFormatArgument<int> && Impl::IsFormatArgument<u8> && Impl::IsFormatArgument<i8> &&
              Impl::IsFormatArgument<u16> && Impl::IsFormatArgument<i16> && Impl::IsFormatArgument<u64> &&
              Impl::IsFormatArgument<unsigned long> && Impl::IsFormatArgument<unsigned long long>);
static_assert(Impl::IsFormatArgument<CString> && Impl::IsFormatArgument<CMutableString> &&
              Impl::IsFormatArgument<IString> && Impl::IsFormatArgument<char[4]> &&
              Impl::IsFormatArgument<char const*> && Impl::IsFormatArgument<char16_t const*> &&
              Impl::IsFormatArgument<wchar_t const*>);
static_assert(!Impl::IsFormatArgument<double> && !Impl::IsFormatArgument<float> && !Impl::IsFormatArgument<bool> &&
              !Impl::IsFormatArgument<char> && !Impl::IsFormatArgument<char16_t> &&
              !Impl::IsFormatArgument<void const*> && !Impl::IsFormatArgument<ERefused> &&
              !Impl::IsFormatArgument<std::nullptr_t>);

TEST(Format, PlacesArgumentsByNumber)
{
    EXPECT_EQ(Print("%1: [%2] %3\n", 17u, "Info", CString("started")), "17: [Info] started\n");
    EXPECT_EQ(Print("%3%1%2", "b", "c", "a"), "abc");
    EXPECT_EQ(Print("%1%1", "ab"), "abab");
    EXPECT_EQ(Print("%8%7%6%5%4%3%2%1", 1, 2, 3, 4, 5, 6, 7, 8), "87654321");
    EXPECT_EQ(Print("<%1, %x2> %3(%4) : %5\n", 1, 2, "main.cpp", 4, "text"), "<1, 0x2> main.cpp(4) : text\n");
    EXPECT_EQ(Print("plain text"), "plain text");
    EXPECT_EQ(Print(""), "");
}

TEST(Format, IntegersOfEveryWidth)
{
    EXPECT_EQ(Print("%1 %2 %3 %4", i8{-128}, i16{-32768}, i32{-2147483647 - 1}, std::numeric_limits<i64>::min()),
              "-128 -32768 -2147483648 -9223372036854775808");
    EXPECT_EQ(Print("%1 %2 %3 %4", u8{255}, u16{65535}, u32{4294967295u}, ~u64{0}),
              "255 65535 4294967295 18446744073709551615");
    EXPECT_EQ(Print("%1 %2 %3", 1L, 2UL, 3ULL), "1 2 3");
    EXPECT_EQ(Print("%1 %2", Three, EScoped::Minus), "3 -4");
}

TEST(Format, HexadecimalForm)
{
    EXPECT_EQ(Print("%x1", 255u), "0xFF");
    EXPECT_EQ(Print("%x1 %1 %x1", 255u), "0xFF 255 0xFF");
    EXPECT_EQ(Print("%x1", -1), "0xFFFFFFFFFFFFFFFF");
    EXPECT_EQ(Print("%x1", i8{-2}), "0xFFFFFFFFFFFFFFFE");
    EXPECT_EQ(Print("%x1", u16{0xABC}), "0xABC");
    EXPECT_EQ(Print("%x1%x2", 0, ~u64{0}), "0x00xFFFFFFFFFFFFFFFF");
}

TEST(Format, EverySlotHasBothForms)
{
    EXPECT_EQ(Print("%x1%x2%x3%x4%x5%x6%x7%x8", 16, 17, 18, 19, 20, 21, 22, 23), "0x100x110x120x130x140x150x160x17");
    EXPECT_EQ(Print(u"%1%x1 %8%x8", 10, 2, 3, 4, 5, 6, 7, 80u), "100xA 800x50");
}

namespace {

/// Counts how often the formatter asks for its size and its length, which it does once for each form.
class CCountingString : public CString {
public:
    using CString::CString;
    mutable int sizes = 0;
    mutable int lengths = 0;
    [[nodiscard]] u64 GetAllocatedSize() const override
    {
        ++sizes;
        return CString::GetAllocatedSize();
    }
    [[nodiscard]] u64 GetLength() const override
    {
        ++lengths;
        return CString::GetLength();
    }
};

} // namespace

TEST(Format, RendersEachFormOfAnArgumentOnce)
{
    std::string const filler(300, '.'); // more than a short message has
    for (std::string const& behind : {std::string(), filler}) {
        CCountingString const argument("ab");
        EXPECT_EQ(Print(("%1%1%x1%1%x1" + behind).c_str(), argument), "abab0xECD16355ab0xECD16355" + behind);
        EXPECT_EQ(argument.sizes, 1);
        EXPECT_EQ(argument.lengths, 1) << "for the hash";
        CCountingString const unused("ab");
        EXPECT_EQ(Print(("%2" + behind).c_str(), unused, 5), "5" + behind);
        EXPECT_EQ(unused.sizes + unused.lengths, 0) << "an argument that no placeholder names is not looked at";
    }
    char small[4];
    CCountingString const cut("abcdef");
    FormatTo(small, sizeof(small), "%1%1", cut);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(cut.sizes, 1);
}

TEST(Format, HexadecimalFormOfAStringIsItsHash)
{
    // Of "ab" with its terminator: FNV-1a from 0x14650FB0739D0383, the two halves of it combined.
    EXPECT_EQ(Print("%x1", "ab"), "0xECD16355");
    EXPECT_EQ(Print("%x1", CMutableString("ab")), "0xECD16355");
    EXPECT_EQ(Print("%x1%1", ""), "0x0");
    EXPECT_EQ(Print("%x1", CString()), "0x0");
}

TEST(Format, PercentSigns)
{
    EXPECT_EQ(Print("100%%"), "100%");
    EXPECT_EQ(Print("%x%"), "%");
    EXPECT_EQ(Print("%%1", 5), "%1");
    EXPECT_EQ(Print("%%%1%%", 5), "%5%");
}

TEST(Format, UnknownSelectorsAreDropped)
{
    EXPECT_EQ(Print("%q"), "");
    EXPECT_EQ(Print("a%9b", 1), "ab");
    EXPECT_EQ(Print("a%0b", 1), "ab");
    EXPECT_EQ(Print("a%xqb", 1), "ab");
    EXPECT_EQ(Print("a%xxb", 1), "ab");
    EXPECT_EQ(Print("a%X1", 1), "a1");
    EXPECT_EQ(Print("a%\xC3\xA9z", 1), "az");
}

TEST(Format, APercentAtTheEndPrintsNothing)
{
    EXPECT_EQ(Print("%"), "");
    EXPECT_EQ(Print("a%", 1), "a");
    EXPECT_EQ(Print("a%x", 1), "a");
    EXPECT_EQ(Print("%1%", 7), "7");
    EXPECT_EQ(Print(u"a%"), "a");
    EXPECT_EQ(Print(U"a%x"), "a");
}

TEST(Format, EmptySlotsPrintZero)
{
    EXPECT_EQ(Print("%1"), "0");
    EXPECT_EQ(Print("%1-%2-%8", 5), "5-0-0");
    EXPECT_EQ(Print("%x3", 5), "0x0");
}

TEST(Format, EmptyAndNullStringsContributeNothing)
{
    EXPECT_EQ(Print("[%1]", ""), "[]");
    EXPECT_EQ(Print("[%1]", CString()), "[]");
    EXPECT_EQ(Print("[%1]", CMutableString()), "[]");
    EXPECT_EQ(Print("[%1]", static_cast<char const*>(nullptr)), "[]");
    EXPECT_EQ(Print("[%1%1]", u""), "[]");
    EXPECT_EQ(Print(u"[%1]", CString()), "[]");
    CMutableString emptied("a text");
    emptied = CString();
    EXPECT_EQ(Print("[%1]", emptied), "[]");
}

TEST(Format, ANullTemplateIsAnEmptyOne)
{
    EXPECT_EQ(Print(CString(), 1), "");
    CMutableString result;
    Format(result, CString(nullptr, EStringEncoding::UTF16), 1);
    EXPECT_EQ(Wide(result), u"");
    EXPECT_EQ(result.GetAllocatedSize(), 2u);
}

TEST(Format, TheResultHasTheTemplatesEncoding)
{
    CMutableString result;
    Format(result, u"%1 %2 %x3", "gr\xC3\xBC\xC3\x9F", -5, 0xABu);
    EXPECT_EQ(Wide(result), u"gr\u00FC\u00DF -5 0xAB");
    EXPECT_EQ(result.GetLength(), 12u);

    Format(result, "%1|%2|%3", u"\u20AC", U"\u00E9", L"w");
    EXPECT_STREQ(static_cast<char const*>(result.GetData()), "\xE2\x82\xAC|\xC3\xA9|w");
    EXPECT_EQ(result.GetLength(), 5u);

    Format(result, U"%1%1\u00E9%2", u"ab", u8"c");
    EXPECT_EQ(std::u32string(static_cast<char32_t const*>(result.GetData())), U"abab\u00E9c");
    EXPECT_EQ(result.GetEncoding(), EStringEncoding::UTF32);
}

TEST(Format, LiteralTextIsWrittenAnew)
{
    // Read and written by the library's own rules, which are no round trip above U+FFFF.
    EXPECT_EQ(Print("\xC3\xA9\xE2\x82\xAC"), "\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(Print("\xF0\x9F\x98\x80"), "\xEF\x98\x80");
    EXPECT_EQ(Print("\xF4\x80\x80\x80!"), "\xE0\xE0\x80\x80!");
    EXPECT_EQ(Print("\xC1\x81"), "A");

    CMutableString result;
    char16_t const pair[] = {0xD87D, 0xFE00, u'!', 0};
    Format(result, pair);
    EXPECT_EQ(Wide(result), (std::u16string{char16_t{0xFA00}, u'!'}));
    char16_t const last[] = {0xFFFF, 0};
    Format(result, last);
    EXPECT_EQ(Wide(result), (std::u16string{char16_t{0xD83F}, char16_t{0xFFFF}}));
}

TEST(Format, LiteralTextThatDecodesToZeroStays)
{
    EXPECT_EQ(Print("a\x80z"), "a\x80z");
    EXPECT_EQ(Print("a\xC0\x80z"), "a\xC0\x80z");
    CMutableString result;
    char16_t const pair[] = {u'a', 0xD800, 0xDC00, u'z', 0};
    Format(result, pair);
    EXPECT_EQ(Wide(result), pair);
}

TEST(Format, CharactersCutByTheTerminatorEndThere)
{
    EXPECT_EQ(Print("a\xE2\x82"), "a\xE2\x82\x80");
    EXPECT_EQ(Print("%\xE2"), "");
    EXPECT_EQ(Print("%x\xF0\x9F"), "");
    CMutableString result;
    char16_t const cut[] = {u'%', 0xD800, 0};
    Format(result, cut);
    EXPECT_EQ(Wide(result), u"");
}

TEST(Format, ThePercentIsReadLikeAnyOtherCharacter)
{
    EXPECT_EQ(Print("\xC0\xA5\xC0\xB1", 42), "42"); // overlong "%1"
}

TEST(Format, TheResultMayBeTemplateOrArgument)
{
    CMutableString text("<%1>");
    Format(text, text, 1);
    EXPECT_TRUE(text == CString("<1>"));
    Format(text, "%1, %1", text);
    EXPECT_TRUE(text == CString("<1>, <1>"));
    text = "[%1]";
    Format(text, text, text);
    EXPECT_TRUE(text == CString("[[%1]]"));
    CMutableString wide(u"%1");
    Format(wide, CString(wide), CString(wide), wide);
    EXPECT_TRUE(wide == CString("%1"));
}

TEST(Format, ALongMessage)
{
    std::string const piece(1000, 'p');
    EXPECT_EQ(Print("%1-%1", piece.c_str()), piece + "-" + piece);
    std::string pattern;
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        pattern += "%1, ";
        expected += "123456789, ";
    }
    EXPECT_EQ(Print(pattern.c_str(), 123456789), expected);
}

TEST(Format, PiecesOfEveryLength)
{
    for (u64 length = 0; length <= 70; ++length) {
        std::string piece;
        for (u64 i = 0; i < length; ++i)
            piece += static_cast<char>('a' + i % 26);
        EXPECT_EQ(Print("(%1)", piece.c_str()), "(" + piece + ")");
        EXPECT_EQ(Print((piece + "%1" + piece).c_str(), 5), piece + "5" + piece);
    }
}

TEST(Format, AllocatesTheResultAndNothingElse)
{
    CMutableString result;
    CMutableString const argument("an argument");
    EXPECT_EQ(AllocationsOf(result, "%1: [%2] %3\n", 17u, "Info", argument), 1u);
    EXPECT_EQ(AllocationsOf(result, u"%1%1 %2", u"wide", 3), 1u);
    EXPECT_EQ(Memory::GetHeap(const_cast<void*>(result.GetData())), EHeap::Pool);
}

TEST(Format, WithoutMemoryTheResultStays)
{
    CMutableString result("before");
    Memory::SStatistics statistics{};
    ASSERT_TRUE(Memory::GetStatistics(statistics));
    static int refusals = 0;
    refusals = 0;
    class CRefusing : public CString {
    public:
        using CString::CString;
        [[nodiscard]] u64 GetAllocatedSize() const override
        {
            ++refusals;
            return ~u64{0} - 64; // no memory manager has this much
        }
    };
    CRefusing const huge("x");
    EXPECT_THROW(Format(result, "%1", huge), CBadAllocation);
    EXPECT_THROW(Format(result, "%1%1", huge), CBadAllocation); // the sum must not wrap
    EXPECT_EQ(refusals, 2);
    EXPECT_TRUE(result == CString("before"));
}

TEST(FormatTo, WritesIntoMemoryOfTheCaller)
{
    char text[64];
    std::memset(text, '#', sizeof(text));
    SFormatResult const done = FormatTo(text, sizeof(text), "%1: [%2] %3\n", 17, "Info", "on");
    EXPECT_STREQ(text, "17: [Info] on\n");
    EXPECT_EQ(done.size, 14u);
    EXPECT_EQ(done.needed, 14u);
    EXPECT_FALSE(done.IsTruncated());
    EXPECT_EQ(text[15], '#');
}

TEST(FormatTo, CutsToWholeCharactersAndSaysSo)
{
    std::string const whole = "a\xC3\xA9"
                              "12\xE2\x82\xAC|\xE2\x82\xAC";
    for (u64 size = 1; size <= whole.size() + 3; ++size) {
        char text[32];
        std::memset(text, '#', sizeof(text));
        SFormatResult const done = FormatTo(text, size, "a\xC3\xA9%1\xE2\x82\xAC|%2", 12, u"\u20AC");
        std::string expected = whole.substr(0, size - 1);
        while (!expected.empty() && expected != whole && expected.size() != 1 && expected.size() != 3 &&
               expected.size() != 4 && expected.size() != 5 && expected.size() != 8 && expected.size() != 9)
            expected.pop_back();
        EXPECT_EQ(std::string(text), expected) << size;
        EXPECT_EQ(done.size, expected.size()) << size;
        EXPECT_EQ(done.needed, whole.size()) << size;
        EXPECT_EQ(done.IsTruncated(), expected != whole) << size;
        EXPECT_EQ(text[size], '#') << size;
    }
}

TEST(FormatTo, NothingFollowsWhatDidNotFit)
{
    char text[8];
    // The euro sign does not fit behind "abcde"; the digit behind it would.
    SFormatResult const done = FormatTo(text, sizeof(text), "abcde\xE2\x82\xAC%1", 1);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(done.size, 5u);
    EXPECT_EQ(done.needed, 9u);
    char small[4];
    FormatTo(small, sizeof(small), "%1%2%3", 12, u"xyz", 4);
    EXPECT_STREQ(small, "12x");
}

TEST(FormatTo, WideText)
{
    char16_t text[6];
    SFormatResult const done = FormatTo(text, sizeof(text), u"%1-%2", "ab", 12345);
    EXPECT_EQ(std::u16string(text), u"ab-12");
    EXPECT_EQ(done.size, 10u);
    EXPECT_EQ(done.needed, 16u);
    // Half a unit of room is none.
    EXPECT_EQ(FormatTo(text, 5, u"%1", 123).size, 2u);
    EXPECT_EQ(std::u16string(text), u"1");
    char32_t wider[4];
    EXPECT_EQ(FormatTo(wider, sizeof(wider), U"%1", u"wxyz").size, 12u);
    EXPECT_EQ(std::u32string(wider), U"wxy");
}

TEST(FormatTo, ABufferWithoutRoomForTheTerminatorStaysUntouched)
{
    char text[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(FormatTo(text, 0, "abc").size, 0u);
    EXPECT_EQ(FormatTo(text, 1, u"abc").size, 0u);
    EXPECT_EQ(FormatTo(text, 3, U"abc").needed, 12u);
    EXPECT_EQ(text[0], '#');
    SFormatResult const measured = FormatTo(nullptr, 0, "%1!", 100);
    EXPECT_EQ(measured.size, 0u);
    EXPECT_EQ(measured.needed, 4u);
    EXPECT_EQ(FormatTo(nullptr, 99, "abc").needed, 3u);
    EXPECT_EQ(FormatTo(text, 1, "abc").size, 0u);
    EXPECT_EQ(text[0], '\0');
    EXPECT_EQ(text[1], '#');
}

TEST(FormatTo, RepeatedArgumentsOfAnotherEncoding)
{
    char text[16];
    EXPECT_EQ(FormatTo(text, sizeof(text), "%1%1%1", u"\u00E9x").size, 9u);
    EXPECT_STREQ(text, "\xC3\xA9x\xC3\xA9x\xC3\xA9x");
    char small[8];
    EXPECT_EQ(FormatTo(small, sizeof(small), "%1%1%1", u"\u00E9x").size, 6u);
    EXPECT_STREQ(small, "\xC3\xA9x\xC3\xA9x");
}
