// Number parsing and rendering against the plain rules, in every encoding, in memory without a spare byte.
#include <vlmcore/strings.h>

#include "FuzzSupport.h"
#include "support/PlainText.h"

#include <bit>
#include <cinttypes>
#include <cmath>
#include <string>
#include <vector>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

using CCodes = std::vector<u32>;

bool IsDigit(u32 code)
{
    return code >= '0' && code <= '9';
}

int HexValue(u32 code)
{
    if (IsDigit(code))
        return static_cast<int>(code - '0');
    if (code >= 'A' && code <= 'F')
        return static_cast<int>(code - 'A' + 10);
    if (code >= 'a' && code <= 'f')
        return static_cast<int>(code - 'a' + 10);
    return -1;
}

u64 PlainUnsigned(CCodes const& codes, bool littleEndian)
{
    u64 value = 0;
    bool hex = false;
    u64 place = 0;
    for (u32 code : codes) {
        if (!hex) {
            if (IsDigit(code))
                value = value * 10 + (code - '0');
            else if (value != 0)
                break;
            else if (code == 'x')
                hex = true;
            else if (code != '-')
                break;
            continue;
        }
        int const digit = HexValue(code);
        if (digit < 0)
            break;
        if (!littleEndian) {
            value = value * 16 + static_cast<u64>(digit);
        }
        else {
            u64 const shift = place % 2 == 0 ? 4 * (place + 1) : 4 * (place - 1);
            if (shift < 64)
                value |= static_cast<u64>(digit) << shift;
            ++place;
        }
    }
    return value;
}

double PlainDouble(CCodes const& codes)
{
    u64 whole = 0;
    u64 fraction = 0;
    double divisor = 1;
    bool inFraction = false;
    for (u32 code : codes) {
        if (inFraction) {
            if (!IsDigit(code))
                break;
            fraction = fraction * 10 + (code - '0');
            divisor = divisor * 10;
        }
        else if (IsDigit(code)) {
            whole = whole * 10 + (code - '0');
        }
        else if (code == '.' || code == ',') {
            inFraction = true;
        }
        else if (code != '-') {
            break;
        }
    }
    double const value = static_cast<double>(fraction) / divisor + static_cast<double>(whole);
    return !codes.empty() && codes[0] == '-' ? -value : value;
}

void CheckParsing(CString const& text)
{
    CCodes const codes = Read(text).codePoints;
    bool const negative = !codes.empty() && codes[0] == '-';
    for (bool littleEndian : {false, true}) {
        EBinaryEncoding::Type const order = littleEndian ? EBinaryEncoding::LittleEndian : EBinaryEncoding::BigEndian;
        u64 const expected = PlainUnsigned(codes, littleEndian);
        Check(text.ToUnsignedInteger(order) == expected, "ToUnsignedInteger");
        Check(static_cast<u64>(text.ToInteger(order)) == (negative ? 0 - expected : expected), "ToInteger");
    }
    Check(std::bit_cast<u64>(text.ToDouble()) == std::bit_cast<u64>(PlainDouble(codes)), "ToDouble");
}

/// The renderer's text in every encoding, into exactly the memory it takes, and into one byte less.
template <class Value>
void CheckRendering(u64 (*render)(Value, char*, u64, EStringEncoding::Type), Value value, std::string const& expected)
{
    for (u32 number = 0; number < 3; ++number) {
        EStringEncoding::Type const encoding = ChooseEncoding(number);
        std::vector<u8> const bytes = Write(CCodes(expected.begin(), expected.end()), encoding);
        std::unique_ptr<char[]> const out(new char[bytes.size()]);
        u64 const size = render(value, out.get(), bytes.size(), encoding);
        Check(size + Encodings::GetUnitSize(encoding) == bytes.size(), "rendered size");
        Check(std::memcmp(out.get(), bytes.data(), bytes.size()) == 0, "rendered text");
        Check(render(value, out.get(), bytes.size() - 1, encoding) == 0, "refusal");
    }
}

template <class Float>
std::string PlainFloating(Float value, Float threshold, int mostDigits)
{
    if (value != value)
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "Inf" : "-Inf";
    bool const fits =
        value >= static_cast<Float>(-9223372036854775808.0) && value < static_cast<Float>(9223372036854775808.0);
    std::string text = fits ? std::to_string(static_cast<long long>(value)) : "-9223372036854775808";
    text += '.';
    Float const fraction = std::abs(value - std::trunc(value));
    if (fraction <= threshold)
        return text + '0';
    Float scaled = fraction;
    Float sum = 0;
    Float power = 1;
    for (int step = 1; step <= mostDigits; ++step) {
        scaled *= 10;
        power *= 10;
        long long const digit = static_cast<long long>(scaled) % 10;
        text += static_cast<char>('0' + digit);
        sum += static_cast<Float>(digit) / power;
        if (!(fraction - sum > threshold))
            break;
    }
    return text;
}

void CheckRenderings(u64 bits)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%" PRIu64, bits);
    CheckRendering(IString::FromUnsignedInteger, bits, text);
    std::snprintf(text, sizeof(text), "%" PRId64, static_cast<i64>(bits));
    CheckRendering(IString::FromInteger, static_cast<i64>(bits), text);
    std::snprintf(text, sizeof(text), "0x%" PRIX64, bits);
    CheckRendering(IString::FromHex, bits, text);
    f64 const wide = std::bit_cast<f64>(bits);
    CheckRendering(IString::FromDouble, wide, PlainFloating(wide, 1e-15, 17));
    f32 const narrow = std::bit_cast<f32>(static_cast<u32>(bits));
    CheckRendering(IString::FromFloat, narrow, PlainFloating(narrow, 1e-6f, 7));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    CInput input(data, size);
    EStringEncoding::Type const encoding = ChooseEncoding(input.Take<u8>());
    u64 const bits = input.Take<u64>();
    CheckRenderings(bits);
    CheckRenderings(bits >> (bits % 64));
    // Values of everyday size, which bits at random rarely are.
    f64 const everyday = static_cast<f64>(static_cast<i64>(bits)) / 1e12;
    CheckRendering(IString::FromDouble, everyday, PlainFloating(everyday, 1e-15, 17));
    f32 const small = static_cast<f32>(static_cast<i32>(bits)) / 1e5f;
    CheckRendering(IString::FromFloat, small, PlainFloating(small, 1e-6f, 7));
    CExactText const text = input.TakeText(~u64{0}, encoding);
    CheckParsing(text.Get());
    return 0;
}
