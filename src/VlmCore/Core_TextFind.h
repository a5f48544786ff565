/// \file
/// Searching as the string operations use it: kernels skip to places where a match may begin, the plain rule of
/// Core_TextSearch.h decides there and in irregular text. Same results as the plain rule alone.
#pragma once

#include "Core_Text.h"
#include "Core_TextSearch.h"

namespace Velmor::TextSearch {

/// What a kernel looks for: the beginning of the needle in the text's encoding, as far as it fits.
struct SPlan {
    bool isUsable = false;
    TextKernels::SNeedle needle;
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
void MakePlan(SPlan& plan, Next&& next)
{
    for (u32 codePoint = next(); codePoint != 0; codePoint = next()) {
        if (!HasOneForm<Rules>(codePoint))
            return;
        if (plan.needle.size + 4 > TextKernels::SNeedle::Capacity)
            break;
        plan.needle.size =
            static_cast<u64>(Rules::Write(codePoint, plan.needle.units + plan.needle.size) - plan.needle.units);
        ++plan.needle.length;
    }
    plan.isUsable = plan.needle.size != 0;
}

/// First place at or behind `from` where `match` gives the end of an occurrence. `match` must miss wherever the text
/// does not look as the plan says.
template <class Rules, class Match>
[[nodiscard]] SMatch FindPlanned(SPosition from, SPlan const& plan, Match&& match)
{
    auto const find = plan.isUsable ? TextKernels::Get().find[TextKernels::IndexOf<Rules>] : nullptr;
    TextKernels::SSearch search{from.place, from.index, nullptr};
    for (;;) {
        if (find != nullptr)
            find(plan.needle, search);
        u8 const* place = search.place;
        u64 index = search.index;
        for (; find == nullptr || place < search.resume; ++index) {
            if (u8 const* const end = match(place))
                return {{place, index}, end};
            if (Encodings::IsEnd<Rules>(place))
                return {{place, index}, nullptr};
            place += Rules::GetSize(place);
        }
        search.place = place;
        search.index = index;
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
        MakePlan<Rules>(m_plan, [&, place = needle]() mutable -> u32 {
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
    SPlan plan;
    MakePlan<Rules>(plan, [wanted, isDone = false]() mutable -> u32 {
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
