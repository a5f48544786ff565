/// \file
/// The line that a memory event is in its file, written in one go.
#pragma once

#include "Core_NumberText.h"

#include <vlmcore/types.h>

#include <bit>
#include <cstring>

namespace Velmor {

/// Numbers without a loop and nearly without a branch: the digits of eight are computed side by side in a register, and
/// what leads them as zeros is shifted out. Each function writes whole words, up to Excess bytes more than it returns.
namespace EventNumber {

static_assert(std::endian::native == std::endian::little, "the first character is the lowest byte");

constexpr u64 Excess = 16;
constexpr u64 EightDigits = 100'000'000;
constexpr u64 AsciiZeros = 0x3030303030303030;

/// The digits of a number below EightDigits, 0 to 9, the first one in the lowest byte.
constexpr u64 SplitDigits(u32 value)
{
    u64 const fours = value / 10000 | u64{value % 10000} << 32;
    u64 const hundreds = (fours * 5243 >> 19) & 0x0000007F0000007F; // 5243 / 2^19 is 1 / 100 closely enough
    u64 const pairs = hundreds | (fours - hundreds * 100) << 16;
    u64 const tens = (pairs * 103 >> 10) & 0x000F000F000F000F; // 103 / 2^10 is 1 / 10 closely enough
    return tens | (pairs - tens * 10) << 8;
}

/// The nibbles of a word, the highest in the lowest byte.
constexpr u64 SplitNibbles(u32 value)
{
    u64 lanes = value >> 24 | (value >> 8 & 0xFF00) | (value << 8 & 0xFF0000) | value << 24;
    lanes = (lanes | lanes << 16) & 0x0000FFFF0000FFFF;
    lanes = (lanes | lanes << 8) & 0x00FF00FF00FF00FF;
    return (lanes >> 4 & 0x000F000F000F000F) | (lanes & 0x000F000F000F000F) << 8;
}

inline char* WriteUpToEight(char* at, u32 value)
{
    u64 const digits = SplitDigits(value);
    // A bit of the last byte: 0 has a digit too.
    u32 const leading = static_cast<u32>(std::countr_zero(digits | u64{1} << 56)) & ~7u;
    u64 const text = (digits | AsciiZeros) >> leading;
    std::memcpy(at, &text, sizeof text);
    return at + (sizeof text - leading / 8);
}

/// Writes the value in decimal; returns the end.
inline char* WriteDecimal(char* at, u64 value)
{
    if (value < EightDigits)
        return WriteUpToEight(at, static_cast<u32>(value));
    if (value < EightDigits * EightDigits) {
        at = WriteUpToEight(at, static_cast<u32>(value / EightDigits));
        u64 const text = SplitDigits(static_cast<u32>(value % EightDigits)) | AsciiZeros;
        std::memcpy(at, &text, sizeof text);
        return at + sizeof text;
    }
    at += NumberText::CountDigits(value);
    NumberText::WriteDigits(value, at);
    return at;
}

/// Writes the value in hexadecimal, upper case, without a prefix; returns the end.
inline char* WriteHex(char* at, u64 value)
{
    u32 const count = NumberText::CountHexDigits(value);
    u64 const first = value << (64 - 4 * count);
    for (u32 half = 0; half < 2; ++half) {
        u64 const nibbles = SplitNibbles(static_cast<u32>(half == 0 ? first >> 32 : first));
        u64 const letters = (nibbles + 0x0606060606060606) >> 4 & 0x0101010101010101;
        u64 const text = nibbles + AsciiZeros + letters * ('A' - '0' - 10);
        std::memcpy(at + half * sizeof text, &text, sizeof text);
    }
    return at + count;
}

} // namespace EventNumber

/// A text padded to the length of a register.
template <u64 Capacity>
struct TFixedText {
    char text[Capacity];
    u64 size;

    template <u64 Count>
    explicit constexpr TFixedText(char const (&literal)[Count]) : text{}, size(Count - 1)
    {
        static_assert(Count - 1 <= Capacity);
        for (u64 i = 0; i < Count - 1; ++i)
            text[i] = literal[i];
    }

    /// Writes the whole register; returns the end of the text.
    char* Write(char* at) const
    {
        std::memcpy(at, text, Capacity);
        return at + size;
    }
};

/// Writes events as items of a JSON array, a line each. The fixed texts are copied by the register, whatever they are
/// long; the beginning of the line is kept from one event to the next, since most have the time of the one before.
///
/// One thread at a time.
class CEventText {
public:
    struct SEvent {
        u64 timestamp;
        u64 address;
        u64 size;
        u64 heapSize;
        u32 kind; ///< 0 to 3: alloc, free, retain, release
        u32 stackHash;
    };

    CEventText() { SetTimestamp(0); }

    /// What Write may touch from its place on: the longest line is shorter.
    static constexpr u64 RoomSize = 256;

    /// Writes the line of the event at `at`, which has room for RoomSize bytes; returns its end.
    char* Write(char* at, SEvent const& event)
    {
        if (event.timestamp != m_timestamp) [[unlikely]]
            SetTimestamp(event.timestamp);
        std::memcpy(at, m_head, sizeof m_head);
        at = EventNumber::WriteHex(at + m_headSize, event.address);
        at = Size.Write(at);
        at = EventNumber::WriteDecimal(at, event.size);
        at = HeapSize.Write(at);
        at = EventNumber::WriteDecimal(at, event.heapSize);
        at = Kinds[event.kind].Write(at);
        at = EventNumber::WriteDecimal(at, event.stackHash);
        return End.Write(at);
    }

private:
    void SetTimestamp(u64 timestamp)
    {
        static constexpr TFixedText<16> Timestamp{"{ \"Timestamp\": "};
        static constexpr TFixedText<16> Address{", \"Address\": \"0x"};
        static_assert(sizeof m_head >= sizeof Timestamp.text + NumberText::IntegerCapacity + sizeof Address.text);
        m_timestamp = timestamp;
        char* at = Timestamp.Write(m_head);
        at = EventNumber::WriteDecimal(at, timestamp);
        m_headSize = static_cast<u64>(Address.Write(at) - m_head);
    }

    static constexpr TFixedText<16> Size{"\", \"Size\": "};
    static constexpr TFixedText<16> HeapSize{", \"HeapSize\": "};
    static constexpr TFixedText<32> Kinds[4] = {TFixedText<32>(", \"Event\": \"alloc\", \"CSHash\": "),
                                                TFixedText<32>(", \"Event\": \"free\", \"CSHash\": "),
                                                TFixedText<32>(", \"Event\": \"retain\", \"CSHash\": "),
                                                TFixedText<32>(", \"Event\": \"release\", \"CSHash\": ")};
    static constexpr TFixedText<4> End{" }\n"};

    u64 m_timestamp;
    char m_head[64]; ///< the line up to the digits of the address
    u64 m_headSize;
};

} // namespace Velmor
