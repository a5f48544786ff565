#include <vlmcore/math.h>

#include "TestHeap.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <set>

using namespace Velmor;

namespace {

constexpr float Infinity = std::numeric_limits<float>::infinity();
constexpr float NotANumber = std::numeric_limits<float>::quiet_NaN();
constexpr double WideInfinity = std::numeric_limits<double>::infinity();

TVector<Math::TTuple2<float>> Polygon(std::initializer_list<Math::TTuple2<float>> vertices)
{
    TVector<Math::TTuple2<float>> polygon;
    for (Math::TTuple2<float> const& vertex : vertices)
        polygon.Append(vertex);
    return polygon;
}

} // namespace

TEST(Math, SquareRoots)
{
    EXPECT_EQ(Math::Sqrt(9.0f), 3.0f);
    EXPECT_EQ(Math::Sqrt(2.0), 1.4142135623730951);
    EXPECT_EQ(Math::RSqrt(4.0f), 0.5f);
    EXPECT_EQ(Math::RSqrt(0.25), 2.0);
    EXPECT_EQ(Math::RSqrt(0.0f), Infinity);
    EXPECT_TRUE(Math::IsNaN(Math::Sqrt(-1.0f)));
}

TEST(Math, FastReciprocalRootIsTheEstimateAfterTwoSteps)
{
    // For 1: the estimate from its bits, a step to 0.99830812, another to 0.99999565.
    EXPECT_NEAR(Math::FastRSqrt(1.0f), 0.99999565f, 1e-7f);
    EXPECT_NE(Math::FastRSqrt(1.0f), 1.0f);
    for (float value : {1e-6f, 0.01f, 0.5f, 2.0f, 3.0f, 1234.5f, 1e10f})
        EXPECT_NEAR(Math::FastRSqrt(value) * Math::Sqrt(value), 1.0f, 6e-6f) << value;
    EXPECT_EQ(Math::FastSqrt(0.0f), 0.0f);
    EXPECT_NEAR(Math::FastSqrt(16.0f), 4.0f, 2e-5f);
}

TEST(Math, FastRootsAreTheSameToTheBitEverywhere)
{
    struct {
        float value;
        u32 reciprocal;
        u32 root;
    } const expected[] = {
        {1.0f, 0x3F7FFFB7, 0x3F7FFFB7},    {2.0f, 0x3F3504F3, 0x3FB504F3},  {0.25f, 0x3FFFFFB7, 0x3EFFFFB7},
        {1234.5f, 0x3CE927A2, 0x420C8AB4}, {1e-6f, 0x4479FFF1, 0x3A831267}, {0.0f, 0x5FCE45D6, 0},
    };
    for (auto const& [value, reciprocal, root] : expected) {
        EXPECT_EQ(std::bit_cast<u32>(Math::FastRSqrt(value)), reciprocal) << value;
        EXPECT_EQ(std::bit_cast<u32>(Math::FastSqrt(value)), root) << value;
    }
}

TEST(Math, RandomDrawsFifteenBitsBetweenItsBounds)
{
    std::srand(7);
    std::set<float> values;
    for (int i = 0; i < 4000; ++i) {
        float const value = Math::Random(0.0f, 32767.0f);
        EXPECT_GE(value, 0.0f);
        EXPECT_LE(value, 32767.0f * 1.001f);
        // Steps of 1 / 32767: each value is a whole number but for rounding.
        EXPECT_NEAR(value, static_cast<float>(static_cast<int>(value + 0.5f)), 0.01f);
        values.insert(value);
    }
    EXPECT_GT(values.size(), 3000u);
    EXPECT_GT(*values.rbegin(), 32000.0f);
    EXPECT_LT(*values.begin(), 700.0f);
    EXPECT_EQ(Math::Random(5.0f, 5.0f), 5.0f);
}

TEST(Math, RandomFollowsTheSeed)
{
    std::srand(99);
    float const first = Math::Random(-1.0f, 1.0f);
    float const second = Math::Random(-1.0f, 1.0f);
    std::srand(99);
    EXPECT_EQ(Math::Random(-1.0f, 1.0f), first);
    EXPECT_EQ(Math::Random(-1.0f, 1.0f), second);
}

TEST(Math, RandomScalesTheUpperFifteenBitsOfTheRuntimesNumber)
{
    for (unsigned seed = 1; seed <= 200; ++seed) {
        std::srand(seed);
        int drawn = std::rand();
        for (int most = RAND_MAX; most > 0x7FFF; most >>= 1)
            drawn >>= 1;
        std::srand(seed);
        EXPECT_EQ(Math::Random(-2.0f, 6.0f), static_cast<float>(drawn) * 0x1.0002p-15f * 8.0f + -2.0f) << seed;
    }
}

TEST(Math, CeilAndFloor)
{
    EXPECT_EQ(Math::Floor(-1.5f), -2.0f);
    EXPECT_EQ(Math::Ceil(-1.5f), -1.0f);
    EXPECT_EQ(Math::Ceil(3.0f), 3.0f);
    EXPECT_EQ(Math::Floor(3.0f), 3.0f);
    EXPECT_EQ(Math::Ceil(1.25f), 2.0f);
    EXPECT_EQ(Math::Floor(1.25f), 1.0f);
    EXPECT_EQ(Math::Floor(-1.5), -2.0);
    EXPECT_EQ(Math::Ceil(-1.5), -1.0);
    EXPECT_EQ(Math::Ceil(1.25), 2.0);
    EXPECT_EQ(Math::Floor(1.25), 1.0);
    EXPECT_EQ(Math::Ceil(4294967296.5), 4294967297.0);
    EXPECT_EQ(Math::Floor(-4294967296.5), -4294967297.0);
}

TEST(Math, CeilBetweenMinusOneAndZeroIsPositiveZero)
{
    EXPECT_EQ(Math::Ceil(-0.5f), 0.0f);
    EXPECT_FALSE(std::signbit(Math::Ceil(-0.5f)));
    EXPECT_FALSE(std::signbit(Math::Ceil(-0.5)));
    EXPECT_TRUE(std::signbit(Math::Ceil(-0.0f))); // equal to its whole part: comes back as it is
    EXPECT_EQ(Math::Floor(-0.5f), -1.0f);
}

TEST(Math, CeilAndFloorLeaveWhatHasNoWholePart)
{
    for (float value : {2147483648.0f, -2147483648.0f, 3e9f, -1e30f, Infinity, -Infinity}) {
        EXPECT_EQ(Math::Ceil(value), value);
        EXPECT_EQ(Math::Floor(value), value);
    }
    EXPECT_EQ(Math::Ceil(2147483520.0f), 2147483520.0f);
    for (double value : {9223372036854775808.0, -9223372036854775808.0, 1e300, WideInfinity, -WideInfinity}) {
        EXPECT_EQ(Math::Ceil(value), value);
        EXPECT_EQ(Math::Floor(value), value);
    }
    EXPECT_TRUE(Math::IsNaN(Math::Ceil(NotANumber)));
    EXPECT_TRUE(Math::IsNaN(Math::Floor(static_cast<double>(NotANumber))));
}

TEST(Math, IsNaN)
{
    EXPECT_TRUE(Math::IsNaN(NotANumber));
    EXPECT_TRUE(Math::IsNaN(-std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(Math::IsNaN(std::numeric_limits<double>::signaling_NaN()));
    EXPECT_FALSE(Math::IsNaN(Infinity));
    EXPECT_FALSE(Math::IsNaN(-WideInfinity));
    EXPECT_FALSE(Math::IsNaN(0.0f));
    EXPECT_FALSE(Math::IsNaN(1e308));
}

TEST(Math, GetHighestSetBitFindsTheLowest)
{
    EXPECT_EQ(Math::GetHighestSetBit(12u), 2);
    EXPECT_EQ(Math::GetHighestSetBit(12), 2);
    EXPECT_EQ(Math::GetHighestSetBit(1u), 0);
    EXPECT_EQ(Math::GetHighestSetBit(0x80000000u), 31);
    EXPECT_EQ(Math::GetHighestSetBit(0xFFFFFFFFu), 0);
    EXPECT_EQ(Math::GetHighestSetBit(u64{1} << 40), 40);
    EXPECT_EQ(Math::GetHighestSetBit(u64{0xF000000000000000}), 60);
    EXPECT_EQ(Math::GetHighestSetBit(0x100000000ull), 32);
}

TEST(Math, PointInPolygon)
{
    TVector<Math::TTuple2<float>> const square = Polygon({{0, 0}, {4, 0}, {4, 4}, {0, 4}});
    EXPECT_TRUE(Math::TestPointInPoly({2, 2}, square));
    EXPECT_FALSE(Math::TestPointInPoly({5, 2}, square));
    EXPECT_FALSE(Math::TestPointInPoly({-1, 2}, square));
    EXPECT_FALSE(Math::TestPointInPoly({2, 5}, square));
    EXPECT_FALSE(Math::TestPointInPoly({2, -1}, square));
    EXPECT_TRUE(Math::TestPointInPoly({0, 2}, square));  // the left edge belongs
    EXPECT_FALSE(Math::TestPointInPoly({4, 2}, square)); // the right one does not
    EXPECT_TRUE(Math::TestPointInPoly({2, 4}, square));  // the edge of the larger y belongs
    EXPECT_FALSE(Math::TestPointInPoly({2, 0}, square)); // that of the smaller y does not
}

TEST(Math, PointInPolygonWithADent)
{
    TVector<Math::TTuple2<float>> const dented = Polygon({{0, 0}, {8, 0}, {8, 8}, {4, 2}, {0, 8}});
    EXPECT_FALSE(Math::TestPointInPoly({4, 5}, dented));
    EXPECT_TRUE(Math::TestPointInPoly({1, 5}, dented));
    EXPECT_TRUE(Math::TestPointInPoly({7, 5}, dented));
    EXPECT_TRUE(Math::TestPointInPoly({4, 1}, dented));
}

TEST(Math, PointInDegeneratePolygons)
{
    EXPECT_FALSE(Math::TestPointInPoly({0, 0}, Polygon({})));
    EXPECT_FALSE(Math::TestPointInPoly({1, 1}, Polygon({{1, 1}})));
    EXPECT_FALSE(Math::TestPointInPoly({3, 1}, Polygon({{0, 0}, {2, 2}})));
}
