#include "Core_FloatEnvironment.h"
#include "Core_FloatTruncate.h"
#include "Core_NumberText.h"

#include <vlmcore/math.h>
#include <vlmcore/strings.h>

#include <cmath>
#include <limits>

namespace Velmor {
namespace NumberText {
namespace {

/// What the digit rule needs to know of a floating-point type.
template <class Float>
struct SFraction;
template <>
struct SFraction<f32> {
    static constexpr f32 Threshold = 1e-6f;
    static constexpr u32 MostDigits = 7;
};
template <>
struct SFraction<f64> {
    static constexpr f64 Threshold = 1e-15;
    static constexpr u32 MostDigits = 17;
};

u32 CopyText(char const* text, u32 count, char* out)
{
    std::memcpy(out, text, count);
    return count;
}

/// One digit after the other until what they stand for is within the threshold of the fraction. The arithmetic is the
/// promise: each step rounds in the type's own precision, in this order.
template <class Float>
u32 WriteFraction(Float fraction, char* out)
{
    using SRule = SFraction<Float>;
    if (fraction <= SRule::Threshold) {
        *out = '0';
        return 1;
    }
    Float scaled = fraction;
    Float power = 1;
    Float sum = 0;
    u32 count = 0;
    do {
        scaled *= 10;
        power *= 10;
        // (By way of a signed integer, which is one instruction; an unsigned one is made of two, one of them out of
        // range. The number is far below 2^63.)
        u32 const digit = static_cast<u32>(static_cast<u64>(static_cast<i64>(scaled)) % 10);
        out[count++] = static_cast<char>('0' + digit);
        sum += static_cast<Float>(digit) / power;
    } while (count < SRule::MostDigits && fraction - sum > SRule::Threshold);
    return count;
}

/// What lies behind the point, without its sign.
template <class Float>
Float GetFraction(Float value, i64 whole)
{
    constexpr i64 FirstWithout = i64{1} << (std::numeric_limits<Float>::digits - 1); // from here on all are whole
    return whole > -FirstWithout && whole < FirstWithout ? std::fabs(value - static_cast<Float>(whole)) : Float{0};
}

template <class Float>
u32 WriteFloating(Float value, char* out)
{
    if (Math::IsNaN(value))
        return CopyText("NaN", 3, out);
    if (std::isinf(value))
        return value < 0 ? CopyText("-Inf", 4, out) : CopyText("Inf", 3, out);
    i64 const whole = TruncateToInteger(value);
    u32 count = CountInteger(whole);
    WriteInteger(whole, out + count);
    out[count++] = '.';
    return count + WriteFraction(GetFraction(value, whole), out + count);
}

} // namespace

u32 WriteFloat(f32 value, char* out)
{
    return CallInDefaultFloatEnvironment(&WriteFloating<f32>, value, out);
}

u32 WriteDouble(f64 value, char* out)
{
    return CallInDefaultFloatEnvironment(&WriteFloating<f64>, value, out);
}

} // namespace NumberText

namespace {

using namespace NumberText;

/// True when `count` characters and a terminator fit.
bool Fits(u64 count, char const* out, u64 outSize, EStringEncoding::Type encoding)
{
    return out != nullptr && (count + 1) * Encodings::GetUnitSize(encoding) <= outSize;
}

/// Writes ASCII characters and the terminator, which must fit; returns the bytes in front of the terminator.
u64 WriteText(char const* ascii, u64 count, char* out, EStringEncoding::Type encoding)
{
    u64 const width = Encodings::GetUnitSize(encoding);
    if (width == 1)
        std::memcpy(out, ascii, count);
    else if (width == 2)
        Widen<char16_t>(ascii, count, out);
    else
        Widen<char32_t>(ascii, count, out);
    std::memset(out + count * width, 0, width);
    return count * width;
}

/// The three kinds of integer text: how many characters, and how they are written in front of an end.
struct SSignedText {
    static u32 Count(i64 value) { return CountInteger(value); }
    static void Write(i64 value, char* end) { WriteInteger(value, end); }
};
struct SUnsignedText {
    static u32 Count(u64 value) { return CountDigits(value); }
    static void Write(u64 value, char* end) { WriteDigits(value, end); }
};
struct SHexText {
    static u32 Count(u64 value) { return CountHex(value); }
    static void Write(u64 value, char* end) { WriteHex(value, end); }
};

template <class Text, class Value>
[[gnu::noinline]] u64 RenderWide(Value value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    u32 const count = Text::Count(value);
    if (!Fits(count, out, outSize, encoding))
        return 0;
    char ascii[IntegerCapacity];
    Text::Write(value, ascii + count);
    return WriteText(ascii, count, out, encoding);
}

/// UTF-8 is written in place, everything else by way of ASCII.
template <class Text, class Value>
inline u64 Render(Value value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    if (encoding != EStringEncoding::UTF8) [[unlikely]]
        return RenderWide<Text>(value, out, outSize, encoding);
    u32 const count = Text::Count(value);
    if (out == nullptr || count >= outSize) [[unlikely]]
        return 0;
    Text::Write(value, out + count);
    out[count] = '\0';
    return count;
}

} // namespace

u64 IString::RenderInteger(i64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    return Render<SSignedText>(value, out, outSize, encoding);
}

u64 IString::RenderUnsignedInteger(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    return Render<SUnsignedText>(value, out, outSize, encoding);
}

u64 IString::RenderHex(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    return Render<SHexText>(value, out, outSize, encoding);
}

u64 IString::FromFloat(f32 value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    char ascii[FloatCapacity];
    u32 const count = WriteFloat(value, ascii);
    return Fits(count, out, outSize, encoding) ? WriteText(ascii, count, out, encoding) : 0;
}

u64 IString::FromDouble(f64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
{
    char ascii[DoubleCapacity];
    u32 const count = WriteDouble(value, ascii);
    return Fits(count, out, outSize, encoding) ? WriteText(ascii, count, out, encoding) : 0;
}

void CMutableString::AssignInt64(i64 value, EStringEncoding::Type encoding)
{
    char text[IntegerCapacity + 1];
    FromInteger(value, text, sizeof(text), EStringEncoding::UTF8);
    Convert(text, EStringEncoding::UTF8, encoding);
}

void CMutableString::AssignUInt64(u64 value, EStringEncoding::Type encoding)
{
    char text[IntegerCapacity + 1];
    FromUnsignedInteger(value, text, sizeof(text), EStringEncoding::UTF8);
    Convert(text, EStringEncoding::UTF8, encoding);
}

void CMutableString::AssignDouble(f64 value, EStringEncoding::Type encoding)
{
    char text[DoubleCapacity + 1];
    FromDouble(value, text, sizeof(text), EStringEncoding::UTF8);
    Convert(text, EStringEncoding::UTF8, encoding);
}

} // namespace Velmor
