/// \file
/// Builds JSON text, UTF-8, in a buffer that grows.
#pragma once

#include <vlmcore/types.h>

namespace Velmor {

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
    /// Appends a number in decimal.
    void AppendDecimal(u64 value);

    /// Appends the inside of a JSON string: quotes, backslashes and control characters escaped, valid UTF-8 as it
    /// stands, a byte that belongs to no character as the code point of its value.
    void AppendEscaped(char const* text);
    /// The same with "&", "<" and ">" as "&amp;", "&lt;" and "&gt;": viewers show symbol names as markup.
    void AppendEscapedMarkup(char const* text);

    /// Where text may be written behind the end, as far as there is room, and taken in: it ends at `end` then.
    [[nodiscard]] char* GetEnd() { return m_data + m_size; }
    void ExtendTo(char const* end) { m_size = static_cast<u64>(end - m_data); }
    /// Cuts the text to its first `size` bytes.
    void Truncate(u64 size) { m_size = size; }
    /// Drops the first `size` bytes.
    void RemoveFront(u64 size);
    /// Makes room for `size` bytes more, so that appending them cannot fail.
    void Reserve(u64 size)
    {
        if (!HasRoom(size)) [[unlikely]]
            Grow(size);
    }
    [[nodiscard]] bool HasRoom(u64 size) const { return size <= m_capacity - m_size; }

private:
    void AppendPlain(char const*& text, bool isMarkup);
    void AppendEscapedUnit(char const*& text);
    void Grow(u64 size);

    char* m_data = nullptr;
    u64 m_size = 0;
    u64 m_capacity = 0;
};

} // namespace Velmor
