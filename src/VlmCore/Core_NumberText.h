/// \file
/// Numbers as plain ASCII characters, and ASCII characters in any encoding: what the renderers of IString and the
/// format engine share.
#pragma once

#include <vlmcore/strings.h>

#include <bit>
#include <cstring>

namespace Velmor::NumberText {

/// Most characters that a rendering has, terminator not counted.
constexpr u32 IntegerCapacity = 20;
constexpr u32 HexCapacity = 18;
constexpr u32 FloatCapacity = 20 + 1 + 7;
constexpr u32 DoubleCapacity = 20 + 1 + 17;

constexpr u64 PowersOfTen[20] = {1,
                                 10,
                                 100,
                                 1000,
                                 10000,
                                 100000,
                                 1000000,
                                 10000000,
                                 100000000,
                                 1000000000,
                                 10000000000,
                                 100000000000,
                                 1000000000000,
                                 10000000000000,
                                 100000000000000,
                                 1000000000000000,
                                 10000000000000000,
                                 100000000000000000,
                                 1000000000000000000,
                                 10000000000000000000u};

/// Decimal digits of the value; 1 for 0.
constexpr u32 CountDigits(u64 value)
{
    // 1233 / 4096 is a little more than log10(2): the product is the count or one less.
    u32 const atLeast = static_cast<u32>(std::bit_width(value | 1)) * 1233 >> 12;
    return atLeast + (value >= PowersOfTen[atLeast] || value == 0 ? 1 : 0);
}

/// Hexadecimal digits of the value; 1 for 0.
constexpr u32 CountHexDigits(u64 value)
{
    return (static_cast<u32>(std::bit_width(value | 1)) + 3) / 4;
}

inline void WriteFour(u32 below10000, char* out)
{
    Impl::WriteDigitPair(below10000 / 100, out);
    Impl::WriteDigitPair(below10000 % 100, out + 2);
}

/// Writes the CountDigits(value) digits of the value so that they end before `end`.
inline void WriteDigits(u64 value, char* end)
{
    while (value >= 100000000) {
        u32 const low = static_cast<u32>(value % 100000000);
        value /= 100000000;
        end -= 8;
        WriteFour(low / 10000, end);
        WriteFour(low % 10000, end + 4);
    }
    u32 rest = static_cast<u32>(value);
    if (rest >= 10000) {
        end -= 4;
        WriteFour(rest % 10000, end);
        rest /= 10000;
    }
    if (rest >= 100) {
        end -= 2;
        Impl::WriteDigitPair(rest % 100, end);
        rest /= 100;
    }
    if (rest >= 10)
        Impl::WriteDigitPair(rest, end - 2);
    else
        end[-1] = static_cast<char>('0' + rest);
}

/// The magnitude of a signed value, also of the smallest one.
constexpr u64 GetMagnitude(i64 value)
{
    return value < 0 ? 0 - static_cast<u64>(value) : static_cast<u64>(value);
}

/// Characters that WriteInteger writes.
constexpr u32 CountInteger(i64 value)
{
    return CountDigits(GetMagnitude(value)) + (value < 0 ? 1 : 0);
}

/// Writes the CountInteger(value) characters of the value so that they end before `end`.
inline void WriteInteger(i64 value, char* end)
{
    u64 const magnitude = GetMagnitude(value);
    WriteDigits(magnitude, end);
    if (value < 0)
        end[-1 - static_cast<i64>(CountDigits(magnitude))] = '-';
}

/// Characters that WriteHex writes.
constexpr u32 CountHex(u64 value)
{
    return 2 + CountHexDigits(value);
}

/// The 256 pairs "00" to "FF".
struct SHexPairs {
    char text[512];
};
constexpr SHexPairs MakeHexPairs()
{
    SHexPairs pairs{};
    for (u32 i = 0; i < 256; ++i) {
        pairs.text[2 * i] = "0123456789ABCDEF"[i / 16];
        pairs.text[2 * i + 1] = "0123456789ABCDEF"[i % 16];
    }
    return pairs;
}
inline constexpr SHexPairs HexPairs = MakeHexPairs();

/// Writes "0x" and the upper-case digits so that they end before `end`.
inline void WriteHex(u64 value, char* end)
{
    for (; value >= 0x100; value >>= 8) {
        end -= 2;
        std::memcpy(end, HexPairs.text + 2 * (value & 0xFF), 2);
    }
    if (value >= 0x10) {
        end -= 2;
        std::memcpy(end, HexPairs.text + 2 * value, 2);
    }
    else {
        *--end = HexPairs.text[2 * value + 1];
    }
    std::memcpy(end - 2, "0x", 2);
}

/// Write the text of a float and return its characters, FloatCapacity or DoubleCapacity at most. No terminator.
u32 WriteFloat(f32 value, char* out);
u32 WriteDouble(f64 value, char* out);

/// Widens ASCII characters to 16- or 32-bit units at any alignment, without a terminator.
template <class Unit>
inline void Widen(char const* ascii, u64 count, void* out)
{
    for (u64 i = 0; i < count; ++i) {
        Unit const unit = static_cast<u8>(ascii[i]);
        std::memcpy(static_cast<char*>(out) + i * sizeof(Unit), &unit, sizeof(Unit));
    }
}

} // namespace Velmor::NumberText
