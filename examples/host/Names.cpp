#include "Names.h"

#include "TextFile.h"

#include <cstring>

using namespace Velmor;

namespace {

// Lone surrogates pass as well: they are how the library spells what is no text in a name.
u64 MeasureNameCharacter(u8 const* text, u64 size)
{
    bool const isSurrogate =
        size >= 3 && text[0] == 0xED && text[1] >= 0xA0 && text[1] <= 0xBF && (text[2] & 0xC0) == 0x80;
    return isSurrogate ? 3 : MeasureUTF8Character(text, size);
}

u32 DecodeUTF8(u8 const* text, u64 length)
{
    if (length == 1)
        return text[0];
    u32 codePoint = text[0] & (0x7Fu >> length);
    for (u64 index = 1; index < length; ++index)
        codePoint = codePoint << 6 | (text[index] & 0x3Fu);
    return codePoint;
}

void AppendUTF8(TVector<char>& text, u32 codePoint)
{
    constexpr u32 Leads[5] = {0, 0, 0xC0, 0xE0, 0xF0};
    u32 const length = codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
    text.Append(static_cast<char>(Leads[length] | codePoint >> 6 * (length - 1)));
    for (u32 index = length - 1; index-- > 0;)
        text.Append(static_cast<char>(0x80 | (codePoint >> 6 * index & 0x3F)));
}

} // namespace

CMutableString ToSystemName(CString const& utf8)
{
    TVector<char16_t> units;
    if (!utf8.IsEmpty()) {
        u8 const* const text = static_cast<u8 const*>(utf8.GetData());
        u64 const size = std::strlen(static_cast<char const*>(utf8.GetData()));
        for (u64 offset = 0; offset < size;) {
            u64 const length = MeasureNameCharacter(text + offset, size - offset);
            u32 const codePoint = length == 0 ? 0xDC00u | text[offset] : DecodeUTF8(text + offset, length);
            if (codePoint >= 0x10000) {
                units.Append(static_cast<char16_t>(0xD800 | (codePoint - 0x10000) >> 10));
                units.Append(static_cast<char16_t>(0xDC00 | (codePoint & 0x3FF)));
            }
            else {
                units.Append(static_cast<char16_t>(codePoint));
            }
            offset += length == 0 ? 1 : length;
        }
    }
    units.Append(u'\0');
    return CString(units.GetData());
}

CMutableString FromSystemName(CString const& utf16)
{
    TVector<char> text;
    char16_t const* unit = utf16.IsEmpty() ? u"" : static_cast<char16_t const*>(utf16.GetData());
    while (*unit != 0) {
        u32 codePoint = *unit++;
        if (codePoint >= 0xD800 && codePoint < 0xDC00 && *unit >= 0xDC00 && *unit <= 0xDFFF)
            codePoint = 0x10000 + ((codePoint & 0x3FF) << 10 | (*unit++ & 0x3FFu));
        if (codePoint >= 0xDC80 && codePoint <= 0xDCFF)
            text.Append(static_cast<char>(codePoint & 0xFF));
        else
            AppendUTF8(text, codePoint);
    }
    text.Append('\0');
    return CString(text.GetData());
}
