/// \file
/// Walks over text as the string operations use them: the kernels of this processor where there are any, the plain rules
/// for the rest. Same results as Core_TextRules.h.
#pragma once

#include "Core_TextKernels.h"
#include "Core_TextRules.h"

namespace Velmor::Text {

/// Shorter than this, the plain rule is done before a kernel has looked around.
inline constexpr u64 ShortText = 16;

template <class Rules>
[[nodiscard]] u64 GetTextSize(u8 const* text)
{
    auto const kernel = TextKernels::Get().getTextSize[TextKernels::IndexOf<Rules>];
    return kernel != nullptr ? kernel(text, ~u64{0}) : TextRules::GetTextSize<Rules>(text);
}

template <class Rules>
[[nodiscard]] u64 CountCharacters(u8 const* text)
{
    auto const& kernels = TextKernels::Get();
    auto const kernel = kernels.countCharacters[TextKernels::IndexOf<Rules>];
    return kernel != nullptr ? kernel(text, GetTextSize<Rules>(text)) : TextRules::CountCharacters<Rules>(text);
}

template <class From, class To>
[[nodiscard]] u64 GetConvertedSize(u8 const* text)
{
    auto const& kernels = TextKernels::Get();
    auto const kernel = kernels.getConvertedSize[TextKernels::IndexOf<From>][TextKernels::IndexOf<To>];
    return kernel != nullptr ? kernel(text, GetTextSize<From>(text)) : TextRules::GetConvertedSize<From, To>(text);
}

template <class From, class To>
u8* ConvertCharacters(u8 const* text, u64 count, u8* out)
{
    TextKernels::SConversion state{text, out, count};
    if (count >= ShortText) {
        if (auto const kernel = TextKernels::Get().convert[TextKernels::IndexOf<From>][TextKernels::IndexOf<To>])
            kernel(state);
    }
    return TextRules::ConvertCharacters<From, To>(state.in, state.count, state.out);
}

inline u8* ConvertPlaneZeroUnits(u8 const* units, u64 count, u8* out)
{
    TextKernels::SConversion state{units, out, count};
    if (auto const kernel = TextKernels::Get().convertPlaneZero)
        kernel(state);
    return TextRules::ConvertPlaneZeroUnits(state.in, state.count, state.out);
}

template <class Left, class Right>
[[nodiscard]] int Compare(u8 const* left, u8 const* right)
{
    if constexpr (Left::Encoding == Right::Encoding) {
        using Unit = typename Left::Unit;
        // Most comparisons are settled by the first unit.
        Unit const first = Encodings::Load<Unit>(left);
        Unit const second = Encodings::Load<Unit>(right);
        if (first != second)
            return first < second ? -1 : 1;
        if (auto const kernel = TextKernels::Get().findDifference[TextKernels::IndexOf<Left>]) {
            u64 const offset = kernel(left, right);
            Unit const leftUnit = Encodings::Load<Unit>(left + offset);
            Unit const rightUnit = Encodings::Load<Unit>(right + offset);
            return leftUnit == rightUnit ? 0 : leftUnit < rightUnit ? -1 : 1;
        }
    }
    return TextRules::Compare<Left, Right>(left, right);
}

} // namespace Velmor::Text
