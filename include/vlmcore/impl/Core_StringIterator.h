/// \file
/// CGenericStringIterator: a position in a text of any encoding, and the range that `for` walks.
#pragma once

#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/types.h>

#include <iterator>

namespace Velmor {

class IString;

/// A position in a text. It stays inside: stepping forward ends at the terminator, stepping backward at the start.
/// Valid as long as the text, not the string object; changing the text invalidates it. Also a standard bidirectional
/// iterator over code points.
class CGenericStringIterator {
public:
    using value_type = u32;
    using difference_type = std::ptrdiff_t;
    using reference = u32;
    using pointer = void;
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::bidirectional_iterator_tag;

    /// The end of no text.
    CGenericStringIterator() = default;
    /// The start of a text; IString::GetIterator is the usual way.
    CGenericStringIterator(IString const* source, void const* data, EStringEncoding::Type encoding)
        : m_source(source), m_data(static_cast<u8 const*>(data)), m_encoding(encoding)
    {
    }

    /// The object that this came from; it may be gone while the text is still there.
    [[nodiscard]] IString const* GetSource() const { return m_source; }
    /// Code points in front of the position.
    [[nodiscard]] u64 GetIndex() const { return m_index; }
    /// Bytes in front of the position.
    [[nodiscard]] u64 GetByteOffset() const { return m_byteOffset; }
    [[nodiscard]] bool IsAtEnd() const
    {
        return m_data == nullptr || Encodings::Dispatch(m_encoding, [this](auto rules) {
                   return Encodings::IsEnd<decltype(rules)>(m_data + m_byteOffset);
               });
    }

    /// The code point at the position; 0 at the end.
    [[nodiscard]] u32 operator*() const
    {
        if (m_data == nullptr)
            return 0;
        return Encodings::Dispatch(m_encoding,
                                   [this](auto rules) { return rules.Read(m_data + m_byteOffset).codePoint; });
    }

    /// One character forward; stays where it is at the end.
    CGenericStringIterator& operator++()
    {
        if (!IsAtEnd()) {
            m_byteOffset +=
                Encodings::Dispatch(m_encoding, [this](auto rules) { return rules.GetSize(m_data + m_byteOffset); });
            ++m_index;
        }
        return *this;
    }

    /// One character back; stays where it is at the start. In malformed text a step back may be longer or shorter than
    /// the step forward was, as the reverse strides have it.
    CGenericStringIterator& operator--()
    {
        if (m_byteOffset != 0) {
            m_byteOffset -= Encodings::Dispatch(
                m_encoding, [this](auto rules) { return rules.GetSizeBefore(m_data + m_byteOffset, m_data); });
            m_index -= m_index != 0 ? 1 : 0;
        }
        return *this;
    }

    CGenericStringIterator operator++(int)
    {
        CGenericStringIterator const before = *this;
        ++*this;
        return before;
    }

    CGenericStringIterator operator--(int)
    {
        CGenericStringIterator const before = *this;
        --*this;
        return before;
    }

    /// `count` steps forward, as far as the end.
    CGenericStringIterator& operator+=(u64 count)
    {
        for (; count != 0 && !IsAtEnd(); --count)
            ++*this;
        return *this;
    }

    /// `count` steps back, as far as the start.
    CGenericStringIterator& operator-=(u64 count)
    {
        for (; count != 0 && m_byteOffset != 0; --count)
            --*this;
        return *this;
    }

    /// Equal positions in the same text.
    friend bool operator==(CGenericStringIterator const& left, CGenericStringIterator const& right)
    {
        return left.m_data == right.m_data && left.m_byteOffset == right.m_byteOffset;
    }
    friend bool operator==(CGenericStringIterator const& position, std::default_sentinel_t)
    {
        return position.IsAtEnd();
    }

private:
    IString const* m_source = nullptr;
    u8 const* m_data = nullptr;
    EStringEncoding::Type m_encoding = EStringEncoding::UTF8;
    u64 m_index = 0;
    u64 m_byteOffset = 0;
};

static_assert(sizeof(CGenericStringIterator) == 40, "source, data, encoding, index, byte offset");

/// The code points of a text from a position to its end. A view: valid as long as the text.
class CCodePoints {
public:
    /// From `first` to the terminator.
    explicit CCodePoints(CGenericStringIterator const& first) : m_first(first) {}

    [[nodiscard]] CGenericStringIterator begin() const { return m_first; }
    [[nodiscard]] std::default_sentinel_t end() const { return std::default_sentinel; }

private:
    CGenericStringIterator m_first;
};

} // namespace Velmor
