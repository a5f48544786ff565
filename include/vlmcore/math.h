/// \file
/// Numeric helpers. Several are irregular on purpose (docs/quirks.md); hosts depend on what they give.
///
/// Nothing here checks its arguments or fails. Threads: any, for everything; Random shares the C runtime's generator.
#pragma once

#include <vlmcore/containers.h>
#include <vlmcore/export.h>
#include <vlmcore/types.h>

#include <bit>
#include <cmath>
#include <concepts>

namespace Velmor::Math {

/// Square root; not a number below zero.
[[nodiscard]] inline float Sqrt(float value)
{
    return std::sqrt(value);
}
[[nodiscard]] inline double Sqrt(double value)
{
    return std::sqrt(value);
}

/// One divided by the square root; infinite for 0.
[[nodiscard]] inline float RSqrt(float value)
{
    return 1.0f / std::sqrt(value);
}
[[nodiscard]] inline double RSqrt(double value)
{
    return 1.0 / std::sqrt(value);
}

/// Approximates RSqrt to a few units of the fifth digit: an estimate from the bits of `value` and two Newton steps.
/// Meant for positive, normal values; 0 gives a large finite number.
[[nodiscard]] constexpr float FastRSqrt(float value)
{
    float estimate = std::bit_cast<float>(0x5F375A86u - (std::bit_cast<u32>(value) >> 1));
    estimate = estimate * (1.5f - 0.5f * value * estimate * estimate);
    return estimate * (1.5f - 0.5f * value * estimate * estimate);
}

/// FastRSqrt(value) * value; 0 for 0.
[[nodiscard]] constexpr float FastSqrt(float value)
{
    return FastRSqrt(value) * value;
}

/// A number from `min` to `max`, both reachable, in 32768 steps: 15 bits of the C runtime's `rand` on every system.
/// Seed with `srand`. (min and max are in parentheses against the macros of <windows.h>.)
[[nodiscard]] VLM_API float Random(float(min), float(max));

/// The next whole number towards positive infinity. A value whose whole part does not fit 32 bits (float) or 64 bits
/// (double), infinities and not-a-number come back as they are; what lies between -1 and 0 gives positive zero.
[[nodiscard]] VLM_API float Ceil(float value);
[[nodiscard]] VLM_API double Ceil(double value);

/// The next whole number towards negative infinity; otherwise as Ceil.
[[nodiscard]] VLM_API float Floor(float value);
[[nodiscard]] VLM_API double Floor(double value);

/// True for not-a-number. Looks at the bits, so that -ffast-math of a host cannot fold it away.
[[nodiscard]] constexpr bool IsNaN(double value)
{
    return (std::bit_cast<u64>(value) & 0x7FFF'FFFF'FFFF'FFFF) > 0x7FF0'0000'0000'0000;
}
[[nodiscard]] constexpr bool IsNaN(float value)
{
    return (std::bit_cast<u32>(value) & 0x7FFF'FFFF) > 0x7F80'0000;
}

/// The index of the LOWEST set bit, whatever the name says (kept: hosts depend on it); both agree for powers of two.
/// For 0 the result is the width of the type.
[[nodiscard]] constexpr unsigned char GetHighestSetBit(unsigned int value)
{
    return static_cast<unsigned char>(std::countr_zero(value));
}
[[nodiscard]] constexpr unsigned char GetHighestSetBit(u64 value)
{
    return static_cast<unsigned char>(std::countr_zero(value));
}
/// The same for the other integer types, which would be ambiguous: by their own width, 32 bits at least.
template <std::integral Integer>
[[nodiscard]] constexpr unsigned char GetHighestSetBit(Integer value)
{
    if constexpr (sizeof(Integer) <= sizeof(u32))
        return GetHighestSetBit(static_cast<u32>(value));
    else
        return GetHighestSetBit(static_cast<u64>(value));
}

/// True when the point lies in the polygon by the even-odd rule; the last vertex is joined to the first. Points on a
/// left edge count as inside, points on a right edge do not need to. An empty polygon contains nothing.
[[nodiscard]] VLM_API bool TestPointInPoly(TTuple2<float> const& point, TVector<TTuple2<float>> const& polygon);

} // namespace Velmor::Math
