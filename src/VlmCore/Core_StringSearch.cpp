#include "Core_TextFind.h"

#include <vlmcore/strings.h>

#include <cstring>

namespace Velmor {

using namespace Encodings;
using namespace TextSearch;

namespace {

/// Calls `action` with the rules of both texts and their first units; `otherwise` when one of them is empty.
template <class Result, class Action>
Result WithBoth(IString const& text, IString const& other, Result otherwise, Action&& action)
{
    if (text.IsEmpty() || other.IsEmpty())
        return otherwise;
    return Dispatch(text.GetEncoding(), [&](auto rules) {
        return Dispatch(other.GetEncoding(), [&](auto otherRules) {
            return action(rules, AsBytes(text.GetData()), otherRules, AsBytes(other.GetData()));
        });
    });
}

/// True for a code point that is one unit, which nothing else stands for where all units are characters by themselves.
template <class Rules>
bool IsOneUnit(u32 codePoint)
{
    return codePoint != 0 &&
           (Rules::UnitSize == 1   ? codePoint < 0x80
            : Rules::UnitSize == 2 ? codePoint <= 0xFFFF && !SUTF16::OpensPair(static_cast<u16>(codePoint))
                                   : true);
}

/// True when the characters from `place` on begin with those of `other`, neither cut differently: unit by unit in one
/// encoding, code point by code point in two.
template <class Rules, class OtherRules>
bool BeginsWith(u8 const* place, u8 const* other)
{
    if constexpr (Rules::Encoding == OtherRules::Encoding) {
        while (!IsEnd<Rules>(other)) {
            u64 const size = Rules::GetSize(other);
            if (IsEnd<Rules>(place) || Rules::GetSize(place) != size || std::memcmp(place, other, size) != 0)
                return false;
            place += size;
            other += size;
        }
        return true;
    }
    else {
        return MatchAt<Rules, OtherRules>(place, other) != nullptr;
    }
}

} // namespace

namespace {

/// Index of the first occurrence at or behind `from`, by the rules that hold for every text.
template <class Rules>
VLM_SEPARATE u64 FindFrom(SPosition from, u32 codePoint)
{
    SMatch const match = FindCodePointFast<Rules>(from, codePoint);
    return match.end != nullptr ? match.begin.index : IString::NotFound;
}

template <class Rules>
VLM_SEPARATE u64 FindFromIndex(u8 const* text, u32 codePoint, u64 start)
{
    SPosition const from = Seek<Rules>(text, start);
    return IsEnd<Rules>(text) || from.index != start ? IString::NotFound : FindFrom<Rules>(from, codePoint);
}

} // namespace

u64 IString::Find(unsigned int codePoint, u64 start) const
{
    if (m_data == nullptr)
        return NotFound;
    return Dispatch(m_encoding, [&](auto rules) {
        using Rules = decltype(rules);
        u8 const* const text = AsBytes(m_data);
        if (start != 0 || !IsOneUnit<Rules>(codePoint))
            return FindFromIndex<Rules>(text, codePoint, start);
        u8 const* const place = TextKernels::Get().findSimple[TextKernels::IndexOf<Rules>](text, codePoint);
        u32 const unit = Load<typename Rules::Unit>(place);
        u64 const index = static_cast<u64>(place - text) / Rules::UnitSize;
        return unit == codePoint ? index : unit == 0 ? NotFound : FindFrom<Rules>({place, index}, codePoint);
    });
}

u64 IString::Find(CString const& text, u64 start) const
{
    auto const findInBlock = TextKernels::Get().findInBlock;
    if (start == 0 && findInBlock != nullptr && Impl::AreBothUTF8(*this, text) && *AsBytes(text.m_data) != 0) {
        if (u64 const found = findInBlock(AsBytes(m_data), AsBytes(text.m_data)); found != TextKernels::Undecided)
            return found;
    }
    return WithBoth(*this, text, NotFound, [start](auto rules, u8 const* self, auto needleRules, u8 const* needle) {
        using Rules = decltype(rules);
        CTextFinder<Rules, decltype(needleRules)> finder(needle);
        SMatch const match = finder.Find(Seek<Rules>(self, start));
        return match.end != nullptr ? match.begin.index : NotFound;
    });
}

u64 IString::FindLast(unsigned int codePoint, u64 start) const
{
    if (IsEmpty())
        return NotFound;
    return Dispatch(m_encoding, [&](auto rules) {
        using Rules = decltype(rules);
        SPosition from = Seek<Rules>(AsBytes(m_data), start);
        u64 found = NotFound;
        while (from.index >= start) {
            SMatch const match = FindCodePointFast<Rules>(from, codePoint);
            if (match.end == nullptr)
                break;
            found = match.begin.index;
            if (IsEnd<Rules>(match.begin.place))
                break;
            from = {match.end, match.begin.index + 1};
        }
        return found;
    });
}

u64 IString::FindLast(CString const& text, u64 start) const
{
    return WithBoth(*this, text, NotFound, [start](auto rules, u8 const* self, auto needleRules, u8 const* needle) {
        using Rules = decltype(rules);
        CTextFinder<Rules, decltype(needleRules)> finder(needle);
        return finder.FindLast(Seek<Rules>(self, start));
    });
}

u64 IString::Count(CString const& text, u64 start) const
{
    return WithBoth(*this, text, u64{0}, [start](auto rules, u8 const* self, auto needleRules, u8 const* needle) {
        using Rules = decltype(rules);
        CSimpleMatcher<decltype(needleRules)> matcher(needle);
        u64 count = 0;
        for (u8 const* place = Seek<Rules>(self, start).place; !IsEnd<Rules>(place);) {
            auto const [codePoint, size] = Rules::Read(place);
            if (matcher.Step(codePoint))
                ++count;
            place += size;
        }
        return count;
    });
}

bool IString::StartsWith(CString const& text) const
{
    return WithBoth(*this, text, text.IsEmpty(), [](auto rules, u8 const* self, auto otherRules, u8 const* other) {
        return BeginsWith<decltype(rules), decltype(otherRules)>(self, other);
    });
}

bool IString::EndsWith(CString const& text) const
{
    u64 const length = GetLength();
    u64 const wanted = text.GetLength();
    return length >= wanted && GetSubstring(length - wanted) == text;
}

} // namespace Velmor
