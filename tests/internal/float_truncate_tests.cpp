// The whole part of a number by its bits, against the processor's conversion of what fits.
#include "Core_FloatTruncate.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <random>

namespace {

using namespace Velmor;

constexpr i64 Smallest = std::numeric_limits<i64>::min();

template <class Float>
[[nodiscard]] i64 TruncateNaively(Float value)
{
    Float const volatile fits = value >= static_cast<Float>(-0x1p63) && value < static_cast<Float>(0x1p63) ? value : 0;
    if (fits != value)
        return Smallest;
    return static_cast<i64>(static_cast<Float>(fits));
}

template <class Float, class Bits>
void Compare(Bits bits)
{
    Float const value = std::bit_cast<Float>(bits);
    i64 const whole = TruncateToInteger(value);
    ASSERT_EQ(whole, TruncateNaively(value)) << std::hex << bits;
}

TEST(TruncateToInteger, IsAConstantExpression)
{
    static_assert(TruncateToInteger(0.0) == 0 && TruncateToInteger(-0.99f) == 0);
    static_assert(TruncateToInteger(-1.5) == -1 && TruncateToInteger(8388607.5f) == 8388607);
    static_assert(TruncateToInteger(-0x1p63) == Smallest && TruncateToInteger(0x1p63) == Smallest);
    static_assert(TruncateToInteger(std::numeric_limits<f64>::quiet_NaN()) == Smallest);
    static_assert(TruncateToInteger(-std::numeric_limits<f32>::infinity()) == Smallest);
}

TEST(TruncateToInteger, FloatsOfEveryMagnitude)
{
    for (u64 bits = 0; bits <= 0xFFFF'FFFF; bits += 1009)
        Compare<f32>(static_cast<u32>(bits));
    for (u32 exponent = 0; exponent < 512; ++exponent) // with the sign
        for (u32 const fraction : {0u, 1u, 0x400000u, 0x7FFFFEu, 0x7FFFFFu})
            Compare<f32>(exponent << 23 | fraction);
}

TEST(TruncateToInteger, DoublesOfEveryMagnitude)
{
    std::mt19937_64 random(1);
    for (u64 exponent = 0; exponent < 4096; ++exponent) { // with the sign
        for (u64 const fraction : {u64{0}, u64{1}, u64{1} << 51, (u64{1} << 52) - 2, (u64{1} << 52) - 1})
            Compare<f64>(exponent << 52 | fraction);
        for (u32 i = 0; i < 200; ++i)
            Compare<f64>(exponent << 52 | random() >> 12);
    }
}

} // namespace
