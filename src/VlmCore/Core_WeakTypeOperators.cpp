#include "Core_WeakTypeText.h"

#include <vlmcore/weak_types.h>

#include <cmath>

namespace Velmor {

namespace {

// Two floats closer than this are equal.
constexpr float Tolerance = 0.000001f;

bool IsNumeric(CWeakType::EType type)
{
    return type == CWeakType::Integer || type == CWeakType::Float;
}

[[noreturn]] void ThrowMismatch(CWeakType::EType left, CWeakType::EType right)
{
    throw CPinnedTypeException(static_cast<_VlmWeakTypeDataType>(left), static_cast<_VlmWeakTypeDataType>(right));
}

bool IsZeroDivisor(float divisor)
{
    return !std::islessgreater(divisor, 0.0f); // a NaN divides like a zero
}

// Floats are compared by what raises no floating-point exception, not even for a NaN.

bool IsTooSmallToTell(float difference)
{
    return std::isless(std::fabs(difference), Tolerance);
}

// Infinities and NaNs are like nothing, and numbers far apart need no difference, which might overflow.
bool AreClose(float left, float right)
{
    if (!std::isfinite(left) || !std::isfinite(right))
        return false;
    double const difference = double{left} - double{right};
    return std::fabs(difference) < 1 && IsTooSmallToTell(static_cast<float>(difference));
}

int Wrap(u32 bits)
{
    return static_cast<int>(bits);
}

u32 Bits(int value)
{
    return static_cast<u32>(value);
}

} // namespace

// ---- prepared operands ----

// An operand as an arithmetic operator sees it: resolved, and an Invalid one taken as the zero of the other's type.
// A view: it owns no text.
struct CWeakType::SOperand {
    CWeakType const& value;
    EType type;

    SOperand(CWeakType const& resolved, CWeakType const& other)
        : value(resolved), type(resolved.m_type == Invalid ? other.m_type : resolved.m_type)
    {
    }

    [[nodiscard]] bool IsMissing() const { return value.m_type == Invalid; }
    [[nodiscard]] int AsInteger() const { return IsMissing() ? 0 : value.AsInteger(); }
    [[nodiscard]] float AsFloat() const { return IsMissing() ? 0.0f : value.AsFloat(); }
    // Of anything but a number.
    [[nodiscard]] char const* GetTextForm() const
    {
        if (value.m_type == Boolean)
            return value.Load<u8>() != 0 ? "true" : "false";
        return IsMissing() ? "" : value.GetText();
    }

    [[nodiscard]] static CWeakType Join(SOperand const& left, SOperand const& right)
    {
        CWeakType joined;
        joined.AdoptText(WeakTypeText::Join(left.GetTextForm(), right.GetTextForm()));
        return joined;
    }

    // The first byte of the payload. Of a text that is a byte of its address, which as a block's address is even and
    // here never zero: a fixed such value, so that a result does not depend on where a text happens to lie.
    [[nodiscard]] u8 GetPayloadByte() const
    {
        constexpr u8 AddressByte = 0x10;
        if (type == String)
            return AddressByte;
        return value.Load<u8>();
    }
};

namespace {

// In strict mode, unless both operands are Invalid, each must be of a type that `isAllowed` names.
template <class Operand>
void CheckOperands(Operand const& left, Operand const& right, bool (*isAllowed)(CWeakType::EType))
{
    if (!CWeakType::IsInStrictMode() || left.type == CWeakType::Invalid || right.type == CWeakType::Invalid)
        return;
    if (!isAllowed(left.type) || !isAllowed(right.type))
        ThrowMismatch(left.type, right.type);
}

// The rows of the arithmetic table in order: floats, then integers, then what the operator does with the rest.
template <class Operand, class OnFloats, class OnIntegers, class OnOthers>
CWeakType Compute(Operand const& left, Operand const& right, OnFloats onFloats, OnIntegers onIntegers,
                  OnOthers onOthers)
{
    CheckOperands(left, right, &IsNumeric);
    if (left.type == CWeakType::Float || right.type == CWeakType::Float)
        return CWeakType(static_cast<float>(onFloats(left.AsFloat(), right.AsFloat())));
    if (left.type == CWeakType::Integer || right.type == CWeakType::Integer)
        return CWeakType(static_cast<int>(onIntegers(left.AsInteger(), right.AsInteger())));
    return onOthers(left, right);
}

template <class Operand>
CWeakType BothBytes(Operand const& left, Operand const& right)
{
    return CWeakType(left.GetPayloadByte() != 0 && right.GetPayloadByte() != 0);
}

template <class Operand, class OnIntegers>
CWeakType ComputeBits(Operand const& left, Operand const& right, OnIntegers onIntegers)
{
    CheckOperands(left, right, [](CWeakType::EType type) { return type == CWeakType::Integer; });
    return CWeakType(static_cast<int>(onIntegers(left.AsInteger(), right.AsInteger())));
}

} // namespace

// ---- arithmetic ----

CWeakType CWeakType::Add(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return Compute(
        SOperand(a, b), SOperand(b, a), [](float x, float y) { return x + y; },
        [](int x, int y) { return Wrap(Bits(x) + Bits(y)); },
        [](SOperand const& x, SOperand const& y) {
            if (x.type == String || y.type == String)
                return SOperand::Join(x, y);
            return CWeakType(x.GetPayloadByte() != 0 || y.GetPayloadByte() != 0);
        });
}

CWeakType CWeakType::Subtract(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return Compute(
        SOperand(a, b), SOperand(b, a), [](float x, float y) { return x - y; },
        [](int x, int y) { return Wrap(Bits(x) - Bits(y)); },
        [](SOperand const& x, SOperand const& y) {
            if (x.type == String && y.type == String)
                return CWeakType(CString(CString(x.GetTextForm()).Replace(CString(y.GetTextForm()), "", 0)));
            return CWeakType((x.GetPayloadByte() ^ y.GetPayloadByte()) != 0);
        });
}

CWeakType CWeakType::Multiply(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return Compute(
        SOperand(a, b), SOperand(b, a), [](float x, float y) { return x * y; },
        [](int x, int y) { return Wrap(Bits(x) * Bits(y)); }, &BothBytes<SOperand>);
}

CWeakType CWeakType::Divide(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return Compute(
        SOperand(a, b), SOperand(b, a), [](float x, float y) { return IsZeroDivisor(y) ? 0.0f : x / y; },
        // In 64 bits, so that the smallest integer by -1 wraps instead of trapping.
        [](int x, int y) { return y == 0 ? 0 : Wrap(static_cast<u32>(static_cast<u64>(i64{x} / i64{y}))); },
        &BothBytes<SOperand>);
}

CWeakType CWeakType::Modulo(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return Compute(
        SOperand(a, b), SOperand(b, a), [](float x, float y) { return IsZeroDivisor(y) ? 0.0f : std::fmod(x, y); },
        [](int x, int y) { return y == 0 ? 0 : static_cast<int>(i64{x} % i64{y}); }, &BothBytes<SOperand>);
}

// ---- bits ----

CWeakType CWeakType::And(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return ComputeBits(SOperand(a, b), SOperand(b, a), [](int x, int y) { return x & y; });
}

CWeakType CWeakType::Or(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return ComputeBits(SOperand(a, b), SOperand(b, a), [](int x, int y) { return x | y; });
}

CWeakType CWeakType::ExclusiveOr(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return ComputeBits(SOperand(a, b), SOperand(b, a), [](int x, int y) { return x ^ y; });
}

CWeakType CWeakType::ShiftLeft(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return ComputeBits(SOperand(a, b), SOperand(b, a), [](int x, int y) { return Wrap(Bits(x) << (Bits(y) & 31)); });
}

CWeakType CWeakType::ShiftRight(CWeakType const& left, CWeakType const& right)
{
    CWeakType const& a = left.Resolve();
    CWeakType const& b = right.Resolve();
    return ComputeBits(SOperand(a, b), SOperand(b, a), [](int x, int y) { return x >> (Bits(y) & 31); });
}

// ---- comparisons ----

// The codes as stored decide and are reported: a reference to an Integer and an Integer are not the same here.
void CWeakType::CheckComparable(CWeakType const& other) const
{
    if (!IsInStrictMode() || m_type == other.m_type)
        return;
    EType const left = GetResolvedType();
    EType const right = other.GetResolvedType();
    if (left == Invalid || right == Invalid)
        return;
    if (!IsNumeric(left) || !IsNumeric(right))
        ThrowMismatch(m_type, other.m_type);
}

bool CWeakType::operator==(CWeakType const& other) const
{
    CheckComparable(other);
    CWeakType const& left = Resolve();
    CWeakType const& right = other.Resolve();
    if (left.m_type == Float || right.m_type == Float)
        return AreClose(left.AsFloat(), right.AsFloat());
    if (left.m_type == Integer || right.m_type == Integer)
        return left.AsInteger() == right.AsInteger();
    if (left.m_type == String && right.m_type == String)
        return CString(left.GetText()) == CString(right.GetText());
    return left.AsBoolean() == right.AsBoolean();
}

bool CWeakType::operator!=(CWeakType const& other) const
{
    return !(*this == other);
}

// The promotion that <, <=, > and >= share.
template <class Relation>
bool CWeakType::Order(CWeakType const& other, Relation relation) const
{
    CheckComparable(other);
    CWeakType const& left = Resolve();
    CWeakType const& right = other.Resolve();
    if (left.m_type == String && right.m_type == String)
        return relation(CString(left.GetText()), CString(right.GetText()));
    if (left.m_type == Float || right.m_type == Float)
        return relation(left.AsFloat(), right.AsFloat());
    return relation(left.AsInteger(), right.AsInteger());
}

bool CWeakType::operator<(CWeakType const& other) const
{
    return Order(other, []<class T>(T const& left, T const& right) {
        if constexpr (std::is_same_v<T, float>)
            return !std::isgreaterequal(left, right); // a NaN on either side makes it true
        else
            return left < right;
    });
}

bool CWeakType::operator<=(CWeakType const& other) const
{
    return Order(other, []<class T>(T const& left, T const& right) {
        if constexpr (std::is_same_v<T, float>)
            return std::islessequal(left, right);
        else
            return !(left > right);
    });
}

bool CWeakType::operator>(CWeakType const& other) const
{
    return Order(other, []<class T>(T const& left, T const& right) {
        if constexpr (std::is_same_v<T, float>)
            return std::isgreater(left, right);
        else
            return left > right;
    });
}

bool CWeakType::operator>=(CWeakType const& other) const
{
    return Order(other, []<class T>(T const& left, T const& right) {
        if constexpr (std::is_same_v<T, float>)
            return std::isgreaterequal(left, right);
        else
            return !(left < right);
    });
}

// ---- unary ----

CWeakType CWeakType::operator!() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return CWeakType(!IsTooSmallToTell(value.Load<float>()));
    case Boolean:
        return CWeakType(value.Load<u8>() == 0);
    case String:
        return CWeakType();
    default:
        return CWeakType(value.AsInteger() == 0);
    }
}

CWeakType CWeakType::operator~() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return CWeakType(static_cast<float>(Wrap(~value.LoadUnsigned())));
    case Boolean:
        return CWeakType(value.Load<u8>() == 0);
    case String:
        return CWeakType();
    default:
        return CWeakType(Wrap(~Bits(value.AsInteger())));
    }
}

CWeakType CWeakType::operator-() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return CWeakType(-value.Load<float>());
    case Boolean:
        return CWeakType(value.Load<u8>() == 0);
    case String:
        return CWeakType();
    default:
        return CWeakType(Wrap(0u - Bits(value.AsInteger())));
    }
}

void CWeakType::CheckCountable() const
{
    EType const type = GetResolvedType();
    if (IsInStrictMode() && type != Invalid && !IsNumeric(type))
        throw CPinnedTypeException(static_cast<_VlmWeakTypeDataType>(type));
}

CWeakType& CWeakType::operator++()
{
    CheckCountable();
    CWeakType& value = Resolve();
    switch (value.m_type) {
    case Float:
        value.Store(value.Load<float>() + 1.0f);
        break;
    case Integer:
        value.Store(Wrap(value.LoadUnsigned() + 1));
        break;
    case Boolean:
        value.Store(u8{1});
        break;
    default:
        break;
    }
    return *this;
}

CWeakType& CWeakType::operator--()
{
    CheckCountable();
    CWeakType& value = Resolve();
    switch (value.m_type) {
    case Float:
        value.Store(value.Load<float>() - 1.0f);
        break;
    case Integer:
        value.Store(Wrap(value.LoadUnsigned() - 1));
        break;
    case Boolean:
        value.Store(static_cast<u8>(value.Load<u8>() == 0));
        break;
    default:
        break;
    }
    return *this;
}

} // namespace Velmor
