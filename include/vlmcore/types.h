/// \file
/// Fixed-width number names and the small value types that several subsystems share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Velmor {

using u8 = std::uint8_t;   ///< unsigned, 8 bits
using u16 = std::uint16_t; ///< unsigned, 16 bits
using u32 = std::uint32_t; ///< unsigned, 32 bits
using u64 = std::uint64_t; ///< unsigned, 64 bits; std::size_t on every build
using i8 = std::int8_t;    ///< signed, 8 bits
using i16 = std::int16_t;  ///< signed, 16 bits
using i32 = std::int32_t;  ///< signed, 32 bits
using i64 = std::int64_t;  ///< signed, 64 bits
using f32 = float;         ///< IEEE single precision
using f64 = double;        ///< IEEE double precision

static_assert(sizeof(f32) == 4 && sizeof(f64) == 8, "floats are IEEE single and double");
static_assert(sizeof(void*) == 8, "VlmCore is built for 64-bit systems");

/// Two values side by side.
template <class A, class B>
struct TPair {
    A first;  ///< the one in front
    B second; ///< the one behind

    // Constant wherever the members' comparisons are.
    friend bool operator==(TPair const&, TPair const&) = default;
};

namespace Math {

/// A half-open range: `lower` belongs to it, `upper` does not.
template <class T>
struct TRange {
    T lower; ///< first value of the range
    T upper; ///< first value behind it

    /// True when `lower <= value < upper`.
    [[nodiscard]] constexpr bool Contains(T value) const { return lower <= value && value < upper; }

    friend constexpr bool operator==(TRange const&, TRange const&) = default;
};

/// A point or vector of two components.
template <class T>
struct TTuple2 {
    T x; ///< first component
    T y; ///< second component

    friend constexpr bool operator==(TTuple2 const&, TTuple2 const&) = default;
};

} // namespace Math
} // namespace Velmor
