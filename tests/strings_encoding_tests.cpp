// The code-point helpers and the whole-text converters.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <array>
#include <initializer_list>
#include <string>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

std::vector<u8> EncodeUTF8(u32 codePoint)
{
    u8 buffer[8];
    u8* const end = IString::CodepointToUTF8(codePoint, buffer);
    return {buffer, end};
}

std::vector<u16> EncodeUTF16(u32 codePoint)
{
    u16 buffer[4];
    u16* const end = IString::CodepointToUTF16(codePoint, buffer);
    return {buffer, end};
}

std::vector<u8> Bytes(std::initializer_list<unsigned> values)
{
    std::vector<u8> bytes;
    for (unsigned const value : values)
        bytes.push_back(static_cast<u8>(value));
    return bytes;
}

std::vector<u16> Units(std::initializer_list<unsigned> values)
{
    std::vector<u16> units;
    for (unsigned const value : values)
        units.push_back(static_cast<u16>(value));
    return units;
}

/// `filler` in every byte, so that what a converter leaves alone can be told.
struct SDestination {
    static constexpr u8 Filler = 0xCD;
    std::array<u8, 64> bytes;
    SDestination() { bytes.fill(Filler); }
    template <class Unit>
    [[nodiscard]] std::vector<Unit> Take(u64 count) const
    {
        std::vector<Unit> units(count);
        std::memcpy(units.data(), bytes.data(), count * sizeof(Unit));
        return units;
    }
    [[nodiscard]] bool IsUntouchedFrom(u64 offset) const
    {
        for (u64 index = offset; index < bytes.size(); ++index) {
            if (bytes[index] != Filler)
                return false;
        }
        return true;
    }
};

constexpr auto Unknown = static_cast<EStringEncoding::Type>(7);

} // namespace

TEST(CodePoints, SizeTable)
{
    u64 const expected[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 3, 4};
    for (unsigned index = 0; index < 16; ++index)
        EXPECT_EQ(IString::UTF8SizeTable[index], expected[index]) << index;
}

TEST(CodePoints, StrideByLeadByte)
{
    for (unsigned lead = 0; lead < 256; ++lead) {
        u8 const byte = static_cast<u8>(lead);
        u64 const expected = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        EXPECT_EQ(IString::GetCharStrideUTF8(&byte), expected) << lead;
    }
}

TEST(CodePoints, ReverseStrideUTF8)
{
    char const text[] = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(text + 1), 1u);
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(text + 3), 2u);
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(text + 6), 3u);
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(text + 10), 4u);
}

TEST(CodePoints, ReverseStrideUTF8HasNoLimit)
{
    char const text[] = "a\x80\x80\x80\x80\x80\x80";
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(text + 7), 7u);
    char const leads[] = "\xC3\xC3";
    EXPECT_EQ(IString::GetCharStrideReverseUTF8(leads + 2), 1u);
}

TEST(CodePoints, StrideUTF16)
{
    for (u32 value = 0; value < 0x10000; ++value) {
        char16_t const unit = static_cast<char16_t>(value);
        EXPECT_EQ(IString::GetCharStrideUTF16(&unit), value >= 0xD800 && value <= 0xDFFF ? 4u : 2u) << value;
        EXPECT_EQ(IString::GetCharStrideReverseUTF16(&unit + 1), value >= 0xDC00 && value <= 0xDFFF ? 4u : 2u) << value;
    }
}

TEST(CodePoints, WrittenUTF8)
{
    EXPECT_EQ(EncodeUTF8(0), Bytes({0x00}));
    EXPECT_EQ(EncodeUTF8(0x7F), Bytes({0x7F}));
    EXPECT_EQ(EncodeUTF8(0x80), Bytes({0xC2, 0x80}));
    EXPECT_EQ(EncodeUTF8(0x7FF), Bytes({0xDF, 0xBF}));
    EXPECT_EQ(EncodeUTF8(0x800), Bytes({0xE0, 0xA0, 0x80}));
    EXPECT_EQ(EncodeUTF8(0xFFFF), Bytes({0xEF, 0xBF, 0xBF}));
    EXPECT_EQ(EncodeUTF8(0x10000), Bytes({0xE0, 0x80, 0x80}));
    EXPECT_EQ(EncodeUTF8(0x1F600), Bytes({0xEF, 0x98, 0x80}));
    EXPECT_EQ(EncodeUTF8(0x3FFFF), Bytes({0xEF, 0xBF, 0xBF}));
    EXPECT_EQ(EncodeUTF8(0x40000), Bytes({0xE0, 0xE0, 0x80, 0x80}));
    EXPECT_EQ(EncodeUTF8(0x10FFFF), Bytes({0xE0, 0xEF, 0xBF, 0xBF}));
    EXPECT_EQ(EncodeUTF8(0xFFFFFFFF), Bytes({0xE0, 0xFF, 0xBF, 0xBF}));
}

TEST(CodePoints, WrittenUTF16)
{
    EXPECT_EQ(EncodeUTF16(0), Units({0}));
    EXPECT_EQ(EncodeUTF16(0xD800), Units({0xD800}));
    EXPECT_EQ(EncodeUTF16(0xFFFE), Units({0xFFFE}));
    EXPECT_EQ(EncodeUTF16(0xFFFF), Units({0xD83F, 0xFFFF}));
    EXPECT_EQ(EncodeUTF16(0x10000), Units({0xD840, 0xDC00}));
    EXPECT_EQ(EncodeUTF16(0x1F600), Units({0xD87D, 0xFE00}));
    EXPECT_EQ(EncodeUTF16(0x10FFFF), Units({0xDC3F, 0xFFFF}));
    EXPECT_EQ(EncodeUTF16(0xFFFFFFFF), Units({0xFFFF, 0xFFFF})) << "cut to 16 bits";
}

TEST(CodePoints, WrittenUTF32)
{
    for (u32 const codePoint : {0u, 0x41u, 0x1F600u, 0xFFFFFFFFu}) {
        u32 units[2] = {};
        EXPECT_EQ(IString::CodepointToUTF32(codePoint, units), units + 1);
        EXPECT_EQ(units[0], codePoint);
        EXPECT_EQ(units[1], 0u);
    }
}

// The whole of Unicode and as far again: the rule written out with plain arithmetic.
TEST(CodePoints, EveryCodePointIsWrittenByTheRule)
{
    for (u32 c = 0; c < 0x220000; ++c) {
        std::vector<u8> bytes;
        if (c < 128)
            bytes = Bytes({c});
        else if (c < 2048)
            bytes = Bytes({192 + c / 64, 128 + c % 64});
        else if (c < 262144)
            bytes = Bytes({224 + c / 4096 % 16, 128 + c / 64 % 64, 128 + c % 64});
        else
            bytes = Bytes({224, 224 | (c / 4096 % 256), 128 + c / 64 % 64, 128 + c % 64});
        u8 written[8];
        u64 const size = static_cast<u64>(IString::CodepointToUTF8(c, written) - written);
        ASSERT_EQ(std::vector<u8>(written, written + size), bytes) << c;
        ASSERT_EQ(IString::GetCodepointStrideUTF8(c), bytes.size()) << c;

        u16 units[4];
        u64 const count = static_cast<u64>(IString::CodepointToUTF16(c, units) - units);
        ASSERT_EQ(count, c < 65535 ? 1u : 2u) << c;
        ASSERT_EQ(IString::GetCodepointStrideUTF16(c), c < 65535 ? 2u : 4u) << c;
        if (c < 65535) {
            ASSERT_EQ(units[0], c);
        }
        else {
            ASSERT_EQ(units[0], (0xD800 | (c / 1024)) % 65536) << c;
            ASSERT_EQ(units[1], (0xDC00 | (c % 65536))) << c;
        }
    }
}

TEST(CodePoints, EveryWellFormedCharacterBelowTheThresholdsRoundTrips)
{
    for (u32 c = 1; c < 0xFFFF; ++c) {
        u8 bytes[5] = {};
        IString::CodepointToUTF8(c, bytes);
        ASSERT_EQ(IString::GetCodepointUTF8(bytes, 0), c);
        ASSERT_EQ(IString::GetCharStrideUTF8(bytes), IString::GetCodepointStrideUTF8(c));
        if (c >= 0xD800 && c <= 0xDFFF)
            continue;
        u16 units[3] = {};
        IString::CodepointToUTF16(c, units);
        ASSERT_EQ(IString::GetCodepointUTF16(units, 0), c);
    }
}

TEST(CodePoints, FourByteOutputIsWalkedAsThreeAndOne)
{
    u8 bytes[5] = {};
    ASSERT_EQ(IString::CodepointToUTF8(0x40000, bytes), bytes + 4);
    EXPECT_EQ(IString::GetCharStrideUTF8(bytes), 3u);
    EXPECT_EQ(IString::GetCharStrideUTF8(bytes + 3), 1u);
    EXPECT_EQ(CString(reinterpret_cast<char const*>(bytes)).GetLength(), 2u);
}

TEST(CodePoints, ReadUTF8)
{
    EXPECT_EQ(IString::GetCodepointUTF8("a", 0), 0x61u);
    EXPECT_EQ(IString::GetCodepointUTF8("xx\xC3\xA9", 2), 0xE9u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xE2\x82\xAC", 0), 0x20ACu);
    EXPECT_EQ(IString::GetCodepointUTF8("\xF0\x9F\x98\x80", 0), 0x1F600u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xF8\x81\x82\x83", 0), 0x201083u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xFF\xBF\xBF\xBF", 0), 0x3FFFFFu);
    EXPECT_EQ(IString::GetCodepointUTF8("\x80", 0), 0u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xBF", 0), 0u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xC3(", 0), 0xE8u) << "continuation bytes are not checked";
    EXPECT_EQ(IString::GetCodepointUTF8("\xE0\xE0\x80\x80", 0), 0x800u);
}

TEST(CodePoints, ReadUTF16ByByteOffset)
{
    char16_t const text[] = {u'x', 0xD87D, 0xFE00, 0xD840, 0xDC00, 0xD83F, 0xFFFF, 0xDC00, u'a', 0};
    EXPECT_EQ(IString::GetCodepointUTF16(text, 0), 0x78u);
    EXPECT_EQ(IString::GetCodepointUTF16(text, 2), 0xFA00u);
    EXPECT_EQ(IString::GetCodepointUTF16(text, 6), 0x8000u);
    EXPECT_EQ(IString::GetCodepointUTF16(text, 10), 0x7FFFu);
    EXPECT_EQ(IString::GetCodepointUTF16(text, 14), 0x80061u) << "a low surrogate opens a pair with whatever follows";
    EXPECT_EQ(IString::GetCodepointUTF16(text, 18), 0u);
}

TEST(CodePoints, ReadingEndsAtTheTerminator)
{
    // What lies behind the terminator would change the results if it were read.
    EXPECT_EQ(IString::GetCodepointUTF8("\xC3\0\xBF\xBF", 0), 0xC0u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xE2\0\xBF\xBF", 0), 0x2000u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xE2\x82\0\xBF", 0), 0x2080u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xF1\0\xBF\xBF", 0), 0x40000u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xF1\x81\0\xBF", 0), 0x41000u);
    EXPECT_EQ(IString::GetCodepointUTF8("\xF1\x81\x82\0", 0), 0x41080u);
    char16_t const pair[] = {0xD801, 0, 0xDC01};
    EXPECT_EQ(IString::GetCodepointUTF16(pair, 0), 0x200u);
}

TEST(CodePoints, HelpersTakeEveryUnitType)
{
    char plain[4];
    char8_t utf8[4];
    unsigned char bytes[4];
    EXPECT_EQ(IString::CodepointToUTF8('a', plain), plain + 1);
    EXPECT_EQ(IString::CodepointToUTF8('a', utf8), utf8 + 1);
    EXPECT_EQ(IString::CodepointToUTF8('a', bytes), bytes + 1);
    EXPECT_EQ(IString::GetCharStrideUTF8(utf8), 1u);
    char16_t utf16[4];
    unsigned short shorts[4];
    EXPECT_EQ(IString::CodepointToUTF16(0x10000, utf16), utf16 + 2);
    EXPECT_EQ(IString::CodepointToUTF16('a', shorts), shorts + 1);
    char32_t utf32[2];
    EXPECT_EQ(IString::CodepointToUTF32('a', utf32), utf32 + 1);
}

// ---- Converters -----------------------------------------------------------------------------------------------------

TEST(Converters, FromUTF8)
{
    SDestination out;
    EXPECT_EQ(CConverters::ConvertUTF8("a\xC3\xA9\xE2\x82\xAC", out.bytes.data(), 3, UTF16), 6u);
    EXPECT_EQ(out.Take<u16>(4), Units({0x61, 0xE9, 0x20AC, 0}));
    EXPECT_TRUE(out.IsUntouchedFrom(8));

    for (EStringEncoding::Type const target : {UTF32, Unknown}) {
        SDestination wide;
        EXPECT_EQ(CConverters::ConvertUTF8("\xF0\x9F\x98\x80z", wide.bytes.data(), 2, target), 8u);
        EXPECT_EQ(wide.Take<u32>(3), (std::vector<u32>{0x1F600, 0x7A, 0}));
        EXPECT_TRUE(wide.IsUntouchedFrom(12));
    }
}

TEST(Converters, FromUTF16)
{
    char16_t const text[] = {u'a', 0xE9, 0x20AC, 0xD87D, 0xFE00, 0};
    SDestination narrow;
    EXPECT_EQ(CConverters::ConvertUTF16(text, narrow.bytes.data(), 4, UTF8, false), 9u);
    EXPECT_EQ(narrow.Take<u8>(10), Bytes({0x61, 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xEF, 0xA8, 0x80, 0}));
    EXPECT_TRUE(narrow.IsUntouchedFrom(10));
    for (EStringEncoding::Type const target : {UTF32, Unknown}) {
        for (bool const flag : {false, true}) {
            SDestination wide;
            EXPECT_EQ(CConverters::ConvertUTF16(text, wide.bytes.data(), 4, target, flag), 16u);
            EXPECT_EQ(wide.Take<u32>(5), (std::vector<u32>{0x61, 0xE9, 0x20AC, 0xFA00, 0}));
            EXPECT_TRUE(wide.IsUntouchedFrom(20));
        }
    }
}

TEST(Converters, FromUTF16ByUnits)
{
    char16_t const text[] = {u'a', 0x7F, 0x80, 0x7FF, 0x800, 0xD87D, 0xFE00, 0};
    SDestination out;
    EXPECT_EQ(CConverters::ConvertUTF16(text, out.bytes.data(), 7, UTF8, true), 15u);
    EXPECT_EQ(out.Take<u8>(16),
              Bytes({0x61, 0x7F, 0xC2, 0x80, 0xDF, 0xBF, 0xE0, 0xA0, 0x80, 0xED, 0xA1, 0xBD, 0xEF, 0xB8, 0x80, 0}));
    EXPECT_TRUE(out.IsUntouchedFrom(16));
    char16_t const last[] = {0xFFFF, 0};
    SDestination single;
    EXPECT_EQ(CConverters::ConvertUTF16(last, single.bytes.data(), 1, UTF8, true), 3u);
    EXPECT_EQ(single.Take<u8>(4), Bytes({0xEF, 0xBF, 0xBF, 0}));
}

TEST(Converters, FromUTF32)
{
    char32_t const text[] = {0x61, 0xFFFE, 0xFFFF, 0x1F600, 0x40000, 0};
    SDestination narrow;
    EXPECT_EQ(CConverters::ConvertUTF32(text, narrow.bytes.data(), 5, UTF8), 14u);
    EXPECT_EQ(narrow.Take<u8>(15),
              Bytes({0x61, 0xEF, 0xBF, 0xBE, 0xEF, 0xBF, 0xBF, 0xEF, 0x98, 0x80, 0xE0, 0xE0, 0x80, 0x80, 0}));
    EXPECT_TRUE(narrow.IsUntouchedFrom(15));
    // Unlike the other two, this converter takes an unknown target for UTF-16.
    for (EStringEncoding::Type const target : {UTF16, Unknown}) {
        SDestination wide;
        EXPECT_EQ(CConverters::ConvertUTF32(text, wide.bytes.data(), 4, target), 12u);
        EXPECT_EQ(wide.Take<u16>(7), Units({0x61, 0xFFFE, 0xD83F, 0xFFFF, 0xD87D, 0xFE00, 0}));
        EXPECT_TRUE(wide.IsUntouchedFrom(14));
    }
}

TEST(Converters, SameEncodingCopiesTheWholeText)
{
    for (u64 const count : {u64{0}, u64{2}, u64{999}}) {
        SDestination narrow;
        EXPECT_EQ(CConverters::ConvertUTF8("a\xC3\xA9z", narrow.bytes.data(), count, UTF8), 4u);
        EXPECT_EQ(narrow.Take<u8>(5), Bytes({0x61, 0xC3, 0xA9, 0x7A, 0}));
        EXPECT_TRUE(narrow.IsUntouchedFrom(5));
        for (bool const flag : {false, true}) {
            SDestination wide;
            EXPECT_EQ(CConverters::ConvertUTF16(u"abc", wide.bytes.data(), count, UTF16, flag), 7u);
            EXPECT_EQ(wide.Take<u16>(4), Units({0x61, 0x62, 0x63, 0}));
            EXPECT_TRUE(wide.IsUntouchedFrom(8));
        }
        SDestination widest;
        EXPECT_EQ(CConverters::ConvertUTF32(U"abc", widest.bytes.data(), count, UTF32), 15u);
        EXPECT_EQ(widest.Take<u32>(4), (std::vector<u32>{0x61, 0x62, 0x63, 0}));
        EXPECT_TRUE(widest.IsUntouchedFrom(16));
    }
    SDestination empty;
    EXPECT_EQ(CConverters::ConvertUTF8("", empty.bytes.data(), 0, UTF8), 0u);
    EXPECT_EQ(CConverters::ConvertUTF16(u"", empty.bytes.data(), 0, UTF16, false), 1u);
    EXPECT_EQ(CConverters::ConvertUTF32(U"", empty.bytes.data(), 0, UTF32), 3u);
}

TEST(Converters, NullWritesNothing)
{
    for (EStringEncoding::Type const target : {UTF8, UTF16, UTF32, Unknown}) {
        SDestination out;
        EXPECT_EQ(CConverters::ConvertUTF8(nullptr, out.bytes.data(), 1, target), 0u);
        EXPECT_EQ(CConverters::ConvertUTF16(nullptr, out.bytes.data(), 1, target, false), 0u);
        EXPECT_EQ(CConverters::ConvertUTF16(nullptr, out.bytes.data(), 1, target, true), 0u);
        EXPECT_EQ(CConverters::ConvertUTF32(nullptr, out.bytes.data(), 1, target), 0u);
        EXPECT_TRUE(out.IsUntouchedFrom(0));
        EXPECT_EQ(CConverters::ConvertUTF8("a", nullptr, 1, target), 0u);
        EXPECT_EQ(CConverters::ConvertUTF16(u"a", nullptr, 1, target, true), 0u);
        EXPECT_EQ(CConverters::ConvertUTF32(U"a", nullptr, 1, target), 0u);
    }
}

TEST(Converters, NoCodePointsGiveATerminator)
{
    SDestination out;
    EXPECT_EQ(CConverters::ConvertUTF8("abc", out.bytes.data(), 0, UTF16), 0u);
    EXPECT_EQ(out.Take<u16>(1), Units({0}));
    EXPECT_TRUE(out.IsUntouchedFrom(2));
    SDestination second;
    EXPECT_EQ(CConverters::ConvertUTF16(u"abc", second.bytes.data(), 0, UTF32, false), 0u);
    EXPECT_EQ(second.Take<u32>(1), std::vector<u32>{0});
    EXPECT_TRUE(second.IsUntouchedFrom(4));
    SDestination third;
    EXPECT_EQ(CConverters::ConvertUTF32(U"abc", third.bytes.data(), 0, UTF8), 0u);
    EXPECT_EQ(third.Take<u8>(1), Bytes({0}));
    EXPECT_TRUE(third.IsUntouchedFrom(1));
    SDestination fourth;
    EXPECT_EQ(CConverters::ConvertUTF16(u"abc", fourth.bytes.data(), 0, UTF8, true), 0u);
    EXPECT_EQ(fourth.Take<u8>(1), Bytes({0}));
    EXPECT_TRUE(fourth.IsUntouchedFrom(1));
    SDestination fifth;
    EXPECT_EQ(CConverters::ConvertUTF16(u"abc", fifth.bytes.data(), 0, UTF8, false), 0u);
    EXPECT_EQ(fifth.Take<u8>(1), Bytes({0}));
    EXPECT_TRUE(fifth.IsUntouchedFrom(1));
    for (EStringEncoding::Type const target : {UTF32, Unknown}) {
        SDestination sixth;
        EXPECT_EQ(CConverters::ConvertUTF8("abc", sixth.bytes.data(), 0, target), 0u);
        EXPECT_EQ(sixth.Take<u32>(1), std::vector<u32>{0});
        EXPECT_TRUE(sixth.IsUntouchedFrom(4));
    }
    for (EStringEncoding::Type const target : {UTF16, Unknown}) {
        SDestination seventh;
        EXPECT_EQ(CConverters::ConvertUTF32(U"abc", seventh.bytes.data(), 0, target), 0u);
        EXPECT_EQ(seventh.Take<u16>(1), Units({0}));
        EXPECT_TRUE(seventh.IsUntouchedFrom(2));
    }
}

TEST(Converters, TheCountDecidesNotTheTerminator)
{
    SDestination part;
    EXPECT_EQ(CConverters::ConvertUTF8("abc", part.bytes.data(), 2, UTF16), 4u);
    EXPECT_EQ(part.Take<u16>(3), Units({0x61, 0x62, 0}));
    EXPECT_TRUE(part.IsUntouchedFrom(6));
    SDestination through;
    EXPECT_EQ(CConverters::ConvertUTF8("a\0b", through.bytes.data(), 3, UTF16), 6u);
    EXPECT_EQ(through.Take<u16>(4), Units({0x61, 0, 0x62, 0}));
}

// ---- CopyAs ---------------------------------------------------------------------------------------------------------

TEST(CopyAs, ConvertsTheWholeText)
{
    SDestination out;
    CString("a\xE2\x82\xAC").CopyAs(UTF16, out.bytes.data(), false);
    EXPECT_EQ(out.Take<u16>(3), Units({0x61, 0x20AC, 0}));
    EXPECT_TRUE(out.IsUntouchedFrom(6));

    SDestination same;
    CString(U"ab").CopyAs(UTF32, same.bytes.data(), false);
    EXPECT_EQ(same.Take<u32>(3), (std::vector<u32>{0x61, 0x62, 0}));
    EXPECT_TRUE(same.IsUntouchedFrom(12));
}

TEST(CopyAs, PassesThePlaneFlagOn)
{
    char16_t const text[] = {u'a', 0xD87D, 0xFE00, 0};
    SDestination pairs;
    CString(text).CopyAs(UTF8, pairs.bytes.data(), false);
    EXPECT_EQ(pairs.Take<u8>(5), Bytes({0x61, 0xEF, 0xA8, 0x80, 0}));
    // Two code points, so two units.
    SDestination units;
    CString(text).CopyAs(UTF8, units.bytes.data(), true);
    EXPECT_EQ(units.Take<u8>(5), Bytes({0x61, 0xED, 0xA1, 0xBD, 0}));
    EXPECT_TRUE(units.IsUntouchedFrom(5));
}

TEST(CopyAs, UnknownEncodingsAreUTF32)
{
    SDestination out;
    CString("ab").CopyAs(Unknown, out.bytes.data(), false);
    EXPECT_EQ(out.Take<u32>(3), (std::vector<u32>{0x61, 0x62, 0}));
    SDestination again;
    CString(out.bytes.data(), Unknown).CopyAs(Unknown, again.bytes.data(), false);
    EXPECT_EQ(again.Take<u32>(3), (std::vector<u32>{0x61, 0x62, 0}));
    SDestination narrow;
    CString(out.bytes.data(), Unknown).CopyAs(UTF8, narrow.bytes.data(), false);
    EXPECT_EQ(narrow.Take<u8>(3), Bytes({0x61, 0x62, 0}));
}

TEST(CopyAs, NullWritesNothing)
{
    SDestination out;
    for (EStringEncoding::Type const target : AllEncodings) {
        for (EStringEncoding::Type const source : AllEncodings)
            CString(nullptr, source).CopyAs(target, out.bytes.data(), false);
        CString("a").CopyAs(target, nullptr, false);
    }
    EXPECT_TRUE(out.IsUntouchedFrom(0));
}

// Every text of up to three units from a set that holds every kind of lead, at the very end of its memory, into a
// destination of exactly the announced size at the very end of its own.
TEST(CopyAs, MalformedTextAtTheEndOfMemory)
{
    CGuardedPages const sourcePages(64);
    CGuardedPages const targetPages(64);
    u32 const interesting8[] = {0x41, 0x80, 0xBF, 0xC3, 0xE2, 0xF1, 0xFF};
    u32 const interesting16[] = {0x41, 0xE9, 0x20AC, 0xD801, 0xDC01, 0xFFFF};
    u32 const interesting32[] = {0x41, 0xE9, 0xD801, 0xFFFF, 0x1F600, 0x40000, 0xFFFFFFFF};
    auto const run = [&](EStringEncoding::Type encoding, auto const& values) {
        u64 const kinds = std::size(values);
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        u64 checked = 0;
        for (u64 length = 0; length <= 4; ++length) {
            u64 combinations = 1;
            for (u64 index = 0; index < length; ++index)
                combinations *= kinds;
            for (u64 combination = 0; combination < combinations; ++combination) {
                u8* const source = sourcePages.TakeTail((length + 1) * unitSize);
                u64 rest = combination;
                for (u64 index = 0; index < length; ++index, rest /= kinds)
                    std::memcpy(source + index * unitSize, &values[rest % kinds], unitSize);
                std::memset(source + length * unitSize, 0, unitSize);
                CString const text(source, encoding);
                ASSERT_EQ(text.GetAllocatedSize(), (length + 1) * unitSize);
                for (EStringEncoding::Type const target : AllEncodings) {
                    u64 const size = text.GetAllocatedSizeAs(target);
                    u8* const out = targetPages.TakeTail(size);
                    std::memset(targetPages.GetBegin(), 0xCD, static_cast<u64>(out - targetPages.GetBegin()) + size);
                    text.CopyAs(target, out, false);
                    ASSERT_TRUE(out == targetPages.GetBegin() || out[-1] == 0xCD);
                    u32 last = 0xFFFFFFFF;
                    std::memcpy(&last, out + size - Encodings::GetUnitSize(target), Encodings::GetUnitSize(target));
                    ASSERT_EQ(last & (0xFFFFFFFF >> (32 - 8 * Encodings::GetUnitSize(target))), 0u);
                    ++checked;
                }
            }
        }
        EXPECT_GT(checked, 1000u);
    };
    run(UTF8, interesting8);
    run(UTF16, interesting16);
    run(UTF32, interesting32);
}
