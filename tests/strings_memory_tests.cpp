// Memory that runs out: whatever builds text throws std::bad_alloc and leaves everything as it was. Nothing leaks.
#include <gtest/gtest.h>

#include <vlmcore/format.h>
#include <vlmcore/strings.h>

#include "support/StringAccess.h"

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

i64 g_allowed = -1; ///< allocations that still succeed; negative: all
i64 g_live = 0;

void* CountingMalloc(u64 size)
{
    if (g_allowed == 0)
        return nullptr;
    if (g_allowed > 0)
        --g_allowed;
    void* const block = std::malloc(size);
    g_live += block != nullptr ? 1 : 0;
    return block;
}

void* CountingRealloc(void* block, u64 size)
{
    if (g_allowed == 0)
        return nullptr;
    if (g_allowed > 0)
        --g_allowed;
    g_live += block == nullptr ? 1 : 0;
    return std::realloc(block, size);
}

void CountingFree(void* block)
{
    g_live -= block != nullptr ? 1 : 0;
    std::free(block);
}

class CCountingHeap : public ::testing::Environment {
public:
    void SetUp() override
    {
        Memory::Initialize(CountingMalloc, CountingRealloc, CountingFree, EHeapFlag::Passthrough, 0);
    }
    void TearDown() override { Memory::Deinitialize(); }
};

::testing::Environment* const heap = ::testing::AddGlobalTestEnvironment(new CCountingHeap);

/// Runs `action` with every number of allocations allowed until it succeeds; `unchanged` is called after each failure.
/// Returns the number of failures.
u64 FailEveryAllocation(std::function<void()> const& action, std::function<void()> const& unchanged)
{
    u64 failures = 0;
    for (i64 allowed = 0; allowed < 1000; ++allowed) {
        i64 const live = g_live;
        g_allowed = allowed;
        try {
            action();
            g_allowed = -1;
            return failures;
        }
        catch (std::bad_alloc const& error) {
            g_allowed = -1;
            EXPECT_STREQ(error.what(), "bad allocation");
            EXPECT_EQ(g_live, live) << "after " << allowed << " allocations";
            unchanged();
            ++failures;
        }
    }
    ADD_FAILURE() << "never succeeded";
    return failures;
}

} // namespace

TEST(StringMemory, ConstructionThrows)
{
    auto const nothing = [] {};
    EXPECT_GE(FailEveryAllocation([] { CMutableString text("abc"); }, nothing), 1u);
    EXPECT_GE(FailEveryAllocation([] { CMutableString text("abc", EStringEncoding::UTF16); }, nothing), 1u);
    EXPECT_GE(FailEveryAllocation([] { CMutableString text(std::string_view("abc")); }, nothing), 1u);
    EXPECT_GE(FailEveryAllocation([] { CMutableString text = CString("a") + "b" + u"c"; }, nothing), 4u);
    CMutableString const source("abc");
    EXPECT_GE(FailEveryAllocation([&] { CMutableString text(source); }, nothing), 1u);
}

TEST(StringMemory, EveryOperationIsAllOrNothing)
{
    struct SOperation {
        char const* name;
        std::function<void(CTestString&)> run;
    };
    CMutableString const other(u"new");
    TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1> maps;
    maps.Append({{'a', 'e'}, 'A'});
    TVector<CMutableString, 1> parts;
    parts.Append(CMutableString("one"));
    parts.Append(CMutableString(u"two"));
    SOperation const operations[] = {
        {"assign another", [&](CTestString& text) { text = other; }},
        {"assign a literal", [](CTestString& text) { text = u"literal"; }},
        {"assign a view", [](CTestString& text) { text = std::string_view("view"); }},
        {"assign a chain", [](CTestString& text) { text = text + u"-" + text; }},
        {"assign an empty chain", [](CTestString& text) { text = TUniquePtr<CStringElement>(); }},
        {"convert itself",
         [](CTestString& text) { text.Convert(text.GetData(), text.GetEncoding(), EStringEncoding::UTF32); }},
        {"assign its own tail", [](CTestString& text) { text = text.GetSubstring(4); }},
        {"append", [](CTestString& text) { text = text.Append(u"more"); }},
        {"prepend", [](CTestString& text) { text = text.Prepend("more"); }},
        {"replace a code point", [](CTestString& text) { text = text.Replace('o', 0x20AC); }},
        {"replace a text", [](CTestString& text) { text = text.Replace("old", u"newer"); }},
        {"cut", [](CTestString& text) { text = text.GetSubstring(1, 3); }},
        {"unescape", [](CTestString& text) { text = text.Unescape('l'); }},
        {"upper case", [](CTestString& text) { text = text.CopyToUppercaseASCII(); }},
        {"lower case", [](CTestString& text) { text = text.CopyToLowercaseASCII(); }},
        {"to UTF-8", [](CTestString& text) { text = text.ToUTF8(); }},
        {"to UTF-16", [](CTestString& text) { text = text.ToUTF16(); }},
        {"to UTF-32", [](CTestString& text) { text = text.ToUTF32(); }},
        {"to wide text", [](CTestString& text) { text = text.ToWide(); }},
        {"map", [&](CTestString& text) { text = text.MapToCopy(maps); }},
        {"join", [&](CTestString& text) { text = IString::Join(text, parts); }},
        {"join one", [&](CTestString& text) { text = IString::Join(text, parts, 1, 0); }},
        {"join none", [](CTestString& text) { text = IString::Join(text, TVector<CMutableString, 1>()); }},
        {"a signed number", [](CTestString& text) { text.AssignInt64(-5, EStringEncoding::UTF16); }},
        {"an unsigned number", [](CTestString& text) { text.AssignUInt64(5, EStringEncoding::UTF8); }},
        {"a floating-point number", [](CTestString& text) { text.AssignDouble(0.5, EStringEncoding::UTF32); }},
        {"format", [&](CTestString& text) { Format(text, "%1 %2", other, 5); }},
        {"format itself", [](CTestString& text) { Format(text, text, text); }},
        {"format a long text", [&](CTestString& text) { Format(text, CString(std::u16string(400, u'%').c_str())); }},
    };
    for (SOperation const& operation : operations) {
        SCOPED_TRACE(operation.name);
        CTestString text("old text");
        void const* const data = text.GetData();
        EXPECT_GE(FailEveryAllocation([&] { operation.run(text); },
                                      [&] {
                                          EXPECT_EQ(text.GetData(), data);
                                          EXPECT_EQ(text, "old text");
                                          EXPECT_EQ(text.GetLength(), 8u);
                                          EXPECT_EQ(text.GetAllocatedSize(), 9u);
                                      }),
                  1u);
        EXPECT_NE(text.GetData(), data);
    }
}

TEST(StringMemory, SplitLeavesTheListAsItWas)
{
    TVector<CMutableString, 1> parts;
    parts.Append(CMutableString("first"));
    EXPECT_GE(FailEveryAllocation([&] { CString("a,b,c,d,e,f,g,h").Split(",", parts); },
                                  [&] {
                                      ASSERT_EQ(parts.GetCount(), 1u);
                                      EXPECT_EQ(parts[0], "first");
                                  }),
              8u);
    EXPECT_EQ(parts.GetCount(), 9u);
    EXPECT_EQ(parts[8], "h");
}

TEST(StringMemory, DistanceThrowsAndLeaksNothing)
{
    // Texts of any length need memory, unless one of them is empty.
    EXPECT_GE(FailEveryAllocation([] { EXPECT_EQ(CString("kitten").GetDistance("sitting"), 3u); }, [] {}), 1u);
    EXPECT_GE(FailEveryAllocation([] { EXPECT_EQ(CString(u"flaw").GetDistance(u"lawn"), 2u); }, [] {}), 1u);
    EXPECT_GE(FailEveryAllocation([] { EXPECT_EQ(CString(U"a").GetDistance(U"a"), 0u); }, [] {}), 1u);
    EXPECT_EQ(FailEveryAllocation([] { EXPECT_EQ(CString("").GetDistance("abc"), 3u); }, [] {}), 0u);
    std::string const left = std::string(900, 'a') + "kitten";
    std::string const right = "sitting" + std::string(900, 'a');
    EXPECT_GE(FailEveryAllocation([&] { EXPECT_EQ(CString(left).GetDistance(right), 13u); }, [] {}), 2u);
}

TEST(StringMemory, FreesWhatItOwns)
{
    i64 const live = g_live;
    {
        CMutableString text("one");
        EXPECT_EQ(g_live, live + 1);
        text = "two";
        EXPECT_EQ(g_live, live + 1);
        text = text.ToUTF16();
        text = text + "x" + text;
        EXPECT_EQ(g_live, live + 1) << "the chain is gone";
        void* const buffer = Memory::Malloc(2, EHeap::General);
        std::memcpy(buffer, "q", 2);
        text.SetManagedReference(buffer, EStringEncoding::UTF8);
        EXPECT_EQ(g_live, live + 1);
        CMutableString const copy = text;
        CMutableString const moved = std::move(text);
        EXPECT_EQ(g_live, live + 2);
        text = nullptr;
    }
    EXPECT_EQ(g_live, live);
}

TEST(StringMemory, TextsOutliveTheHeapQuietly)
{
    // A host's static outlives the heap: its destructor has nothing to give back to and says nothing.
    alignas(CMutableString) static unsigned char storage[sizeof(CMutableString)];
    CMutableString* const text = ::new (storage) CMutableString("static");
    Memory::Deinitialize();
    text->~CMutableString();
    EXPECT_THROW(CMutableString("x"), std::bad_alloc);
    // What builds text throws, what only reads it works.
    CMutableString null;
    EXPECT_THROW(null = "x", std::bad_alloc);
    EXPECT_THROW(null = CString("x") + "y", std::bad_alloc);
    EXPECT_THROW((void)CString("x").ToUTF16(), std::bad_alloc);
    EXPECT_THROW((void)CString("x").Append("y"), std::bad_alloc);
    EXPECT_THROW((void)CString("x").Replace('x', 'y'), std::bad_alloc);
    EXPECT_THROW(Format(null, "%1", 1), std::bad_alloc);
    EXPECT_THROW((void)CString("ab").GetDistance("ba"), std::bad_alloc);
    null = CString();
    null.SetManagedReference(nullptr, EStringEncoding::UTF16);
    EXPECT_EQ(null.ToLowercaseASCII().GetData(), nullptr);
    EXPECT_EQ(CString().ToUTF8().GetData(), nullptr);
    CString const text8("12, \xC3\xA9");
    EXPECT_EQ(text8.GetLength(), 5u);
    EXPECT_EQ(text8.Find(u"\u00E9"), 4u);
    EXPECT_EQ(text8.Count(","), 1u);
    EXPECT_EQ(text8.ToInteger(EBinaryEncoding::BigEndian), 12);
    EXPECT_TRUE(text8 == u"12, \u00E9");
    char buffer[16];
    EXPECT_EQ(IString::FromInteger(-12345, buffer, sizeof(buffer), EStringEncoding::UTF8), 6u);
    EXPECT_EQ(FormatTo(buffer, sizeof(buffer), "%1 %2", 5, u"\u00E9").size, 4u);
    Memory::Initialize(CountingMalloc, CountingRealloc, CountingFree, EHeapFlag::Passthrough, 0);
    EXPECT_EQ(CMutableString("again"), "again");
}
