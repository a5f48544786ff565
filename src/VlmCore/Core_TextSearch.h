/// \file
/// The plain rules of searching: a receiver's text and a needle, each in its own encoding, compared code point by code
/// point. Texts are terminated and never null.
#pragma once

#include <vlmcore/impl/Core_Encoding.h>

namespace Velmor::TextSearch {

/// A character position: where it lies and how many code points lie in front of it.
struct SPosition {
    u8 const* place;
    u64 index;
};

/// `count` characters on from the start of a text, or the terminator if it comes first.
template <class Rules>
[[nodiscard]] SPosition Seek(u8 const* text, u64 count)
{
    SPosition position{text, 0};
    for (; position.index != count && !Encodings::IsEnd<Rules>(position.place); ++position.index)
        position.place += Rules::GetSize(position.place);
    return position;
}

/// Where the match of the whole needle at `place` ends; null when there is none. Adds the characters it looked at to
/// `steps`.
template <class Rules, class NeedleRules>
[[nodiscard]] u8 const* MatchAt(u8 const* place, u8 const* needle, u64& steps)
{
    for (; !Encodings::IsEnd<NeedleRules>(needle); ++steps) {
        if (Encodings::IsEnd<Rules>(place))
            return nullptr;
        auto const [codePoint, size] = Rules::Read(place);
        auto const [wanted, wantedSize] = NeedleRules::Read(needle);
        if (codePoint != wanted)
            return nullptr;
        place += size;
        needle += wantedSize;
    }
    return place;
}

template <class Rules, class NeedleRules>
[[nodiscard]] u8 const* MatchAt(u8 const* place, u8 const* needle)
{
    u64 steps = 0;
    return MatchAt<Rules, NeedleRules>(place, needle, steps);
}

/// An occurrence; `end` is null when there is none, `begin` is then the terminator.
struct SMatch {
    SPosition begin;
    u8 const* end;
};

/// First occurrence of a needle that is not empty, at or behind `from`.
template <class Rules, class NeedleRules>
[[nodiscard]] SMatch FindText(SPosition from, u8 const* needle)
{
    for (; !Encodings::IsEnd<Rules>(from.place); ++from.index) {
        if (u8 const* const end = MatchAt<Rules, NeedleRules>(from.place, needle))
            return {from, end};
        from.place += Rules::GetSize(from.place);
    }
    return {from, nullptr};
}

/// First occurrence of a code point at or behind `from`; a 0 is found in the terminator.
template <class Rules>
[[nodiscard]] SMatch FindCodePoint(SPosition from, u32 wanted)
{
    for (;; ++from.index) {
        auto const [codePoint, size] = Rules::Read(from.place);
        if (codePoint == wanted)
            return {from, from.place + size};
        if (Encodings::IsEnd<Rules>(from.place))
            return {from, nullptr};
        from.place += size;
    }
}

/// The matching of Count and Split: it follows the needle along the text and starts over at its beginning when a code
/// point differs, without comparing that code point again. Kept: what counts as an occurrence depends on it.
template <class NeedleRules>
class CSimpleMatcher {
public:
    explicit CSimpleMatcher(u8 const* needle) : m_needle(needle), m_next(needle) {}

    /// True while no part of the needle has matched.
    [[nodiscard]] bool IsAtStart() const { return m_next == m_needle; }

    /// Takes the text's next code point; true when it completes the needle.
    [[nodiscard]] bool Step(u32 codePoint)
    {
        auto const [wanted, size] = NeedleRules::Read(m_next);
        m_next = codePoint == wanted ? m_next + size : m_needle;
        if (!Encodings::IsEnd<NeedleRules>(m_next))
            return false;
        m_next = m_needle;
        return true;
    }

private:
    u8 const* m_needle;
    u8 const* m_next;
};

} // namespace Velmor::TextSearch
