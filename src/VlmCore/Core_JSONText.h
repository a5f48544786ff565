/// \file
/// Builds JSON text, UTF-8, in a buffer that grows.
#pragma once

#include "Core_NumberText.h"

#include <vlmcore/types.h>

#include <cstring>

namespace Velmor {

/// Writes where room has been made: the quick way for text of a known form. A local object, so that it lives in registers.
class CJSONCursor {
public:
    /// Room that one number takes at most.
    static constexpr u64 NumberSize = 24;

    explicit CJSONCursor(char* at) : m_at(at) {}
    [[nodiscard]] char* GetPosition() const { return m_at; }

    template <u64 Size>
    void Append(char const (&text)[Size])
    {
        std::memcpy(m_at, text, Size - 1);
        m_at += Size - 1;
    }
    void Append(char const* text, u64 size)
    {
        std::memcpy(m_at, text, size);
        m_at += size;
    }
    /// A number in decimal, or as the format engine prints hexadecimal.
    void AppendDecimal(u64 value)
    {
        m_at += NumberText::CountDigits(value);
        NumberText::WriteDigits(value, m_at);
    }
    void AppendHex(u64 value)
    {
        m_at += NumberText::CountHex(value);
        NumberText::WriteHex(value, m_at);
    }

private:
    char* m_at;
};

/// Text under construction. Every append throws CBadAllocation when the buffer cannot grow, the text so far unchanged.
class CJSONText {
public:
    CJSONText() = default;
    CJSONText(CJSONText const&) = delete;
    CJSONText& operator=(CJSONText const&) = delete;
    ~CJSONText();

    [[nodiscard]] char* GetData() { return m_data; }
    [[nodiscard]] u64 GetSizeByte() const { return m_size; }

    /// Appends a text as it stands.
    void Append(char const* text);
    void Append(char const* text, u64 size);
    /// Appends a number in decimal, or as the format engine prints hexadecimal.
    void AppendDecimal(u64 value);
    void AppendHex(u64 value);

    /// Appends the inside of a JSON string: quotes, backslashes and control characters escaped, valid UTF-8 as it
    /// stands, a byte that belongs to no character as the code point of its value.
    void AppendEscaped(char const* text);
    /// The same with "&", "<" and ">" as "&amp;", "&lt;" and "&gt;": viewers show symbol names as markup.
    void AppendEscapedMarkup(char const* text);

    /// Appends what `write(cursor)` writes, `most` bytes at most.
    template <class Write>
    void AppendWith(u64 most, Write const& write)
    {
        Reserve(most);
        CJSONCursor cursor(m_data + m_size);
        write(cursor);
        m_size = static_cast<u64>(cursor.GetPosition() - m_data);
    }

    /// Cuts the text to its first `size` bytes.
    void Truncate(u64 size) { m_size = size; }
    /// Drops the first `size` bytes.
    void RemoveFront(u64 size);
    /// Makes room for `size` bytes more, so that appending them cannot fail.
    void Reserve(u64 size);

private:
    void AppendEscapedUnit(char const*& text);

    char* m_data = nullptr;
    u64 m_size = 0;
    u64 m_capacity = 0;
};

} // namespace Velmor
