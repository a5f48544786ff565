#include <gtest/gtest.h>

#include <vlmcore/types.h>

using namespace Velmor;

TEST(Range, LowerBelongsUpperDoesNot)
{
    Math::TRange<u32> const range{0x41, 0x5B};
    EXPECT_TRUE(range.Contains(0x41));
    EXPECT_TRUE(range.Contains(0x5A));
    EXPECT_FALSE(range.Contains(0x40));
    EXPECT_FALSE(range.Contains(0x5B));
}

TEST(Range, EmptyWhenBoundsMeet)
{
    Math::TRange<int> const range{3, 3};
    EXPECT_FALSE(range.Contains(3));
}
