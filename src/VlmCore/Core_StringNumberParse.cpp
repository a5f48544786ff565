#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/strings.h>

namespace Velmor {
namespace {

/// Reads code points one by one. The terminator reads as 0, and so does a character that decodes to 0; both end a
/// number, and nothing is read behind them.
template <class Rules>
class TReader {
public:
    explicit TReader(void const* text) : m_next(static_cast<u8 const*>(text)) {}

    u32 Read()
    {
        Encodings::SCharacter const character = Rules::Read(m_next);
        m_next += character.size;
        return character.codePoint;
    }

private:
    u8 const* m_next;
};

/// Calls `read` with a reader for the text's encoding; null text reads as empty.
template <class Read>
auto WithReader(IString const& text, Read read)
{
    void const* const data = text.GetData();
    return Encodings::Dispatch(text.GetEncoding(), [&](auto rules) {
        static constexpr typename decltype(rules)::Unit nothing = 0;
        return read(TReader<decltype(rules)>(data != nullptr ? data : &nothing));
    });
}

/// What a code point stands for as a digit; 16 or more when it is none.
constexpr u32 GetHexDigit(u32 codePoint)
{
    if (codePoint - '0' < 10)
        return codePoint - '0';
    u32 const letter = (codePoint | 0x20) - 'a';
    return letter < 6 ? letter + 10 : 16;
}

template <class Rules>
u64 ReadHex(TReader<Rules> reader, u64 value, EBinaryEncoding::Type order)
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

template <class Rules>
u64 ReadUnsigned(TReader<Rules> reader, EBinaryEncoding::Type order)
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

template <class Rules>
f64 ReadDouble(TReader<Rules> reader)
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
    return WithReader(text, [](auto reader) { return reader.Read() == '-'; });
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
