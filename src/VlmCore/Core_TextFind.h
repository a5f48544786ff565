/// \file
/// Searching as the string operations use it: kernels skip to places where a match may begin, the plain rule of
/// Core_TextSearch.h decides there and in irregular text. Same results as the plain rule alone.
#pragma once

#include "Core_Text.h"
#include "Core_TextSearch.h"

#include <algorithm>

namespace Velmor::TextSearch {

/// What a kernel looks for: the first unit of a match, and another one further on.
struct SPlan {
    bool isUsable = false;
    u32 first = 0;
    u32 last = 0;
    u64 lastOffset = 0; ///< bytes from the start of the match to the last unit
};

/// True for code points that have one form only in text without irregular blocks.
template <class Rules>
[[nodiscard]] constexpr bool HasOneForm(u32 codePoint)
{
    if constexpr (Rules::UnitSize == 1)
        return codePoint != 0 && codePoint <= 0xFFFF;
    else if constexpr (Rules::UnitSize == 2)
        return codePoint != 0 && codePoint < 0xFFFF && !Rules::OpensPair(static_cast<u16>(codePoint));
    else
        return codePoint != 0;
}

/// The plan for a needle read code point by code point from `next`, which returns 0 at its end.
template <class Rules, class Next>
[[nodiscard]] SPlan MakePlan(Next&& next)
{
    SPlan plan;
    u64 size = 0;
    for (u32 codePoint = next(); codePoint != 0; codePoint = next()) {
        if (!HasOneForm<Rules>(codePoint))
            return {};
        u8 written[4] = {};
        u8 const* const end = Rules::Write(codePoint, written);
        if (size == 0)
            plan.first = Encodings::Load<typename Rules::Unit>(written);
        plan.last = Encodings::Load<typename Rules::Unit>(end - Rules::UnitSize);
        size += static_cast<u64>(end - written);
    }
    plan.isUsable = size != 0;
    plan.lastOffset = plan.isUsable ? size - Rules::UnitSize : 0;
    return plan;
}

/// First place at or behind `from` where `match` gives the end of an occurrence. `match` must miss wherever the text
/// does not look as the plan says.
template <class Rules, class Match>
[[nodiscard]] SMatch FindPlanned(SPosition from, SPlan const& plan, Match&& match)
{
    constexpr u64 FirstChunk = 256;
    constexpr u64 LargestChunk = 8192;
    constexpr u64 PlainSteps = 16;
    auto const& kernels = TextKernels::Get();
    auto const skipTo = plan.isUsable ? kernels.skipTo[TextKernels::IndexOf<Rules>] : nullptr;
    auto const getTextSize = kernels.getTextSize[TextKernels::IndexOf<Rules>];
    for (u64 chunk = FirstChunk;; chunk = std::min(2 * chunk, LargestChunk)) {
        if (skipTo != nullptr) {
            // Only as far ahead as will soon be read anyway: a match may be near, and the text long.
            u64 const limit = chunk + plan.lastOffset;
            u64 const size = std::min(getTextSize(from.place, limit), limit);
            u8 const* const before = from.place;
            from.place = skipTo(from.place, size, plan.first, plan.last, plan.lastOffset, from.index);
            u64 const left = size - static_cast<u64>(from.place - before);
            if (size == limit && from.place != before && left < TextKernels::BlockSize + plan.lastOffset)
                continue;
        }
        for (u64 step = 0; step < PlainSteps || skipTo == nullptr; ++step, ++from.index) {
            if (u8 const* const end = match(from.place))
                return {from, end};
            if (Encodings::IsEnd<Rules>(from.place))
                return {from, nullptr};
            from.place += Rules::GetSize(from.place);
        }
    }
}

/// Finds one needle, again and again.
template <class Rules, class NeedleRules>
class CTextFinder {
public:
    /// `needle` is not empty.
    explicit CTextFinder(u8 const* needle) : m_needle(needle)
    {
        bool isWhole = true;
        m_plan = MakePlan<Rules>([&, place = needle]() mutable -> u32 {
            if (Encodings::IsEnd<NeedleRules>(place))
                return 0;
            auto const [codePoint, size] = NeedleRules::Read(place);
            place += size;
            isWhole = isWhole && codePoint != 0;
            return codePoint;
        });
        m_plan.isUsable = m_plan.isUsable && isWhole;
    }

    [[nodiscard]] SMatch Find(SPosition from) const
    {
        return FindPlanned<Rules>(from, m_plan,
                                  [this](u8 const* place) { return MatchAt<Rules, NeedleRules>(place, m_needle); });
    }

private:
    u8 const* m_needle;
    SPlan m_plan;
};

/// First occurrence of a code point at or behind `from`; a 0 is found in the terminator.
template <class Rules>
[[nodiscard]] SMatch FindCodePointFast(SPosition from, u32 wanted)
{
    SPlan const plan = MakePlan<Rules>([wanted, isDone = false]() mutable -> u32 {
        u32 const codePoint = isDone ? 0 : wanted;
        isDone = true;
        return codePoint;
    });
    return FindPlanned<Rules>(from, plan, [wanted](u8 const* place) -> u8 const* {
        auto const [codePoint, size] = Rules::Read(place);
        return codePoint == wanted ? place + size : nullptr;
    });
}

} // namespace Velmor::TextSearch
