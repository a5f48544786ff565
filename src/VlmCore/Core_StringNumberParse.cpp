#include "Core_FloatEnvironment.h"

#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/strings.h>

#include <algorithm>
#include <limits>

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

    /// Takes in the plain decimal digits at the position, and returns how many there were.
    u64 ReadDigits(u64& value)
    {
        using Unit = typename Rules::Unit;
        u8 const* const start = m_next;
        auto const digit = [this](u64 index) {
            return u32{Encodings::Load<Unit>(m_next + index * Rules::UnitSize)} - '0';
        };
        // Four at a time, so that they do not wait for each other; none is read behind one that is no digit.
        for (;;) {
            u32 const a = digit(0);
            if (a >= 10)
                break;
            u32 const b = digit(1);
            if (b >= 10) {
                value = value * 10 + a;
                m_next += Rules::UnitSize;
                break;
            }
            u32 const c = digit(2);
            if (c >= 10) {
                value = value * 100 + (a * 10 + b);
                m_next += 2 * Rules::UnitSize;
                break;
            }
            u32 const d = digit(3);
            if (d >= 10) {
                value = value * 1000 + (a * 100 + b * 10 + c);
                m_next += 3 * Rules::UnitSize;
                break;
            }
            value = value * 10000 + ((a * 10 + b) * 100 + (c * 10 + d));
            m_next += 4 * Rules::UnitSize;
        }
        return static_cast<u64>(m_next - start) / Rules::UnitSize;
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
    for (u64 i = 0;; ++i) {
        u32 const digit = GetHexDigit(reader.Read());
        if (digit >= 16)
            return value;
        if (order == EBinaryEncoding::BigEndian)
            value = value * 16 + digit;
        // The two digits of a byte trade places; digits behind the sixteenth have no place in 64 bits.
        else if (u64 const shift = 4 * (i % 2 == 0 ? i + 1 : i - 1); shift < 64)
            value |= u64{digit} << shift;
    }
}

template <class Rules>
u64 ReadUnsigned(TReader<Rules> reader, EBinaryEncoding::Type order)
{
    u64 value = 0;
    for (;;) {
        reader.ReadDigits(value);
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

/// The digits of a decimal number in front of the point and behind it.
struct SDecimal {
    u64 whole;
    u64 fraction;
    u64 fractionDigits;
};

template <class Rules>
SDecimal ReadDecimal(TReader<Rules> reader)
{
    u64 whole = 0;
    u32 codePoint;
    for (;;) {
        reader.ReadDigits(whole);
        codePoint = reader.Read();
        // (A digit here is one that only decodes to one, from an overlong form.)
        if (codePoint - '0' < 10)
            whole = whole * 10 + (codePoint - '0');
        else if (codePoint != '-')
            break;
    }
    u64 fraction = 0;
    u64 fractionDigits = 0;
    if (codePoint == '.' || codePoint == ',') {
        for (;;) {
            fractionDigits += reader.ReadDigits(fraction);
            codePoint = reader.Read();
            if (codePoint - '0' >= 10)
                break;
            fraction = fraction * 10 + (codePoint - '0');
            ++fractionDigits;
        }
    }
    return {whole, fraction, fractionDigits};
}

/// Up to here a power of ten is a floating-point number itself.
constexpr u64 MostExactDigits = 22;
constexpr f64 ExactPowersOfTen[MostExactDigits + 1] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                       1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                       1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

/// The divisor grows digit by digit, and rounds as it does; a number with more digits behind the point than it has room
/// for is whole.
f64 ToFloating(u64 whole, u64 fraction, u64 fractionDigits)
{
    constexpr u64 MostDigits = std::numeric_limits<f64>::max_exponent10;
    if (fractionDigits > MostDigits)
        return static_cast<f64>(whole);
    u64 const exactDigits = std::min(fractionDigits, MostExactDigits);
    f64 divisor = ExactPowersOfTen[exactDigits];
    for (u64 count = fractionDigits - exactDigits; count != 0; --count)
        divisor *= 10;
    return static_cast<f64>(fraction) / divisor + static_cast<f64>(whole);
}

bool StartsWithMinus(IString const& text)
{
    return WithReader(text, [](auto reader) { return reader.Read() == '-'; });
}

} // namespace

u64 IString::ParseUnsignedInteger(EBinaryEncoding::Type order) const
{
    return WithReader(*this, [order](auto reader) { return ReadUnsigned(reader, order); });
}

i64 IString::ParseInteger(EBinaryEncoding::Type order) const
{
    u64 const magnitude = ParseUnsignedInteger(order);
    return static_cast<i64>(StartsWithMinus(*this) ? 0 - magnitude : magnitude);
}

f64 IString::ToDouble() const
{
    SDecimal const decimal = WithReader(*this, [](auto reader) { return ReadDecimal(reader); });
    f64 const magnitude =
        CallInDefaultFloatEnvironment(&ToFloating, decimal.whole, decimal.fraction, decimal.fractionDigits);
    return StartsWithMinus(*this) ? -magnitude : magnitude;
}

} // namespace Velmor
