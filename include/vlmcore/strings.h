/// \file
/// The string family: text in UTF-8, UTF-16 or UTF-32, chosen per object, mixed freely.
///
/// CString views text that lives elsewhere and never allocates; CMutableString owns an exactly sized buffer. Interfaces
/// take `CString const&` and return CMutableString. Text ends with a zero unit of its own width; lengths and indices
/// count code points, sizes count bytes and include the terminator. A null string behaves as an empty one.
///
/// The encodings follow this library's own thresholds (docs/quirks.md): they are not the standard UTF rules at and
/// above U+FFFF for UTF-16 and above U+FFFF for UTF-8. Malformed text is walked, never rejected, and never left.
///
/// Errors: whatever builds text throws CBadAllocation and then leaves its target as it was. Threads: one object belongs
/// to one thread at a time; const operations may run in several.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_UniquePtr.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

namespace Velmor {

class CString;
class CMutableString;
class CStringElement;
class CGenericStringIterator;
namespace Impl {
class CFormatter;
}

/// Encoding of a text. Any value but 0 and 1 is treated as UTF32.
namespace EStringEncoding {
enum Type : u32 { UTF8 = 0, UTF16 = 1, UTF32 = 2 };
} // namespace EStringEncoding

/// Digit order of hexadecimal text; any value but 0 is LittleEndian.
namespace EBinaryEncoding {
enum Type : u32 {
    BigEndian = 0,    ///< most significant digit first
    LittleEndian = 1, ///< bytes of two digits each, least significant byte first
};
} // namespace EBinaryEncoding

/// Base of all strings: a text pointer and its encoding, and every operation that does not change them.
class VLM_API IString {
public:
    /// What Find and FindLast return for a miss.
    static constexpr u64 NotFound = ~u64{0};

    /// Bytes of a UTF-8 character by the upper four bits of its lead byte; a stray continuation byte counts as one.
    static u64 const UTF8SizeTable[16];

    virtual ~IString();

    /// Code points up to the terminator.
    [[nodiscard]] virtual u64 GetLength() const;
    /// Bytes of the text and its terminator; 0 for a null string.
    [[nodiscard]] virtual u64 GetAllocatedSize() const;

    /// First code unit; null for a null string.
    [[nodiscard]] void const* GetData() const { return m_data; }
    [[nodiscard]] EStringEncoding::Type GetEncoding() const { return m_encoding; }
    /// True for a null string and for an empty text.
    [[nodiscard]] bool IsEmpty() const;

    [[nodiscard]] u64 GetAllocatedSizeAs(EStringEncoding::Type target) const;
    [[nodiscard]] u64 GetByteOffset(u64 index) const;
    [[nodiscard]] u32 GetCodePointAt(u64 index) const;
    [[nodiscard]] CString GetSubstring(u64 start) const;
    [[nodiscard]] CMutableString GetSubstring(u64 start, u64 end) const;
    void CopyAs(EStringEncoding::Type target, void* destination, bool planeZeroOnly) const;

    [[nodiscard]] CMutableString ToUTF8() const;
    [[nodiscard]] CMutableString ToUTF16() const;
    [[nodiscard]] CMutableString ToUTF32() const;
    [[nodiscard]] CMutableString ToWide() const;
    [[nodiscard]] CMutableString CopyToLowercaseASCII() const;
    [[nodiscard]] CMutableString CopyToUppercaseASCII() const;

    [[nodiscard]] u32 GetHash() const;
    [[nodiscard]] u32 GetHash(u64 start, u64 end) const;
    [[nodiscard]] u64 GetDistance(CString const& other) const;

    // ---- Numbers: rendering (Core_StringNumberRender.cpp) ----------------------------------------------------------
    //
    // Each renderer writes the number's text and a terminator to `out` in the target encoding and returns the bytes
    // written, the terminator not counted. `outSize` is in bytes; a text that does not fit with its terminator is
    // refused: nothing written, 0 returned. So is a null `out`. `out` needs no alignment. Nothing here allocates.

    /// Decimal digits, "-" in front of a negative value, never a "+". At most 20 characters and the terminator.
    static u64 FromInteger(i64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    /// Decimal digits. At most 20 characters and the terminator.
    static u64 FromUnsignedInteger(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    /// "0x" and upper-case digits without leading zeros; "0x0" for 0. At most 18 characters and the terminator.
    static u64 FromHex(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    /// Whole part, a point, and 1 to 7 digits of fraction, cut where less than 1e-6 is left; "Inf", "-Inf", "NaN".
    /// Values between -1 and 0 lose their sign ("-0.5" gives "0.5"; kept: hosts depend on it), and a whole part outside
    /// 64 bits prints as the smallest integer. At most 28 characters and the terminator.
    static u64 FromFloat(f32 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    /// The same with 1 to 17 digits of fraction, cut where less than 1e-15 is left. At most 38 characters.
    static u64 FromDouble(f64 value, char* out, u64 outSize, EStringEncoding::Type encoding);

    // ---- Numbers: parsing (Core_StringNumberParse.cpp) --------------------------------------------------------------
    //
    // Reads from the start of the text to the first character that does not belong, and gives what was read up to
    // there: 0 for null, empty and foreign text. No blanks, no "+", no exponent. Overflow wraps. Never throws.

    /// As ToUnsignedInteger, negated when the text begins with "-".
    [[nodiscard]] i64 ToInteger(EBinaryEncoding::Type order) const;
    /// Decimal digits; behind an "x" ("0x1F", "x1f") hexadecimal digits in the given order. Any "-" in front of the
    /// first digit other than 0 is skipped.
    [[nodiscard]] u64 ToUnsignedInteger(EBinaryEncoding::Type order) const;
    /// Digits with one "." or ","; a "-" in the whole part is skipped, in first place it negates the result.
    [[nodiscard]] f64 ToDouble() const;

    [[nodiscard]] CGenericStringIterator GetIterator(u64 index = 0) const;

    // (Comparison, search, editing, number rendering and the code-point helpers follow the same file.)

protected:
    IString() = default;
    IString(void const* data, EStringEncoding::Type encoding) : m_data(data), m_encoding(encoding) {}
    IString(IString const&) = default;
    IString& operator=(IString const&) = default;

    virtual void Assign(void const* data, EStringEncoding::Type encoding) = 0;

    void const* m_data = nullptr;
    EStringEncoding::Type m_encoding = EStringEncoding::UTF8;
};

/// A view of text that lives elsewhere; valid only as long as that text.
class VLM_API CString : public IString {
public:
    CString() = default;
    CString(std::nullptr_t) {}
    CString(char const* utf8) : IString(utf8, EStringEncoding::UTF8) {}
    CString(char8_t const* utf8) : IString(utf8, EStringEncoding::UTF8) {}
    CString(char16_t const* utf16) : IString(utf16, EStringEncoding::UTF16) {}
    CString(char32_t const* utf32) : IString(utf32, EStringEncoding::UTF32) {}
    /// UTF-16 where wchar_t has 16 bits (Windows), UTF-32 where it has 32 (Linux).
    CString(wchar_t const* wide) : IString(wide, sizeof(wchar_t) == 2 ? EStringEncoding::UTF16 : EStringEncoding::UTF32)
    {
    }
    CString(void const* data, EStringEncoding::Type encoding) : IString(data, encoding) {}
    CString(IString const& text) : IString(text.GetData(), text.GetEncoding()) {}
    CString(CString const&) = default;
    CString& operator=(CString const&) = default;
    ~CString() override;

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override;
};

/// A text of its own: an exactly sized buffer from EHeap::Pool, its length and size cached.
class VLM_API CMutableString : public IString {
public:
    CMutableString() = default;
    CMutableString(CString const& text);
    CMutableString(char const* utf8, EStringEncoding::Type target);
    CMutableString(CMutableString const& other);
    CMutableString(CMutableString&& other) noexcept;
    CMutableString(TUniquePtr<CStringElement> const& chain);
    ~CMutableString() override;

    CMutableString& operator=(CString const& text);
    CMutableString& operator=(CMutableString const& other);
    CMutableString& operator=(CMutableString&& other) noexcept;
    CMutableString& operator=(TUniquePtr<CStringElement> const& chain);

    [[nodiscard]] u64 GetLength() const override;
    [[nodiscard]] u64 GetAllocatedSize() const override;

    /// Adopts a buffer of Memory::Malloc that holds terminated text of the encoding.
    void SetManagedReference(void* buffer, EStringEncoding::Type encoding);

    CMutableString& ToLowercaseASCII();
    CMutableString& ToUppercaseASCII();

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override;
    void Convert(void const* data, EStringEncoding::Type from, EStringEncoding::Type to);
    /// Hold the rendering of a number in the encoding. Throw CBadAllocation, the text then stays. (Core_StringNumber*.)
    void AssignInt64(i64 value, EStringEncoding::Type encoding);
    void AssignUInt64(u64 value, EStringEncoding::Type encoding);
    void AssignDouble(f64 value, EStringEncoding::Type encoding);

private:
    friend class Impl::CFormatter; // hands over finished buffers (format.h)

    u64 m_length = 0;
    u64 m_allocatedSize = 0;
};

} // namespace Velmor
