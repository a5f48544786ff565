#include <vlmcore/strings.h>

#include "TestHeap.h"
#include "support/ThreadHelpers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

using namespace Velmor;

namespace {

constexpr i64 Smallest = std::numeric_limits<i64>::min();
constexpr i64 Largest = std::numeric_limits<i64>::max();
constexpr EStringEncoding::Type Encodings3[] = {EStringEncoding::UTF8, EStringEncoding::UTF16, EStringEncoding::UTF32};

/// Calls a renderer for UTF-8 and returns its text; checks size and terminator.
template <class Value>
std::string Render(u64 (*renderer)(Value, char*, u64, EStringEncoding::Type), Value value)
{
    char text[64];
    std::memset(text, '#', sizeof(text));
    u64 const size = renderer(value, text, sizeof(text), EStringEncoding::UTF8);
    EXPECT_EQ(size, std::strlen(text));
    EXPECT_EQ(text[size + 1], '#');
    return text;
}

std::string Signed(i64 value)
{
    return Render(IString::FromInteger, value);
}
std::string Unsigned(u64 value)
{
    return Render(IString::FromUnsignedInteger, value);
}
std::string Hex(u64 value)
{
    return Render(IString::FromHex, value);
}
std::string Float(f32 value)
{
    return Render(IString::FromFloat, value);
}
std::string Double(f64 value)
{
    return Render(IString::FromDouble, value);
}

/// Opens the builders that derived strings use.
class CNumberString : public CMutableString {
public:
    using CMutableString::AssignDouble;
    using CMutableString::AssignInt64;
    using CMutableString::AssignUInt64;
};

} // namespace

TEST(NumberRendering, Integers)
{
    EXPECT_EQ(Signed(-42), "-42");
    EXPECT_EQ(Signed(0), "0");
    EXPECT_EQ(Signed(7), "7");
    EXPECT_EQ(Signed(-1), "-1");
    EXPECT_EQ(Signed(Largest), "9223372036854775807");
    EXPECT_EQ(Signed(Smallest), "-9223372036854775808");
    EXPECT_EQ(Unsigned(0), "0");
    EXPECT_EQ(Unsigned(18446744073709551615u), "18446744073709551615");
}

TEST(NumberRendering, EveryDigitCount)
{
    char const* const nines[] = {"9",
                                 "99",
                                 "999",
                                 "9999",
                                 "99999",
                                 "999999",
                                 "9999999",
                                 "99999999",
                                 "999999999",
                                 "9999999999",
                                 "99999999999",
                                 "999999999999",
                                 "9999999999999",
                                 "99999999999999",
                                 "999999999999999",
                                 "9999999999999999",
                                 "99999999999999999",
                                 "999999999999999999",
                                 "9999999999999999999"};
    u64 power = 1;
    for (u64 digits = 1; digits <= 19; ++digits) {
        std::string const zeros = "1" + std::string(digits - 1, '0');
        EXPECT_EQ(Unsigned(power), zeros);
        power *= 10;
        EXPECT_EQ(Unsigned(power - 1), nines[digits - 1]);
        if (digits < 19) {
            EXPECT_EQ(Signed(-static_cast<i64>(power - 1)), std::string("-") + nines[digits - 1]);
        }
    }
    EXPECT_EQ(Unsigned(power), "10000000000000000000");
    EXPECT_EQ(Unsigned(12345678901234567890u), "12345678901234567890");
    EXPECT_EQ(Unsigned(100000000), "100000000");
    EXPECT_EQ(Unsigned(4294967296), "4294967296");
}

TEST(NumberRendering, AllShortIntegersAgreeWithTheStandardLibrary)
{
    for (u64 value = 0; value < 120000; ++value)
        ASSERT_EQ(Unsigned(value), std::to_string(value));
    for (i64 value = -12000; value < 0; ++value)
        ASSERT_EQ(Signed(value), std::to_string(value));
}

TEST(NumberRendering, Hex)
{
    EXPECT_EQ(Hex(0), "0x0");
    EXPECT_EQ(Hex(255), "0xFF");
    EXPECT_EQ(Hex(0x10), "0x10");
    EXPECT_EQ(Hex(0x123456789ABCDEF0), "0x123456789ABCDEF0");
    EXPECT_EQ(Hex(~u64{0}), "0xFFFFFFFFFFFFFFFF");
    std::string digits;
    for (u64 count = 1; count <= 16; ++count) {
        digits += 'A';
        EXPECT_EQ(Hex(0xAAAAAAAAAAAAAAAA >> (64 - 4 * count)), "0x" + digits);
    }
}

TEST(NumberRendering, Doubles)
{
    EXPECT_EQ(Double(0.0), "0.0");
    EXPECT_EQ(Double(2.0), "2.0");
    EXPECT_EQ(Double(1.5), "1.5");
    EXPECT_EQ(Double(-1.25), "-1.25");
    EXPECT_EQ(Double(0.1), "0.1");
    EXPECT_EQ(Double(0.3), "0.3");
    EXPECT_EQ(Double(0.05), "0.05");
    EXPECT_EQ(Double(3.14159265358979), "3.14159265358979");
    EXPECT_EQ(Double(1.0 / 3), "0.333333333333333");
    EXPECT_EQ(Double(2.0 / 3), "0.666666666666666");
    EXPECT_EQ(Double(1e16), "10000000000000000.0");
    EXPECT_EQ(Double(4503599627370495.5), "4503599627370495.5");
}

TEST(NumberRendering, DoublesStopAtTheThresholdOrAfterSeventeenDigits)
{
    EXPECT_EQ(Double(1e-15), "0.0");
    EXPECT_EQ(Double(1.1e-15), "0.000000000000001");
    EXPECT_EQ(Double(2e-15), "0.000000000000002");
    EXPECT_EQ(Double(0.999999999999999), "0.999999999999998");
    EXPECT_EQ(Double(0.9999999999999999), "0.999999999999999");
    EXPECT_EQ(Double(123456.789), "123456.789000000004307");
}

TEST(NumberRendering, DoublesBetweenMinusOneAndZeroLoseTheirSign)
{
    EXPECT_EQ(Double(-0.5), "0.5");
    EXPECT_EQ(Double(-0.0), "0.0");
    EXPECT_EQ(Float(-0.5f), "0.5");
    EXPECT_EQ(Double(-1.0), "-1.0");
}

TEST(NumberRendering, DoublesOutside64BitsPrintTheSmallestInteger)
{
    EXPECT_EQ(Double(9.2e18), "9200000000000000000.0");
    EXPECT_EQ(Double(1e19), "-9223372036854775808.0");
    EXPECT_EQ(Double(-1e300), "-9223372036854775808.0");
    EXPECT_EQ(Double(9223372036854775808.0), "-9223372036854775808.0");
    EXPECT_EQ(Float(1e20f), "-9223372036854775808.0");
}

TEST(NumberRendering, Floats)
{
    EXPECT_EQ(Float(0.0f), "0.0");
    EXPECT_EQ(Float(2.0f), "2.0");
    EXPECT_EQ(Float(-2.75f), "-2.75");
    EXPECT_EQ(Float(0.1f), "0.1");
    EXPECT_EQ(Float(0.05f), "0.05");
    EXPECT_EQ(Float(3.1415927f), "3.141592");
    EXPECT_EQ(Float(1.0f / 3), "0.333333");
    EXPECT_EQ(Float(123.456f), "123.456001");
    EXPECT_EQ(Float(99.99f), "99.989997");
    EXPECT_EQ(Float(1e-6f), "0.0");
    EXPECT_EQ(Float(1.5e-6f), "0.000001");
    EXPECT_EQ(Float(0x1.0c6f7ap-19f), "0.000001"); // what is left is the threshold itself
    EXPECT_EQ(Float(0.9999999f), "0.999999");
    EXPECT_EQ(Float(16777216.0f), "16777216.0");
}

TEST(NumberRendering, InfinityAndNotANumber)
{
    EXPECT_EQ(Double(std::numeric_limits<f64>::infinity()), "Inf");
    EXPECT_EQ(Double(-std::numeric_limits<f64>::infinity()), "-Inf");
    EXPECT_EQ(Double(std::numeric_limits<f64>::quiet_NaN()), "NaN");
    EXPECT_EQ(Double(-std::numeric_limits<f64>::quiet_NaN()), "NaN");
    EXPECT_EQ(Float(std::numeric_limits<f32>::infinity()), "Inf");
    EXPECT_EQ(Float(-std::numeric_limits<f32>::infinity()), "-Inf");
    EXPECT_EQ(Float(std::numeric_limits<f32>::quiet_NaN()), "NaN");
}

TEST(NumberRendering, WiderEncodings)
{
    char16_t wide[32];
    EXPECT_EQ(IString::FromInteger(-105, reinterpret_cast<char*>(wide), sizeof(wide), EStringEncoding::UTF16), 8u);
    EXPECT_EQ(std::u16string(wide), u"-105");
    char32_t wider[32];
    EXPECT_EQ(IString::FromHex(0xBEEF, reinterpret_cast<char*>(wider), sizeof(wider), EStringEncoding::UTF32), 24u);
    EXPECT_EQ(std::u32string(wider), U"0xBEEF");
    EXPECT_EQ(IString::FromDouble(0.5, reinterpret_cast<char*>(wide), sizeof(wide), EStringEncoding::UTF16), 6u);
    EXPECT_EQ(std::u16string(wide), u"0.5");
    EXPECT_EQ(IString::FromFloat(-1.5f, reinterpret_cast<char*>(wider), sizeof(wider), EStringEncoding::UTF32), 16u);
    EXPECT_EQ(std::u32string(wider), U"-1.5");
    EXPECT_EQ(IString::FromUnsignedInteger(~u64{0}, reinterpret_cast<char*>(wider), sizeof(wider),
                                           static_cast<EStringEncoding::Type>(9)), // any other value is UTF-32
              80u);
    EXPECT_EQ(std::u32string(wider), U"18446744073709551615");
}

TEST(NumberRendering, ATextThatDoesNotFitIsRefused)
{
    for (EStringEncoding::Type encoding : Encodings3) {
        u64 const width = encoding == EStringEncoding::UTF8 ? 1 : encoding == EStringEncoding::UTF16 ? 2 : 4;
        char text[64];
        std::memset(text, '#', sizeof(text));
        u64 const exact = 4 * width; // three characters and the terminator
        EXPECT_EQ(IString::FromInteger(-12, text, exact - 1, encoding), 0u);
        EXPECT_EQ(IString::FromUnsignedInteger(123, text, exact - 1, encoding), 0u);
        EXPECT_EQ(IString::FromHex(1, text, exact - 1, encoding), 0u);
        EXPECT_EQ(IString::FromFloat(0.5f, text, exact - 1, encoding), 0u);
        EXPECT_EQ(IString::FromDouble(0.5, text, exact - 1, encoding), 0u);
        EXPECT_EQ(IString::FromInteger(1, text, 0, encoding), 0u);
        EXPECT_EQ(std::string(text, sizeof(text)), std::string(64, '#'));
        EXPECT_EQ(IString::FromInteger(-12, text, exact, encoding), 3 * width);
        EXPECT_EQ(IString::FromDouble(0.5, text, exact, encoding), 3 * width);
        EXPECT_EQ(text[exact], '#');
    }
}

TEST(NumberRendering, ANullOutputGivesZero)
{
    EXPECT_EQ(IString::FromInteger(1, nullptr, 256, EStringEncoding::UTF8), 0u);
    EXPECT_EQ(IString::FromUnsignedInteger(1, nullptr, 256, EStringEncoding::UTF16), 0u);
    EXPECT_EQ(IString::FromHex(1, nullptr, 256, EStringEncoding::UTF8), 0u);
    EXPECT_EQ(IString::FromFloat(1, nullptr, 256, EStringEncoding::UTF32), 0u);
    EXPECT_EQ(IString::FromDouble(1, nullptr, 256, EStringEncoding::UTF8), 0u);
}

TEST(NumberRendering, OutputNeedsNoAlignment)
{
    char text[33];
    EXPECT_EQ(IString::FromInteger(15, text + 1, 32, EStringEncoding::UTF32), 8u);
    EXPECT_EQ(std::memcmp(text + 1, "1\0\0\0005\0\0\0\0\0\0\0", 12), 0);
}

TEST(NumberBuilding, StringsHoldTheRendering)
{
    CNumberString text;
    for (EStringEncoding::Type encoding : Encodings3) {
        text.AssignInt64(Smallest, encoding);
        EXPECT_TRUE(text == CString("-9223372036854775808"));
        EXPECT_EQ(text.GetEncoding(), encoding);
        EXPECT_EQ(text.GetLength(), 20u);
        text.AssignUInt64(~u64{0}, encoding);
        EXPECT_TRUE(text == CString("18446744073709551615"));
        text.AssignDouble(-2.25, encoding);
        EXPECT_TRUE(text == CString("-2.25"));
        EXPECT_EQ(text.GetLength(), 5u);
    }
}

TEST(NumberParsing, SignedIntegers)
{
    auto const parse = [](CString const& text) { return text.ToInteger(EBinaryEncoding::BigEndian); };
    EXPECT_EQ(parse("-17"), -17);
    EXPECT_EQ(parse("17"), 17);
    EXPECT_EQ(parse(" 17"), 0);
    EXPECT_EQ(parse("+17"), 0);
    EXPECT_EQ(parse("12ab"), 12);
    EXPECT_EQ(parse("-"), 0);
    EXPECT_EQ(parse("--5"), -5);
    EXPECT_EQ(parse("-9223372036854775808"), Smallest);
    EXPECT_EQ(parse("9223372036854775807"), Largest);
    EXPECT_EQ(parse("-0x10"), -16);
    EXPECT_EQ(parse("7-3"), 7);
    EXPECT_EQ(parse("0-3"), 3); // skipped while the value is still 0, and the text does not begin with it
}

TEST(NumberParsing, UnsignedIntegers)
{
    auto const parse = [](CString const& text) { return text.ToUnsignedInteger(EBinaryEncoding::BigEndian); };
    EXPECT_EQ(parse("0"), 0u);
    EXPECT_EQ(parse("18446744073709551615"), ~u64{0});
    EXPECT_EQ(parse("18446744073709551616"), 0u); // wraps
    EXPECT_EQ(parse("18446744073709551621"), 5u);
    EXPECT_EQ(parse("-17"), 17u);
    EXPECT_EQ(parse("000123"), 123u);
    EXPECT_EQ(parse("12.5"), 12u);
    EXPECT_EQ(parse("abc"), 0u);
}

TEST(NumberParsing, NullAndEmpty)
{
    CString const null;
    EXPECT_EQ(null.ToInteger(EBinaryEncoding::BigEndian), 0);
    EXPECT_EQ(null.ToUnsignedInteger(EBinaryEncoding::LittleEndian), 0u);
    EXPECT_EQ(null.ToDouble(), 0.0);
    EXPECT_EQ(CString("").ToInteger(EBinaryEncoding::BigEndian), 0);
    EXPECT_EQ(CString(u"").ToUnsignedInteger(EBinaryEncoding::BigEndian), 0u);
    EXPECT_EQ(CString(U"").ToDouble(), 0.0);
}

TEST(NumberParsing, Hexadecimal)
{
    auto const parse = [](CString const& text) { return text.ToUnsignedInteger(EBinaryEncoding::BigEndian); };
    EXPECT_EQ(parse("0x1F"), 31u);
    EXPECT_EQ(parse("x1F"), 31u);
    EXPECT_EQ(parse("0x1fG"), 31u);
    EXPECT_EQ(parse("000xAbCdEf"), 0xABCDEFu);
    EXPECT_EQ(parse("5x1F"), 5u); // behind a value the walk ends
    EXPECT_EQ(parse("0X1F"), 0u);
    EXPECT_EQ(parse("0xFFFFFFFFFFFFFFFF"), ~u64{0});
    EXPECT_EQ(parse("0x1FFFFFFFFFFFFFFFF"), ~u64{0}); // wraps
    EXPECT_EQ(parse("0x"), 0u);
    EXPECT_EQ(parse("0x-1"), 0u);
    EXPECT_EQ(parse("0x@"), 0u);
    EXPECT_EQ(parse("0x`"), 0u);
}

TEST(NumberParsing, LittleEndianHexadecimal)
{
    auto const parse = [](CString const& text) { return text.ToUnsignedInteger(EBinaryEncoding::LittleEndian); };
    EXPECT_EQ(parse("0x3412"), 0x1234u);
    EXPECT_EQ(parse("x78563412"), 0x12345678u);
    EXPECT_EQ(parse("0xF0DEBC9A78563412"), 0x123456789ABCDEF0u);
    EXPECT_EQ(parse("0x1"), 0x10u); // a lone digit is the upper one of its byte
    EXPECT_EQ(parse("0x341"), 0x1034u);
    EXPECT_EQ(parse("3412"), 3412u);              // decimal digits know no order
    EXPECT_EQ(parse("0x0000000000000000FF"), 0u); // behind 64 bits
    EXPECT_EQ(CString("0x3412").ToUnsignedInteger(static_cast<EBinaryEncoding::Type>(7)), 0x1234u);
    EXPECT_EQ(CString("-0x3412").ToInteger(EBinaryEncoding::LittleEndian), -0x1234);
}

TEST(NumberParsing, LittleEndianDigitsBeyondAllPlacesStayDropped)
{
    if (TestSupport::GetStressFactor() < 5)
        GTEST_SKIP() << "takes a gigabyte; VLMCORE_STRESS=5 runs it";
    // The place of digit 2^30, counted in 32 bits of bits, would be that of the first digit again.
    std::string const text = "0x" + std::string(u64{1} << 30, '0') + "12";
    EXPECT_EQ(CString(text).ToUnsignedInteger(EBinaryEncoding::LittleEndian), 0u);
}

TEST(NumberParsing, Doubles)
{
    auto const parse = [](CString const& text) { return text.ToDouble(); };
    EXPECT_EQ(parse("3,25"), 3.25);
    EXPECT_EQ(parse("3.25"), 3.25);
    EXPECT_EQ(parse("1e3"), 1.0);
    EXPECT_EQ(parse("-0.5"), -0.5);
    EXPECT_EQ(parse("-"), 0.0);
    EXPECT_TRUE(std::signbit(parse("-0")));
    EXPECT_EQ(parse(".5"), 0.5);
    EXPECT_EQ(parse("5."), 5.0);
    EXPECT_EQ(parse("."), 0.0);
    EXPECT_EQ(parse("1.2.3"), 1.2);
    EXPECT_EQ(parse("1.-5"), 1.0);
    EXPECT_EQ(parse("1-2.5"), 12.5); // skipped anywhere in the whole part
    EXPECT_EQ(parse(" 1"), 0.0);
    EXPECT_EQ(parse("+1"), 0.0);
    EXPECT_EQ(parse("18446744073709551617.25"), 1.25); // the whole part wraps
    EXPECT_EQ(parse("0.1"), 0.1);
    EXPECT_EQ(parse("0.001"), 0.001);
}

TEST(NumberParsing, EveryEncodingAlike)
{
    EXPECT_EQ(CString(u"-17x").ToInteger(EBinaryEncoding::BigEndian), -17);
    EXPECT_EQ(CString(U"-17x").ToInteger(EBinaryEncoding::BigEndian), -17);
    EXPECT_EQ(CString(u"0x1F").ToUnsignedInteger(EBinaryEncoding::BigEndian), 31u);
    EXPECT_EQ(CString(U"0x3412").ToUnsignedInteger(EBinaryEncoding::LittleEndian), 0x1234u);
    EXPECT_EQ(CString(u"3,25").ToDouble(), 3.25);
    EXPECT_EQ(CString(U"-3.5").ToDouble(), -3.5);
    // Behind a value that is not 0 neither an "x" nor a "-" counts.
    EXPECT_EQ(CString("-5x1").ToInteger(EBinaryEncoding::BigEndian), -5);
    EXPECT_EQ(CString(u"5x1").ToUnsignedInteger(EBinaryEncoding::BigEndian), 5u);
    EXPECT_EQ(CString(U"5x1").ToUnsignedInteger(EBinaryEncoding::LittleEndian), 5u);
    EXPECT_EQ(CString(u"-5-3").ToInteger(EBinaryEncoding::BigEndian), -5);
    EXPECT_EQ(CString(U"05-3").ToInteger(EBinaryEncoding::BigEndian), 5);
    // Units whose low byte alone would be a digit.
    EXPECT_EQ(CString(u"1\u0132").ToInteger(EBinaryEncoding::BigEndian), 1);
    EXPECT_EQ(CString(U"1\U00010032").ToInteger(EBinaryEncoding::BigEndian), 1);
}

TEST(NumberParsing, MalformedTextEndsTheNumber)
{
    EXPECT_EQ(CString("12\x80\x33").ToInteger(EBinaryEncoding::BigEndian), 12);
    EXPECT_EQ(CString("12\xC3").ToInteger(EBinaryEncoding::BigEndian), 12);
    EXPECT_EQ(CString("12\xF0\x80").ToDouble(), 12.0);
    EXPECT_EQ(CString("0x1\xE2\x82").ToUnsignedInteger(EBinaryEncoding::BigEndian), 1u);
    char16_t const cut[] = {u'7', 0xD83D, 0};
    EXPECT_EQ(CString(cut).ToInteger(EBinaryEncoding::BigEndian), 7);
    // Decoded by the library's rules, an overlong digit is that digit.
    EXPECT_EQ(CString("1\xC0\xB2").ToInteger(EBinaryEncoding::BigEndian), 12);
}

TEST(NumberText, IntegersComeBack)
{
    u64 value = 1;
    char text[32];
    for (int i = 0; i < 2000; ++i) {
        value = value * 6364136223846793005u + 1442695040888963407u;
        u64 const number = value >> (i % 64);
        IString::FromUnsignedInteger(number, text, sizeof(text), EStringEncoding::UTF8);
        ASSERT_EQ(CString(text).ToUnsignedInteger(EBinaryEncoding::BigEndian), number);
        IString::FromInteger(static_cast<i64>(number), text, sizeof(text), EStringEncoding::UTF8);
        ASSERT_EQ(CString(text).ToInteger(EBinaryEncoding::BigEndian), static_cast<i64>(number));
        IString::FromHex(number, text, sizeof(text), EStringEncoding::UTF8);
        ASSERT_EQ(CString(text).ToUnsignedInteger(EBinaryEncoding::BigEndian), number);
    }
}
