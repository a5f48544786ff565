#include "Core_JSONText.h"

#include "Core_NumberText.h"

#include <vlmcore/memory.h>
#include <vlmcore/strings.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

namespace {

constexpr u64 SmallestCapacity = 4096;

/// Bytes of the well-formed UTF-8 character at `text`, 0 when there is none. By the standard's table, not by the
/// strings' own thresholds: readers of the file know only the former. The terminator ends every character early.
[[nodiscard]] u64 GetCharacterSize(char const* text)
{
    auto const at = [text](u64 index) { return static_cast<u8>(text[index]); };
    auto const isTail = [](u8 byte) { return (byte & 0xC0) == 0x80; };
    u8 const first = at(0);
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4 || !isTail(at(1)))
        return 0;
    if (first < 0xE0)
        return 2;
    u8 const second = at(1);
    if (first < 0xF0) {
        bool const isOverlong = first == 0xE0 && second < 0xA0;
        bool const isSurrogate = first == 0xED && second >= 0xA0;
        return !isOverlong && !isSurrogate && isTail(at(2)) ? 3 : 0;
    }
    bool const isOutside = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
    return !isOutside && isTail(at(2)) && isTail(at(3)) ? 4 : 0;
}

/// The ASCII characters that stand for themselves. The terminator is none.
struct SPlainBytes {
    bool isPlain[256];
};
constexpr SPlainBytes MakePlainBytes(bool isMarkup)
{
    SPlainBytes plain{};
    for (u32 byte = 0x20; byte < 0x80; ++byte)
        plain.isPlain[byte] = byte != '"' && byte != '\\' && !(isMarkup && (byte == '&' || byte == '<' || byte == '>'));
    return plain;
}
constexpr SPlainBytes PlainInText = MakePlainBytes(false);
constexpr SPlainBytes PlainInMarkup = MakePlainBytes(true);

} // namespace

CJSONText::~CJSONText()
{
    Memory::FreeQuietly(m_data);
}

// General memory: the text belongs to a thread that may outlive the pools at process exit.
void CJSONText::Grow(u64 size)
{
    u64 const capacity = std::max({SmallestCapacity, m_capacity + m_capacity / 2, m_size + size});
    char* const data = static_cast<char*>(Memory::Malloc(capacity, EHeap::General));
    if (data == nullptr)
        throw CBadAllocation();
    if (m_size != 0)
        std::memcpy(data, m_data, m_size);
    Memory::FreeQuietly(m_data);
    m_data = data;
    m_capacity = capacity;
}

void CJSONText::Append(char const* text)
{
    Append(text, std::strlen(text));
}

void CJSONText::Append(char const* text, u64 size)
{
    Reserve(size);
    std::memcpy(m_data + m_size, text, size);
    m_size += size;
}

void CJSONText::AppendDecimal(u64 value)
{
    u32 const count = NumberText::CountDigits(value);
    Reserve(count);
    m_size += count;
    NumberText::WriteDigits(value, GetEnd());
}

void CJSONText::AppendEscaped(char const* text)
{
    for (AppendPlain(text, false); *text != '\0'; AppendPlain(text, false))
        AppendEscapedUnit(text);
}

void CJSONText::AppendEscapedMarkup(char const* text)
{
    for (AppendPlain(text, true); *text != '\0'; AppendPlain(text, true)) {
        char const* const entity = *text == '&' ? "&amp;" : *text == '<' ? "&lt;" : *text == '>' ? "&gt;" : nullptr;
        if (entity == nullptr)
            AppendEscapedUnit(text);
        else {
            Append(entity);
            ++text;
        }
    }
}

/// Appends what needs no second look, most of every name, and steps over it.
void CJSONText::AppendPlain(char const*& text, bool isMarkup)
{
    SPlainBytes const& plain = isMarkup ? PlainInMarkup : PlainInText;
    char const* end = text;
    while (plain.isPlain[static_cast<u8>(*end)])
        ++end;
    if (end != text)
        Append(text, static_cast<u64>(end - text));
    text = end;
}

/// Appends one character, or one stray byte, and steps over it.
void CJSONText::AppendEscapedUnit(char const*& text)
{
    u8 const first = static_cast<u8>(*text);
    u64 const size = GetCharacterSize(text);
    if (first == '"' || first == '\\') {
        char const escaped[2] = {'\\', *text};
        Append(escaped, 2);
    }
    else if (first < 0x20 || size == 0) {
        constexpr char Digits[] = "0123456789ABCDEF";
        char const escaped[6] = {'\\', 'u', '0', '0', Digits[first >> 4], Digits[first & 15]};
        Append(escaped, 6);
    }
    else
        Append(text, size);
    text += std::max<u64>(size, 1);
}

void CJSONText::RemoveFront(u64 size)
{
    m_size -= size;
    std::memmove(m_data, m_data + size, m_size);
}

} // namespace Velmor
