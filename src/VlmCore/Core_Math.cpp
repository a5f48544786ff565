#include <vlmcore/math.h>

#include <cstdlib>
#include <limits>
#include <type_traits>

namespace Velmor::Math {
namespace {

/// The integer that a float's whole part is taken through.
template <class Float>
using TWhole = std::conditional_t<sizeof(Float) == 4, i32, i64>;

/// True when the whole part fits its integer and differs from the value; only such values are rounded.
template <class Float>
bool HasFraction(Float value, TWhole<Float>& whole)
{
    constexpr Float limit = -static_cast<Float>(std::numeric_limits<TWhole<Float>>::min());
    if (!std::isless(std::fabs(value), limit)) // false for not-a-number, and raises no exception for it
        return false;
    whole = static_cast<TWhole<Float>>(value);
    return static_cast<Float>(whole) != value;
}

template <class Float>
Float CeilAny(Float value)
{
    TWhole<Float> whole;
    if (!HasFraction(value, whole))
        return value;
    return static_cast<Float>(std::signbit(value) ? whole : whole + 1);
}

template <class Float>
Float FloorAny(Float value)
{
    TWhole<Float> whole;
    if (!HasFraction(value, whole))
        return value;
    return static_cast<Float>(std::signbit(value) ? whole - 1 : whole);
}

/// `rand` cut to 15 bits. A generator with more of them gives its upper ones, which are the better ones.
u32 Draw15Bits()
{
    constexpr u32 range = static_cast<u32>(RAND_MAX);
    static_assert(range >= 0x7FFF && (range & (range + 1)) == 0, "rand gives whole bits, 15 or more");
    return static_cast<u32>(std::rand()) / ((range >> 15) + 1);
}

} // namespace

float Random(float(min), float(max))
{
    constexpr float step = std::bit_cast<float>(0x38000100u); // one divided by 32767
    return static_cast<float>(Draw15Bits()) * step * (max - min) + min;
}

float Ceil(float value)
{
    return CeilAny(value);
}

double Ceil(double value)
{
    return CeilAny(value);
}

float Floor(float value)
{
    return FloorAny(value);
}

double Floor(double value)
{
    return FloorAny(value);
}

bool TestPointInPoly(TTuple2<float> const& point, TVector<TTuple2<float>> const& polygon)
{
    bool inside = false;
    u64 const count = polygon.GetCount();
    for (u64 i = 0; i < count; ++i) {
        TTuple2<float> const& a = polygon[i];
        TTuple2<float> const& b = polygon[i + 1 < count ? i + 1 : 0];
        bool const reaches = point.x >= a.x || point.x >= b.x;
        bool const crosses = (point.y > a.y) != (point.y > b.y);
        if (reaches && crosses && point.x >= (point.y - a.y) / (b.y - a.y) * (b.x - a.x) + a.x)
            inside = !inside;
    }
    return inside;
}

} // namespace Velmor::Math
