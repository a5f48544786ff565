/// \file
/// The three encodings: how a character is measured, read and written. Every walk over text in the library is one
/// template over these rules, so their irregularities (docs/quirks.md) are the same everywhere.
///
/// Positions are byte pointers and need no alignment: string buffers come from a heap that promises none. Sizes are
/// bytes. Text ends with a zero unit; a character that the terminator cuts short ends in front of it, and the units it
/// lacks count as zero. Nothing here reads behind a terminator.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

namespace Velmor {

/// Encoding of a text. Any value but 0 and 1 is treated as UTF32.
namespace EStringEncoding {
enum Type : u32 { UTF8 = 0, UTF16 = 1, UTF32 = 2 };
} // namespace EStringEncoding

namespace Encodings {

[[nodiscard]] inline u8 const* AsBytes(void const* data)
{
    return static_cast<u8 const*>(data);
}

[[nodiscard]] inline u8* AsBytes(void* data)
{
    return static_cast<u8*>(data);
}

template <class Unit>
[[nodiscard]] inline Unit Load(u8 const* position)
{
    Unit unit;
    std::memcpy(&unit, position, sizeof(Unit));
    return unit;
}

template <class Unit>
inline u8* Store(u8* position, Unit unit)
{
    std::memcpy(position, &unit, sizeof(Unit));
    return position + sizeof(Unit);
}

/// One character as read from a text: its code point and the bytes it takes up.
struct SCharacter {
    u32 codePoint;
    u64 size;
};

/// UTF-8 with this library's thresholds. The lead byte alone decides how long a character is.
struct SUTF8 {
    using Unit = u8;
    static constexpr EStringEncoding::Type Encoding = EStringEncoding::UTF8;
    static constexpr u64 UnitSize = 1;

    [[nodiscard]] static constexpr u64 LeadSize(u8 lead)
    {
        return lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    }

    [[nodiscard]] static u64 GetSize(u8 const* position)
    {
        u64 const whole = LeadSize(*position);
        u64 size = 1;
        while (size < whole && position[size] != 0)
            ++size;
        return size;
    }

    [[nodiscard]] static SCharacter Read(u8 const* position)
    {
        u32 const lead = position[0];
        if (lead < 0xC0)
            return {lead < 0x80 ? lead : 0, 1};
        u32 const second = position[1];
        if (lead < 0xE0)
            return {((lead & 0x1F) << 6) | (second & 0x3F), second != 0 ? u64{2} : u64{1}};
        if (second == 0)
            return {lead < 0xF0 ? (lead & 0x0F) << 12 : (lead & 0x0F) << 18, 1};
        u32 const third = position[2];
        if (lead < 0xF0)
            return {((lead & 0x0F) << 12) | ((second & 0x3F) << 6) | (third & 0x3F), third != 0 ? u64{3} : u64{2}};
        u32 const upper = ((lead & 0x0F) << 18) | ((second & 0x3F) << 12);
        if (third == 0)
            return {upper, 2};
        u32 const fourth = position[3];
        return {upper | ((third & 0x3F) << 6) | (fourth & 0x3F), fourth != 0 ? u64{4} : u64{3}};
    }

    [[nodiscard]] static constexpr u64 GetWrittenSize(u32 codePoint)
    {
        return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x40000 ? 3 : 4;
    }

    static u8* Write(u32 codePoint, u8* out)
    {
        if (codePoint < 0x80) {
            *out++ = static_cast<u8>(codePoint);
            return out;
        }
        if (codePoint < 0x800) {
            *out++ = static_cast<u8>(0xC0 | ((codePoint >> 6) & 0x1F));
        }
        else {
            // Kept: up to 0x3FFFF three bytes without the upper bits, from 0x40000 on a constant byte in front.
            if (codePoint >= 0x40000)
                *out++ = 0xE0;
            u32 const mask = codePoint < 0x40000 ? 0x0F : 0xFF;
            *out++ = static_cast<u8>(0xE0 | ((codePoint >> 12) & mask));
            *out++ = static_cast<u8>(0x80 | ((codePoint >> 6) & 0x3F));
        }
        *out++ = static_cast<u8>(0x80 | (codePoint & 0x3F));
        return out;
    }

    /// Size of the character that ends at `position`; `start` is where the text begins.
    [[nodiscard]] static u64 GetSizeBefore(u8 const* position, u8 const* start)
    {
        u8 const* lead = position - 1;
        while (lead != start && (*lead & 0xC0) == 0x80)
            --lead;
        return static_cast<u64>(position - lead);
    }
};

/// UTF-16 with this library's pair rule: any surrogate unit opens a pair, and pairs carry no 0x10000.
struct SUTF16 {
    using Unit = u16;
    static constexpr EStringEncoding::Type Encoding = EStringEncoding::UTF16;
    static constexpr u64 UnitSize = 2;

    [[nodiscard]] static constexpr bool OpensPair(u16 unit) { return (unit & 0xF800) == 0xD800; }
    [[nodiscard]] static constexpr bool ClosesPair(u16 unit) { return (unit & 0xFC00) == 0xDC00; }

    [[nodiscard]] static u64 GetSize(u8 const* position)
    {
        return OpensPair(Load<u16>(position)) && Load<u16>(position + 2) != 0 ? 4 : 2;
    }

    [[nodiscard]] static SCharacter Read(u8 const* position)
    {
        u16 const unit = Load<u16>(position);
        if (!OpensPair(unit))
            return {unit, 2};
        u16 const next = Load<u16>(position + 2);
        return {((unit & u32{0x7FF}) << 9) | (next & u32{0x3FF}), next != 0 ? u64{4} : u64{2}};
    }

    [[nodiscard]] static constexpr u64 GetWrittenSize(u32 codePoint) { return codePoint < 0xFFFF ? 2 : 4; }

    static u8* Write(u32 codePoint, u8* out)
    {
        if (codePoint < 0xFFFF)
            return Store(out, static_cast<u16>(codePoint));
        out = Store(out, static_cast<u16>(0xD800 | (codePoint >> 10)));
        return Store(out, static_cast<u16>(0xDC00 | codePoint));
    }

    [[nodiscard]] static u64 GetSizeBefore(u8 const* position, u8 const* start)
    {
        return position - start >= 4 && ClosesPair(Load<u16>(position - 2)) ? 4 : 2;
    }
};

/// UTF-32: one unit is one code point, whatever its value.
struct SUTF32 {
    using Unit = u32;
    static constexpr EStringEncoding::Type Encoding = EStringEncoding::UTF32;
    static constexpr u64 UnitSize = 4;

    [[nodiscard]] static u64 GetSize(u8 const*) { return 4; }
    [[nodiscard]] static SCharacter Read(u8 const* position) { return {Load<u32>(position), 4}; }
    [[nodiscard]] static constexpr u64 GetWrittenSize(u32) { return 4; }
    static u8* Write(u32 codePoint, u8* out) { return Store(out, codePoint); }
    [[nodiscard]] static u64 GetSizeBefore(u8 const*, u8 const*) { return 4; }
};

/// Calls `action` with the rules of an encoding and returns what it returns.
template <class Action>
inline decltype(auto) Dispatch(EStringEncoding::Type encoding, Action&& action)
{
    switch (encoding) {
    case EStringEncoding::UTF8:
        return action(SUTF8{});
    case EStringEncoding::UTF16:
        return action(SUTF16{});
    default:
        return action(SUTF32{});
    }
}

/// The encoding as the rules see it: 0, 1 or 2.
[[nodiscard]] constexpr EStringEncoding::Type Normalize(EStringEncoding::Type encoding)
{
    return encoding == EStringEncoding::UTF8 || encoding == EStringEncoding::UTF16 ? encoding : EStringEncoding::UTF32;
}

/// Bytes of one unit, and so of the terminator.
[[nodiscard]] constexpr u64 GetUnitSize(EStringEncoding::Type encoding)
{
    return encoding == EStringEncoding::UTF8 ? 1 : encoding == EStringEncoding::UTF16 ? 2 : 4;
}

/// The encoding of text in units of this type.
template <class Unit>
inline constexpr EStringEncoding::Type OfUnit = sizeof(Unit) == 1   ? EStringEncoding::UTF8
                                                : sizeof(Unit) == 2 ? EStringEncoding::UTF16
                                                                    : EStringEncoding::UTF32;

/// True at the terminator: the zero unit, not a code point that happens to decode to 0.
template <class Rules>
[[nodiscard]] inline bool IsEnd(u8 const* position)
{
    return Load<typename Rules::Unit>(position) == 0;
}

} // namespace Encodings
} // namespace Velmor
