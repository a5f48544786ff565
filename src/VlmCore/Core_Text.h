/// \file
/// Walks over text as the string operations use them: the kernels of this processor where there are any, the plain
/// rules for the rest. Same results as Core_TextRules.h.
#pragma once

#include "Core_TextKernels.h"
#include "Core_TextRules.h"

namespace Velmor::Text {

/// Bytes of a text, terminator excluded, and its characters.
struct SExtent {
    u64 size;
    u64 count;
};

template <class Rules>
[[nodiscard]] u64 GetTextSize(u8 const* text)
{
    return TextKernels::Get().getTextSize[TextKernels::IndexOf<Rules>](text);
}

template <class Rules>
[[nodiscard]] SExtent GetExtent(u8 const* text)
{
    SExtent extent{};
    extent.count = TextKernels::Get().countCharacters[TextKernels::IndexOf<Rules>](text, extent.size);
    return extent;
}

template <class Rules>
[[nodiscard]] u64 CountCharacters(u8 const* text)
{
    return GetExtent<Rules>(text).count;
}

template <class From, class To>
[[nodiscard]] u64 GetConvertedSize(u8 const* text)
{
    return TextKernels::Get().getConvertedSize[TextKernels::IndexOf<From>][TextKernels::IndexOf<To>](text);
}

template <class From, class To>
u8* ConvertCharacters(u8 const* text, u64 count, u8* out)
{
    return TextKernels::Get().convert[TextKernels::IndexOf<From>][TextKernels::IndexOf<To>](text, count, out);
}

inline u8* ConvertPlaneZeroUnits(u8 const* units, u64 count, u8* out)
{
    return TextKernels::Get().convertPlaneZero(units, count, out);
}

/// Order of two texts of one encoding, as their units.
template <class Rules>
[[nodiscard]] int CompareUnits(u8 const* left, u8 const* right)
{
    return TextKernels::Get().compareUnits[TextKernels::IndexOf<Rules>](left, right);
}

/// Order of two texts of different encodings, as code points; the left one has the narrower units.
template <class Narrow, class Wide>
[[nodiscard]] int CompareMixed(u8 const* narrow, u8 const* wide)
{
    constexpr u64 PlainSteps = 16;
    auto const skipSame = TextKernels::Get().skipSame[TextKernels::IndexOf<Narrow>][TextKernels::IndexOf<Wide>];
    if (skipSame == nullptr)
        return TextRules::Compare<Narrow, Wide>(narrow, wide);
    for (;;) {
        u64 const same = skipSame(narrow, wide);
        narrow += same * Narrow::UnitSize;
        wide += same * Wide::UnitSize;
        bool ends = false;
        if (int const order = TextRules::CompareSome<Narrow, Wide>(narrow, wide, PlainSteps, ends); ends)
            return order;
    }
}

template <class Left, class Right>
[[nodiscard]] int Compare(u8 const* left, u8 const* right)
{
    if constexpr (Left::Encoding == Right::Encoding)
        return CompareUnits<Left>(left, right);
    else if constexpr (Left::UnitSize < Right::UnitSize)
        return CompareMixed<Left, Right>(left, right);
    else
        return -CompareMixed<Right, Left>(right, left);
}

} // namespace Velmor::Text
