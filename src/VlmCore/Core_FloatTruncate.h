/// \file
/// The whole part of a floating-point number as an integer, without the processor's own conversion.
///
/// That conversion raises the invalid-operation exception for what does not fit, and compilers run it ahead of the
/// check that was to keep such values from it. A host that has unmasked the exception, to find its own mistakes, would
/// be stopped in the library for a number that is none.
#pragma once

#include <vlmcore/types.h>

#include <bit>
#include <limits>
#include <type_traits>

namespace Velmor {

/// Cut toward zero. What 64 bits cannot hold, infinities and not-a-number give the smallest integer, as they do on the
/// processor. Works on the bits: raises no floating-point exception and knows no rounding mode.
template <class Float>
[[nodiscard]] constexpr i64 TruncateToInteger(Float value)
{
    static_assert(std::numeric_limits<Float>::is_iec559);
    using TBits = std::conditional_t<sizeof(Float) == 4, u32, u64>;
    constexpr int FractionBits = std::numeric_limits<Float>::digits - 1;
    constexpr int Bias = std::numeric_limits<Float>::max_exponent - 1;
    constexpr TBits FractionMask = (TBits{1} << FractionBits) - 1;

    TBits const bits = std::bit_cast<TBits>(value);
    int const exponent = static_cast<int>(bits << 1 >> (FractionBits + 1)) - Bias;
    if (exponent < 0)
        return 0;
    if (exponent >= 63) // among them -2^63, which is the smallest integer
        return std::numeric_limits<i64>::min();
    u64 const significand = (bits & FractionMask) | (TBits{1} << FractionBits);
    u64 const magnitude =
        exponent < FractionBits ? significand >> (FractionBits - exponent) : significand << (exponent - FractionBits);
    bool const isNegative = bits >> (sizeof(TBits) * 8 - 1) != 0;
    return static_cast<i64>(isNegative ? 0 - magnitude : magnitude);
}

} // namespace Velmor
