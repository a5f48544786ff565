// CString, CMutableString, concatenation chains and ASCII case.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/GuardedPages.h"
#include "support/StringAccess.h"

#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

/// A text of Memory::Malloc with the given units and a terminator.
template <class Unit>
void* Managed(std::initializer_list<Unit> units)
{
    Unit* const buffer = static_cast<Unit*>(Memory::Malloc((units.size() + 1) * sizeof(Unit), EHeap::Pool4));
    std::memcpy(buffer, units.begin(), units.size() * sizeof(Unit));
    buffer[units.size()] = 0;
    return buffer;
}

} // namespace

// ---- Null, empty, measures ------------------------------------------------------------------------------------------

TEST(StringMeasures, NullIsEmptyEverywhere)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        CString const null(nullptr, encoding);
        EXPECT_EQ(null.GetLength(), 0u);
        EXPECT_EQ(null.GetAllocatedSize(), 0u);
        EXPECT_TRUE(null.IsEmpty());
        EXPECT_EQ(null.GetByteOffset(3), 0u);
        EXPECT_EQ(null.GetCodePointAt(0), 0u);
        EXPECT_EQ(null.GetCodePointAt(7), 0u);
        EXPECT_EQ(null.GetSubstring(0).GetData(), nullptr);
        EXPECT_EQ(null.GetSubstring(5).GetEncoding(), encoding);
        for (EStringEncoding::Type const target : AllEncodings)
            EXPECT_EQ(null.GetAllocatedSizeAs(target), 0u);
        EXPECT_EQ(null.ToUTF8().GetData(), nullptr);
        EXPECT_EQ(null.ToUTF16().GetEncoding(), UTF16);
        EXPECT_EQ(null.CopyToLowercaseASCII().GetLength(), 0u);
        EXPECT_EQ(CMutableString(null).GetData(), nullptr);
        EXPECT_EQ(CMutableString(null).GetEncoding(), encoding);
    }
    EXPECT_EQ(CString().GetEncoding(), UTF8);
    EXPECT_EQ(CString(nullptr).GetData(), nullptr);
    EXPECT_EQ(CMutableString().GetData(), nullptr);
    EXPECT_EQ(CMutableString().GetAllocatedSize(), 0u);
}

TEST(StringMeasures, EmptyTexts)
{
    EXPECT_EQ(CString("").GetAllocatedSize(), 1u);
    EXPECT_EQ(CString(u"").GetAllocatedSize(), 2u);
    EXPECT_EQ(CString(U"").GetAllocatedSize(), 4u);
    EXPECT_EQ(CString(u"").GetAllocatedSizeAs(UTF8), 1u);
    EXPECT_EQ(CString(u"").GetAllocatedSizeAs(UTF32), 4u);
    EXPECT_EQ(CString(U"").GetAllocatedSizeAs(UTF16), 2u);
    EXPECT_EQ(CString("").GetLength(), 0u);
    EXPECT_TRUE(CString(u"").IsEmpty());
    EXPECT_EQ(CString("").GetByteOffset(1), 0u);
    EXPECT_EQ(CString(U"").GetCodePointAt(0), 0u);
    EXPECT_EQ(CMutableString("").GetAllocatedSize(), 1u);
    EXPECT_NE(CMutableString("").GetData(), nullptr);
}

TEST(StringMeasures, LengthsAndSizes)
{
    CString const narrow("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(narrow.GetLength(), 4u);
    EXPECT_EQ(narrow.GetAllocatedSize(), 11u);
    EXPECT_EQ(narrow.GetAllocatedSizeAs(UTF8), 11u);
    EXPECT_EQ(narrow.GetAllocatedSizeAs(UTF16), 12u);
    EXPECT_EQ(narrow.GetAllocatedSizeAs(UTF32), 20u);
    EXPECT_EQ(narrow.GetAllocatedSizeAs(static_cast<EStringEncoding::Type>(9)), 20u);

    char16_t const pairs[] = {u'a', 0xD83D, 0xDE00, 0xDC00, u'b', u'c', 0};
    CString const wide(pairs);
    EXPECT_EQ(wide.GetLength(), 4u);
    EXPECT_EQ(wide.GetAllocatedSize(), 14u);
    // 'a', 0x7A00 of the pair, 0x80062 of the low surrogate with 'b', 'c'.
    EXPECT_EQ(wide.GetAllocatedSizeAs(UTF8), 1u + 3 + 4 + 1 + 1);
    EXPECT_EQ(wide.GetAllocatedSizeAs(UTF32), 20u);

    char32_t const widest[] = {0x61, 0x7FF, 0x800, 0xFFFE, 0xFFFF, 0x3FFFF, 0x40000, 0};
    CString const code(widest);
    EXPECT_EQ(code.GetLength(), 7u);
    EXPECT_EQ(code.GetAllocatedSize(), 32u);
    EXPECT_EQ(code.GetAllocatedSizeAs(UTF8), 1u + 2 + 3 + 3 + 3 + 3 + 4 + 1);
    EXPECT_EQ(code.GetAllocatedSizeAs(UTF16), 2u * 4 + 4 * 3 + 2);
}

TEST(StringMeasures, CharactersCutByTheTerminator)
{
    EXPECT_EQ(CString("\xC3").GetLength(), 1u);
    EXPECT_EQ(CString("a\xE2\x82").GetLength(), 2u);
    EXPECT_EQ(CString("a\xE2\x82").GetAllocatedSize(), 4u);
    EXPECT_EQ(CString("a\xE2\x82").GetByteOffset(2), 3u);
    EXPECT_EQ(CString("a\xE2\x82").GetByteOffset(9), 3u);
    EXPECT_EQ(CString("a\xE2\x82").GetCodePointAt(1), 0x2080u);
    char16_t const cut[] = {u'a', 0xD801, 0, 0xDC01};
    EXPECT_EQ(CString(cut).GetLength(), 2u);
    EXPECT_EQ(CString(cut).GetAllocatedSize(), 6u);
    EXPECT_EQ(CString(cut).GetByteOffset(2), 4u);
    EXPECT_EQ(CString(cut).GetCodePointAt(1), 0x200u);
    EXPECT_EQ(CString(cut).ToUTF8(), "a\xC8\x80");
}

TEST(StringMeasures, AStrayByteIsACharacterNotAnEnd)
{
    CString const text("a\x80z");
    EXPECT_EQ(text.GetLength(), 3u);
    EXPECT_EQ(text.GetCodePointAt(1), 0u);
    EXPECT_EQ(text.GetCodePointAt(2), 0x7Au);
    EXPECT_EQ(text.GetAllocatedSizeAs(UTF16), 8u);
    // It decodes to 0, so that converted text ends there; the size is that of the whole.
    CMutableString const wide = text.ToUTF16();
    EXPECT_EQ(wide.GetLength(), 1u);
    EXPECT_EQ(wide.GetAllocatedSize(), 8u);
    EXPECT_EQ(wide, u"a");
}

TEST(StringMeasures, ByteOffsets)
{
    CString const narrow("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    u64 const narrowOffsets[] = {0, 1, 3, 6, 10};
    CString const wide(u"a\xE9\x20AC\xD83D\xDE00");
    u64 const wideOffsets[] = {0, 2, 4, 6, 10};
    CString const widest(U"abcd");
    for (u64 index = 0; index < 5; ++index) {
        EXPECT_EQ(narrow.GetByteOffset(index), narrowOffsets[index]);
        EXPECT_EQ(wide.GetByteOffset(index), wideOffsets[index]);
        EXPECT_EQ(widest.GetByteOffset(index), 4 * index);
    }
    // Past the end is the end.
    EXPECT_EQ(narrow.GetByteOffset(5), 10u);
    EXPECT_EQ(wide.GetByteOffset(1000), 10u);
    EXPECT_EQ(widest.GetByteOffset(std::numeric_limits<u64>::max()), 16u);
}

TEST(StringMeasures, CodePointAt)
{
    CString const narrow("a\xE2\x82\xAC");
    EXPECT_EQ(narrow.GetCodePointAt(0), 0x61u);
    EXPECT_EQ(narrow.GetCodePointAt(1), 0x20ACu);
    EXPECT_EQ(narrow.GetCodePointAt(narrow.GetLength()), 0u);
    EXPECT_EQ(narrow.GetCodePointAt(99), 0u);
    CString const wide(u"a\xD87D\xFE00z");
    EXPECT_EQ(wide.GetCodePointAt(1), 0xFA00u);
    EXPECT_EQ(wide.GetCodePointAt(2), 0x7Au);
    EXPECT_EQ(wide.GetCodePointAt(3), 0u);
    CString const widest(U"a\x10FFFFz");
    EXPECT_EQ(widest.GetCodePointAt(1), 0x10FFFFu);
    EXPECT_EQ(widest.GetCodePointAt(3), 0u);
    EXPECT_EQ(widest.GetCodePointAt(std::numeric_limits<u64>::max()), 0u);
}

TEST(StringMeasures, SubstringViewsTheTail)
{
    CMutableString const text("a\xC3\xA9z");
    CString const whole = text.GetSubstring(0);
    EXPECT_EQ(whole.GetData(), text.GetData());
    EXPECT_EQ(text.GetSubstring(1), "\xC3\xA9z");
    EXPECT_EQ(text.GetSubstring(2).GetData(), static_cast<char const*>(text.GetData()) + 3);
    EXPECT_EQ(text.GetSubstring(3).GetLength(), 0u);
    EXPECT_EQ(text.GetSubstring(3).GetData(), static_cast<char const*>(text.GetData()) + 4);
    EXPECT_EQ(text.GetSubstring(100).GetData(), static_cast<char const*>(text.GetData()) + 4);
    EXPECT_EQ(CString(U"abc").GetSubstring(2), U"c");
    EXPECT_EQ(CString(U"abc").GetSubstring(9).GetLength(), 0u);
}

// ---- CString --------------------------------------------------------------------------------------------------------

TEST(StringView, TakesEveryKindOfText)
{
    EXPECT_EQ(CString("a").GetEncoding(), UTF8);
    EXPECT_EQ(CString(u8"a").GetEncoding(), UTF8);
    EXPECT_EQ(CString(u"a").GetEncoding(), UTF16);
    EXPECT_EQ(CString(U"a").GetEncoding(), UTF32);
    EXPECT_EQ(Encodings::GetUnitSize(CString(L"a").GetEncoding()), sizeof(wchar_t));
    EXPECT_EQ(CString(L"abc").GetLength(), 3u);
    char const bytes[] = "abc";
    CString const raw(bytes, UTF8);
    EXPECT_EQ(raw.GetData(), bytes);
    CMutableString const owned(u"xyz");
    CString const view = owned;
    EXPECT_EQ(view.GetData(), owned.GetData());
    EXPECT_EQ(view.GetEncoding(), UTF16);
}

TEST(StringView, NeverOwnsAndRebinds)
{
    CMutableString first("one");
    CString view = first;
    view = CString("two");
    EXPECT_EQ(view, "two");
    EXPECT_EQ(first, "one");
    view = first;
    EXPECT_EQ(view.GetData(), first.GetData());
    view = nullptr;
    EXPECT_TRUE(view.IsEmpty());
}

TEST(StringView, SurvivesUnalignedText)
{
    alignas(8) u8 storage[32] = {};
    char16_t const text[] = u"ab\u20AC";
    std::memcpy(storage + 1, text, sizeof(text));
    CString const view(storage + 1, UTF16);
    EXPECT_EQ(view.GetLength(), 3u);
    EXPECT_EQ(view.GetCodePointAt(2), 0x20ACu);
    EXPECT_EQ(view, u"ab\u20AC");
    EXPECT_EQ(view.ToUTF8(), "ab\xE2\x82\xAC");
    char32_t const wide[] = U"ab\u20AC";
    std::memcpy(storage + 3, wide, sizeof(wide));
    EXPECT_EQ(CString(storage + 3, UTF32).ToUTF8(), "ab\xE2\x82\xAC");
}

// ---- CMutableString -------------------------------------------------------------------------------------------------

TEST(MutableString, CopiesInTheSourcesEncoding)
{
    CMutableString const text(CString(u"ab\u20AC"));
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text.GetLength(), 3u);
    EXPECT_EQ(text.GetAllocatedSize(), 8u);
    EXPECT_EQ(Memory::GetSize(text.GetData()), 8u) << "exactly the text and its terminator";
    EXPECT_EQ(Memory::GetHeap(const_cast<void*>(text.GetData())), EHeap::Pool);
}

TEST(MutableString, ConvertsOnConstruction)
{
    CMutableString const wide("a\xE2\x82\xAC", UTF16);
    EXPECT_EQ(wide, u"a\u20AC");
    EXPECT_EQ(wide.GetAllocatedSize(), 6u);
    EXPECT_EQ(CMutableString("abc", UTF32).GetAllocatedSize(), 16u);
    EXPECT_EQ(CMutableString("abc", UTF8).GetAllocatedSize(), 4u);
    CMutableString const null(static_cast<char const*>(nullptr), UTF32);
    EXPECT_EQ(null.GetData(), nullptr);
    EXPECT_EQ(null.GetEncoding(), UTF32);
}

TEST(MutableString, Conversions)
{
    CMutableString const text("a\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(text.ToUTF16().GetEncoding(), UTF16);
    EXPECT_EQ(text.ToUTF16().GetAllocatedSize(), 8u);
    EXPECT_EQ(text.ToUTF32().GetAllocatedSize(), 16u);
    EXPECT_EQ(text.ToUTF8().GetAllocatedSize(), 7u);
    EXPECT_EQ(text.ToWide().GetEncoding(), UTF16);
    EXPECT_EQ(text.ToUTF16().ToUTF32().ToUTF8(), text);
    EXPECT_EQ(std::memcmp(text.ToUTF32().ToUTF8().GetData(), text.GetData(), 7), 0);
    EXPECT_EQ(CString(u"").ToUTF8().GetAllocatedSize(), 1u);
}

TEST(MutableString, NullAssignedKeepsTheAllocatedSize)
{
    CTestString text("hello");
    ASSERT_EQ(text.GetAllocatedSize(), 6u);
    text.Assign(nullptr, UTF16);
    EXPECT_EQ(text.GetData(), nullptr);
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_EQ(text.GetAllocatedSize(), 6u);
    EXPECT_EQ(text.GetAllocatedSizeAs(UTF16), 0u);
    EXPECT_EQ(text.GetAllocatedSizeAs(UTF8), 0u);
    EXPECT_TRUE(text == "");
    text = "xy";
    EXPECT_EQ(text.GetAllocatedSize(), 3u);
}

TEST(MutableString, ConvertOfNull)
{
    CTestString text("hello");
    text.Convert(nullptr, UTF8, UTF32);
    EXPECT_EQ(text.GetData(), nullptr);
    EXPECT_EQ(text.GetEncoding(), UTF32);
    EXPECT_EQ(text.GetLength(), 0u);
}

TEST(MutableString, AssignsFromItsOwnText)
{
    CMutableString text("hello world");
    text = text.GetSubstring(6);
    EXPECT_EQ(text, "world");
    EXPECT_EQ(text.GetAllocatedSize(), 6u);
    CMutableString& self = text;
    text = self;
    EXPECT_EQ(text, "world");
    text = CString(text);
    EXPECT_EQ(text, "world");
    CTestString converted("abc");
    converted.Convert(converted.GetData(), UTF8, UTF16);
    EXPECT_EQ(converted, u"abc");
    EXPECT_EQ(converted.GetAllocatedSize(), 8u);
}

TEST(MutableString, AssignsFromEveryKind)
{
    CMutableString text;
    text = "a";
    EXPECT_EQ(text, "a");
    text = u"b";
    EXPECT_EQ(text.GetEncoding(), UTF16);
    text = CString(U"c");
    EXPECT_EQ(text.GetEncoding(), UTF32);
    CMutableString const other("d");
    text = other;
    EXPECT_EQ(text, "d");
    EXPECT_NE(text.GetData(), other.GetData());
    text = CMutableString("e");
    EXPECT_EQ(text, "e");
    text = CString("f") + "g";
    EXPECT_EQ(text, "fg");
    text = nullptr;
    EXPECT_EQ(text.GetData(), nullptr);
    IString const& base = other;
    text = base;
    EXPECT_EQ(text, "d");
    EXPECT_NE(text.GetData(), base.GetData());
    CMutableString const copy = base;
    EXPECT_EQ(copy, "d");
    EXPECT_NE(copy.GetData(), base.GetData());
    CMutableString const implicit = "from a literal";
    EXPECT_EQ(implicit.GetLength(), 14u);
}

TEST(MutableString, CopyAndMove)
{
    CMutableString source(u"text");
    void const* const data = source.GetData();
    CMutableString const copy = source;
    EXPECT_EQ(copy, source);
    EXPECT_NE(copy.GetData(), data);
    CMutableString moved = std::move(source);
    EXPECT_EQ(moved.GetData(), data);
    EXPECT_EQ(moved.GetLength(), 4u);
    EXPECT_EQ(moved.GetAllocatedSize(), 10u);
    EXPECT_EQ(source.GetData(), nullptr);
    EXPECT_EQ(source.GetLength(), 0u);
    EXPECT_EQ(source.GetAllocatedSize(), 0u);
    CMutableString target("old");
    target = std::move(moved);
    EXPECT_EQ(target.GetData(), data);
    CMutableString& self = target;
    target = std::move(self);
    EXPECT_EQ(target, u"text");
}

TEST(MutableString, AdoptsABuffer)
{
    CMutableString text("old");
    void* const buffer = Managed<u16>({0x61, 0xD801, 0xDC01});
    text.SetManagedReference(buffer, UTF16);
    EXPECT_EQ(text.GetData(), buffer);
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text.GetLength(), 2u);
    EXPECT_EQ(text.GetAllocatedSize(), 8u);
    text.SetManagedReference(buffer, UTF16);
    EXPECT_EQ(text.GetLength(), 2u);
    void* const next = Memory::Malloc(8, EHeap::Pool);
    EXPECT_NE(next, buffer) << "its own buffer again is not freed";
    Memory::Free(next);
    text.SetManagedReference(nullptr, UTF8);
    EXPECT_EQ(text.GetData(), nullptr);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_EQ(text.GetAllocatedSize(), 0u);
}

TEST(MutableString, UnknownEncodingsAreUTF32)
{
    auto const unknown = static_cast<EStringEncoding::Type>(5);
    CTestString text;
    text.Convert("ab", UTF8, unknown);
    EXPECT_EQ(text.GetLength(), 2u);
    EXPECT_EQ(text.GetAllocatedSize(), 12u);
    EXPECT_EQ(text, U"ab");
    CMutableString const copy(text);
    EXPECT_EQ(copy, "ab");
    EXPECT_EQ(copy.ToUTF8(), "ab");
}

// ---- Chains ---------------------------------------------------------------------------------------------------------

TEST(StringChain, TakesTheFirstPiecesEncoding)
{
    CMutableString const text = CString(u"one ") + "two " + U"thr\u20ACe";
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text, u"one two thr\u20ACe");
    EXPECT_EQ(text.GetLength(), 13u);
    EXPECT_EQ(text.GetAllocatedSize(), 28u);
    CMutableString const narrow = CString("\xE2\x82\xAC") + u"\u20AC" + U"\u20AC";
    EXPECT_EQ(narrow, "\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC");
    CMutableString const wide = U"a" + CString("b") + u"c";
    EXPECT_EQ(wide.GetEncoding(), UTF32);
    EXPECT_EQ(wide, "abc");
}

TEST(StringChain, EveryWayToFormOne)
{
    CString const view("v");
    CMutableString const owned("m");
    CMutableString text;
    text = view + owned;
    EXPECT_EQ(text, "vm");
    text = "<" + view + ">";
    EXPECT_EQ(text, "<v>");
    text = owned + (view + "x");
    EXPECT_EQ(text, "mvx");
    text = (view + "1") + (owned + "2");
    EXPECT_EQ(text, "v1m2");
    text = owned + owned;
    EXPECT_EQ(text, "mm");
    std::string const standard("s");
    text = view + standard;
    EXPECT_EQ(text, "vs");
}

TEST(StringChain, MayUseTheTargetsOwnText)
{
    CMutableString text("ab");
    text = text + "-" + text;
    EXPECT_EQ(text, "ab-ab");
    text = text.GetSubstring(3) + text;
    EXPECT_EQ(text, "abab-ab");
}

TEST(StringChain, EmptyPieces)
{
    CMutableString text("old");
    text = CString(u"") + "" + CString();
    EXPECT_EQ(text.GetEncoding(), UTF16);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_EQ(text.GetAllocatedSize(), 2u);
    EXPECT_NE(text.GetData(), nullptr);
    text = CString() + "x" + CString(nullptr, UTF32) + "y";
    EXPECT_EQ(text, "xy");
    CMutableString wide(u"old");
    wide = TUniquePtr<CStringElement>();
    EXPECT_EQ(wide.GetEncoding(), UTF16);
    EXPECT_EQ(wide.GetLength(), 0u);
    EXPECT_EQ(wide.GetAllocatedSize(), 2u);
}

namespace {

/// Remembers what it was assigned.
class CAssignProbe : public CMutableString {
public:
    using CMutableString::CMutableString;
    using CMutableString::operator=;
    u64 assignments = 0;

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override
    {
        ++assignments;
        CMutableString::Assign(data, encoding);
    }
};

} // namespace

TEST(StringChain, AnEmptyChainIsAssignedVirtually)
{
    CAssignProbe text(u"old");
    ASSERT_EQ(text.assignments, 0u) << "constructors do not reach derived classes";
    text = TUniquePtr<CStringElement>();
    EXPECT_EQ(text.assignments, 1u);
    EXPECT_EQ(text.GetLength(), 0u);
    EXPECT_EQ(text.GetEncoding(), UTF16);
    text = CString("x");
    EXPECT_EQ(text.assignments, 2u);
    EXPECT_EQ(text, "x");
}

TEST(StringChain, LongChainsEndWithoutDepth)
{
    TUniquePtr<CStringElement> chain;
    for (int index = 0; index < 200000; ++index) {
        TUniquePtr<CStringElement> longer = CString("x") + TUniquePtr<CStringElement>(std::move(chain));
        chain = std::move(longer);
    }
    CMutableString const text = chain;
    EXPECT_EQ(text.GetLength(), 200000u);
}

// ---- ASCII case -----------------------------------------------------------------------------------------------------

TEST(ASCIICase, ChangesLettersOnly)
{
    for (EStringEncoding::Type const encoding : AllEncodings) {
        for (u32 codePoint = 1; codePoint < 0xD800; ++codePoint) {
            u8 buffer[8] = {};
            switch (encoding) {
            case UTF8:
                IString::CodepointToUTF8(codePoint, buffer);
                break;
            case UTF16:
                Encodings::SUTF16::Write(codePoint, buffer);
                break;
            default:
                Encodings::SUTF32::Write(codePoint, buffer);
            }
            CString const text(buffer, encoding);
            u32 const lower = codePoint >= 'A' && codePoint <= 'Z' ? codePoint + 32 : codePoint;
            u32 const upper = codePoint >= 'a' && codePoint <= 'z' ? codePoint - 32 : codePoint;
            if (codePoint < 0x200 || codePoint % 97 == 0) {
                ASSERT_EQ(text.CopyToLowercaseASCII().GetCodePointAt(0), lower) << codePoint;
                ASSERT_EQ(text.CopyToUppercaseASCII().GetCodePointAt(0), upper) << codePoint;
            }
        }
    }
}

TEST(ASCIICase, WholeTexts)
{
    CMutableString text("@AZ[`az{ \xC3\x84\xC3\xA4 \xE2\x82\xAC");
    EXPECT_EQ(&text.ToLowercaseASCII(), &text);
    EXPECT_EQ(text, "@az[`az{ \xC3\x84\xC3\xA4 \xE2\x82\xAC");
    EXPECT_EQ(text.ToUppercaseASCII(), "@AZ[`AZ{ \xC3\x84\xC3\xA4 \xE2\x82\xAC");
    CMutableString const wide(u"MiXed \u00C4");
    EXPECT_EQ(wide.CopyToLowercaseASCII(), u"mixed \u00C4");
    EXPECT_EQ(wide.CopyToUppercaseASCII().GetEncoding(), UTF16);
    EXPECT_EQ(CMutableString(U"MiXed").CopyToUppercaseASCII(), U"MIXED");
    EXPECT_EQ(CString("MiXed").CopyToUppercaseASCII(), "MIXED");
    EXPECT_EQ(CMutableString().ToLowercaseASCII().GetData(), nullptr);
    EXPECT_EQ(CMutableString(u"").ToUppercaseASCII().GetAllocatedSize(), 2u);
}

TEST(ASCIICase, StepsByTheWrittenWidth)
{
    // U+FFFF as one 16-bit unit would be written as two: the letter behind it is stepped over.
    char16_t const wide[] = {0xFFFF, u'A', u'A', 0};
    EXPECT_EQ(CString(wide).CopyToLowercaseASCII(), u"\xFFFF\x0041\x0061");
    // A pair that decodes to a letter is overwritten in its first unit.
    char16_t const pair[] = {0xD800, u'A', 0};
    CMutableString const mapped = CString(pair).CopyToLowercaseASCII();
    EXPECT_EQ(mapped, u"aa");
    EXPECT_EQ(mapped.GetLength(), 2u) << "the cached length follows";
    // An overlong letter becomes a short one, and what is left of it a character of its own.
    CMutableString const overlong = CString("\xC1\x81").CopyToLowercaseASCII();
    EXPECT_EQ(overlong, "a\x81");
    EXPECT_EQ(overlong.GetLength(), 2u);
    // Four bytes that decode to 0x1F600 are stepped over as three, then one.
    EXPECT_EQ(CString("\xF0\x9F\x98\x80Z").CopyToLowercaseASCII(), "\xF0\x9F\x98\x80z");
}

TEST(ASCIICase, StaysInsideCutText)
{
    // The written width of the last code point would lead past the terminator.
    CGuardedPages const pages(16);
    char16_t const wide[] = {u'A', 0xFFFF, 0};
    EXPECT_EQ(CString(pages.PlaceAtEnd(wide, sizeof(wide)), UTF16).CopyToLowercaseASCII(), u"a\xFFFF");
    EXPECT_EQ(CString("A\xE1\x80").CopyToLowercaseASCII(), "a\xE1\x80");
    EXPECT_EQ(CString("A\xDF").CopyToLowercaseASCII(), "a\xDF");
    EXPECT_EQ(CString("A\xF1").CopyToLowercaseASCII(), "a\xF1");
}

// ---- Layout ---------------------------------------------------------------------------------------------------------

TEST(StringLayout, FieldOrder)
{
    // Other modules built against the same layout read these words: table pointer, data, encoding, length, size.
    CMutableString const text(u"abc");
    u64 words[5];
    static_assert(sizeof(words) == sizeof(text));
    std::memcpy(words, static_cast<void const*>(&text), sizeof(words));
    EXPECT_EQ(words[1], reinterpret_cast<std::uintptr_t>(text.GetData()));
    EXPECT_EQ(static_cast<u32>(words[2]), 1u);
    EXPECT_EQ(words[3], 3u);
    EXPECT_EQ(words[4], 8u);

    CStringElement const element(text);
    u64 piece[3];
    static_assert(sizeof(piece) == sizeof(element));
    std::memcpy(piece, static_cast<void const*>(&element), sizeof(piece));
    EXPECT_EQ(piece[0], reinterpret_cast<std::uintptr_t>(text.GetData()));
    EXPECT_EQ(static_cast<u32>(piece[1]), 1u);
    EXPECT_EQ(piece[2], 0u);

    CGenericStringIterator position = text.GetIterator(2);
    u64 fields[5];
    static_assert(sizeof(fields) == sizeof(position));
    std::memcpy(fields, static_cast<void const*>(&position), sizeof(fields));
    EXPECT_EQ(fields[1], reinterpret_cast<std::uintptr_t>(text.GetData()));
    EXPECT_EQ(static_cast<u32>(fields[2]), 1u);
    EXPECT_EQ(fields[3], 2u);
    EXPECT_EQ(fields[4], 4u);
}

namespace {

/// Overrides each virtual in a way that tells which one was called.
class CSlotProbe : public CString {
public:
    [[nodiscard]] u64 GetLength() const override { return 111; }
    [[nodiscard]] u64 GetAllocatedSize() const override { return 222; }
    mutable void const* assigned = nullptr;

protected:
    void Assign(void const* data, EStringEncoding::Type) override { assigned = data; }
};

} // namespace

TEST(StringLayout, VirtualSlots)
{
    // The table of this C++ ABI: two destructor entries, then the operations in slot order.
    CSlotProbe probe;
    void* const* table;
    std::memcpy(&table, static_cast<void const*>(&probe), sizeof(table));
    using Measure = u64 (*)(void const*);
    EXPECT_EQ(reinterpret_cast<Measure>(table[2])(&probe), 111u);
    EXPECT_EQ(reinterpret_cast<Measure>(table[3])(&probe), 222u);
    using Assign = void (*)(void*, void const*, EStringEncoding::Type);
    reinterpret_cast<Assign>(table[4])(&probe, "x", UTF8);
    EXPECT_STREQ(static_cast<char const*>(probe.assigned), "x");
    static_assert(std::has_virtual_destructor_v<IString>);
}

namespace {

/// A string of a host, with an idea of its own how long it is.
class CHostString : public IString {
public:
    CHostString(char const* utf8, u64 length) : IString(utf8, UTF8), m_length(length) {}
    [[nodiscard]] u64 GetLength() const override { return m_length; }

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override
    {
        m_data = data;
        m_encoding = encoding;
    }

private:
    u64 m_length;
};

} // namespace

TEST(StringLayout, OperationsAskForTheLengthVirtually)
{
    CHostString const text("hello", 2);
    EXPECT_EQ(text.GetAllocatedSizeAs(UTF32), 12u);
    EXPECT_EQ(text.GetAllocatedSizeAs(UTF16), 12u) << "walked";
    char16_t wide[6] = {};
    text.CopyAs(UTF16, wide, false);
    EXPECT_EQ(std::u16string(wide), u"he");
    char same[6] = {};
    text.CopyAs(UTF8, same, false);
    EXPECT_STREQ(same, "hello") << "to its own encoding the whole text goes";
    // Two code points and a unit: h, e, l.
    EXPECT_EQ(text.GetHash(), 0x15C642C1u);
    EXPECT_EQ(text.GetDistance("hexe"), 2u) << "he against hexe";
    // A copy has a length of its own.
    CMutableString const copy = text;
    EXPECT_EQ(copy.GetLength(), 5u);
    EXPECT_EQ(copy, "hello");
}

TEST(StringLayout, TypesForbidWhatWouldDangle)
{
    static_assert(std::is_convertible_v<std::string const&, CString>);
    static_assert(!std::is_convertible_v<std::string, CString>);
    static_assert(!std::is_convertible_v<std::u16string, CString>);
    static_assert(std::is_convertible_v<std::string, CMutableString>);
    static_assert(std::is_nothrow_move_constructible_v<CMutableString>);
    static_assert(std::is_nothrow_move_assignable_v<CMutableString>);
    static_assert(!std::is_constructible_v<CString, std::string_view>, "a view need not be terminated");
    static_assert(!std::is_copy_constructible_v<CStringElement>);
}
