// Text work of the XML tokenizer: characters of a sized buffer, trimming, entity references.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::XMLText {

[[nodiscard]] constexpr bool IsWhitespace(u32 codePoint)
{
    return codePoint == 0x20 || codePoint == 0x09 || codePoint == 0x0D || codePoint == 0x0A;
}

/// True for a code point of the ranges NameLowChar to NameHiChar.
[[nodiscard]] bool IsNameCharacter(u32 codePoint);

/// Bytes of a character by its lead byte: IString::UTF8SizeTable. A zero byte is a character like any other here.
[[nodiscard]] constexpr u64 GetStride(u8 lead)
{
    return lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

/// Code point of a character that lies wholly in the buffer; continuation bytes are not checked, and may be anything.
[[nodiscard]] constexpr u32 Decode(u8 const* character)
{
    u32 const lead = character[0];
    if (lead < 0xC0)
        return lead < 0x80 ? lead : 0;
    u32 const second = character[1] & 0x3Fu;
    if (lead < 0xE0)
        return (lead & 0x1F) << 6 | second;
    u32 const third = character[2] & 0x3Fu;
    if (lead < 0xF0)
        return (lead & 0x0F) << 12 | second << 6 | third;
    return (lead & 0x0F) << 18 | second << 12 | third << 6 | (character[3] & 0x3Fu);
}

/// A range of bytes of a buffer, by offsets.
struct SRange {
    u32 begin;
    u32 end;
};

/// Drops the white space at both ends, byte by byte.
[[nodiscard]] SRange Trim(u8 const* buffer, SRange range);

/// What DecodeReferences found.
struct SDecoded {
    u32 end;      // offset behind the last byte written
    u32 consumed; // offset behind the last byte taken: the end, unless a partial text ends inside a reference
};

/// Copies a text to `target`, which is not behind its own begin, and replaces its entity references. A partial text is
/// taken up to an "&" whose reference more text may complete. `insideLongReference` says that the text begins inside a
/// reference whose name is already too long, which is dropped up to its semicolon, and is set when a partial text ends
/// so.
SDecoded DecodeReferences(u8* buffer, SRange text, u32 target, bool partial, bool& insideLongReference);

} // namespace Velmor::XMLText
