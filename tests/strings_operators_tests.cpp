// Every pair of text kinds compares without ambiguity, in both orders.
#include <gtest/gtest.h>

#include <vlmcore/strings.h>

#include "TestHeap.h"

using namespace Velmor;

namespace {

template <class Left, class Right>
void ExpectEqual(Left const& left, Right const& right)
{
    EXPECT_TRUE(left == right);
    EXPECT_FALSE(left != right);
    EXPECT_FALSE(left < right);
    EXPECT_FALSE(left > right);
    EXPECT_TRUE(left <= right);
    EXPECT_TRUE(left >= right);
}

template <class Left, class Right>
void ExpectBefore(Left const& left, Right const& right)
{
    EXPECT_FALSE(left == right);
    EXPECT_TRUE(left != right);
    EXPECT_TRUE(left < right);
    EXPECT_FALSE(left > right);
    EXPECT_TRUE(left <= right);
    EXPECT_FALSE(left >= right);
    EXPECT_TRUE(right > left);
    EXPECT_FALSE(right < left);
    EXPECT_TRUE(right != left);
}

template <class Left, class Right>
void ExpectComparable(Left const& left, Right const& same, Right const& later)
{
    ExpectEqual(left, same);
    ExpectEqual(same, left);
    ExpectBefore(left, later);
}

} // namespace

TEST(StringOperators, EveryKindWithEveryKind)
{
    CString const view("text");
    CMutableString const owned(u"text");
    IString const& base = owned;
    std::string const standard("text");

    auto const withAll = [](auto const& left) {
        ExpectComparable(left, CString("text"), CString(u"texu"));
        ExpectComparable(left, CMutableString("text"), CMutableString("texu"));
        CMutableString const same(U"text");
        CMutableString const later("texu");
        ExpectComparable<decltype(left), IString>(left, same, later);
    };
    withAll(view);
    withAll(owned);
    withAll(base);
    withAll(standard);
    withAll("text");
    withAll(u8"text");
    withAll(u"text");
    withAll(U"text");
    withAll(L"text");
    char const* const pointer = "text";
    withAll(pointer);
    char buffer[] = "text";
    withAll(buffer);

    ExpectComparable(view, standard, std::string("texu"));
    ExpectComparable(owned, standard, std::string("texu"));
    ExpectComparable(base, "text", "texu");
    ExpectBefore(nullptr, view);
    ExpectEqual(CString(), nullptr);
}

TEST(StringOperators, NonConstOperandsAndTemporaries)
{
    CString view("a");
    CMutableString owned("a");
    EXPECT_TRUE(view == owned);
    EXPECT_TRUE(owned == view);
    EXPECT_TRUE(view == CString("a"));
    EXPECT_TRUE(CMutableString("a") == owned);
    EXPECT_TRUE("a" == owned);
    EXPECT_TRUE(owned == u"a");
    EXPECT_EQ(view, owned);
    EXPECT_EQ(owned, "a");
    EXPECT_NE("b", view);
    EXPECT_LT(view, "b");
    EXPECT_TRUE(owned.ToUTF16() == owned.ToUTF32());
}
