// Every operator on every pair of operand kinds, in and out of strict mode, against the table that
// tables/weak_types.py wrote; and what the table cannot say.

#include <gtest/gtest.h>

#include <vlmcore/weak_types.h>

#include "TestHeap.h"
#include "Texts.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace Velmor;
using VlmTest::Bytes;

namespace {

struct SRow {
    char const* op;
    bool isStrict;
    char const* left;
    char const* results;
};

constexpr SRow Rows[] = {
#include "tables/weak_types_table.inc"
};

char const* const RightOperands[] = {"B1",   "B0",  "I7",  "I-3",   "I0", "F2.5", "F0",
                                     "Fnan", "S12", "Sab", "Strue", "X",  "RI7",  "RS12"};

// Strict mode for the length of a scope.
class CStrictMode {
public:
    explicit CStrictMode(bool isStrict) { CWeakType::SetStrictMode(isStrict); }
    CStrictMode(CStrictMode const&) = delete;
    CStrictMode& operator=(CStrictMode const&) = delete;
    ~CStrictMode() { CWeakType::SetStrictMode(false); }
};

// A value of the table's short form; a reference keeps its target here.
class COperand {
public:
    explicit COperand(std::string const& code)
    {
        std::string const text = code[0] == 'R' ? code.substr(2) : code.substr(1);
        switch (code[0] == 'R' ? code[1] : code[0]) {
        case 'B':
            m_target = CWeakType(text == "1");
            break;
        case 'I':
            m_target = CWeakType(std::stoi(text));
            break;
        case 'F':
            m_target = CWeakType(std::stof(text));
            break;
        case 'S':
            m_target = CWeakType(text.c_str());
            break;
        default:
            break;
        }
        if (code[0] == 'R')
            m_reference = CWeakType::MakeReference(m_target);
        m_isReference = code[0] == 'R';
    }

    [[nodiscard]] CWeakType const& Get() const { return m_isReference ? m_reference : m_target; }

private:
    CWeakType m_target;
    CWeakType m_reference;
    bool m_isReference = false;
};

std::string Show(bool value)
{
    return value ? "1" : "0";
}

std::string Show(CWeakType const& value)
{
    switch (value.GetType()) {
    case CWeakType::Boolean:
        return value.AsBoolean() ? "B1" : "B0";
    case CWeakType::Integer:
        return "I" + std::to_string(value.AsInteger());
    case CWeakType::String:
        return "S" + Bytes(value.AsString());
    case CWeakType::Float: {
        char text[32];
        std::snprintf(text, sizeof text, "%.9g", static_cast<double>(std::fabs(value.AsFloat())));
        bool const isNegative = std::signbit(value.AsFloat()) && !std::isnan(value.AsFloat());
        return std::string(isNegative ? "F-" : "F") + text;
    }
    default:
        return "X0";
    }
}

using COperation = std::function<std::string(CWeakType const&, CWeakType const&)>;

template <class Operator>
COperation Wrap(Operator op)
{
    return [op](CWeakType const& left, CWeakType const& right) {
        try {
            return Show(op(left, right));
        }
        catch (CPinnedTypeException const& exception) {
            return "!" + Bytes(exception.GetLeftTypeName()) + "-" + Bytes(exception.GetRightTypeName());
        }
    };
}

std::map<std::string, COperation> MakeOperations()
{
    using V = CWeakType const&;
    return {
        {"==", Wrap([](V a, V b) { return a == b; })}, {"!=", Wrap([](V a, V b) { return a != b; })},
        {"<", Wrap([](V a, V b) { return a < b; })},   {"<=", Wrap([](V a, V b) { return a <= b; })},
        {">", Wrap([](V a, V b) { return a > b; })},   {">=", Wrap([](V a, V b) { return a >= b; })},
        {"+", Wrap([](V a, V b) { return a + b; })},   {"-", Wrap([](V a, V b) { return a - b; })},
        {"*", Wrap([](V a, V b) { return a * b; })},   {"/", Wrap([](V a, V b) { return a / b; })},
        {"%", Wrap([](V a, V b) { return a % b; })},   {"&", Wrap([](V a, V b) { return a & b; })},
        {"|", Wrap([](V a, V b) { return a | b; })},   {"^", Wrap([](V a, V b) { return a ^ b; })},
        {"<<", Wrap([](V a, V b) { return a << b; })}, {">>", Wrap([](V a, V b) { return a >> b; })},
    };
}

} // namespace

TEST(WeakTypeOperators, EveryPairGivesWhatTheTableSays)
{
    std::map<std::string, COperation> const operations = MakeOperations();
    u64 checked = 0;
    for (SRow const& row : Rows) {
        CStrictMode const mode(row.isStrict);
        COperand const left(row.left);
        std::istringstream results(row.results);
        for (char const* right : RightOperands) {
            std::string expected;
            results >> expected;
            COperand const rightOperand(right);
            EXPECT_EQ(operations.at(row.op)(left.Get(), rightOperand.Get()), expected)
                << row.left << ' ' << row.op << ' ' << right << (row.isStrict ? " in strict mode" : "");
            ++checked;
        }
    }
    EXPECT_EQ(checked, 16u * 2u * 14u * 14u);
}

TEST(WeakTypeOperators, TheExamplesOfTheContract)
{
    EXPECT_EQ(Show(CWeakType(7) / CWeakType(0)), "I0");
    EXPECT_EQ(Show(CWeakType(7.0f) / CWeakType(0)), "F0");
    EXPECT_EQ(Show(CWeakType(7) % CWeakType(0)), "I0");
    EXPECT_EQ(Show(CWeakType(1) + CWeakType(0.5f)), "F1.5");
    EXPECT_EQ(Show(CWeakType(2) + CWeakType("3")), "I5");
    EXPECT_EQ(Show(CWeakType("a") + CWeakType(true)), "Satrue");
    EXPECT_EQ(Show(CWeakType("banana") - CWeakType("an")), "Sba");
    EXPECT_TRUE(CWeakType(0.1f) == CWeakType(0.1000005f));
    EXPECT_TRUE(CWeakType(1) == CWeakType(true));
    EXPECT_FALSE(CWeakType("b") < CWeakType("a"));
    EXPECT_FALSE(CWeakType("10") < CWeakType(9));
}

TEST(WeakTypeOperators, FloatsCloserThanTheToleranceAreEqual)
{
    EXPECT_TRUE(CWeakType(0.0f) == CWeakType(0.0000009f));
    EXPECT_FALSE(CWeakType(0.0f) == CWeakType(0.0000011f));
    EXPECT_TRUE(CWeakType(0.0f) != CWeakType(-0.0000011f));
    EXPECT_FALSE(CWeakType(0.000001f) == CWeakType(0.0f)); // at the tolerance itself they differ
    EXPECT_TRUE(CWeakType(0.0f) != CWeakType(0.000001f));
}

TEST(WeakTypeOperators, IntegersWrap)
{
    constexpr int Smallest = std::numeric_limits<int>::min();
    constexpr int Largest = std::numeric_limits<int>::max();
    EXPECT_EQ((CWeakType(Largest) + CWeakType(1)).AsInteger(), Smallest);
    EXPECT_EQ((CWeakType(Smallest) - CWeakType(1)).AsInteger(), Largest);
    EXPECT_EQ((CWeakType(65536) * CWeakType(65536)).AsInteger(), 0);
    EXPECT_EQ((CWeakType(Smallest) / CWeakType(-1)).AsInteger(), Smallest);
    EXPECT_EQ((CWeakType(Smallest) % CWeakType(-1)).AsInteger(), 0);
    EXPECT_EQ((-CWeakType(Smallest)).AsInteger(), Smallest);
    EXPECT_EQ((CWeakType(-7) / CWeakType(2)).AsInteger(), -3);
    EXPECT_EQ((CWeakType(-7) % CWeakType(2)).AsInteger(), -1);
}

TEST(WeakTypeOperators, ShiftCountsAreTakenModulo32)
{
    EXPECT_EQ((CWeakType(1) << CWeakType(33)).AsInteger(), 2);
    EXPECT_EQ((CWeakType(1) << CWeakType(31)).AsInteger(), std::numeric_limits<int>::min());
    EXPECT_EQ((CWeakType(-8) >> CWeakType(1)).AsInteger(), -4);
    EXPECT_EQ((CWeakType(8) >> CWeakType(-31)).AsInteger(), 4);
}

TEST(WeakTypeOperators, NotOfAFloatIsReversed)
{
    EXPECT_EQ(Show(!CWeakType(0.0f)), "B0");
    EXPECT_EQ(Show(!CWeakType(2.0f)), "B1");
    EXPECT_EQ(Show(!CWeakType(-0.000001f)), "B1");
    EXPECT_EQ(Show(!CWeakType(0.0000009f)), "B0");
    EXPECT_EQ(Show(!CWeakType(0)), "B1");
    EXPECT_EQ(Show(!CWeakType(5)), "B0");
    EXPECT_EQ(Show(!CWeakType()), "B1");
    EXPECT_EQ(Show(!CWeakType(true)), "B0");
    EXPECT_EQ(Show(!CWeakType("true")), "X0");
}

TEST(WeakTypeOperators, Complement)
{
    EXPECT_EQ((~CWeakType(1.0f)).AsFloat(), static_cast<float>(static_cast<int>(0xC07FFFFFu)));
    EXPECT_EQ(Show(~CWeakType(1)), "I-2");
    EXPECT_EQ(Show(~CWeakType()), "I-1");
    EXPECT_EQ(Show(~CWeakType(false)), "B1");
    EXPECT_EQ(Show(~CWeakType("x")), "X0");
}

TEST(WeakTypeOperators, Negation)
{
    EXPECT_EQ(Show(-CWeakType(2.5f)), "F-2.5");
    EXPECT_EQ(Show(-CWeakType(3)), "I-3");
    EXPECT_EQ(Show(-CWeakType()), "I0");
    EXPECT_EQ(Show(-CWeakType(true)), "B0");
    EXPECT_EQ(Show(-CWeakType("x")), "X0");
}

TEST(WeakTypeOperators, UnaryOperatorsIgnoreStrictMode)
{
    CStrictMode const mode(true);
    EXPECT_EQ(Show(!CWeakType(true)), "B0");
    EXPECT_EQ(Show(~CWeakType("x")), "X0");
    EXPECT_EQ(Show(-CWeakType(false)), "B1");
}

TEST(WeakTypeOperators, CountingChangesTheResolvedValue)
{
    CWeakType integer(41);
    CWeakType reference = CWeakType::MakeReference(integer);
    CWeakType chain = CWeakType::MakeReference(reference);
    EXPECT_EQ(&++chain, &chain);
    EXPECT_EQ(integer.AsInteger(), 42);
    EXPECT_EQ(chain.GetType(), CWeakType::Reference);
    EXPECT_EQ((--integer).AsInteger(), 41);

    CWeakType floating(1.5f);
    EXPECT_EQ((++floating).AsFloat(), 2.5f);
    EXPECT_EQ((--floating).AsFloat(), 1.5f);

    CWeakType boolean(true);
    EXPECT_TRUE((++boolean).AsBoolean());
    EXPECT_FALSE((--boolean).AsBoolean());
    EXPECT_TRUE((--boolean).AsBoolean());

    CWeakType text("7");
    EXPECT_EQ(Show(++text), "S7");
    CWeakType nothing;
    EXPECT_EQ(Show(--nothing), "X0");

    CWeakType largest(std::numeric_limits<int>::max());
    EXPECT_EQ((++largest).AsInteger(), std::numeric_limits<int>::min());
    EXPECT_EQ((--largest).AsInteger(), std::numeric_limits<int>::max());
}

TEST(WeakTypeOperators, CountingInStrictModeNeedsANumberOrNothing)
{
    CStrictMode const mode(true);
    CWeakType boolean(false);
    try {
        ++boolean;
        FAIL();
    }
    catch (CPinnedTypeException const& exception) {
        EXPECT_EQ(Bytes(exception.GetText()), "Type Boolean invalid in context.");
        EXPECT_EQ(Bytes(exception.GetLeftTypeName()), "Boolean");
        EXPECT_EQ(Bytes(exception.GetRightTypeName()), "Boolean");
    }
    CWeakType text("1");
    EXPECT_THROW(--text, CPinnedTypeException);
    CWeakType nothing;
    EXPECT_NO_THROW(++nothing);
    CWeakType integer(1);
    EXPECT_NO_THROW(++integer);
}

TEST(WeakTypeOperators, OperandsMayBeOneValue)
{
    CWeakType text("ab");
    text = text + text;
    EXPECT_EQ(Show(text), "Sabab");
    text = text - text;
    EXPECT_EQ(Show(text), "S");
}
