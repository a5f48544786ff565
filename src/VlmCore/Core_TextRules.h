/// \file
/// The plain rule of each walk over text: one template per operation over the rules of Core_Encoding.h. Right before
/// fast; whatever is faster is checked against these.
///
/// All positions are byte pointers to terminated text, never null; sizes are bytes without the terminator unless a name
/// says otherwise.
#pragma once

#include <vlmcore/impl/Core_Encoding.h>

namespace Velmor::TextRules {

/// Bytes up to the terminator.
template <class Rules>
[[nodiscard]] u64 GetTextSize(u8 const* text)
{
    u8 const* position = text;
    while (!Encodings::IsEnd<Rules>(position))
        position += Rules::UnitSize;
    return static_cast<u64>(position - text);
}

/// Characters up to the terminator.
template <class Rules>
[[nodiscard]] u64 CountCharacters(u8 const* text)
{
    u64 count = 0;
    for (; !Encodings::IsEnd<Rules>(text); ++count)
        text += Rules::GetSize(text);
    return count;
}

/// The position `count` characters on, or the terminator if it comes first.
template <class Rules>
[[nodiscard]] u8 const* Advance(u8 const* text, u64 count)
{
    for (; count != 0 && !Encodings::IsEnd<Rules>(text); --count)
        text += Rules::GetSize(text);
    return text;
}

/// Bytes of the text converted.
template <class From, class To>
[[nodiscard]] u64 GetConvertedSize(u8 const* text)
{
    u64 size = 0;
    while (!Encodings::IsEnd<From>(text)) {
        auto const [codePoint, sourceSize] = From::Read(text);
        size += To::GetWrittenSize(codePoint);
        text += sourceSize;
    }
    return size;
}

/// Writes `count` characters converted, whether or not a zero unit is among them, and moves `text` behind them; returns
/// the position behind what was written.
template <class From, class To>
u8* ConvertCharactersFrom(u8 const*& text, u64 count, u8* out)
{
    for (; count != 0; --count) {
        auto const [codePoint, sourceSize] = From::Read(text);
        out = To::Write(codePoint, out);
        text += sourceSize;
    }
    return out;
}

template <class From, class To>
u8* ConvertCharacters(u8 const* text, u64 count, u8* out)
{
    return ConvertCharactersFrom<From, To>(text, count, out);
}

/// Writes `count` 16-bit units as one to three bytes each, surrogates like any other unit.
inline u8* ConvertPlaneZeroUnits(u8 const* units, u64 count, u8* out)
{
    for (; count != 0; --count, units += 2)
        out = Encodings::SUTF8::Write(Encodings::Load<u16>(units), out);
    return out;
}

/// Order of two texts of different encodings as code points, decided within `steps` characters: negative, zero or
/// positive, and `ends`; otherwise both positions stand behind these characters.
template <class Left, class Right>
[[nodiscard]] int CompareSome(u8 const*& left, u8 const*& right, u64 steps, bool& ends)
{
    ends = true;
    for (; steps != 0; --steps) {
        bool const leftEnds = Encodings::IsEnd<Left>(left);
        bool const rightEnds = Encodings::IsEnd<Right>(right);
        if (leftEnds || rightEnds)
            return static_cast<int>(rightEnds) - static_cast<int>(leftEnds);
        auto const [leftCodePoint, leftSize] = Left::Read(left);
        auto const [rightCodePoint, rightSize] = Right::Read(right);
        if (leftCodePoint != rightCodePoint)
            return leftCodePoint < rightCodePoint ? -1 : 1;
        left += leftSize;
        right += rightSize;
    }
    ends = false;
    return 0;
}

/// Order of two texts as their own units, or as code points when the encodings differ: negative, zero or positive.
template <class Left, class Right>
[[nodiscard]] int Compare(u8 const* left, u8 const* right)
{
    if constexpr (Left::Encoding == Right::Encoding) {
        using Unit = typename Left::Unit;
        for (;; left += Left::UnitSize, right += Left::UnitSize) {
            Unit const leftUnit = Encodings::Load<Unit>(left);
            Unit const rightUnit = Encodings::Load<Unit>(right);
            if (leftUnit != rightUnit)
                return leftUnit < rightUnit ? -1 : 1;
            if (leftUnit == 0)
                return 0;
        }
    }
    else {
        bool ends = false;
        return CompareSome<Left, Right>(left, right, ~u64{0}, ends);
    }
}

} // namespace Velmor::TextRules
