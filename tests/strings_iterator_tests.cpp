// Iterators, ranges, and the way to and from the standard strings.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <algorithm>
#include <ranges>
#include <string>
#include <type_traits>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

std::vector<u32> CodePointsOf(CString const& text)
{
    std::vector<u32> codePoints;
    for (u32 const codePoint : text.GetCodePoints())
        codePoints.push_back(codePoint);
    return codePoints;
}

} // namespace

TEST(StringIterator, StepsForward)
{
    char16_t const wide[] = {u'a', 0xE9, 0xD83D, 0xDE00, u'z', 0};
    struct SCase {
        CString text;
        u64 offsets[5];
        u32 codePoints[5];
    };
    SCase const cases[] = {
        {"a\xC3\xA9\xF0\x9F\x98\x80z", {0, 1, 3, 7, 8}, {0x61, 0xE9, 0x1F600, 0x7A, 0}},
        {wide, {0, 2, 4, 8, 10}, {0x61, 0xE9, 0x7A00, 0x7A, 0}},
        {U"a\u00E9\U0001F600z", {0, 4, 8, 12, 16}, {0x61, 0xE9, 0x1F600, 0x7A, 0}},
    };
    for (SCase const& test : cases) {
        CGenericStringIterator position = test.text.GetIterator();
        for (u64 index = 0; index < 5; ++index) {
            EXPECT_EQ(position.GetIndex(), index);
            EXPECT_EQ(position.GetByteOffset(), test.offsets[index]);
            EXPECT_EQ(*position, test.codePoints[index]);
            EXPECT_EQ(position.IsAtEnd(), index == 4);
            EXPECT_EQ(test.text.GetIterator(index), position);
            CGenericStringIterator jumped = test.text.GetIterator();
            EXPECT_EQ(&(jumped += index), &jumped);
            EXPECT_EQ(jumped, position);
            EXPECT_EQ(jumped.GetIndex(), index);
            if (index < 4) {
                EXPECT_EQ(&++position, &position);
            }
        }
        for (u64 index = 4; index > 0; --index) {
            EXPECT_EQ(position.GetByteOffset(), test.offsets[index]);
            CGenericStringIterator jumped = test.text.GetIterator(4);
            EXPECT_EQ(&(jumped -= 4 - index), &jumped);
            EXPECT_EQ(jumped, position);
            EXPECT_EQ(jumped.GetIndex(), index);
            EXPECT_EQ(&--position, &position);
        }
        EXPECT_EQ(position.GetByteOffset(), 0u);
        EXPECT_EQ(position.GetIndex(), 0u);
    }
}

TEST(StringIterator, StaysInsideTheText)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CMutableString const text("ab", encoding);
        CGenericStringIterator position = text.GetIterator(99);
        EXPECT_EQ(position.GetIndex(), 2u);
        ++position;
        position += 1000;
        EXPECT_EQ(position.GetIndex(), 2u);
        EXPECT_EQ(position.GetByteOffset(), 2 * Encodings::GetUnitSize(encoding));
        position -= 1000;
        --position;
        EXPECT_EQ(position.GetIndex(), 0u);
        EXPECT_EQ(position.GetByteOffset(), 0u);

        CString const null(nullptr, encoding);
        CGenericStringIterator nowhere = null.GetIterator(3);
        EXPECT_TRUE(nowhere.IsAtEnd());
        EXPECT_EQ(*nowhere, 0u);
        ++nowhere;
        --nowhere;
        nowhere += 2;
        nowhere -= 2;
        EXPECT_EQ(nowhere.GetIndex(), 0u);
    }
}

TEST(StringIterator, CutAndStrayCharacters)
{
    CGuardedPages const pages(16);
    char const text[] = "a\xF1\x81";
    CString const cut(pages.PlaceAtEnd(text, sizeof(text)), EStringEncoding::UTF8);
    CGenericStringIterator position = cut.GetIterator(2);
    EXPECT_TRUE(position.IsAtEnd());
    EXPECT_EQ(position.GetByteOffset(), 3u);
    --position;
    EXPECT_EQ(position.GetByteOffset(), 1u);
    EXPECT_EQ(*position, 0x41000u);
    // Stray bytes: forward one by one, backward up to what is none, and never past the start.
    CGuardedPages const front(16);
    std::memcpy(front.GetBegin(), "\x80\x80\x80", 4);
    CString const stray(front.GetBegin(), EStringEncoding::UTF8);
    position = stray.GetIterator(3);
    EXPECT_EQ(position.GetByteOffset(), 3u);
    --position;
    EXPECT_EQ(position.GetByteOffset(), 0u);
    char16_t const low[] = {0xDC00, 0};
    std::memcpy(front.GetBegin(), low, sizeof(low));
    position = CString(front.GetBegin(), EStringEncoding::UTF16).GetIterator(1);
    EXPECT_EQ(position.GetByteOffset(), 2u);
    --position;
    EXPECT_EQ(position.GetByteOffset(), 0u);
}

TEST(StringIterator, ReverseStrides)
{
    // A low surrogate in front of the position takes the unit before it along, whatever that is.
    char16_t const text[] = {u'a', u'b', 0xDC00, u'c', 0};
    CGenericStringIterator position = CString(text).GetIterator();
    position += 2;
    ASSERT_EQ(position.GetByteOffset(), 4u);
    ++position;
    ASSERT_EQ(position.GetByteOffset(), 8u) << "the low surrogate opened a pair with c";
    --position;
    EXPECT_EQ(position.GetByteOffset(), 6u);
    --position;
    EXPECT_EQ(position.GetByteOffset(), 2u);
    // The lower unit of a pair as this library writes it may be none by this rule.
    char16_t const written[] = {0xD87D, 0xFE00, 0};
    position = CString(written).GetIterator(1);
    ASSERT_EQ(position.GetByteOffset(), 4u);
    --position;
    EXPECT_EQ(position.GetByteOffset(), 2u);
}

TEST(StringIterator, KnowsItsSource)
{
    CMutableString const text("abc");
    EXPECT_EQ(text.GetIterator().GetSource(), &text);
    CGenericStringIterator position = text.GetIterator();
    CGenericStringIterator const before = position++;
    EXPECT_EQ(before.GetIndex(), 0u);
    EXPECT_EQ(position.GetIndex(), 1u);
    CGenericStringIterator const after = position--;
    EXPECT_EQ(after.GetIndex(), 1u);
    EXPECT_EQ(position, before);
}

TEST(StringRange, ForLoops)
{
    EXPECT_EQ(CodePointsOf("a\xC3\xA9\x80z"), (std::vector<u32>{0x61, 0xE9, 0, 0x7A}));
    EXPECT_EQ(CodePointsOf(u"a\u20AC"), (std::vector<u32>{0x61, 0x20AC}));
    EXPECT_EQ(CodePointsOf(U"a\U0010FFFF"), (std::vector<u32>{0x61, 0x10FFFF}));
    EXPECT_EQ(CodePointsOf(""), std::vector<u32>());
    EXPECT_EQ(CodePointsOf(CString()), std::vector<u32>());
}

TEST(StringRange, WorksWithTheStandardRanges)
{
    static_assert(std::bidirectional_iterator<CGenericStringIterator>);
    static_assert(std::ranges::bidirectional_range<CCodePoints>);
    CMutableString const text("a1b22c");
    auto const isDigit = [](u32 codePoint) { return codePoint >= '0' && codePoint <= '9'; };
    EXPECT_EQ(std::ranges::count_if(text.GetCodePoints(), isDigit), 3);
    auto const range = text.GetCodePoints();
    auto const digit = std::ranges::find_if(range, isDigit);
    EXPECT_EQ(digit.GetIndex(), 1u);
}

namespace {

template <class Text>
concept GivesCodePoints = requires(Text&& text) { static_cast<Text&&>(text).GetCodePoints(); };

} // namespace

TEST(StringRange, NotOverATemporarysText)
{
    static_assert(GivesCodePoints<CMutableString&>);
    static_assert(GivesCodePoints<CMutableString const&>);
    static_assert(!GivesCodePoints<CMutableString>);
    static_assert(GivesCodePoints<CString>, "a view's text is not its own");
}

// ---- The standard library -------------------------------------------------------------------------------------------

TEST(StandardStrings, FromThem)
{
    std::string const narrow = "a\xC3\xA9";
    std::u16string const wide = u"a\u00E9";
    std::u32string const widest = U"a\u00E9";
    std::wstring const system = L"a\u00E9";
    std::u8string const typed = u8"a\u00E9";
    CString const view(narrow);
    EXPECT_EQ(view.GetData(), narrow.c_str());
    EXPECT_EQ(CString(wide), view);
    EXPECT_EQ(CString(widest), view);
    EXPECT_EQ(CString(system), view);
    EXPECT_EQ(CString(typed), view);
    CMutableString owned = narrow;
    EXPECT_EQ(owned, view);
    owned = wide;
    EXPECT_EQ(owned.GetEncoding(), EStringEncoding::UTF16);
    owned = std::string("temporary");
    EXPECT_EQ(owned, "temporary");
    EXPECT_EQ(CMutableString(std::u32string(U"temporary")), "temporary");
    EXPECT_TRUE(view == narrow);
    EXPECT_TRUE(narrow == owned || owned == "temporary");
}

TEST(StandardStrings, FromViews)
{
    std::string_view const part = std::string_view("hello world").substr(0, 5);
    CMutableString const text = part;
    EXPECT_EQ(text, "hello");
    EXPECT_EQ(text.GetAllocatedSize(), 6u);
    CMutableString assigned;
    assigned = std::u16string_view(u"wide text").substr(5);
    EXPECT_EQ(assigned, u"text");
    EXPECT_EQ(CMutableString(std::u32string_view(U"abc", 2)), U"ab");
    EXPECT_EQ(CMutableString(std::string_view()).GetLength(), 0u);
    EXPECT_NE(CMutableString(std::string_view()).GetData(), nullptr);
    EXPECT_EQ(CMutableString(std::string_view("ab\0cd", 5)), "ab") << "text ends at its first zero";
    EXPECT_EQ(CMutableString(std::string_view("\xE2\x82\xAC", 2)).GetLength(), 1u);
    CGuardedPages const pages(16);
    u8 const* const tail = pages.PlaceAtEnd("abc", 3);
    EXPECT_EQ(CMutableString(std::string_view(reinterpret_cast<char const*>(tail), 3)), "abc");
}

TEST(StandardStrings, ToThem)
{
    CMutableString const text(u"a\u00E9\u20AC");
    EXPECT_EQ(text.ToStandardString(), "a\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(text.ToStandardString<char16_t>(), u"a\u00E9\u20AC");
    EXPECT_EQ(text.ToStandardString<char32_t>(), U"a\u00E9\u20AC");
    EXPECT_EQ(text.ToStandardString<wchar_t>(), L"a\u00E9\u20AC");
    EXPECT_TRUE(text.ToStandardString<char8_t>() == u8"a\u00E9\u20AC");
    EXPECT_EQ(CString().ToStandardString(), "");
    EXPECT_EQ(CString(U"").ToStandardString<char16_t>(), u"");
    EXPECT_EQ(CString("a\x80z").ToStandardString<char16_t>(), u"a") << "where the converted text ends";
    CTestString emptied("some text");
    emptied.Assign(nullptr, EStringEncoding::UTF8);
    EXPECT_EQ(emptied.ToStandardString(), "") << "whatever its allocated size says";
}

TEST(StandardStrings, Views)
{
    CMutableString const text("abc");
    std::optional<std::string_view> const view = text.GetStandardView();
    ASSERT_TRUE(view.has_value());
    EXPECT_EQ(*view, "abc");
    EXPECT_EQ(static_cast<void const*>(view->data()), text.GetData());
    EXPECT_FALSE(CString(u"abc").GetStandardView().has_value());
    EXPECT_TRUE(CString().GetStandardView()->empty());
    EXPECT_EQ(CString("").GetStandardView()->size(), 0u);
    EXPECT_TRUE(*text.GetStandardView<char8_t>() == u8"abc");
}
