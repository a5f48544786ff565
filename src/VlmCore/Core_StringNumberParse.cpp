#include <vlmcore/strings.h>

#include "Core_NumberText.h"

#include <type_traits>

namespace Velmor {
namespace {

/// Reads code points one by one. The terminator reads as 0, and so does a character that decodes to 0; both end a
/// number.
template <class Unit>
class TReader {
public:
    explicit TReader(void const* text) : m_next(static_cast<Unit const*>(text)) {}

    /// The code point at the position; steps behind it. Must not be called again after a 0.
    u32 Read()
    {
        u32 const unit = *m_next;
        if constexpr (sizeof(Unit) == 1)
            return unit < 0x80 ? (++m_next, unit) : ReadLong(unit);
        else if constexpr (sizeof(Unit) == 2)
            return (unit & 0xF800) != 0xD800 ? (++m_next, unit) : ReadPair(unit);
        else
            return ++m_next, unit;
    }

private:
    /// A character of several bytes. One that the terminator cuts short reads as if zeros followed.
    u32 ReadLong(u32 lead)
    {
        if ((lead & 0xC0) == 0x80)
            return 0;
        u32 const more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
        u32 codePoint = lead & (more == 1 ? 0x1F : 0x0F);
        ++m_next;
        for (u32 i = 0; i < more; ++i) {
            u32 const unit = *m_next;
            if (unit != 0)
                ++m_next;
            codePoint = (codePoint << 6) | (unit & 0x3F);
        }
        return codePoint;
    }

    u32 ReadPair(u32 high)
    {
        u32 const low = *++m_next;
        if (low != 0)
            ++m_next;
        return ((high & 0x7FF) << 9) | (low & 0x3FF);
    }

    Unit const* m_next;
};

/// Calls `read` with a reader for the text's encoding; 0 for null text.
template <class Read>
auto WithReader(IString const& text, Read read) -> std::invoke_result_t<Read, TReader<u8>>
{
    void const* const data = text.GetData();
    if (data == nullptr)
        return 0;
    switch (text.GetEncoding()) {
    case EStringEncoding::UTF8:
        return read(TReader<u8>(data));
    case EStringEncoding::UTF16:
        return read(TReader<char16_t>(data));
    default:
        return read(TReader<char32_t>(data));
    }
}

/// What a code point stands for as a digit; 16 or more when it is none.
constexpr u32 GetHexDigit(u32 codePoint)
{
    if (codePoint - '0' < 10)
        return codePoint - '0';
    u32 const letter = (codePoint | 0x20) - 'a';
    return letter < 6 ? letter + 10 : 16;
}

template <class Unit>
u64 ReadHex(TReader<Unit> reader, u64 value, EBinaryEncoding::Type order)
{
    for (u32 i = 0;; ++i) {
        u32 const digit = GetHexDigit(reader.Read());
        if (digit >= 16)
            return value;
        if (order == EBinaryEncoding::BigEndian)
            value = value * 16 + digit;
        // The two digits of a byte trade places; digits behind the sixteenth have no place in 64 bits.
        else if (u32 const shift = 4 * (i % 2 == 0 ? i + 1 : i - 1); shift < 64)
            value |= u64{digit} << shift;
    }
}

template <class Unit>
u64 ReadUnsigned(TReader<Unit> reader, EBinaryEncoding::Type order)
{
    u64 value = 0;
    for (;;) {
        u32 const codePoint = reader.Read();
        u32 const digit = codePoint - '0';
        if (digit < 10)
            value = value * 10 + digit;
        else if (value != 0)
            return value;
        else if (codePoint == 'x')
            return ReadHex(reader, value, order);
        else if (codePoint != '-')
            return value;
    }
}

template <class Unit>
f64 ReadDouble(TReader<Unit> reader)
{
    u64 whole = 0;
    u32 codePoint;
    for (;;) {
        codePoint = reader.Read();
        if (codePoint - '0' < 10)
            whole = whole * 10 + (codePoint - '0');
        else if (codePoint != '-')
            break;
    }
    u64 fraction = 0;
    f64 divisor = 1;
    if (codePoint == '.' || codePoint == ',') {
        while ((codePoint = reader.Read()) - '0' < 10) {
            fraction = fraction * 10 + (codePoint - '0');
            divisor *= 10;
        }
    }
    return static_cast<f64>(fraction) / divisor + static_cast<f64>(whole);
}

bool StartsWithMinus(IString const& text)
{
    return WithReader(text, [](auto reader) { return u32{reader.Read() == '-'}; }) != 0;
}

} // namespace

u64 IString::ToUnsignedInteger(EBinaryEncoding::Type order) const
{
    return WithReader(*this, [order](auto reader) { return ReadUnsigned(reader, order); });
}

i64 IString::ToInteger(EBinaryEncoding::Type order) const
{
    u64 const magnitude = ToUnsignedInteger(order);
    return static_cast<i64>(StartsWithMinus(*this) ? 0 - magnitude : magnitude);
}

f64 IString::ToDouble() const
{
    f64 const magnitude = WithReader(*this, [](auto reader) { return ReadDouble(reader); });
    return StartsWithMinus(*this) ? -magnitude : magnitude;
}

} // namespace Velmor
