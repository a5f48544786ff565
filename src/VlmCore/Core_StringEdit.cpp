#include "Core_Text.h"
#include "Core_TextBuilder.h"
#include "Core_TextFind.h"

#include <vlmcore/strings.h>

namespace Velmor {

using namespace Encodings;
using namespace TextSearch;

namespace {

constexpr u8 EmptyText[4] = {};

/// The first unit of a text; that of an empty one for null.
u8 const* TextOf(IString const& text)
{
    return text.GetData() != nullptr ? AsBytes(text.GetData()) : EmptyText;
}

/// A text in the encoding of `text`: `describe` is called with its rules, its first unit and the output of each pass.
template <class Describe>
CMutableString BuildFrom(IString const& text, Describe const& describe)
{
    CMutableString result;
    Dispatch(text.GetEncoding(), [&](auto rules) {
        TextBuilder::Build<decltype(rules)>(result, text.GetEncoding(),
                                            [&](auto& out) { describe(rules, TextOf(text), out); });
    });
    return result;
}

/// The same for editing character by character from `start` on: everything in front of it is copied, then `edit` is
/// called with each character and its place and either writes something for it or has it copied by returning false.
template <class Edit>
CMutableString EditFrom(IString const& text, u64 start, Edit const& edit)
{
    return BuildFrom(text, [&](auto rules, u8 const* self, auto& out) {
        using Rules = decltype(rules);
        u8 const* unwritten = self;
        for (u8 const* place = Seek<Rules>(self, start).place; !IsEnd<Rules>(place);) {
            auto const [codePoint, size] = Rules::Read(place);
            u32 replacement = codePoint;
            if (edit(replacement)) {
                out.Copy(unwritten, static_cast<u64>(place - unwritten));
                out.Put(replacement);
                unwritten = place + size;
            }
            place += size;
        }
        out.Copy(unwritten, Text::GetTextSize<Rules>(unwritten));
    });
}

} // namespace

CMutableString IString::GetSubstring(u64 start, u64 end) const
{
    return BuildFrom(*this, [=](auto rules, u8 const* self, auto& out) {
        using Rules = decltype(rules);
        u8 const* const from = TextRules::Advance<Rules>(self, start);
        u8 const* const to = TextRules::Advance<Rules>(from, end > start ? end - start : 0);
        out.Copy(from, static_cast<u64>(to - from));
    });
}

CMutableString IString::Replace(unsigned int from, unsigned int to, u64 start) const
{
    return EditFrom(*this, start, [=](u32& codePoint) {
        if (codePoint != from)
            return false;
        codePoint = to;
        return true;
    });
}

CMutableString IString::MapToCopy(TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1> const& maps) const
{
    return EditFrom(*this, 0, [&](u32& codePoint) { return MapCodepoint(codePoint, maps); });
}

CMutableString IString::Replace(CString const& from, CString const& to, u64 start) const
{
    return BuildFrom(*this, [&](auto rules, u8 const* self, auto& out) {
        using Rules = decltype(rules);
        u8 const* unwritten = self;
        if (!from.IsEmpty()) {
            Dispatch(from.GetEncoding(), [&](auto needleRules) {
                CTextFinder<Rules, decltype(needleRules)> finder(TextOf(from));
                SPosition place = Seek<Rules>(self, start);
                for (;;) {
                    SMatch const match = finder.Find(place);
                    if (match.end == nullptr)
                        return;
                    out.Copy(unwritten, static_cast<u64>(match.begin.place - unwritten));
                    out.Convert(to);
                    unwritten = match.end;
                    place.place = match.end;
                }
            });
        }
        out.Copy(unwritten, Text::GetTextSize<Rules>(unwritten));
    });
}

CMutableString IString::Unescape(unsigned int escape, u64 start, u64 end) const
{
    return BuildFrom(*this, [=](auto rules, u8 const* self, auto& out) {
        using Rules = decltype(rules);
        SPosition from = Seek<Rules>(self, start);
        u8 const* unwritten = self;
        for (; from.index < end && !IsEnd<Rules>(from.place); ++from.index) {
            auto const [codePoint, size] = Rules::Read(from.place);
            if (codePoint == escape) {
                out.Copy(unwritten, static_cast<u64>(from.place - unwritten));
                unwritten = from.place + size;
                // What the escape protects is no escape itself.
                if (!IsEnd<Rules>(unwritten)) {
                    from.place = unwritten + Rules::GetSize(unwritten);
                    ++from.index;
                    continue;
                }
            }
            from.place += size;
        }
        out.Copy(unwritten, Text::GetTextSize<Rules>(unwritten));
    });
}

CMutableString IString::Append(CString const& text) const
{
    return BuildFrom(*this, [&](auto, u8 const*, auto& out) {
        out.Convert(CString(*this));
        out.Convert(text);
    });
}

CMutableString IString::Prepend(CString const& text) const
{
    return BuildFrom(*this, [&](auto, u8 const*, auto& out) {
        out.Convert(text);
        out.Convert(CString(*this));
    });
}

CMutableString IString::Join(CString const& separator, TVector<CMutableString, 1> const& parts, u64 first, u64 last)
{
    if (parts.IsEmpty())
        return CMutableString("");
    u64 const final = last < parts.GetCount() ? last : parts.GetCount() - 1;
    return BuildFrom(parts[final], [&](auto, u8 const*, auto& out) {
        for (u64 index = first < final ? first : final; index < final; ++index) {
            out.Convert(CString(parts[index]));
            out.Convert(separator);
        }
        out.Convert(CString(parts[final]));
    });
}

void IString::Split(CString const& separator, TVector<CMutableString, 1>& out, u64 start) const
{
    // `out` may own this very string: only the text, which does not move with it, is used below.
    CString const text(*this);
    u64 const before = out.GetCount();
    try {
        if (text.Count(separator, start) == 0) {
            out.Append(CMutableString(text));
            return;
        }
        Dispatch(text.GetEncoding(), [&](auto rules) {
            using Rules = decltype(rules);
            auto const append = [&](u8 const* from, u8 const* to) {
                if (from == to)
                    return;
                CMutableString piece;
                TextBuilder::Build<Rules>(piece, text.GetEncoding(),
                                          [=](auto& output) { output.Copy(from, static_cast<u64>(to - from)); });
                out.Append(static_cast<CMutableString&&>(piece));
            };
            Dispatch(separator.GetEncoding(), [&](auto separatorRules) {
                CSimpleMatcher<decltype(separatorRules)> matcher(TextOf(separator));
                u8 const* piece = TextOf(text);
                u8 const* partial = piece;
                u8 const* place = Seek<Rules>(piece, start).place;
                while (!IsEnd<Rules>(place)) {
                    auto const [codePoint, size] = Rules::Read(place);
                    if (matcher.IsAtStart())
                        partial = place;
                    place += size;
                    if (matcher.Step(codePoint)) {
                        append(piece, partial);
                        piece = place;
                    }
                }
                append(piece, place);
            });
        });
    }
    catch (...) {
        out.Resize(before);
        throw;
    }
}

} // namespace Velmor
