/// \file
/// Searching as the string operations use it: kernels skip to places where a match may begin, the plain rule of
/// Core_TextSearch.h decides there and in irregular text. Same results as the plain rule alone.
#pragma once

#include "Core_Text.h"
#include "Core_TextSearch.h"

#include <vlmcore/memory.h>

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

/// A long needle with its failure function, so that no character of the text is looked at twice (the method of Knuth,
/// Morris and Pratt). It takes twelve bytes of memory for each character of the needle.
template <class Rules>
class CNeedleTable {
public:
    CNeedleTable() = default;
    CNeedleTable(CNeedleTable const&) = delete;
    CNeedleTable& operator=(CNeedleTable const&) = delete;
    ~CNeedleTable()
    {
        if (m_borders != nullptr) [[unlikely]]
            Memory::FreeQuietly(m_borders);
    }

    [[nodiscard]] bool IsMade() const { return m_borders != nullptr; }

    /// False without the memory for it.
    template <class NeedleRules>
    [[nodiscard]] bool TryMake(u8 const* needle, u64 length)
    {
        if (!Memory::IsInitialized())
            return false;
        m_borders = static_cast<u64*>(Memory::Malloc(length * (sizeof(u64) + sizeof(u32)), EHeap::Pool8));
        if (m_borders == nullptr)
            return false;
        m_codePoints = reinterpret_cast<u32*>(m_borders + length);
        m_length = length;
        u64 border = 0;
        for (u64 index = 0; index < length; ++index) {
            auto const [codePoint, size] = NeedleRules::Read(needle);
            needle += size;
            m_codePoints[index] = codePoint;
            if (index != 0)
                border = Extend(border, codePoint);
            m_borders[index] = border;
        }
        return true;
    }

    /// Calls `onMatch` with the index and the end of each occurrence at or behind `from`, overlapping ones too, until
    /// it returns false. Returns the terminator when it never did.
    template <class OnMatch>
    SPosition Walk(SPosition from, OnMatch&& onMatch) const
    {
        u64 matched = 0;
        while (!Encodings::IsEnd<Rules>(from.place)) {
            auto const [codePoint, size] = Rules::Read(from.place);
            from.place += size;
            ++from.index;
            matched = Extend(matched == m_length ? m_borders[matched - 1] : matched, codePoint);
            if (matched == m_length && !onMatch(from.index - m_length, from.place))
                break;
        }
        return from;
    }

private:
    /// How much of the needle's beginning ends here when `matched` of it ended in front of the code point.
    [[nodiscard]] u64 Extend(u64 matched, u32 codePoint) const
    {
        while (matched != 0 && m_codePoints[matched] != codePoint)
            matched = m_borders[matched - 1];
        return m_codePoints[matched] == codePoint ? matched + 1 : 0;
    }

    u64* m_borders = nullptr; ///< for each beginning of the needle the longest other one that it ends with
    u32* m_codePoints = nullptr;
    u64 m_length = 0;
};

/// Finds one needle, again and again, always further on in one text. Attempts that fail late cost as much as they have
/// matched; where that happens too often with a long needle, a table takes over, which keeps the time linear.
template <class Rules, class NeedleRules>
class CTextFinder {
public:
    /// `needle` is not empty.
    explicit CTextFinder(u8 const* needle) : m_needle(needle)
    {
        bool isWhole = true;
        bool isAtEnd = false;
        MakePlan<Rules>(m_plan, [&, place = needle]() mutable -> u32 {
            isAtEnd = Encodings::IsEnd<NeedleRules>(place);
            if (isAtEnd)
                return 0;
            auto const [codePoint, size] = NeedleRules::Read(place);
            place += size;
            isWhole = isWhole && codePoint != 0;
            return codePoint;
        });
        m_plan.isUsable = m_plan.isUsable && isWhole;
        m_isLong = !isAtEnd && Seek<NeedleRules>(needle, LongNeedle).index == LongNeedle;
    }

    [[nodiscard]] SMatch Find(SPosition from)
    {
        if (m_isLong) [[unlikely]]
            return FindLong(from);
        // By value: what is read through `this` is read anew at every place.
        return FindPlanned<Rules>(
            from, m_plan, [needle = m_needle](u8 const* place) { return MatchAt<Rules, NeedleRules>(place, needle); });
    }

    /// Index of the last occurrence at or behind `from`.
    [[nodiscard]] u64 FindLast(SPosition from)
    {
        u64 found = ~u64{0};
        for (; !Encodings::IsEnd<Rules>(from.place); ++from.index) {
            if (m_table.IsMade()) {
                m_table.Walk(from, [&found](u64 index, u8 const*) {
                    found = index;
                    return true;
                });
                return found;
            }
            SMatch const match = Find(from);
            if (match.end == nullptr)
                break;
            found = match.begin.index;
            from = match.begin;
            from.place += Rules::GetSize(from.place);
            if (m_isLong)
                static_cast<void>(IsSlow(from.place)); // occurrences overlap here: they cost what failures do
        }
        return found;
    }

private:
    static constexpr u64 LongNeedle = TextKernels::SNeedle::Capacity;
    static constexpr u64 AllowedSteps = 4096;
    static constexpr u64 AllowedStepsPerByte = 4;

    VLM_SEPARATE SMatch FindLong(SPosition from)
    {
        if (m_start == nullptr)
            m_start = from.place;
        bool isSlow = false;
        if (!m_table.IsMade()) {
            SMatch const match = FindPlanned<Rules>(from, m_plan, [&](u8 const* place) {
                u8 const* const end = MatchAt<Rules, NeedleRules>(place, m_needle, m_steps);
                isSlow = end == nullptr && IsSlow(place);
                return isSlow ? place : end;
            });
            if (!isSlow)
                return match;
            from = match.begin;
        }
        return FindByTable(from);
    }

    /// True when the table is to take over, which is made then.
    [[nodiscard]] bool IsSlow(u8 const* place)
    {
        if (m_steps <= m_allowed + static_cast<u64>(place - m_start) * AllowedStepsPerByte)
            return false;
        // A table pays when the attempts have cost as much as it does.
        if (m_length == 0) {
            m_length = Text::CountCharacters<NeedleRules>(m_needle);
            m_allowed = AllowedSteps + m_length;
            return IsSlow(place);
        }
        if (m_table.template TryMake<NeedleRules>(m_needle, m_length))
            return true;
        m_allowed = ~u64{0} / 2; // the plain way goes on
        return false;
    }

    [[nodiscard]] SMatch FindByTable(SPosition from) const
    {
        u64 found = 0;
        u8 const* end = nullptr;
        SPosition const last = m_table.Walk(from, [&](u64 index, u8 const* place) {
            found = index;
            end = place;
            return false;
        });
        if (end == nullptr)
            return {last, nullptr};
        return {{Seek<Rules>(from.place, found - from.index).place, found}, end};
    }

    u8 const* m_needle;
    SPlan m_plan;
    bool m_isLong;
    u8 const* m_start = nullptr; ///< where the first search began
    u64 m_steps = 0;             ///< characters looked at by attempts since
    u64 m_allowed = AllowedSteps;
    u64 m_length = 0; ///< of the needle, 0 while not counted
    CNeedleTable<Rules> m_table;
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
