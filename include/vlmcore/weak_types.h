/// \file
/// Weak types: values whose type is known only at run time, their operators, and storages that keep them as variables.
///
/// A value is a Boolean, an Integer, a Float, a text it owns, a reference to another value, or Invalid (nothing yet).
/// Conversions never fail. Operators choose the type they compute in from their operands; in strict mode they refuse
/// operands that do not fit with CPinnedTypeException. docs/weak_types.md has the tables.
///
/// Errors: CPinnedTypeException in strict mode; CException for a reference that would close a cycle; CBadAllocation.
/// Threads: a value belongs to one thread at a time; set strict mode before several threads compute.
#pragma once

#include <vlmcore/exceptions.h>
#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Map.h>
#include <vlmcore/impl/Core_PackedPointer.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <type_traits>
#include <utility>

/// Type codes of weak types as CPinnedTypeException carries them: the codes of CWeakType::EType.
enum _VlmWeakTypeDataType : Velmor::u32 { // NOLINT(bugprone-reserved-identifier): kept, hosts use the name
    VlmWeakTypeReference = 0,
    VlmWeakTypeBoolean = 1,
    VlmWeakTypeInteger = 2,
    VlmWeakTypeFloat = 3,
    VlmWeakTypeString = 4,
    VlmWeakTypeInvalid = 5,
};

namespace Velmor {

/// Operands whose types do not go together, in strict mode.
class VLM_API CPinnedTypeException : public CException {
public:
    /// "Type %s invalid in context."; both codes are `type`.
    explicit CPinnedTypeException(_VlmWeakTypeDataType type);
    /// "Type mismatch between %s and %s."
    CPinnedTypeException(_VlmWeakTypeDataType left, _VlmWeakTypeDataType right);
    CPinnedTypeException(CPinnedTypeException const& other);
    CPinnedTypeException& operator=(CPinnedTypeException const& other);
    ~CPinnedTypeException() override;

    /// A copy from the memory manager, owned by the caller. Throws CBadAllocation.
    [[nodiscard]] CPinnedTypeException* Clone() const override;

    /// Name of the left operand's type code, as the operand stored it. A view of a constant.
    [[nodiscard]] CString GetLeftTypeName() const;
    /// Name of the right operand's type code.
    [[nodiscard]] CString GetRightTypeName() const;

private:
    _VlmWeakTypeDataType m_left;
    _VlmWeakTypeDataType m_right;
};

/// A dynamically typed scalar. 12 bytes, aligned to 4, so that it lives in 4-byte-aligned pool blocks.
class VLM_API CWeakType {
public:
    /// Type codes.
    enum EType : u8 {
        Reference = 0, ///< refers to another value, which the caller keeps alive
        Boolean = 1,   ///< true or false
        Integer = 2,   ///< signed, 32 bits
        Float = 3,     ///< IEEE, 32 bits
        String = 4,    ///< UTF-8 text, owned
        Invalid = 5,   ///< holds nothing yet
    };

    /// Names of the types, by code.
    static char const* const TypeName[6];

    /// An Invalid value.
    CWeakType() = default;
    CWeakType(bool value) : m_type(Boolean) { Store(u64{value}); }
    CWeakType(int value) : m_type(Integer) { Store(u64{static_cast<u32>(value)}); }
    CWeakType(float value) : m_type(Float) { Store(u64{std::bit_cast<u32>(value)}); }
    /// Copies the text, converted to UTF-8. Throws CBadAllocation.
    CWeakType(CString const& value);
    CWeakType(char const* value) : CWeakType(CString(value)) {}
    CWeakType(IString const& value) : CWeakType(CString(value)) {}
    /// The same of any other text that a CString can view.
    template <class T>
        requires(!std::is_same_v<T, char> && std::is_constructible_v<CString, T const*>)
    CWeakType(T const* value) : CWeakType(CString(value))
    {
    }
    /// What any other pointer is meant to be is unclear; without this it would become a Boolean.
    template <class T>
        requires(!std::is_constructible_v<CString, T const*>)
    CWeakType(T* value) = delete;
    /// A text is copied, a reference stays a reference to the same value. Throws CBadAllocation.
    CWeakType(CWeakType const& other)
    {
        if (other.m_type == String) [[unlikely]]
            CopyText(other);
        else
            CopyPayload(other);
    }
    /// Leaves `other` Invalid.
    CWeakType(CWeakType&& other) noexcept { Steal(other); }
    ~CWeakType()
    {
        if (m_type == String)
            FreeText();
    }

    /// A value that refers to `target`, which must outlive it. References to references are followed to the end by
    /// every operation.
    [[nodiscard]] static CWeakType MakeReference(CWeakType& target);

    /// Replaces this value itself, also when it is a reference. Throws CException, value kept, when a reference would
    /// lead back to this value.
    CWeakType& operator=(CWeakType const& other)
    {
        if (m_type == String || other.m_type == String || other.m_type == Reference) [[unlikely]]
            Assign(other);
        else
            CopyPayload(other);
        return *this;
    }
    /// Leaves `other` Invalid, unless it is this value.
    CWeakType& operator=(CWeakType&& other)
    {
        if (m_type == String || other.m_type == Reference) [[unlikely]]
            AssignMoved(other);
        else
            Steal(other);
        return *this;
    }

    /// The type as stored.
    [[nodiscard]] EType GetType() const { return m_type; }
    /// The type behind all references: never Reference.
    [[nodiscard]] EType GetResolvedType() const { return Resolve().m_type; }

    /// Name of a type code; "Invalid" for a code that is none. A view of a constant.
    [[nodiscard]] static CString GetTypeName(EType type);
    [[nodiscard]] static CString GetTypeName(_VlmWeakTypeDataType type);

    /// Strict mode, off at first, holds for the whole process.
    static void SetStrictMode(bool isStrict);
    [[nodiscard]] static bool IsInStrictMode();

    /// Conversions of the resolved value. Total: what does not parse gives 0, false or the empty text.
    [[nodiscard]] CMutableString AsString() const;
    [[nodiscard]] bool AsBoolean() const;
    [[nodiscard]] int AsInteger() const;
    [[nodiscard]] float AsFloat() const;

    /// Follows the references to the resolved value; produces no output.
    void Trace() const;

    /// Comparisons; throw CPinnedTypeException in strict mode.
    [[nodiscard]] bool operator==(CWeakType const& other) const;
    [[nodiscard]] bool operator!=(CWeakType const& other) const;
    [[nodiscard]] bool operator<(CWeakType const& other) const;
    [[nodiscard]] bool operator<=(CWeakType const& other) const;
    [[nodiscard]] bool operator>(CWeakType const& other) const;
    [[nodiscard]] bool operator>=(CWeakType const& other) const;

    /// True for a zero, but for a Float: true when it is not zero (kept: scripts depend on it).
    [[nodiscard]] CWeakType operator!() const;
    [[nodiscard]] CWeakType operator~() const;
    [[nodiscard]] CWeakType operator-() const;

    /// Change the resolved value in place; throw CPinnedTypeException in strict mode.
    CWeakType& operator++();
    CWeakType& operator--();

    /// Arithmetic, bitwise and shift operators; throw CPinnedTypeException in strict mode, CBadAllocation for texts.
    [[nodiscard]] friend CWeakType operator+(CWeakType const& left, CWeakType const& right)
    {
        if (AreIntegers(left, right))
            return MakeWrapped(left.LoadUnsigned() + right.LoadUnsigned());
        return Add(left, right);
    }
    [[nodiscard]] friend CWeakType operator-(CWeakType const& left, CWeakType const& right)
    {
        if (AreIntegers(left, right))
            return MakeWrapped(left.LoadUnsigned() - right.LoadUnsigned());
        return Subtract(left, right);
    }
    [[nodiscard]] friend CWeakType operator*(CWeakType const& left, CWeakType const& right)
    {
        if (AreIntegers(left, right))
            return MakeWrapped(left.LoadUnsigned() * right.LoadUnsigned());
        return Multiply(left, right);
    }
    [[nodiscard]] friend CWeakType operator/(CWeakType const& left, CWeakType const& right)
    {
        return Divide(left, right);
    }
    [[nodiscard]] friend CWeakType operator%(CWeakType const& left, CWeakType const& right)
    {
        return Modulo(left, right);
    }
    [[nodiscard]] friend CWeakType operator&(CWeakType const& left, CWeakType const& right) { return And(left, right); }
    [[nodiscard]] friend CWeakType operator|(CWeakType const& left, CWeakType const& right) { return Or(left, right); }
    [[nodiscard]] friend CWeakType operator^(CWeakType const& left, CWeakType const& right)
    {
        return ExclusiveOr(left, right);
    }
    /// Shift counts are taken modulo 32.
    [[nodiscard]] friend CWeakType operator<<(CWeakType const& left, CWeakType const& right)
    {
        return ShiftLeft(left, right);
    }
    [[nodiscard]] friend CWeakType operator>>(CWeakType const& left, CWeakType const& right)
    {
        return ShiftRight(left, right);
    }

protected:
    /// The value at the end of the references.
    [[nodiscard]] CWeakType const& Resolve() const
    {
        CWeakType const* value = this;
        while (value->m_type == Reference)
            value = value->Load<CWeakType*>();
        return *value;
    }
    [[nodiscard]] CWeakType& Resolve() { return const_cast<CWeakType&>(std::as_const(*this).Resolve()); }

private:
    struct SOperand;
    friend struct SOperand;

    // The payload is kept in words so that its alignment is 4; a value goes in and out by its bytes. Constructors write
    // all eight, for copies read all eight, and a wider read has to wait for a narrower write.
    template <class T>
    [[nodiscard]] T Load() const
    {
        T value;
        std::memcpy(&value, m_payload, sizeof value);
        return value;
    }
    template <class T>
    void Store(T value)
    {
        std::memcpy(m_payload, &value, sizeof value);
    }
    [[nodiscard]] u32 LoadUnsigned() const { return m_payload[0]; }
    [[nodiscard]] char const* GetText() const { return Load<char const*>(); }

    // Needs no look at strict mode: two numbers always go together.
    static bool AreIntegers(CWeakType const& left, CWeakType const& right)
    {
        return left.m_type == Integer && right.m_type == Integer;
    }
    static CWeakType MakeWrapped(u32 bits) { return CWeakType(static_cast<int>(bits)); }

    static CWeakType Add(CWeakType const& left, CWeakType const& right);
    static CWeakType Subtract(CWeakType const& left, CWeakType const& right);
    static CWeakType Multiply(CWeakType const& left, CWeakType const& right);
    static CWeakType Divide(CWeakType const& left, CWeakType const& right);
    static CWeakType Modulo(CWeakType const& left, CWeakType const& right);
    static CWeakType And(CWeakType const& left, CWeakType const& right);
    static CWeakType Or(CWeakType const& left, CWeakType const& right);
    static CWeakType ExclusiveOr(CWeakType const& left, CWeakType const& right);
    static CWeakType ShiftLeft(CWeakType const& left, CWeakType const& right);
    static CWeakType ShiftRight(CWeakType const& left, CWeakType const& right);

    void CheckComparable(CWeakType const& other) const;
    template <class Relation>
    [[nodiscard]] bool Order(CWeakType const& other, Relation relation) const;
    void CheckCountable() const;
    void CheckNoCycle(CWeakType const& other) const;
    void FreeText() noexcept;

    void CopyPayload(CWeakType const& other)
    {
        m_payload[0] = other.m_payload[0];
        m_payload[1] = other.m_payload[1];
        m_type = other.m_type;
    }
    // For a value that owns no text. From itself it takes nothing away.
    void Steal(CWeakType& other) noexcept
    {
        u32 const payload[2] = {other.m_payload[0], other.m_payload[1]};
        EType const type = other.m_type;
        other.m_payload[0] = 0;
        other.m_payload[1] = 0;
        other.m_type = Invalid;
        m_payload[0] = payload[0];
        m_payload[1] = payload[1];
        m_type = type;
    }
    void CopyText(CWeakType const& other);
    void Assign(CWeakType const& other);
    void AssignMoved(CWeakType& other);
    void AdoptText(char* text) noexcept
    {
        Store(text);
        m_type = String;
    }

    u32 m_payload[2] = {};
    EType m_type = Invalid;
};

class IWeakTypeStorage;

/// A value that a storage keeps as a variable.
class VLM_API CManagedWeakType : public CWeakType {
public:
    /// An Invalid value that `storage` keeps.
    explicit CManagedWeakType(IWeakTypeStorage* storage) : m_storage(storage) {}
    CManagedWeakType(CManagedWeakType const&) = delete;
    ~CManagedWeakType() = default;

    /// Take the value only; the variable stays where it is.
    CManagedWeakType& operator=(CManagedWeakType const& other)
    {
        CWeakType::operator=(other);
        return *this;
    }
    CManagedWeakType& operator=(CWeakType const& value)
    {
        CWeakType::operator=(value);
        return *this;
    }
    CManagedWeakType& operator=(CWeakType&& value)
    {
        CWeakType::operator=(std::move(value));
        return *this;
    }

    /// True for every value that a storage made.
    [[nodiscard]] bool IsManaged() const { return m_isManaged != 0; }
    /// The storage that keeps the variable.
    [[nodiscard]] IWeakTypeStorage* GetStorage() const { return m_storage; }

private:
    u8 m_isManaged = 1;
    [[maybe_unused]] u8 m_reserved[3] = {}; // a managed value is 24 bytes on every compiler
    TPackedPointer<IWeakTypeStorage> m_storage;
};

static_assert(sizeof(CManagedWeakType) == 24 && alignof(CManagedWeakType) == 4);

/// Variables by a 32-bit id, or by a name, whose id is the name's GetHash(): two names with one hash are one variable.
/// That hash covers about as many bytes as the name has characters, so keep to ASCII names in UTF-8, or make ids of
/// your own: other names have more bytes, and those that differ at their ends only meet (kept: hosts store these ids).
/// References stay valid until their variable is removed. Missing ids are answered, never an error; operator[] adds
/// them and may throw CBadAllocation. One thread at a time.
class VLM_API IWeakTypeStorage {
public:
    virtual ~IWeakTypeStorage();
    /// The id of a variable of this storage.
    [[nodiscard]] virtual unsigned int GetVariableId(CManagedWeakType const& variable) const = 0;
    /// True when there is such a variable.
    [[nodiscard]] virtual bool IsRegistered(unsigned int id) const = 0;
    [[nodiscard]] virtual bool IsRegistered(CString const& name) const = 0;
    /// Removes the variable, if there is one.
    virtual void Unregister(unsigned int id) = 0;
    virtual void Unregister(CString const& name) = 0;
    /// Removes every variable.
    virtual void Clear() = 0;
    /// The variable; added as an Invalid value when it is missing.
    virtual CManagedWeakType& operator[](unsigned int id) = 0;
    virtual CManagedWeakType& operator[](CString const& name) = 0;
    /// The variable, null when it is missing.
    [[nodiscard]] virtual CManagedWeakType* TryGet(unsigned int id) const = 0;
    [[nodiscard]] virtual CManagedWeakType* TryGet(CString const& name) const = 0;
    /// Number of variables.
    [[nodiscard]] virtual u64 GetCount() const = 0;

protected:
    IWeakTypeStorage() = default;
    IWeakTypeStorage(IWeakTypeStorage const&) = default;
    IWeakTypeStorage& operator=(IWeakTypeStorage const&) = default;
};

/// What all storages do with a name: the operation of the same kind with its hash as the id, by a virtual call.
class VLM_API CWeakTypeStorageByName : public IWeakTypeStorage {
public:
    using IWeakTypeStorage::IsRegistered; ///< also by id
    using IWeakTypeStorage::operator[];   ///< also by id
    using IWeakTypeStorage::TryGet;       ///< also by id
    using IWeakTypeStorage::Unregister;   ///< also by id

    ~CWeakTypeStorageByName() override;
    [[nodiscard]] bool IsRegistered(CString const& name) const override;
    void Unregister(CString const& name) override;
    CManagedWeakType& operator[](CString const& name) override;
    [[nodiscard]] CManagedWeakType* TryGet(CString const& name) const override;

protected:
    CWeakTypeStorageByName() = default;
    CWeakTypeStorageByName(CWeakTypeStorageByName const&) = default;
    CWeakTypeStorageByName& operator=(CWeakTypeStorageByName const&) = default;
};

/// Variables in the order they were added, searched one by one: for a few.
class VLM_API CWeakTypeList final : public CWeakTypeStorageByName {
public:
    using CWeakTypeStorageByName::IsRegistered; ///< also by id
    using CWeakTypeStorageByName::operator[];   ///< also by id
    using CWeakTypeStorageByName::TryGet;       ///< also by id
    using CWeakTypeStorageByName::Unregister;   ///< also by id

    CWeakTypeList() = default;
    CWeakTypeList(CWeakTypeList const&) = delete;
    CWeakTypeList& operator=(CWeakTypeList const&) = delete;
    ~CWeakTypeList() override;

    [[nodiscard]] unsigned int GetVariableId(CManagedWeakType const& variable) const override;
    [[nodiscard]] bool IsRegistered(unsigned int id) const override;
    void Unregister(unsigned int id) override;
    /// Removes from the tail.
    void Clear() override;
    CManagedWeakType& operator[](unsigned int id) override;
    [[nodiscard]] CManagedWeakType* TryGet(unsigned int id) const override;
    [[nodiscard]] u64 GetCount() const override;

private:
    struct SNode;

    [[nodiscard]] SNode* FindNode(unsigned int id) const;
    void Remove(SNode* node) noexcept;

    SNode* m_head = nullptr;
    SNode* m_tail = nullptr;
    u64 m_count = 0;
};

/// Variables ordered by id, found in logarithmic time.
class VLM_API CWeakTypeMap final : public CWeakTypeStorageByName {
public:
    using CWeakTypeStorageByName::IsRegistered; ///< also by id
    using CWeakTypeStorageByName::operator[];   ///< also by id
    using CWeakTypeStorageByName::TryGet;       ///< also by id
    using CWeakTypeStorageByName::Unregister;   ///< also by id

    CWeakTypeMap() = default;
    CWeakTypeMap(CWeakTypeMap const&) = delete;
    CWeakTypeMap& operator=(CWeakTypeMap const&) = delete;
    ~CWeakTypeMap() override;

    [[nodiscard]] unsigned int GetVariableId(CManagedWeakType const& variable) const override;
    [[nodiscard]] bool IsRegistered(unsigned int id) const override;
    void Unregister(unsigned int id) override;
    /// Removes in ascending order of the ids.
    void Clear() override;
    CManagedWeakType& operator[](unsigned int id) override;
    [[nodiscard]] CManagedWeakType* TryGet(unsigned int id) const override;
    [[nodiscard]] u64 GetCount() const override;

    /// The variables in ascending order of their ids.
    [[nodiscard]] TMap<u32, CManagedWeakType> const& GetVariables() const { return m_variables; }

private:
    TMap<u32, CManagedWeakType> m_variables;
};

} // namespace Velmor
