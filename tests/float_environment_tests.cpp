// Hosts unmask floating-point exceptions to find their own mistakes, and set rounding modes for their own arithmetic.
// The library raises no exception for an ordinary value, and numbers and texts convert as they always do.
#include <vlmcore/math.h>
#include <vlmcore/strings.h>
#include <vlmcore/system.h>
#include <vlmcore/weak_types.h>

#include "TestHeap.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <xmmintrin.h>

using namespace Velmor;

namespace {

constexpr unsigned Raised = _MM_EXCEPT_INVALID | _MM_EXCEPT_DIV_ZERO | _MM_EXCEPT_OVERFLOW;
constexpr unsigned Trapped = _MM_MASK_INVALID | _MM_MASK_DIV_ZERO | _MM_MASK_OVERFLOW;
constexpr unsigned SubnormalsAreZero = 1u << 6;

// The control of this thread's floating-point unit for the length of a scope.
class CControl {
public:
    explicit CControl(unsigned control) : m_before(_mm_getcsr()) { _mm_setcsr(control); }
    CControl(CControl const&) = delete;
    CControl& operator=(CControl const&) = delete;
    ~CControl() { _mm_setcsr(m_before); }

private:
    unsigned m_before;
};

constexpr unsigned Default = _MM_MASK_MASK;

float FromBits(u32 bits)
{
    return std::bit_cast<float>(bits);
}
double FromBits(u64 bits)
{
    return std::bit_cast<double>(bits);
}

// NaNs that raise the exception in all arithmetic.
constexpr u64 SignalingDouble = 0x7FF0'0000'0000'0001;
constexpr u32 SignalingFloat = 0x7F80'0001;

// As bits: arithmetic would make the signaling ones quiet.
std::vector<u64> GetDoubles()
{
    std::vector<u64> all;
    for (double const value : {0.0,
                               1.0,
                               0.5,
                               0.1,
                               1e-15,
                               2e-15,
                               1.0 / 3,
                               0.9999999999999999,
                               123456.789,
                               1e6,
                               4503599627370495.5,
                               4503599627370496.0,
                               9007199254740993.0,
                               9223372036854774784.0,
                               9223372036854775808.0,
                               9223372036854777856.0,
                               18446744073709549568.0,
                               18446744073709551616.0,
                               1e300,
                               std::numeric_limits<double>::max(),
                               std::numeric_limits<double>::min(),
                               std::numeric_limits<double>::denorm_min(),
                               1e-310,
                               std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN()}) {
        all.push_back(std::bit_cast<u64>(value));
        all.push_back(std::bit_cast<u64>(-value));
    }
    all.push_back(SignalingDouble);
    return all;
}

std::vector<u32> GetFloats()
{
    std::vector<u32> all;
    for (float const value : {0.0f,
                              1.0f,
                              0.5f,
                              0.1f,
                              1e-6f,
                              2e-6f,
                              1.0f / 3,
                              0.99999994f,
                              123456.79f,
                              8388607.5f,
                              8388608.0f,
                              2147483520.0f,
                              2147483648.0f,
                              4294967296.0f,
                              9223371487098961920.0f,
                              9223372036854775808.0f,
                              18446744073709551616.0f,
                              1e30f,
                              std::numeric_limits<float>::max(),
                              std::numeric_limits<float>::min(),
                              std::numeric_limits<float>::denorm_min(),
                              std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN()}) {
        all.push_back(std::bit_cast<u32>(value));
        all.push_back(std::bit_cast<u32>(-value));
    }
    all.push_back(SignalingFloat);
    return all;
}

std::vector<std::string> GetTexts()
{
    std::vector<std::string> all = {"",
                                    "0",
                                    "-0",
                                    "0.0",
                                    "0.1",
                                    "-0.1",
                                    "3,25",
                                    "1.0000000596046448",
                                    "16777217",
                                    "9007199254740993",
                                    "9007199254740993.7",
                                    "9223372036854775807",
                                    "9223372036854775808",
                                    "-9223372036854775809",
                                    "18446744073709551615.9",
                                    "99999999999999999999999999",
                                    "0.30000000000000004",
                                    "0.123456789012345678",
                                    "0x7F",
                                    "NaN",
                                    "Inf"};
    for (unsigned const digits : {22u, 23u, 100u, 307u, 308u, 309u, 310u, 2000u})
        all.push_back("7." + std::string(digits - 1, '0') + "9");
    return all;
}

// Its parts are noted one by one, so that a difference is found by its name.
class CNotes {
public:
    void Add(std::string const& name, std::string const& value) { m_lines.push_back(name + ": " + value); }
    void AddBits(std::string const& name, u64 bits)
    {
        char text[32];
        std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(bits));
        Add(name, text);
    }
    void Add(std::string const& name, double value) { AddBits(name, std::bit_cast<u64>(value)); }
    void Add(std::string const& name, float value) { AddBits(name, std::bit_cast<u32>(value)); }

    [[nodiscard]] std::vector<std::string> const& GetLines() const { return m_lines; }

private:
    std::vector<std::string> m_lines;
};

std::string NameOf(char const* what, u64 bits)
{
    char text[64];
    std::snprintf(text, sizeof text, "%s %llX", what, static_cast<unsigned long long>(bits));
    return text;
}

// What the function gives, called for itself under this control; the flags of exceptions that it left are noted too.
template <class Function>
auto Call(unsigned control, CNotes& notes, std::string const& name, Function const& function)
{
    unsigned flags;
    auto result = [&] {
        CControl const scope(control);
        auto value = function();
        flags = _mm_getcsr() & Raised;
        return value;
    }();
    notes.AddBits(name + " raised", flags);
    return result;
}

CMutableString Text(CWeakType const& value)
{
    return value.AsString();
}

std::string Bytes(CString const& text)
{
    return text.IsEmpty() ? "" : static_cast<char const*>(text.GetData());
}

template <class Value>
std::string Render(u64 (*renderer)(Value, char*, u64, EStringEncoding::Type), Value value)
{
    char text[64];
    EXPECT_NE(renderer(value, text, sizeof text, EStringEncoding::UTF8), 0u);
    return text;
}

class CNumberString : public CMutableString {
public:
    using CMutableString::AssignDouble;
};

// Between numbers and texts: the same under every control.
void ConvertTexts(unsigned control, CNotes& notes)
{
    for (u64 const bits : GetDoubles()) {
        std::string const name = NameOf("double", bits);
        notes.Add(name, Call(control, notes, name, [&] { return Render(IString::FromDouble, FromBits(bits)); }));
        notes.Add(name, Call(control, notes, name, [&] {
                      CNumberString text;
                      text.AssignDouble(FromBits(bits), EStringEncoding::UTF16);
                      return Bytes(text.ToUTF8());
                  }));
    }
    for (u32 const bits : GetFloats()) {
        std::string const name = NameOf("float", bits);
        notes.Add(name, Call(control, notes, name, [&] { return Render(IString::FromFloat, FromBits(bits)); }));
    }
    for (std::string const& text : GetTexts()) {
        CString const string(text.c_str());
        notes.Add(text, Call(control, notes, text, [&] { return string.ToDouble(); }));
        notes.Add(text, Call(control, notes, text, [&] { return string.ToUTF32().ToDouble(); }));
        CWeakType const value(string);
        notes.Add(text, Call(control, notes, text, [&] { return value.AsFloat(); }));
        notes.AddBits(text, static_cast<u32>(Call(control, notes, text, [&] { return value.AsInteger(); })));
    }
}

// Weak types, numbers among each other: the same whatever is unmasked.
void UseWeakTypes(unsigned control, CNotes& notes)
{
    for (u32 const bits : GetFloats()) {
        std::string const name = NameOf("weak", bits);
        CWeakType const value(FromBits(bits));
        if (bits != SignalingFloat) // (widening it for its text raises what it is for)
            notes.Add(name, Call(control, notes, name, [&] { return Bytes(Text(value)); }));
        notes.AddBits(name, static_cast<u32>(Call(control, notes, name, [&] { return value.AsInteger(); })));
        if (bits == SignalingFloat)
            continue;
        notes.AddBits(name, Call(control, notes, name, [&] { return value.AsBoolean(); }));
        notes.AddBits(name, Call(control, notes, name, [&] { return (!value).AsBoolean(); }));
        notes.Add(name, Call(control, notes, name, [&] { return (-value).AsFloat(); }));
        notes.Add(name, Call(control, notes, name, [&] { return (~value).AsFloat(); }));
        for (u32 const otherBits : GetFloats()) {
            if (otherBits == SignalingFloat)
                continue;
            std::string const pair = name + NameOf(" and", otherBits);
            CWeakType const other(FromBits(otherBits));
            notes.AddBits(pair, Call(control, notes, pair, [&] {
                              return (value == other ? 1u : 0u) | (value != other ? 2u : 0u) |
                                     (value < other ? 4u : 0u) | (value <= other ? 8u : 0u) |
                                     (value > other ? 16u : 0u) | (value >= other ? 32u : 0u);
                          }));
        }
        for (float const zero : {0.0f, -0.0f, std::numeric_limits<float>::quiet_NaN()}) {
            CWeakType const divisor(zero);
            notes.Add(name, Call(control, notes, name, [&] { return (value / divisor).AsFloat(); }));
            notes.Add(name, Call(control, notes, name, [&] { return (value % divisor).AsFloat(); }));
        }
        CWeakType const none(0);
        notes.Add(name, Call(control, notes, name, [&] { return (value / none).AsFloat(); }));
    }
}

void UseMath(unsigned control, CNotes& notes)
{
    for (u64 const bits : GetDoubles()) {
        if (bits == SignalingDouble) // it is for that
            continue;
        std::string const name = NameOf("double", bits);
        notes.Add(name, Call(control, notes, name, [&] { return Math::Ceil(FromBits(bits)); }));
        notes.Add(name, Call(control, notes, name, [&] { return Math::Floor(FromBits(bits)); }));
        notes.AddBits(name, Call(control, notes, name, [&] { return Math::IsNaN(FromBits(bits)); }));
    }
    for (u32 const bits : GetFloats()) {
        if (bits == SignalingFloat)
            continue;
        std::string const name = NameOf("float", bits);
        notes.Add(name, Call(control, notes, name, [&] { return Math::Ceil(FromBits(bits)); }));
        notes.Add(name, Call(control, notes, name, [&] { return Math::Floor(FromBits(bits)); }));
        notes.AddBits(name, Call(control, notes, name, [&] { return Math::IsNaN(FromBits(bits)); }));
    }
    // Level edges, and vertices that lie on each other: nothing to divide by.
    TVector<Math::TTuple2<float>> polygon;
    for (float const x : {0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 4.0f, 4.0f, 2.0f, 0.0f, 0.0f})
        polygon.Append({x, polygon.GetCount() < 5 ? 1.0f : 3.0f});
    for (float const y : {0.0f, 1.0f, 2.0f, 3.0f, 4.0f})
        for (float const x : {-1.0f, 0.0f, 2.0f, 4.0f, 5.0f})
            notes.AddBits("polygon",
                          Call(control, notes, "polygon", [&] { return Math::TestPointInPoly({x, y}, polygon); }));
}

std::vector<std::string> Collect(unsigned control, std::initializer_list<void (*)(unsigned, CNotes&)> parts)
{
    CNotes notes;
    for (auto* const part : parts)
        part(control, notes);
    return notes.GetLines();
}

void ExpectSame(std::vector<std::string> const& expected, std::vector<std::string> const& found)
{
    ASSERT_EQ(expected.size(), found.size());
    unsigned differences = 0;
    for (u64 i = 0; i < expected.size() && differences < 20; ++i)
        if (expected[i] != found[i]) {
            ++differences;
            ADD_FAILURE() << "expected " << expected[i] << "\nfound    " << found[i];
        }
}

} // namespace

TEST(FloatEnvironment, NothingLeavesTheFlagOfAnException)
{
    for (std::string const& line : Collect(Default, {ConvertTexts, UseWeakTypes, UseMath}))
        if (u64 const at = line.find(" raised: "); at != std::string::npos) {
            EXPECT_EQ(line.substr(at), " raised: 0000000000000000") << line;
        }
}

TEST(FloatEnvironment, UnmaskedExceptionsChangeNothing)
{
    ExpectSame(Collect(Default, {ConvertTexts, UseWeakTypes, UseMath}),
               Collect(Default & ~Trapped, {ConvertTexts, UseWeakTypes, UseMath}));
}

TEST(FloatEnvironment, TextsAreTheSameInEveryRoundingMode)
{
    std::vector<std::string> const expected = Collect(Default, {ConvertTexts});
    for (unsigned const mode : {1u, 2u, 3u}) { // down, up, toward zero
        SCOPED_TRACE(mode);
        static_assert(_MM_ROUND_TOWARD_ZERO == 3 << 13);
        ExpectSame(expected, Collect(Default | mode << 13, {ConvertTexts}));
    }
}

TEST(FloatEnvironment, TextsAreTheSameWhenSubnormalNumbersCountAsZero)
{
    ExpectSame(Collect(Default, {ConvertTexts}),
               Collect(Default | _MM_FLUSH_ZERO_ON | SubnormalsAreZero, {ConvertTexts}));
}

TEST(FloatEnvironment, ConversionsGiveTheHostItsEnvironmentBack)
{
    for (unsigned const control : {Default, Default | _MM_ROUND_DOWN | _MM_EXCEPT_DIV_ZERO, Default & ~Trapped,
                                   Default | _MM_FLUSH_ZERO_ON | SubnormalsAreZero}) {
        CControl const scope(control);
        double volatile value = 0.5; // exact, so that not even that flag comes
        std::string const text = Render(IString::FromDouble, static_cast<double>(value));
        double const back = CString("0.5").ToDouble();
        unsigned const after = _mm_getcsr();
        EXPECT_EQ(after & ~unsigned{_MM_EXCEPT_INEXACT}, control);
        EXPECT_EQ(text, "0.5");
        EXPECT_EQ(back, 0.5);
    }
}

TEST(FloatEnvironment, TheClockRunsWithUnmaskedExceptions)
{
    CControl const scope(Default & ~Trapped);
    double const first = System::GetTimeMs();
    EXPECT_GE(System::GetTimeMs(), first);
}
