#include "Core_FloatEnvironment.h"
#include "Core_FloatTruncate.h"
#include "Core_WeakTypeText.h"

#include <vlmcore/weak_types.h>

#include <cmath>

namespace Velmor {

namespace {

// A plain byte in the contract; relaxed so that a host which sets it late races with nobody in the language's sense.
std::atomic<bool> g_isStrict{false};

char const* GetTypeText(u32 code)
{
    return CWeakType::TypeName[code <= CWeakType::Invalid ? code : u32{CWeakType::Invalid}];
}

// What of a 64-bit integer an Integer holds.
int GetLowHalf(i64 value)
{
    return static_cast<int>(static_cast<u32>(static_cast<u64>(value)));
}

float Narrow(double value)
{
    return static_cast<float>(value);
}

// Opens the protected number renderers of a text.
class CNumberText : public CMutableString {
public:
    explicit CNumberText(i64 value) { AssignInt64(value, EStringEncoding::UTF8); }
    explicit CNumberText(f64 value) { AssignDouble(value, EStringEncoding::UTF8); }
};

} // namespace

// ---- CPinnedTypeException ----

CPinnedTypeException::CPinnedTypeException(_VlmWeakTypeDataType type)
    : CException("Type %s invalid in context.", GetTypeText(type)), m_left(type), m_right(type)
{
    SetKind(WeakTypeKind);
}

CPinnedTypeException::CPinnedTypeException(_VlmWeakTypeDataType left, _VlmWeakTypeDataType right)
    : CException("Type mismatch between %s and %s.", GetTypeText(left), GetTypeText(right)), m_left(left),
      m_right(right)
{
    SetKind(WeakTypeKind);
}

CPinnedTypeException::CPinnedTypeException(CPinnedTypeException const& other) = default;
CPinnedTypeException& CPinnedTypeException::operator=(CPinnedTypeException const& other) = default;
CPinnedTypeException::~CPinnedTypeException() = default;

CPinnedTypeException* CPinnedTypeException::Clone() const
{
    return Memory::New<CPinnedTypeException>(EHeap::Pool, *this);
}

CString CPinnedTypeException::GetLeftTypeName() const
{
    return CWeakType::GetTypeName(m_left);
}

CString CPinnedTypeException::GetRightTypeName() const
{
    return CWeakType::GetTypeName(m_right);
}

// ---- CWeakType: life ----

char const* const CWeakType::TypeName[6] = {"Reference", "Boolean", "Integer", "Float", "String", "Invalid"};

CWeakType::CWeakType(CString const& value)
{
    u64 const size = value.IsEmpty() ? 1 : value.GetAllocatedSizeAs(EStringEncoding::UTF8);
    char* const text = WeakTypeText::Allocate(size);
    if (value.IsEmpty())
        *text = 0;
    else
        value.CopyAs(EStringEncoding::UTF8, text, false);
    AdoptText(text);
}

void CWeakType::CopyText(CWeakType const& other)
{
    AdoptText(WeakTypeText::Join(other.GetText(), ""));
}

CWeakType CWeakType::MakeReference(CWeakType& target)
{
    CWeakType reference;
    reference.Store(&target);
    reference.m_type = Reference;
    return reference;
}

void CWeakType::Assign(CWeakType const& other)
{
    if (this == &other)
        return;
    CWeakType copy(other);
    AssignMoved(copy);
}

void CWeakType::AssignMoved(CWeakType& other)
{
    if (this == &other)
        return;
    CheckNoCycle(other);
    CWeakType const before(std::move(*this)); // frees the text that was
    Steal(other);
}

void CWeakType::FreeText() noexcept
{
    Memory::FreeQuietly(Load<char*>());
}

// A chain always ends: this value must not become part of a chain that comes back to it.
void CWeakType::CheckNoCycle(CWeakType const& other) const
{
    for (CWeakType const* value = &other; value->m_type == Reference;) {
        value = value->Load<CWeakType*>();
        if (value == this)
            throw CException("A weak type cannot refer to itself.");
    }
}

// ---- CWeakType: types ----

CString CWeakType::GetTypeName(EType type)
{
    return GetTypeText(type);
}

CString CWeakType::GetTypeName(_VlmWeakTypeDataType type)
{
    return GetTypeText(type);
}

void CWeakType::SetStrictMode(bool isStrict)
{
    g_isStrict.store(isStrict, std::memory_order_relaxed);
}

bool CWeakType::IsInStrictMode()
{
    return g_isStrict.load(std::memory_order_relaxed);
}

void CWeakType::Trace() const
{
    static_cast<void>(Resolve());
}

// ---- CWeakType: conversions ----

CMutableString CWeakType::AsString() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Integer:
        return CNumberText(i64{value.Load<int>()});
    case Float:
        return CNumberText(f64{value.Load<float>()});
    case Boolean:
        return CString(value.Load<u8>() != 0 ? "true" : "false");
    default:
        return CString(value.GetText()); // an Invalid value's payload is no text: a null string
    }
}

bool CWeakType::AsBoolean() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return std::islessgreater(value.Load<float>(), 0.0f);
    case Integer:
        return value.Load<int>() != 0;
    case String:
        return std::strcmp(value.GetText(), "true") == 0;
    default:
        return value.Load<u8>() != 0;
    }
}

int CWeakType::AsInteger() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return GetLowHalf(TruncateToInteger(value.Load<float>()));
    case Boolean:
        return value.Load<u8>() != 0 ? 1 : 0;
    case String:
        return GetLowHalf(CString(value.GetText()).ToInteger(EBinaryEncoding::BigEndian));
    default:
        return value.Load<int>();
    }
}

float CWeakType::AsFloat() const
{
    CWeakType const& value = Resolve();
    switch (value.m_type) {
    case Float:
        return value.Load<float>();
    case Boolean:
        return value.Load<u8>() != 0 ? 1.0f : 0.0f;
    case String:
        return CallInDefaultFloatEnvironment(&Narrow, CString(value.GetText()).ToDouble());
    default:
        return static_cast<float>(value.Load<int>());
    }
}

} // namespace Velmor
