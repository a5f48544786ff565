#include <Core_XMLText.h>

#include <vlmcore/strings.h>
#include <vlmcore/xml_stream.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace Velmor {

u32 const CXMLStream::NameLowChar[16] = {0x3A,  0x41,   0x5F,   0x61,   0xC0,   0xD8,   0xF8,   0x370,
                                         0x37F, 0x200C, 0x2070, 0x2C00, 0x3001, 0xF900, 0xFDF0, 0x10000};
u32 const CXMLStream::NameHiChar[16] = {0x3A,   0x5A,   0x5F,   0x7A,   0xD6,   0xF6,   0x2FF,  0x37D,
                                        0x1FFF, 0x200D, 0x218F, 0x2FEF, 0xD7FF, 0xFDCF, 0xFFFD, 0xEFFFF};

namespace XMLText {

namespace {

constexpr u32 LongestName = 15; // code points of an entity name

// The named entities, and what each stands for.
struct SEntity {
    char const* name;
    u64 length;
    u8 character;
};
constexpr SEntity Entities[] = {{"amp", 3, '&'}, {"lt", 2, '<'}, {"gt", 2, '>'}, {"apos", 4, '\''}, {"quot", 4, '"'}};

/// Code points of a name, counted up to one more than an entity may have.
u32 CountCodePoints(u8 const* name, u64 size)
{
    u32 count = 0;
    for (u64 offset = 0; offset < size && count <= LongestName; offset += GetStride(name[offset]))
        ++count;
    return count;
}

/// The code point that a number sign and digits stand for; numbers are read by the rules of the strings.
u32 ReadNumber(u8 const* digits, u64 size)
{
    char text[4 * LongestName + 1];
    std::memcpy(text, digits, size);
    text[size] = 0;
    return static_cast<u32>(CString(text).ToUnsignedInteger(EBinaryEncoding::BigEndian));
}

/// The library's own UTF-8: no bits above bit 15 up to 0x3FFFF, a constant first byte from 0x40000 on.
u32 WriteCodePoint(u8* buffer, u32 target, u32 codePoint)
{
    if (codePoint < 0x80) {
        buffer[target++] = static_cast<u8>(codePoint);
        return target;
    }
    if (codePoint < 0x800) {
        buffer[target++] = static_cast<u8>(0xC0 | codePoint >> 6);
    }
    else {
        if (codePoint >= 0x40000)
            buffer[target++] = 0xE0;
        buffer[target++] = static_cast<u8>(0xE0 | (codePoint >> 12 & (codePoint < 0x40000 ? 0x0F : 0xFF)));
        buffer[target++] = static_cast<u8>(0x80 | (codePoint >> 6 & 0x3F));
    }
    buffer[target++] = static_cast<u8>(0x80 | (codePoint & 0x3F));
    return target;
}

/// Writes what the reference of that name stands for; nothing for an unknown one. Returns the offset behind it.
u32 WriteEntity(u8* buffer, u32 target, u8 const* name, u64 size)
{
    if (size > 1 && name[0] == '#') {
        u32 const codePoint = ReadNumber(name + 1, size - 1);
        if (codePoint == 0)
            return target;
        return WriteCodePoint(buffer, target, codePoint);
    }
    for (SEntity const& entity : Entities)
        if (size == entity.length && std::memcmp(name, entity.name, size) == 0) {
            buffer[target] = entity.character;
            return target + 1;
        }
    return target;
}

u8 const* FindByte(u8 const* buffer, u32 begin, u32 end, u8 byte)
{
    return begin < end ? static_cast<u8 const*>(std::memchr(buffer + begin, byte, end - begin)) : nullptr;
}

} // namespace

bool IsNameCharacter(u32 codePoint)
{
    u32 const* const high =
        std::lower_bound(std::begin(CXMLStream::NameHiChar), std::end(CXMLStream::NameHiChar), codePoint);
    return high != std::end(CXMLStream::NameHiChar) &&
           codePoint >= CXMLStream::NameLowChar[high - std::begin(CXMLStream::NameHiChar)];
}

SRange Trim(u8 const* buffer, SRange range)
{
    while (range.begin < range.end && IsWhitespace(buffer[range.begin]))
        ++range.begin;
    while (range.begin < range.end && IsWhitespace(buffer[range.end - 1]))
        --range.end;
    return range;
}

SDecoded DecodeReferences(u8* buffer, SRange text, u32 target, bool partial, bool& insideLongReference)
{
    u32 source = text.begin;
    if (insideLongReference) {
        u8 const* const semicolon = FindByte(buffer, source, text.end, ';');
        if (semicolon == nullptr)
            return {target, text.end};
        insideLongReference = false;
        source = static_cast<u32>(semicolon - buffer) + 1;
    }
    while (source < text.end) {
        u8 const* const found = FindByte(buffer, source, text.end, '&');
        u32 const plainEnd = found != nullptr ? static_cast<u32>(found - buffer) : text.end;
        if (target != source)
            std::memmove(buffer + target, buffer + source, plainEnd - source);
        target += plainEnd - source;
        if (found == nullptr)
            break;
        u32 const nameBegin = plainEnd + 1;
        u8 const* const semicolon = FindByte(buffer, nameBegin, text.end, ';');
        u32 const nameEnd = semicolon != nullptr ? static_cast<u32>(semicolon - buffer) : text.end;
        bool const tooLong = CountCodePoints(buffer + nameBegin, nameEnd - nameBegin) > LongestName;
        if (semicolon == nullptr) {
            if (partial && !tooLong)
                return {target, plainEnd};
            insideLongReference = partial;
            break;
        }
        if (!tooLong)
            target = WriteEntity(buffer, target, buffer + nameBegin, nameEnd - nameBegin);
        source = nameEnd + 1;
    }
    return {target, text.end};
}

} // namespace XMLText
} // namespace Velmor
