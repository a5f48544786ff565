// Equality, order, hashes, beginnings and ends, edit distance.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

/// Runs `check` with both texts in every pair of encodings.
template <class Check>
void InEveryPair(char const* left, char const* right, Check&& check)
{
    for (EStringEncoding::Type const leftEncoding : AllEncodings) {
        for (EStringEncoding::Type const rightEncoding : AllEncodings) {
            SCOPED_TRACE(static_cast<int>(leftEncoding) * 10 + static_cast<int>(rightEncoding));
            CMutableString const first = As(left, leftEncoding);
            CMutableString const second = As(right, rightEncoding);
            check(first, second);
        }
    }
}

void ExpectOrder(char const* before, char const* after)
{
    InEveryPair(before, after, [](CString const& left, CString const& right) {
        EXPECT_TRUE(left < right);
        EXPECT_FALSE(left > right);
        EXPECT_FALSE(left == right);
        EXPECT_TRUE(left != right);
        EXPECT_TRUE(right > left);
        EXPECT_FALSE(right < left);
        EXPECT_FALSE(right == left);
    });
}

void ExpectSame(char const* text)
{
    InEveryPair(text, text, [](CString const& left, CString const& right) {
        EXPECT_TRUE(left == right);
        EXPECT_FALSE(left != right);
        EXPECT_FALSE(left < right);
        EXPECT_FALSE(left > right);
    });
}

} // namespace

TEST(StringEquality, SameTextInEveryPairOfEncodings)
{
    ExpectSame("abc");
    ExpectSame("");
    ExpectSame("a\xC3\xA9\xE2\x82\xAC");
    ExpectSame("a text that is longer than any vector register of sixty-four bytes, and then some more of it");
}

TEST(StringEquality, NullAndEmptyAreEqual)
{
    for (EStringEncoding::Type const left : AllEncodings) {
        for (EStringEncoding::Type const right : AllEncodings) {
            CMutableString const empty = As("", right);
            CString const null(nullptr, left);
            EXPECT_TRUE(null == empty);
            EXPECT_TRUE(empty == null);
            EXPECT_FALSE(null < empty);
            EXPECT_FALSE(empty > null);
            EXPECT_TRUE(null == CString(nullptr, right));
            CMutableString const letter = As("a", right);
            EXPECT_TRUE(null < letter);
            EXPECT_TRUE(letter > null);
            EXPECT_TRUE(null != letter);
            EXPECT_FALSE(letter < null);
            EXPECT_FALSE(null > letter);
        }
    }
}

TEST(StringEquality, SamePointerIsNotRead)
{
    // Equal without looking, even when the other encoding would read it differently.
    char16_t const text[] = u"ab";
    EXPECT_TRUE(CString(text) == CString(text, UTF8));
    EXPECT_FALSE(CString(text) != CString(text, UTF32));
    char16_t const empty[] = {0, 0};
    EXPECT_TRUE(CString(empty) == CString(empty, UTF8));
}

TEST(StringOrder, ByValueOfTheFirstDifference)
{
    ExpectOrder("", "a");
    ExpectOrder("ab", "abc");
    ExpectOrder("B", "a");
    ExpectOrder("abc", "abd");
    ExpectOrder("abz", "ac");
    ExpectOrder("a", "\xC3\xA9");
    ExpectOrder("\xC3\xA9", "\xE2\x82\xAC");
    ExpectOrder("the first thirty-two characters are the same up to here: a",
                "the first thirty-two characters are the same up to here: b");
}

TEST(StringOrder, UnitsAreUnsigned)
{
    EXPECT_TRUE(CString("\x7F") < CString("\x80"));
    EXPECT_TRUE(CString("\xFE") < CString("\xFF"));
    char16_t const low[] = {0x7FFF, 0};
    char16_t const high[] = {0x8000, 0};
    EXPECT_TRUE(CString(low) < CString(high));
    char32_t const small[] = {0x7FFFFFFF, 0};
    char32_t const large[] = {0x80000000, 0};
    EXPECT_TRUE(CString(small) < CString(large));
    // Little-endian bytes in ascending order are no order of units.
    EXPECT_TRUE(CString(u"\x01FF") < CString(u"\x0200"));
}

TEST(StringOrder, OneEncodingComparesUnitsTwoCompareCodePoints)
{
    char16_t const pair[] = {0xD87D, 0xFE00, 0};
    CString const wide(pair);
    CMutableString const decoded = wide.ToUTF8();
    EXPECT_EQ(decoded, "\xEF\xA8\x80");
    EXPECT_TRUE(wide == decoded) << "both read as U+FA00";
    char16_t const single[] = {0xFA00, 0};
    EXPECT_FALSE(wide == CString(single)) << "different units of one encoding";
    EXPECT_TRUE(wide < CString(single));
    EXPECT_TRUE(CString("\xC1\x81") == CString(u"A"));
    EXPECT_FALSE(CString("\xC1\x81") == CString("A"));
}

TEST(StringOrder, StrayBytesAreNoEnd)
{
    // The stray byte decodes to 0; only the terminator ends a text.
    EXPECT_FALSE(CString("a\x80"
                         "b") == CString(u"a"));
    EXPECT_TRUE(CString(u"a") < CString("a\x80"
                                        "b"));
    EXPECT_TRUE(CString("a\x80"
                        "b") > CString(u"a"));
    EXPECT_FALSE(CString("\x80") == CString(u""));
}

TEST(StringOrder, CutCharactersEndInFrontOfTheTerminator)
{
    CGuardedPages const left(64);
    CGuardedPages const right(64);
    for (char const* const text : {"a\xC3", "a\xE2", "a\xE2\x82", "a\xF1", "a\xF1\x81", "a\xF1\x81\x82"}) {
        u64 const size = std::strlen(text) + 1;
        CString const cut(left.PlaceAtEnd(text, size), UTF8);
        CMutableString const wide = cut.ToUTF32();
        CString const same(right.PlaceAtEnd(wide.GetData(), wide.GetAllocatedSize()), UTF32);
        EXPECT_TRUE(cut == same);
        EXPECT_TRUE(same == cut);
        EXPECT_FALSE(cut < same);
    }
    char16_t const text[] = {u'a', 0xD801, 0};
    CString const cut(left.PlaceAtEnd(text, sizeof(text)), UTF16);
    char32_t const expected[] = {U'a', 0x200, 0};
    EXPECT_TRUE(cut == CString(expected));
    EXPECT_TRUE(CString(expected) == cut);
}

// Differences at every place of texts around the widths of vector registers, at the ends of their memory.
TEST(StringOrder, EveryDifferenceAroundVectorWidths)
{
    CGuardedPages const leftPages(512);
    CGuardedPages const rightPages(512);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (u64 length = 1; length <= 70; ++length) {
            std::vector<u8> text((length + 1) * unitSize, 0);
            for (u64 index = 0; index < length; ++index)
                text[index * unitSize] = static_cast<u8>('a' + index % 26);
            CString const left(leftPages.PlaceAtEnd(text.data(), text.size()), encoding);
            CString const same(rightPages.PlaceAtEnd(text.data(), text.size()), encoding);
            ASSERT_EQ(left.GetLength(), length);
            ASSERT_TRUE(left == same);
            ASSERT_FALSE(left < same);
            for (u64 place = 0; place < length; ++place) {
                std::vector<u8> other = text;
                other[place * unitSize] = static_cast<u8>(other[place * unitSize] + 1);
                CString const later(rightPages.PlaceAtEnd(other.data(), other.size()), encoding);
                ASSERT_TRUE(left < later) << length << ' ' << place;
                ASSERT_TRUE(later > left);
                ASSERT_FALSE(left == later);
                // The same text, cut there.
                std::vector<u8> shorter(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(place * unitSize));
                shorter.resize(shorter.size() + unitSize);
                CString const cut(rightPages.PlaceAtEnd(shorter.data(), shorter.size()), encoding);
                ASSERT_TRUE(cut < left);
                ASSERT_FALSE(cut == left);
                ASSERT_FALSE(left == cut);
            }
        }
    }
}

// ---- StartsWith, EndsWith -------------------------------------------------------------------------------------------

TEST(StringEnds, StartsWith)
{
    InEveryPair("\xE2\x82\xAC"
                "abc",
                "\xE2\x82\xAC"
                "a",
                [](CString const& text, CString const& start) {
                    EXPECT_TRUE(text.StartsWith(start));
                    EXPECT_TRUE(text.StartsWith(text));
                    EXPECT_FALSE(start.StartsWith(text));
                    EXPECT_FALSE(text.StartsWith(text.GetSubstring(1)));
                });
    InEveryPair("abc", "b", [](CString const& text, CString const& other) { EXPECT_FALSE(text.StartsWith(other)); });
}

TEST(StringEnds, EndsWith)
{
    InEveryPair("abc\xE2\x82\xAC", "c\xE2\x82\xAC", [](CString const& text, CString const& end) {
        EXPECT_TRUE(text.EndsWith(end));
        EXPECT_TRUE(text.EndsWith(text));
        EXPECT_FALSE(end.EndsWith(text));
        EXPECT_FALSE(text.EndsWith("abc"));
    });
}

TEST(StringEnds, TheEmptyTextStartsAndEndsEveryText)
{
    for (EStringEncoding::Type const left : AllEncodings) {
        for (EStringEncoding::Type const right : AllEncodings) {
            CMutableString const text = As("abc", left);
            CMutableString const empty = As("", right);
            CString const null(nullptr, right);
            EXPECT_TRUE(text.StartsWith(empty));
            EXPECT_TRUE(text.StartsWith(null));
            EXPECT_TRUE(text.EndsWith(empty));
            EXPECT_TRUE(text.EndsWith(null));
            EXPECT_TRUE(empty.StartsWith(null));
            EXPECT_TRUE(null.EndsWith(empty));
            EXPECT_FALSE(empty.StartsWith(text));
            EXPECT_FALSE(null.EndsWith(text));
        }
    }
}

TEST(StringEnds, WholeCharactersOnly)
{
    EXPECT_FALSE(CString("\xE2\x82\xAC").StartsWith("\xE2\x82"));
    EXPECT_FALSE(CString("\xE2\x82\xAC").EndsWith("\xAC"));
    EXPECT_TRUE(CString("a\xE2\x82").EndsWith("\xE2\x82"));
}

// ---- Hashes ---------------------------------------------------------------------------------------------------------

TEST(StringHash, EmptyIsZero)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        EXPECT_EQ(As("", encoding).GetHash(), 0u);
        EXPECT_EQ(CString(nullptr, encoding).GetHash(), 0u);
        EXPECT_EQ(As("", encoding).GetHash(0, 9), 0u);
        EXPECT_EQ(CString(nullptr, encoding).GetHash(0, 9), 0u);
    }
}

TEST(StringHash, CoversAsManyBytesAsCodePointsAndOneUnit)
{
    EXPECT_EQ(CString("ab").GetHash(), 0xECD16355u) << "a, b and the terminator";
    EXPECT_EQ(CString(u"ab").GetHash(), 0x0B29D868u) << "four bytes: both letters";
    EXPECT_EQ(CString(U"ab").GetHash(), 0x2F6ABB22u) << "six bytes: a letter and half of the next";
    EXPECT_EQ(CString("\xC3\xA9").GetHash(), 0x5D03BB6Bu) << "two of three bytes";
    EXPECT_EQ(CString("\xC3\xA9\xC3\xA9").GetHash(), 0x931E4735u);
    // So texts may differ where the hash does not look.
    EXPECT_EQ(CString(u"abcdX").GetHash(), CString(u"abcdY").GetHash());
    EXPECT_EQ(CMutableString("ab").GetHash(), 0xECD16355u);
    CGuardedPages const pages(16);
    EXPECT_EQ(CString(pages.PlaceAtEnd("ab", 3), UTF8).GetHash(), 0xECD16355u);
}

TEST(StringHash, OfARange)
{
    EXPECT_EQ(CString("ab").GetHash(0, 2), 0xECD16355u);
    EXPECT_EQ(CString("ab").GetHash(0, 99), 0xECD16355u);
    EXPECT_EQ(CString(u"ab").GetHash(0, 99), 0xD7C79C6Cu);
    EXPECT_EQ(CString(U"ab").GetHash(0, IString::End), 0xC76881F2u);
    EXPECT_EQ(CString("abcd").GetHash(1, 3), 0xD054BBE1u);
    EXPECT_EQ(CString("\xC3\xA9"
                      "a")
                  .GetHash(1, 2),
              0x5DF0E832u);
    EXPECT_EQ(CString("\xC3\xA9"
                      "a")
                  .GetHash(0, 1),
              0x931E129Cu);
}

TEST(StringHash, OfAnEmptyRange)
{
    for (auto const& [start, end] : {std::pair<u64, u64>{1, 1}, {2, 1}, {9, 3}, {3, 9}, {IString::End, 0}}) {
        EXPECT_EQ(CString("abc").GetHash(start, end), 0x3771DC4Du) << start << ' ' << end;
        EXPECT_EQ(CString(u"abc").GetHash(start, end), 0x5F21ABFBu) << start << ' ' << end;
        EXPECT_EQ(CString(U"abc").GetHash(start, end), 0xB7F67793u) << start << ' ' << end;
    }
}

TEST(StringHash, OfTheTextIsTheSameForEveryEncoding)
{
    InEveryPair("a\xC3\xA9\xE2\x82\xAC", "a\xC3\xA9\xE2\x82\xAC",
                [](CString const& left, CString const& right) { EXPECT_EQ(left.GetTextHash(), right.GetTextHash()); });
    EXPECT_NE(CString("ab").GetTextHash(), CString("ba").GetTextHash());
    EXPECT_NE(CString(u"abcdX").GetTextHash(), CString(u"abcdY").GetTextHash());
    EXPECT_EQ(CString(nullptr).GetTextHash(), CString(u"").GetTextHash());
}

TEST(StringContainers, OrderedAndUnordered)
{
    std::map<CMutableString, int, std::less<>> ordered;
    ordered["pear"] = 1;
    ordered["apple"] = 2;
    ordered["fig"] = 3;
    EXPECT_EQ(ordered.begin()->first, "apple");
    EXPECT_EQ(ordered.find(u"fig")->second, 3);
    EXPECT_EQ(ordered.find("plum"), ordered.end());

    std::unordered_map<CMutableString, int, SStringHash, std::equal_to<>> table;
    table["one"] = 1;
    table[u"two"] = 2;
    EXPECT_EQ(table["two"], 2) << "the same text in another encoding is the same key";
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table.find(CString(U"one"))->second, 1);
    std::unordered_map<CMutableString, int> plain;
    plain["x"] = 7;
    EXPECT_EQ(plain.at(CMutableString(u"x")), 7);
    std::set<CString> views = {CString("b"), CString("a"), CString(u"a")};
    EXPECT_EQ(views.size(), 2u);
}

// ---- Distance -------------------------------------------------------------------------------------------------------

TEST(StringDistance, SmallCases)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        auto const distance = [encoding](char const* left, char const* right) {
            CMutableString const first = As(left, encoding);
            CMutableString const second = As(right, encoding);
            EXPECT_EQ(first.GetDistance(second), second.GetDistance(first));
            return first.GetDistance(second);
        };
        EXPECT_EQ(distance("flaw", "lawn"), 2u);
        EXPECT_EQ(distance("", "abc"), 3u);
        EXPECT_EQ(distance("", ""), 0u);
        EXPECT_EQ(distance("kitten", "sitting"), 3u);
        EXPECT_EQ(distance("abc", "abc"), 0u);
        EXPECT_EQ(distance("abc", "xyz"), 3u);
        EXPECT_EQ(distance("a", "b"), 1u);
        EXPECT_EQ(distance("\xC3\xA9t\xC3\xA9", "ete"), 2u);
        EXPECT_EQ(distance("saturday", "sunday"), 3u);
    }
    EXPECT_EQ(CString().GetDistance("abc"), 3u);
    EXPECT_EQ(CString("abc").GetDistance(CString()), 3u);
    EXPECT_EQ(CString().GetDistance(CString()), 0u);
}

namespace {

/// The recurrence cell by cell, a row of the matrix after the other.
u64 MatrixDistance(std::u32string const& left, std::u32string const& right)
{
    std::vector<u64> above(right.size() + 1);
    std::vector<u64> cells(right.size() + 1);
    for (u64 row = 0; row <= left.size(); ++row) {
        for (u64 column = 0; column <= right.size(); ++column) {
            if (row == 0 || column == 0)
                cells[column] = row + column;
            else
                cells[column] = std::min({above[column] + 1, cells[column - 1] + 1,
                                          above[column - 1] + (left[row - 1] == right[column - 1] ? 0 : 1)});
        }
        above.swap(cells);
    }
    return above[right.size()];
}

} // namespace

TEST(StringDistance, AgreesWithTheMatrix)
{
    std::mt19937 random(20240611);
    for (int round = 0; round < 400; ++round) {
        std::u32string left(random() % 150, U'a');
        std::u32string right(random() % 150, U'a');
        unsigned const alphabet = round % 3 == 0 ? 2 : round % 3 == 1 ? 12 : 400;
        for (char32_t& unit : left)
            unit = static_cast<char32_t>(0x61 + random() % alphabet);
        for (char32_t& unit : right)
            unit = static_cast<char32_t>(0x61 + random() % alphabet);
        u64 const expected = MatrixDistance(left, right);
        CString const first(left);
        CString const second(right);
        ASSERT_EQ(first.GetDistance(second), expected);
        ASSERT_EQ(first.ToUTF8().GetDistance(second.ToUTF8()), expected);
        ASSERT_EQ(first.ToUTF16().GetDistance(second.ToUTF16()), expected);
    }
}

TEST(StringDistance, LongTextsAgreeWithTheMatrix)
{
    // Around and beyond the 4,096 rows that are worked on at once.
    std::mt19937 random(20240612);
    auto const make = [&random](u64 length, unsigned alphabet) {
        std::u32string text(length, U'a');
        for (char32_t& unit : text)
            unit = static_cast<char32_t>(0x61 + random() % alphabet);
        return text;
    };
    for (u64 const shorter : {4095u, 4096u, 4097u, 4160u}) {
        std::u32string const left = make(4200, 4);
        std::u32string const right = make(shorter, 4);
        ASSERT_EQ(CString(left).GetDistance(CString(right)), MatrixDistance(left, right)) << shorter;
    }
    // Three stripes, changed here and there, with more different code points than the direct table has.
    std::u32string const left = make(8400, 600);
    std::u32string right = left;
    for (u64 place = 7; place < right.size(); place += 200)
        right.erase(place, 1 + place % 3);
    for (u64 place = 90; place < right.size(); place += 170)
        right.insert(place, 1 + place % 4, U'b');
    EXPECT_EQ(CString(left).GetDistance(CString(right)), MatrixDistance(left, right));
    EXPECT_EQ(CString(right).GetDistance(CString(left)), MatrixDistance(left, right));
    std::u32string const crosses(9000, U'x');
    std::u32string const others(12000, U'y');
    EXPECT_EQ(CString(crosses).GetDistance(CString(others)), 12000u);
}

TEST(StringDistance, MemoryGrowsWithTheTextsNotWithTheirProduct)
{
    // Every code point another one: the places of each in a text as a whole would take 120 MB.
    std::u32string left(30000, 0);
    std::u32string right(30000, 0);
    for (u64 index = 0; index < left.size(); ++index) {
        left[index] = static_cast<char32_t>(0x1000 + index);
        right[index] = static_cast<char32_t>(0x1000 + (index + 15000) % 30000);
    }
    Memory::Deinitialize();
    Memory::Initialize(0, u64{12} << 20); // a budget of 12 MB, for everything
    EXPECT_EQ(CString(left).GetDistance(CString(right)), 30000u);
    Memory::Deinitialize();
    Memory::Initialize(0, 0);
}

TEST(StringDistance, OtherEncodingsAreReadWithTheReceiversAndStayInside)
{
    // The bytes 61 00 62 of UTF-16 "abc", read as three UTF-8 characters against a, b, c.
    EXPECT_EQ(CString("abc").GetDistance(u"abc"), 2u);
    CGuardedPages const left(512);
    CGuardedPages const right(512);
    for (EStringEncoding::Type const receiver : AllEncodings) {
        for (EStringEncoding::Type const argument : AllEncodings) {
            for (char const* const text :
                 {"a", "abc", "a\xC3\xA9\xE2\x82\xAC", "\xE2\x82", "0123456789012345678901234567890123456789"}) {
                CMutableString const first = As("some text", receiver);
                CMutableString const second = As(text, argument);
                CString const guardedFirst(left.PlaceAtEnd(first.GetData(), first.GetAllocatedSize()), receiver);
                CString const guardedSecond(right.PlaceAtEnd(second.GetData(), second.GetAllocatedSize()), argument);
                u64 const distance = guardedFirst.GetDistance(guardedSecond);
                EXPECT_LE(distance, std::max(guardedFirst.GetLength(), guardedSecond.GetLength()));
            }
        }
    }
}
