// Find, FindLast, Count, Split, Replace and the other operations that search and edit.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <random>
#include <string>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

constexpr u64 Miss = ~u64{0};

using CParts = TVector<CMutableString, 1>;
using CMaps = TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1>;

CParts PartsOf(std::initializer_list<char const*> texts)
{
    CParts parts;
    for (char const* const text : texts)
        parts.Append(CMutableString(text));
    return parts;
}

void ExpectPieces(CParts const& parts, std::initializer_list<char const*> texts)
{
    ASSERT_EQ(parts.GetCount(), texts.size());
    u64 index = 0;
    for (char const* const text : texts)
        EXPECT_EQ(parts[index++], text);
}

CParts SplitOf(CString const& text, CString const& separator, u64 start = 0)
{
    CParts parts;
    text.Split(separator, parts, start);
    return parts;
}

} // namespace

// ---- Find -----------------------------------------------------------------------------------------------------------

TEST(StringFind, CodePoint)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("ab\xE2\x82\xAC"
                                       "ab\xE2\x82\xAC",
                                       encoding);
        EXPECT_EQ(text.Find('a'), 0u);
        EXPECT_EQ(text.Find('a', 0), 0u);
        EXPECT_EQ(text.Find('a', 1), 3u);
        EXPECT_EQ(text.Find('a', 3), 3u);
        EXPECT_EQ(text.Find('a', 4), Miss);
        EXPECT_EQ(text.Find(0x20AC), 2u);
        EXPECT_EQ(text.Find(0x20AC, 3), 5u);
        EXPECT_EQ(text.Find('x', 0), Miss);
        EXPECT_EQ(text.Find('x', 99), Miss);
    }
}

TEST(StringFind, TheTerminatorIsFound)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("abc", encoding);
        EXPECT_EQ(text.Find(0, 0), 3u);
        EXPECT_EQ(text.Find(0, 3), 3u);
        EXPECT_EQ(text.Find(0, 4), Miss);
        EXPECT_EQ(text.FindLast(0), 3u);
        EXPECT_EQ(As("", encoding).Find(0, 0), Miss);
        EXPECT_EQ(CString(nullptr, encoding).Find(0, 0), Miss);
        EXPECT_EQ(As("", encoding).FindLast(0, 0), Miss);
    }
    EXPECT_EQ(CString("a\x80z").Find(0), 1u) << "a stray byte decodes to 0";
    EXPECT_EQ(CString("a\x80z").FindLast(0), 3u);
}

TEST(StringFind, Text)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const needle : AllEncodings) {
            CMutableString const text = As("one \xE2\x82\xAC two \xE2\x82\xAC two", encoding);
            EXPECT_EQ(text.Find(As("two", needle)), 6u);
            EXPECT_EQ(text.Find(As("two", needle), 6), 6u);
            EXPECT_EQ(text.Find(As("two", needle), 7), 12u);
            EXPECT_EQ(text.Find(As("two", needle), 13), Miss);
            EXPECT_EQ(text.Find(As("\xE2\x82\xAC two", needle)), 4u);
            EXPECT_EQ(text.Find(As("twos", needle)), Miss);
            EXPECT_EQ(text.Find(text), 0u);
            EXPECT_EQ(text.Find(As("two", needle), 999), Miss);
            EXPECT_EQ(As("two", encoding).Find(As("longer than the text", needle)), Miss);
        }
    }
}

TEST(StringFind, TextIsATrueFirstMatch)
{
    EXPECT_EQ(CString("aab").Find("ab"), 1u);
    EXPECT_EQ(CString("ababac").Find("abac"), 2u);
    EXPECT_EQ(CString("aaaaaaab").Find("aab"), 5u);
    EXPECT_EQ(CString(u"mississippi").Find("issip"), 4u);
}

TEST(StringFind, EmptyNeedlesAndTextsMiss)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        EXPECT_EQ(As("abc", encoding).Find(""), Miss);
        EXPECT_EQ(As("abc", encoding).Find(CString()), Miss);
        EXPECT_EQ(As("", encoding).Find("a"), Miss);
        EXPECT_EQ(CString(nullptr, encoding).Find("a"), Miss);
        EXPECT_EQ(CString(nullptr, encoding).Find(""), Miss);
        EXPECT_EQ(As("abc", encoding).FindLast(""), Miss);
        EXPECT_EQ(CString(nullptr, encoding).FindLast("a"), Miss);
        EXPECT_EQ(CString(nullptr, encoding).FindLast('a'), Miss);
    }
}

TEST(StringFind, Last)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("ab\xE2\x82\xAC"
                                       "ab\xE2\x82\xAC"
                                       "a",
                                       encoding);
        EXPECT_EQ(text.FindLast('a'), 6u);
        EXPECT_EQ(text.FindLast('b'), 4u);
        EXPECT_EQ(text.FindLast('b', 4), 4u);
        EXPECT_EQ(text.FindLast('b', 5), Miss);
        EXPECT_EQ(text.FindLast('b', 99), Miss);
        EXPECT_EQ(text.FindLast('x'), Miss);
        EXPECT_EQ(text.FindLast("ab"), 3u);
        EXPECT_EQ(text.FindLast("ab", 3), 3u);
        EXPECT_EQ(text.FindLast("ab", 4), Miss);
        EXPECT_EQ(text.FindLast(u"\u20AC"), 5u);
    }
    EXPECT_EQ(CString("aaaa").FindLast("aa"), 2u) << "matches may overlap";
}

TEST(StringFind, LongNeedlesAgreeWithAnyOrderOfTries)
{
    // Texts over few letters, so that attempts fail late and overlap; needles are parts of them, whole or spoiled.
    std::mt19937 random(20240613);
    for (int round = 0; round < 60; ++round) {
        std::u32string text;
        char32_t const odd = round % 2 == 0 ? U'b' : U'\u20AC';
        for (u64 index = 0; index < 30000; ++index)
            text += random() % (round % 3 == 0 ? 2000 : 400) == 0 ? odd : U'a';
        u64 const begin = random() % 20000;
        std::u32string needle = text.substr(begin, 64 + random() % 6000);
        if (round % 4 == 0)
            needle += U'z';
        else if (round % 4 == 1)
            needle[random() % needle.size()] = odd;
        u64 const first = text.find(needle);
        u64 const last = text.rfind(needle);
        std::u32string replaced;
        for (u64 from = 0;;) {
            u64 const found = text.find(needle, from);
            replaced += text.substr(from, found == std::u32string::npos ? found : found - from);
            if (found == std::u32string::npos)
                break;
            replaced += U'-';
            from = found + needle.size();
        }
        CString const wide(text);
        CString const wideNeedle(needle);
        CMutableString const texts[] = {wide.ToUTF8(), wide.ToUTF16(), wide.ToUTF32()};
        CMutableString const needles[] = {wideNeedle.ToUTF8(), wideNeedle.ToUTF16(), wideNeedle.ToUTF32()};
        for (int encoding = 0; encoding < 3; ++encoding) {
            CMutableString const& where = texts[encoding];
            CMutableString const& what = needles[(encoding + round) % 3];
            ASSERT_EQ(where.Find(what), first) << round;
            ASSERT_EQ(where.FindLast(what), last) << round;
            ASSERT_EQ(where.Replace(what, "-"), CString(replaced)) << round;
        }
    }
}

TEST(StringFind, TimeIsLinearWhateverTheNeedle)
{
    // Trying the needle at every place would take days here.
    constexpr u64 Length = 4000000;
    std::string const text(Length, 'a');
    std::string spoiled(Length / 2, 'a');
    spoiled += 'b';
    std::string const half(Length / 2, 'a');
    EXPECT_EQ(CString(text).Find(CString(spoiled)), Miss);
    EXPECT_EQ(CString(text).FindLast(CString(spoiled)), Miss);
    EXPECT_EQ(CString(text).FindLast(CString(half)), Length / 2);
    EXPECT_EQ(CString(text).Replace(CString(spoiled), "c").GetLength(), Length);
    std::string const ended = text + 'b';
    EXPECT_EQ(CString(ended).Find(CString(spoiled)), Length / 2);
    EXPECT_EQ(CString(text).ToUTF16().Find(CString(spoiled)), Miss);
}

TEST(StringFind, WithoutMemoryForATableTheResultIsTheSame)
{
    std::string const text = std::string(12000, 'a') + "b";
    std::string const needle = std::string(4000, 'a') + "b";
    Memory::Deinitialize(); // no heap at all
    EXPECT_EQ(CString(text).Find(CString(needle)), 8000u);
    EXPECT_EQ(CString(text).FindLast(CString(needle)), 8000u);
    Memory::Initialize(0, 45000); // and one without room
    EXPECT_EQ(CString(text).Find(CString(needle)), 8000u);
    Memory::Deinitialize();
    Memory::Initialize(0, 0);
}

TEST(StringFind, ComparesCodePoints)
{
    EXPECT_EQ(CString("x\xC1\x81").Find('A'), 1u) << "an overlong form reads as its code point";
    EXPECT_EQ(CString("x\xC1\x81").Find("A"), 1u);
    EXPECT_EQ(CString("\xE1"
                      "abc")
                  .Find("abc"),
              Miss)
        << "the lead byte has swallowed the first two letters";
    EXPECT_EQ(CString("\xE1"
                      "abc")
                  .Find("c"),
              1u);
}

// ---- Count ----------------------------------------------------------------------------------------------------------

TEST(StringCount, WithoutOverlapAndWithTheSimpleRestart)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const needle : AllEncodings) {
            auto const count = [=](char const* text, char const* wanted, u64 start = 0) {
                return As(text, encoding).Count(As(wanted, needle), start);
            };
            EXPECT_EQ(count("aaa", "aa"), 1u);
            EXPECT_EQ(count("aaaa", "aa"), 2u);
            EXPECT_EQ(count("aab", "ab"), 0u);
            EXPECT_EQ(count("abab", "ab"), 2u);
            EXPECT_EQ(count("ababab", "ab", 1), 2u);
            EXPECT_EQ(count("a,b,c", ","), 2u);
            EXPECT_EQ(count("a,b,c", ",", 2), 1u);
            EXPECT_EQ(count("a,b,c", ",", 99), 0u);
            EXPECT_EQ(count("", "a"), 0u);
            EXPECT_EQ(count("a", ""), 0u);
            EXPECT_EQ(count("ab", "abc"), 0u);
            EXPECT_EQ(count("\xE2\x82\xAC-\xE2\x82\xAC", "\xE2\x82\xAC"), 2u);
        }
    }
    EXPECT_EQ(CString().Count("a"), 0u);
    EXPECT_EQ(CString("a").Count(CString()), 0u);
    EXPECT_EQ(CString("a\x80"
                      "b")
                  .Count("\x80"),
              1u)
        << "the terminator is no occurrence";
}

// ---- Replace --------------------------------------------------------------------------------------------------------

TEST(StringReplace, CodePoint)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("a.b.\xE2\x82\xAC.", encoding);
        CMutableString const replaced = text.Replace('.', 0x20AC);
        EXPECT_EQ(replaced, "a\xE2\x82\xAC"
                            "b\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC");
        EXPECT_EQ(replaced.GetEncoding(), encoding);
        EXPECT_EQ(replaced.GetLength(), 6u);
        EXPECT_EQ(Memory::GetSize(replaced.GetData()), replaced.GetAllocatedSize());
        EXPECT_EQ(text.Replace('.', '!', 2), "a.b!\xE2\x82\xAC!");
        EXPECT_EQ(text.Replace('x', 'y'), text);
        EXPECT_EQ(text.Replace('.', 'y', 99), text);
        EXPECT_EQ(text, "a.b.\xE2\x82\xAC.");
        EXPECT_EQ(CString(nullptr, encoding).Replace('a', 'b').GetLength(), 0u);
        EXPECT_EQ(As("", encoding).Replace('a', 'b').GetAllocatedSize(), Encodings::GetUnitSize(encoding));
    }
}

TEST(StringReplace, WhatIsNotReplacedStaysUnitByUnit)
{
    // Four-byte characters and pairs would change if they were decoded and written again.
    EXPECT_EQ(CString("a\xF0\x9F\x98\x80"
                      "a")
                  .Replace('a', 'b'),
              "b\xF0\x9F\x98\x80"
              "b");
    char16_t const pair[] = {u'a', 0xD83D, 0xDE00, u'a', 0};
    char16_t const expected[] = {u'b', 0xD83D, 0xDE00, u'b', 0};
    EXPECT_EQ(CString(pair).Replace('a', 'b'), CString(expected));
    EXPECT_EQ(CString("a\xE2\x82").Replace('a', 'b'), "b\xE2\x82");
}

TEST(StringReplace, ByZeroEndsTheText)
{
    CMutableString const text = CString("abcd").Replace('c', 0);
    EXPECT_EQ(text, "ab");
    EXPECT_EQ(text.GetLength(), 2u);
}

TEST(StringReplace, Text)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const other : AllEncodings) {
            auto const replace = [=](char const* text, char const* from, char const* to, u64 start = 0) {
                CMutableString result = As(text, encoding).Replace(As(from, other), As(to, other), start);
                EXPECT_EQ(result.GetEncoding(), encoding);
                EXPECT_EQ(Memory::GetSize(result.GetData()), result.GetAllocatedSize());
                return result;
            };
            EXPECT_EQ(replace("one two one", "one", "1"), "1 two 1");
            EXPECT_EQ(replace("one two one", "one", "three \xE2\x82\xAC", 1), "one two three \xE2\x82\xAC");
            EXPECT_EQ(replace("aaaaa", "aa", "b"), "bba");
            EXPECT_EQ(replace("aab", "ab", "x"), "ax") << "found as Find finds it";
            EXPECT_EQ(replace("abc", "", "x"), "abc");
            EXPECT_EQ(replace("abc", "abc", ""), "");
            EXPECT_EQ(replace("aXbX", "X", "XX"), "aXXbXX");
            EXPECT_EQ(replace("", "a", "b"), "");
            EXPECT_EQ(replace("abc", "c", "d", 99), "abc");
        }
    }
    EXPECT_EQ(CString("abc").Replace(CString(), "x"), "abc");
    EXPECT_EQ(CString("abc").Replace("b", CString()), "ac");
    EXPECT_EQ(CString().Replace("b", "c").GetLength(), 0u);
}

// ---- GetSubstring, Append, Prepend ----------------------------------------------------------------------------------

TEST(StringCut, Substring)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("a\xC3\xA9\xE2\x82\xACz", encoding);
        EXPECT_EQ(text.GetSubstring(1, 3), "\xC3\xA9\xE2\x82\xAC");
        EXPECT_EQ(text.GetSubstring(0, 4), text);
        EXPECT_EQ(text.GetSubstring(0, IString::End), text);
        EXPECT_EQ(text.GetSubstring(2, 2), "");
        EXPECT_EQ(text.GetSubstring(3, 1), "");
        EXPECT_EQ(text.GetSubstring(9, 12), "");
        EXPECT_EQ(text.GetSubstring(3, 99), "z");
        EXPECT_EQ(text.GetSubstring(1, 2).GetEncoding(), encoding);
        EXPECT_EQ(text.GetSubstring(2, 2).GetAllocatedSize(), Encodings::GetUnitSize(encoding));
        EXPECT_EQ(CString(nullptr, encoding).GetSubstring(0, 5).GetLength(), 0u);
    }
    EXPECT_EQ(CString("a\xE2\x82").GetSubstring(1, 2), "\xE2\x82");
}

TEST(StringCut, AppendAndPrepend)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const other : AllEncodings) {
            CMutableString const text = As("a\xE2\x82\xAC", encoding);
            CMutableString const more = As("\xC3\xA9z", other);
            EXPECT_EQ(text.Append(more), "a\xE2\x82\xAC\xC3\xA9z");
            EXPECT_EQ(text.Prepend(more), "\xC3\xA9za\xE2\x82\xAC");
            EXPECT_EQ(text.Append(more).GetEncoding(), encoding);
            EXPECT_EQ(text.Prepend(more).GetEncoding(), encoding);
            EXPECT_EQ(text.Append(CString(nullptr, other)), text);
            EXPECT_EQ(text.Prepend(As("", other)), text);
            EXPECT_EQ(CString(nullptr, encoding).Append(more), more);
            EXPECT_EQ(CString(nullptr, encoding).Append(more).GetEncoding(), encoding);
            EXPECT_EQ(text.Append(text), "a\xE2\x82\xAC"
                                         "a\xE2\x82\xAC");
        }
    }
    EXPECT_EQ(CString().Append(CString()).GetLength(), 0u);
}

// ---- Join, Split ----------------------------------------------------------------------------------------------------

TEST(StringJoin, Ranges)
{
    CParts const parts = PartsOf({"a", "b", "c"});
    EXPECT_EQ(IString::Join(", ", parts, 0, 10), "a, b, c");
    EXPECT_EQ(IString::Join(", ", parts), "a, b, c");
    EXPECT_EQ(IString::Join(", ", parts, 0, 2), "a, b, c");
    EXPECT_EQ(IString::Join(", ", parts, 0, 3), "a, b, c"); // the count itself is past the end
    EXPECT_EQ(IString::Join(", ", parts, 1, 2), "b, c");
    EXPECT_EQ(IString::Join(", ", parts, 0, 1), "a, b");
    EXPECT_EQ(IString::Join(", ", parts, 2, 0), "a");
    EXPECT_EQ(IString::Join(", ", parts, 1, 1), "b");
    EXPECT_EQ(IString::Join(", ", parts, 9, 9), "c");
    EXPECT_EQ(IString::Join("", parts), "abc");
    EXPECT_EQ(IString::Join(CString(), parts), "abc");
}

TEST(StringJoin, NoPartsAreAnEmptyUTF8Text)
{
    CMutableString const text = IString::Join(u", ", CParts(), 0, 9);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_EQ(text.GetEncoding(), UTF8);
    EXPECT_EQ(text.GetAllocatedSize(), 1u);
}

TEST(StringJoin, TheLastPartDecidesTheEncoding)
{
    CParts parts;
    parts.Append(CMutableString("a"));
    parts.Append(CMutableString(U"\u20AC"));
    parts.Append(CMutableString());
    parts.Append(CMutableString(u"z"));
    CMutableString const text = IString::Join("-", parts);
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text, u"a-\u20AC--z");
    EXPECT_EQ(IString::Join("-", parts, 0, 1).GetEncoding(), UTF32);
    // A list that may be changed is taken as well.
    EXPECT_EQ(CString::Join("+", parts, 0, 1), "a+\xE2\x82\xAC");
}

TEST(StringSplit, PiecesAreNeverEmpty)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (EStringEncoding::Type const separator : AllEncodings) {
            auto const split = [=](char const* text, char const* by) {
                CParts parts = SplitOf(As(text, encoding), As(by, separator));
                for (CMutableString const& part : parts)
                    EXPECT_EQ(part.GetEncoding(), encoding);
                return parts;
            };
            ExpectPieces(split("a,b,c", ","), {"a", "b", "c"});
            ExpectPieces(split("a,,b", ","), {"a", "b"});
            ExpectPieces(split(",a,", ","), {"a"});
            ExpectPieces(split(",", ","), {});
            ExpectPieces(split("one--two", "--"), {"one", "two"});
            ExpectPieces(split("\xE2\x82\xAC"
                               "a\xE2\x82\xAC"
                               "\xC3\xA9",
                               "\xE2\x82\xAC"),
                         {"a", "\xC3\xA9"});
        }
    }
}

TEST(StringSplit, WithoutASeparatorTheWholeTextIsOnePiece)
{
    ExpectPieces(SplitOf("abc", ","), {"abc"});
    ExpectPieces(SplitOf("abc", ""), {"abc"});
    ExpectPieces(SplitOf("abc", CString()), {"abc"});
    ExpectPieces(SplitOf("", ","), {""});
    ExpectPieces(SplitOf("a,b", ",", 2), {"a,b"});
    EXPECT_EQ(SplitOf(CString(), ",").GetCount(), 1u);
    EXPECT_EQ(SplitOf(CString(), ",")[0].GetLength(), 0u);
}

TEST(StringSplit, MatchesAsCountDoes)
{
    ExpectPieces(SplitOf("a--b", "-b"), {"a--b"});
    ExpectPieces(SplitOf("x-b--b", "-b"), {"x", "--b"});
    ExpectPieces(SplitOf("aaa", "aa"), {"a"});
}

TEST(StringSplit, FromAStart)
{
    ExpectPieces(SplitOf("a,b,c", ",", 2), {"a,b", "c"});
    ExpectPieces(SplitOf("a,b,c", ",", 3), {"a,b", "c"});
}

TEST(StringSplit, AppendsAndMaySplitAPartOfTheList)
{
    CParts parts = PartsOf({"x,y,z,0,1,2,3,4,5"});
    parts[0].Split(",", parts);
    ExpectPieces(parts, {"x,y,z,0,1,2,3,4,5", "x", "y", "z", "0", "1", "2", "3", "4", "5"});
    CParts whole = PartsOf({"first"});
    CString("no separator").Split(",", whole);
    ExpectPieces(whole, {"first", "no separator"});
}

// ---- Unescape, maps -------------------------------------------------------------------------------------------------

TEST(StringUnescape, DropsEscapesAndKeepsWhatFollows)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        auto const unescape = [=](char const* text, u64 start = 0, u64 end = IString::End) {
            CMutableString result = As(text, encoding).Unescape('\\', start, end);
            EXPECT_EQ(result.GetEncoding(), encoding);
            return result;
        };
        EXPECT_EQ(unescape("a\\nb"), "anb");
        EXPECT_EQ(unescape("a\\\\b"), "a\\b");
        EXPECT_EQ(unescape("\\\\\\\\"), "\\\\");
        EXPECT_EQ(unescape("a\\"), "a");
        EXPECT_EQ(unescape("\\"), "");
        EXPECT_EQ(unescape("\\\xE2\x82\xAC\\a"), "\xE2\x82\xAC"
                                                 "a");
        EXPECT_EQ(unescape("no escapes"), "no escapes");
        EXPECT_EQ(unescape("\\a\\b\\c", 2, 4), "\\ab\\c");
        EXPECT_EQ(unescape("\\a\\b", 1), "\\ab");
        EXPECT_EQ(unescape("a\\\\\\b", 0, 2), "a\\\\b") << "the protected one is the third, outside the range";
        EXPECT_EQ(unescape("\\a", 3, 1), "\\a");
        EXPECT_EQ(unescape("\\a", 1, 1), "\\a");
        EXPECT_EQ(unescape("\\a", 99, 999), "\\a");
        EXPECT_EQ(unescape(""), "");
    }
    EXPECT_EQ(CString().Unescape('\\').GetLength(), 0u);
    EXPECT_EQ(CString("a\xF0\x9F\x98\x80\\\xF0\x9F\x98\x80").Unescape('\\'), "a\xF0\x9F\x98\x80\xF0\x9F\x98\x80");
}

TEST(StringMaps, OneRange)
{
    TPair<Math::TRange<unsigned int>, unsigned int> const lower{{0x41, 0x5B}, 0x61};
    unsigned int codePoint = 0x41;
    EXPECT_TRUE(IString::MapCodepoint(codePoint, lower));
    EXPECT_EQ(codePoint, 0x61u);
    codePoint = 0x5A;
    EXPECT_TRUE(IString::MapCodepoint(codePoint, lower));
    EXPECT_EQ(codePoint, 0x7Au);
    for (unsigned int const outside : {0x40u, 0x5Bu, 0u, 0xFFFFFFFFu}) {
        codePoint = outside;
        EXPECT_FALSE(IString::MapCodepoint(codePoint, lower));
        EXPECT_EQ(codePoint, outside);
    }
}

TEST(StringMaps, TheFirstRangeThatMatches)
{
    CMaps maps;
    unsigned int codePoint = 5;
    EXPECT_FALSE(IString::MapCodepoint(codePoint, maps));
    maps.Append({{10, 20}, 100});
    maps.Append({{15, 30}, 200});
    codePoint = 15;
    EXPECT_TRUE(IString::MapCodepoint(codePoint, maps));
    EXPECT_EQ(codePoint, 105u);
    codePoint = 20;
    EXPECT_TRUE(IString::MapCodepoint(codePoint, maps));
    EXPECT_EQ(codePoint, 205u);
    codePoint = 30;
    EXPECT_FALSE(IString::MapCodepoint(codePoint, maps));
    EXPECT_EQ(codePoint, 30u);
}

TEST(StringMaps, CopyOfAText)
{
    CMaps maps;
    maps.Append({{'a', 'z' + 1}, 'A'});
    maps.Append({{0x20AC, 0x20AD}, 0x24});
    maps.Append({{'0', '1'}, 0x20AC});
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text = As("abz{\xE2\x82\xAC"
                                       "0",
                                       encoding);
        CMutableString const mapped = text.MapToCopy(maps);
        EXPECT_EQ(mapped, "ABZ{$\xE2\x82\xAC");
        EXPECT_EQ(mapped.GetEncoding(), encoding);
        EXPECT_EQ(text.MapToCopy(CMaps()), text);
        EXPECT_EQ(CString(nullptr, encoding).MapToCopy(maps).GetLength(), 0u);
    }
    EXPECT_EQ(CString("\xF0\x9F\x98\x80z").MapToCopy(maps), "\xF0\x9F\x98\x80Z");
}

// ---- Ends of memory -------------------------------------------------------------------------------------------------

TEST(StringSearch, StaysInsideBothTexts)
{
    CGuardedPages const textPages(64);
    CGuardedPages const needlePages(64);
    for (char const* const text :
         {"a", "aa\xC3", "ab\xE2\x82", "aab", "\x80\xF1\x81", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab"}) {
        for (char const* const needle : {"a", "ab", "aab", "\xC3", "\xE2\x82", "\xF1\x81\x82", "b\xC3\xA9"}) {
            CString const guarded(textPages.PlaceAtEnd(text, std::strlen(text) + 1), UTF8);
            CString const wanted(needlePages.PlaceAtEnd(needle, std::strlen(needle) + 1), UTF8);
            u64 const length = guarded.GetLength();
            u64 const first = guarded.Find(wanted);
            u64 const last = guarded.FindLast(wanted);
            EXPECT_EQ(first == Miss, last == Miss);
            EXPECT_TRUE(first == Miss || first + wanted.GetLength() <= length);
            EXPECT_LE(guarded.Count(wanted), length);
            EXPECT_EQ(guarded.Replace(wanted, wanted), guarded);
            EXPECT_LE(guarded.Unescape('a').GetLength(), length);
            EXPECT_GE(SplitOf(guarded, wanted).GetCount(), guarded.Count(wanted) == 0 ? 1u : 0u);
            EXPECT_EQ(guarded.StartsWith(wanted), first == 0);
        }
    }
}

// Matches at every place of texts around the widths of vector registers.
TEST(StringSearch, EveryPlaceAroundVectorWidths)
{
    CGuardedPages const pages(512);
    for (EStringEncoding::Type const encoding : AllEncodings) {
        u64 const unitSize = Encodings::GetUnitSize(encoding);
        for (u64 length = 4; length <= 70; ++length) {
            for (u64 place = 0; place + 4 <= length; ++place) {
                std::vector<u8> text((length + 1) * unitSize, 0);
                for (u64 index = 0; index < length; ++index)
                    text[index * unitSize] = 'n';
                for (u64 index = 0; index < 4; ++index)
                    text[(place + index) * unitSize] = static_cast<u8>("need"[index]);
                CString const guarded(pages.PlaceAtEnd(text.data(), text.size()), encoding);
                ASSERT_EQ(guarded.Find("need"), place) << length;
                ASSERT_EQ(guarded.Find("need", place), place);
                ASSERT_EQ(guarded.Find("need", place + 1), Miss);
                ASSERT_EQ(guarded.FindLast("need"), place);
                ASSERT_EQ(guarded.Find('d'), place + 3);
                ASSERT_EQ(guarded.Find("ed"), place + 2);
            }
        }
    }
}
