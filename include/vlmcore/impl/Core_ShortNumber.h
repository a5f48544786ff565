/// \file
/// Text of short numbers and plain numbers of text, inline: they are the most frequent ones, and a call would cost more
/// than the work. What is not short, or not plain, is left to the library.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

namespace Velmor::Impl {

/// Numbers below this are short; with their terminator they take up to ShortNumberSize bytes.
inline constexpr u64 ShortNumberLimit = 1000;
inline constexpr u64 ShortHexLimit = 0x1000;
inline constexpr u64 ShortNumberSize = 4;
inline constexpr u64 ShortHexSize = 6;

/// The hundred pairs "00" to "99".
struct SDigitPairs {
    char text[200];
};
consteval SDigitPairs MakeDigitPairs()
{
    SDigitPairs pairs{};
    for (u32 pair = 0; pair < 100; ++pair) {
        pairs.text[2 * pair] = static_cast<char>('0' + pair / 10);
        pairs.text[2 * pair + 1] = static_cast<char>('0' + pair % 10);
    }
    return pairs;
}
inline constexpr SDigitPairs DigitPairs = MakeDigitPairs();

/// Writes two decimal digits.
inline void WriteDigitPair(u32 below100, char* out)
{
    std::memcpy(out, DigitPairs.text + 2 * u64{below100}, 2);
}

/// Decimal digits and the terminator; the bytes in front of the terminator.
inline u64 WriteShortNumber(u32 value, char* out)
{
    if (value >= 100) {
        u32 const hundreds = value * 41 >> 12;
        out[0] = static_cast<char>('0' + hundreds);
        WriteDigitPair(value - 100 * hundreds, out + 1);
        out[3] = '\0';
        return 3;
    }
    if (value >= 10) {
        WriteDigitPair(value, out);
        out[2] = '\0';
        return 2;
    }
    out[0] = static_cast<char>('0' + value);
    out[1] = '\0';
    return 1;
}

/// "0x", upper-case digits and the terminator, likewise.
inline u64 WriteShortHex(u32 value, char* out)
{
    constexpr char const* Digits = "0123456789ABCDEF";
    out[0] = '0';
    out[1] = 'x';
    u64 count = 2;
    if (value >= 0x100) {
        out[2] = Digits[value >> 8];
        out[3] = Digits[value >> 4 & 15];
        count = 4;
    }
    else if (value >= 0x10) {
        out[2] = Digits[value >> 4];
        count = 3;
    }
    out[count] = Digits[value & 15];
    out[count + 1] = '\0';
    return count + 1;
}

/// Reads the decimal digits of terminated UTF-8; overflow wraps. False, and nothing read, when the text is no plain
/// number: it begins with anything but a digit other than 0, or what follows could only be told from a digit by
/// decoding.
inline bool TryReadPlainNumber(void const* text, u64& value)
{
    u8 const* digit = static_cast<u8 const*>(text);
    u64 read = *digit - u64{'0'};
    if (read - 1 >= 9)
        return false;
    while (*++digit - u32{'0'} < 10)
        read = read * 10 + (*digit - u32{'0'});
    value = read;
    return *digit < 0x80 && read != 0;
}

} // namespace Velmor::Impl
