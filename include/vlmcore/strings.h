/// \file
/// The string family: text in UTF-8, UTF-16 or UTF-32, chosen per object, mixed freely.
///
/// CString views text that lives elsewhere and never allocates; CMutableString owns an exactly sized buffer. Interfaces
/// take `CString const&` and return CMutableString. Text ends with a zero unit of its own width; lengths and indices
/// count code points, sizes count bytes and include the terminator. A null string behaves as an empty one.
///
///     CMutableString greeting = CString("Hello, ") + u"world";  // a chain: UTF-8, as its first piece
///     greeting.ToUppercaseASCII();
///     for (u32 codePoint : greeting.GetCodePoints())
///         use(codePoint);
///
/// The encodings follow this library's own thresholds (docs/quirks.md): they are not the standard UTF rules at and
/// above U+FFFF for UTF-16 and above U+FFFF for UTF-8. Malformed text is walked, never rejected, and never left: a
/// character that the terminator cuts short ends in front of it.
///
/// Do not keep a CString to text that dies before it: `CString view = MakeText();` dangles as soon as the line ends.
/// Costs: a CString walks its text for every length and size, a CMutableString knows both.
///
/// Errors: whatever builds text throws CBadAllocation and then leaves its target as it was; nothing else is reported.
/// Indices past the end mean the end, ranges whose start lies behind their end are empty.
/// Threads: one object belongs to one thread at a time; const operations may run in several.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/impl/Core_ShortNumber.h>
#include <vlmcore/impl/Core_StringIterator.h>
#include <vlmcore/impl/Core_UniquePtr.h>
#include <vlmcore/impl/Core_Vector.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velmor {

class IString;
class CString;
class CMutableString;
class CStringElement;
namespace Impl {
class CFormatter;
template <class Text>
concept String = std::is_convertible_v<std::remove_cvref_t<Text> const*, IString const*>;
} // namespace Impl

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
    /// As an end of a range: the end of the text.
    static constexpr u64 End = ~u64{0};

    /// Bytes of a UTF-8 character by the upper four bits of its lead byte; a stray continuation byte counts as one.
    static u64 const UTF8SizeTable[16];

    // ---- Code points ------------------------------------------------------------------------------------------------
    //
    // For pointers to units of any type of the right width. Strides and offsets are bytes. Nothing is validated; the
    // decoders take the units behind a terminator as zero and do not read them.

    /// Byte length of the character with this lead byte.
    template <class Unit>
        requires(sizeof(Unit) == 1)
    [[nodiscard]] static u64 GetCharStrideUTF8(Unit const* lead)
    {
        return Encodings::SUTF8::LeadSize(static_cast<u8>(*lead));
    }

    /// Byte length of the character that ends in front of `end`: continuation bytes are stepped over without a limit,
    /// so there must be a character.
    template <class Unit>
        requires(sizeof(Unit) == 1)
    [[nodiscard]] static u64 GetCharStrideReverseUTF8(Unit const* end)
    {
        u64 stride = 1;
        while ((static_cast<u8>(*(end - stride)) & 0xC0) == 0x80)
            ++stride;
        return stride;
    }

    /// 4 for any surrogate unit, high or low, else 2.
    template <class Unit>
        requires(sizeof(Unit) == 2)
    [[nodiscard]] static u64 GetCharStrideUTF16(Unit const* unit)
    {
        return Encodings::SUTF16::OpensPair(Encodings::Load<u16>(Encodings::AsBytes(unit))) ? 4 : 2;
    }

    /// 4 when the unit in front of `end` is a low surrogate, else 2.
    template <class Unit>
        requires(sizeof(Unit) == 2)
    [[nodiscard]] static u64 GetCharStrideReverseUTF16(Unit const* end)
    {
        return Encodings::SUTF16::ClosesPair(Encodings::Load<u16>(Encodings::AsBytes(end) - 2)) ? 4 : 2;
    }

    /// Writes 1 to 4 bytes, no terminator; returns the position behind them.
    template <class Unit>
        requires(sizeof(Unit) == 1)
    static Unit* CodepointToUTF8(u32 codePoint, Unit* out)
    {
        return out + (Encodings::SUTF8::Write(codePoint, Encodings::AsBytes(out)) - Encodings::AsBytes(out));
    }

    /// Writes 1 or 2 units, no terminator; returns the position behind them.
    template <class Unit>
        requires(sizeof(Unit) == 2)
    static Unit* CodepointToUTF16(u32 codePoint, Unit* out)
    {
        Encodings::SUTF16::Write(codePoint, Encodings::AsBytes(out));
        return out + Encodings::SUTF16::GetWrittenSize(codePoint) / 2;
    }

    /// Writes the code point as it stands, no terminator; returns the position behind it.
    template <class Unit>
        requires(sizeof(Unit) == 4)
    static Unit* CodepointToUTF32(u32 codePoint, Unit* out)
    {
        Encodings::SUTF32::Write(codePoint, Encodings::AsBytes(out));
        return out + 1;
    }

    /// Bytes that CodepointToUTF8 writes.
    [[nodiscard]] static u64 GetCodepointStrideUTF8(u32 codePoint)
    {
        return Encodings::SUTF8::GetWrittenSize(codePoint);
    }
    /// Bytes that CodepointToUTF16 writes.
    [[nodiscard]] static u64 GetCodepointStrideUTF16(u32 codePoint)
    {
        return Encodings::SUTF16::GetWrittenSize(codePoint);
    }

    /// The code point at a byte offset; 0 for a continuation byte in lead position.
    template <class Unit>
        requires(sizeof(Unit) == 1)
    [[nodiscard]] static u32 GetCodepointUTF8(Unit const* text, u64 byteOffset)
    {
        return Encodings::SUTF8::Read(Encodings::AsBytes(text) + byteOffset).codePoint;
    }

    /// The code point at a byte (not unit) offset.
    template <class Unit>
        requires(sizeof(Unit) == 2)
    [[nodiscard]] static u32 GetCodepointUTF16(Unit const* text, u64 byteOffset)
    {
        return Encodings::SUTF16::Read(Encodings::AsBytes(text) + byteOffset).codePoint;
    }

    // ---- The object -------------------------------------------------------------------------------------------------

    virtual ~IString() = default;

    /// Code points up to the terminator.
    [[nodiscard]] virtual u64 GetLength() const;
    /// Bytes of the text and its terminator; 0 for a null string.
    [[nodiscard]] virtual u64 GetAllocatedSize() const;

    /// First code unit; null for a null string.
    [[nodiscard]] void const* GetData() const { return m_data; }
    [[nodiscard]] EStringEncoding::Type GetEncoding() const { return m_encoding; }
    /// True for a null string and for an empty text.
    [[nodiscard]] bool IsEmpty() const;

    /// Bytes that the text takes in another encoding, terminator included; 0 for a null string.
    [[nodiscard]] u64 GetAllocatedSizeAs(EStringEncoding::Type target) const;
    /// Byte offset of a code point; that of the terminator for an index past the end.
    [[nodiscard]] u64 GetByteOffset(u64 index) const;
    /// The code point at an index; 0 at and past the end.
    [[nodiscard]] u32 GetCodePointAt(u64 index) const;
    /// A view from a code point to the end, sharing this text.
    [[nodiscard]] CString GetSubstring(u64 start) const;
    /// A copy of the code points from `start` up to, not including, `end`.
    [[nodiscard]] CMutableString GetSubstring(u64 start, u64 end) const;

    /// Writes the text and a terminator in the target encoding: GetAllocatedSizeAs(target) bytes. Nothing for a null
    /// string or destination. `planeZeroOnly` promises that UTF-16 text holds no surrogates (faster to UTF-8; text that
    /// breaks the promise is written unit by unit, up to three bytes for each code point).
    void CopyAs(EStringEncoding::Type target, void* destination, bool planeZeroOnly) const;

    /// Copies in another encoding; null gives null. Throw CBadAllocation.
    [[nodiscard]] CMutableString ToUTF8() const;
    [[nodiscard]] CMutableString ToUTF16() const;
    [[nodiscard]] CMutableString ToUTF32() const;
    /// UTF-16 on every platform.
    [[nodiscard]] CMutableString ToWide() const;
    /// Copies in the same encoding, A to Z and a to z changed, nothing else.
    [[nodiscard]] CMutableString CopyToLowercaseASCII() const;
    [[nodiscard]] CMutableString CopyToUppercaseASCII() const;

    // ---- Comparison and hashes --------------------------------------------------------------------------------------
    //
    // Null and empty are equal and order first. Texts of one encoding compare unit by unit, of two encodings code point
    // by code point; no locale, no case folding. Operators for literals and the standard strings stand below.

    [[nodiscard]] bool operator==(CString const& other) const;
    [[nodiscard]] bool operator!=(CString const& other) const;
    [[nodiscard]] bool operator<(CString const& other) const;
    [[nodiscard]] bool operator>(CString const& other) const;

    /// The empty text starts and ends every text. Whole characters are compared.
    [[nodiscard]] bool StartsWith(CString const& text) const;
    [[nodiscard]] bool EndsWith(CString const& text) const;

    /// Hash of the first GetLength() bytes and one unit more (kept: stored hashes depend on it), 0 for an empty text.
    /// It depends on the encoding, and need not be the hash of the range form.
    [[nodiscard]] u32 GetHash() const;
    /// Hash of the code points from `start` up to `end`; 0 for an empty text.
    [[nodiscard]] u32 GetHash(u64 start, u64 end) const;
    /// Hash of the code points: the same for equal texts of any encoding. What std::hash uses.
    [[nodiscard]] u64 GetTextHash() const;

    /// Levenshtein distance in code points. Both texts are read with this text's encoding: convert the other first if
    /// it has another one. Throws CBadAllocation.
    [[nodiscard]] u64 GetDistance(CString const& other) const;

    // ---- Numbers: rendering (Core_StringNumberRender.cpp) ----------------------------------------------------------
    //
    // Each renderer writes the number's text and a terminator to `out` in the target encoding and returns the bytes
    // written, the terminator not counted. `outSize` is in bytes; a text that does not fit with its terminator is
    // refused: nothing written, 0 returned. So is a null `out`. `out` needs no alignment. Nothing here allocates.

    /// Decimal digits, "-" in front of a negative value, never a "+". At most 20 characters and the terminator.
    static u64 FromInteger(i64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
    {
        if (static_cast<u64>(value) < Impl::ShortNumberLimit &&
            IsPlainOutput(out, outSize, Impl::ShortNumberSize, encoding))
            return Impl::WriteShortNumber(static_cast<u32>(value), out);
        return RenderInteger(value, out, outSize, encoding);
    }
    /// Decimal digits. At most 20 characters and the terminator.
    static u64 FromUnsignedInteger(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
    {
        if (value < Impl::ShortNumberLimit && IsPlainOutput(out, outSize, Impl::ShortNumberSize, encoding))
            return Impl::WriteShortNumber(static_cast<u32>(value), out);
        return RenderUnsignedInteger(value, out, outSize, encoding);
    }
    /// "0x" and upper-case digits without leading zeros; "0x0" for 0. At most 18 characters and the terminator.
    static u64 FromHex(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding)
    {
        if (value < Impl::ShortHexLimit && IsPlainOutput(out, outSize, Impl::ShortHexSize, encoding))
            return Impl::WriteShortHex(static_cast<u32>(value), out);
        return RenderHex(value, out, outSize, encoding);
    }
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
    [[nodiscard]] i64 ToInteger(EBinaryEncoding::Type order) const
    {
        u64 value;
        return TryReadPlainNumber(value) ? static_cast<i64>(value) : ParseInteger(order);
    }
    /// Decimal digits; behind an "x" ("0x1F", "x1f") hexadecimal digits in the given order. Any "-" in front of the
    /// first digit other than 0 is skipped.
    [[nodiscard]] u64 ToUnsignedInteger(EBinaryEncoding::Type order) const
    {
        u64 value;
        return TryReadPlainNumber(value) ? value : ParseUnsignedInteger(order);
    }
    /// Digits with one "." or ","; a "-" in the whole part is skipped, in first place it negates the result.
    [[nodiscard]] f64 ToDouble() const;

    // ---- Iteration --------------------------------------------------------------------------------------------------

    /// A position at a code point; at the end for an index past it. Valid as long as the text.
    [[nodiscard]] CGenericStringIterator GetIterator(u64 index = 0) const;
    /// The code points as a range for `for`. Valid as long as the text.
    [[nodiscard]] CCodePoints GetCodePoints() const
    {
        return CCodePoints(CGenericStringIterator(this, m_data, m_encoding));
    }

    // ---- Search -----------------------------------------------------------------------------------------------------
    //
    // Indices and counts are code points; texts of any encodings are compared code point by code point. A miss is
    // NotFound. A start past the end is a miss. Looking for a long text may take memory for a table of it; where there
    // is none, it takes longer.

    /// First occurrence at or after `start`. The terminator is found too: 0 gives the length, unless the text is empty.
    [[nodiscard]] u64 Find(unsigned int codePoint, u64 start = 0) const;
    /// First occurrence at or after `start`; a miss for an empty `text`.
    [[nodiscard]] u64 Find(CString const& text, u64 start = 0) const;
    /// Last occurrence at or after `start`, with the rules of Find.
    [[nodiscard]] u64 FindLast(unsigned int codePoint, u64 start = 0) const;
    [[nodiscard]] u64 FindLast(CString const& text, u64 start = 0) const;
    /// Occurrences without overlap from `start`, found by a simple walk: the code point that ends a failed partial
    /// match is not compared again, so "ab" is not counted in "aab" (kept: hosts depend on it; Find has no such gap).
    [[nodiscard]] u64 Count(CString const& text, u64 start = 0) const;

    // ---- Editing ----------------------------------------------------------------------------------------------------
    //
    // This text stays as it is; results have its encoding. All throw CBadAllocation.

    /// Every `from` at or after `start` replaced; a `to` of 0 ends the text there.
    [[nodiscard]] CMutableString Replace(unsigned int from, unsigned int to, u64 start = 0) const;
    /// Every occurrence at or after `start`, from the left and without overlap; an empty `from` changes nothing.
    [[nodiscard]] CMutableString Replace(CString const& from, CString const& to, u64 start = 0) const;
    /// This text followed by `text`.
    [[nodiscard]] CMutableString Append(CString const& text) const;
    /// `text` followed by this text.
    [[nodiscard]] CMutableString Prepend(CString const& text) const;
    /// Appends to `out` the pieces between separators at or after `start`, never an empty one, found as Count finds
    /// them; the first piece begins with the text. The whole text is one piece when there is no separator. When memory
    /// runs out, `out` is as before.
    void Split(CString const& separator, TVector<CMutableString, 1>& out, u64 start = 0) const;
    /// Parts `first` to `last`, both included, with the separator between them, in the encoding of the last one. A
    /// `last` past the end means the last part; a `first` that is not below it gives that part alone; no parts give an
    /// empty UTF-8 text.
    [[nodiscard]] static CMutableString Join(CString const& separator, TVector<CMutableString, 1> const& parts,
                                             u64 first = 0, u64 last = End);
    /// A copy without the escape code points in the range; what follows one is kept as it stands, so a doubled escape
    /// gives one.
    [[nodiscard]] CMutableString Unescape(unsigned int escape, u64 start = 0, u64 end = End) const;
    /// A copy with every code point mapped through the first range that holds it.
    [[nodiscard]] CMutableString
    MapToCopy(TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1> const& maps) const;

    /// Moves a code point of the range to the target: `codePoint - lower + target`. False, unchanged, outside.
    static bool MapCodepoint(unsigned int& codePoint, TPair<Math::TRange<unsigned int>, unsigned int> const& map);
    /// The same with the first range that holds the code point.
    static bool MapCodepoint(unsigned int& codePoint,
                             TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1> const& maps);

    // ---- Standard library -------------------------------------------------------------------------------------------

    /// A copy as std::string, std::u8string, std::u16string, std::u32string or std::wstring, converted to the encoding
    /// of its unit width by this library's rules.
    template <class Char = char>
    [[nodiscard]] std::basic_string<Char> ToStandardString() const;

    /// A view of UTF-8 text, valid as long as the text; nothing for text of another encoding. (Buffers promise no
    /// alignment, so there are no views of wider units.)
    template <class Char = char>
        requires(sizeof(Char) == 1)
    [[nodiscard]] std::optional<std::basic_string_view<Char>> GetStandardView() const
    {
        if (m_encoding != EStringEncoding::UTF8)
            return std::nullopt;
        if (m_data == nullptr)
            return std::basic_string_view<Char>();
        return std::basic_string_view<Char>(static_cast<Char const*>(m_data), IString::GetAllocatedSize() - 1);
    }

protected:
    IString() = default;
    /// Views a text.
    IString(void const* data, EStringEncoding::Type encoding) : m_data(data), m_encoding(encoding) {}
    IString(IString const&) = default;
    IString& operator=(IString const&) = default;

    /// Takes over (a view) or copies (an owner) a terminated text; null empties.
    virtual void Assign(void const* data, EStringEncoding::Type encoding) = 0;

    /// Whole texts: `count` code points and a terminator. The destination must have the room. They return the bytes
    /// written before the terminator, and 0 for a null source or destination. To the source's own encoding `count` does
    /// not matter: the whole text is copied, and the result is its size with the terminator minus 1 (so 1 or 3 more
    /// than the text for wide units; kept: hosts depend on it).
    static u64 ConvertUTF8(void const* source, void* destination, u64 count, EStringEncoding::Type target);
    static u64 ConvertUTF16(void const* source, void* destination, u64 count, EStringEncoding::Type target,
                            bool planeZeroOnly);
    /// Any target but UTF8 and UTF32 is UTF-16 here.
    static u64 ConvertUTF32(void const* source, void* destination, u64 count, EStringEncoding::Type target);

    /// Numbers of every length and encoding; the public operations do the short ones themselves.
    static u64 RenderInteger(i64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    static u64 RenderUnsignedInteger(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    static u64 RenderHex(u64 value, char* out, u64 outSize, EStringEncoding::Type encoding);
    [[nodiscard]] i64 ParseInteger(EBinaryEncoding::Type order) const;
    [[nodiscard]] u64 ParseUnsignedInteger(EBinaryEncoding::Type order) const;

    /// What the public operations ask before they do so.
    static bool IsPlainOutput(char const* out, u64 outSize, u64 needed, EStringEncoding::Type encoding)
    {
        return encoding == EStringEncoding::UTF8 && out != nullptr && outSize >= needed;
    }
    [[nodiscard]] bool TryReadPlainNumber(u64& value) const
    {
        return m_encoding == EStringEncoding::UTF8 && m_data != nullptr && Impl::TryReadPlainNumber(m_data, value);
    }

    /// The text and its encoding; null behaves as empty.
    void const* m_data = nullptr;
    EStringEncoding::Type m_encoding = EStringEncoding::UTF8;
};

/// A view of text that lives elsewhere; valid only as long as that text. Never allocates.
class VLM_API CString : public IString {
public:
    /// Null.
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
    /// A view of a standard string up to its first zero; of a named one only, since a temporary would be gone.
    template <class Char, class Traits, class Allocator>
    CString(std::basic_string<Char, Traits, Allocator> const& text) : CString(text.c_str())
    {
    }
    template <class Char, class Traits, class Allocator>
    CString(std::basic_string<Char, Traits, Allocator>&& text) = delete;
    CString(CString const&) = default;
    CString& operator=(CString const&) = default;
    ~CString() override = default; // inline: views are made by the million

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override;
};

namespace Impl {

template <class Text>
inline constexpr bool IsStandardView = false;
template <class Char, class Traits>
inline constexpr bool IsStandardView<std::basic_string_view<Char, Traits>> = true;
template <class Text>
inline constexpr bool IsStandardString = false;
template <class Char, class Traits, class Allocator>
inline constexpr bool IsStandardString<std::basic_string<Char, Traits, Allocator>> = true;

/// Literals, pointers and named standard strings: what a CString can view and is not a string of the family itself.
template <class Text>
concept ViewableText = !String<Text> && std::is_convertible_v<Text const&, CString>;

} // namespace Impl

/// A text of its own: an exactly sized buffer from EHeap::Pool, its length and size cached.
class VLM_API CMutableString : public IString {
public:
    /// Null.
    CMutableString() = default;
    /// A copy in the same encoding; null for a null text.
    CMutableString(CString const& text);
    CMutableString(IString const& text) : CMutableString(CString(text)) {}
    /// A copy of UTF-8 text in the target encoding.
    CMutableString(char const* utf8, EStringEncoding::Type target);
    CMutableString(CMutableString const& other);
    CMutableString(CMutableString&& other) noexcept;
    CMutableString(TUniquePtr<CStringElement> const& chain);
    /// A copy of a literal, a pointer's text, or a standard string up to its first zero.
    template <Impl::ViewableText Text>
    CMutableString(Text const& text) : CMutableString(CString(text))
    {
    }
    /// A copy of a view up to its end or its first zero.
    template <class Char, class Traits>
    CMutableString(std::basic_string_view<Char, Traits> text)
    {
        AssignUnits(text.data(), text.size(), Encodings::OfUnit<Char>);
    }
    ~CMutableString() override;

    /// Null assigned leaves GetAllocatedSize as it was (kept: hosts depend on it).
    CMutableString& operator=(CString const& text);
    CMutableString& operator=(IString const& text) { return *this = CString(text); }
    CMutableString& operator=(CMutableString const& other);
    CMutableString& operator=(CMutableString&& other) noexcept;
    /// The pieces one behind the other in the encoding of the first. They may be this text's own. An empty chain gives
    /// the empty text in the current encoding.
    CMutableString& operator=(TUniquePtr<CStringElement> const& chain);
    template <Impl::ViewableText Text>
    CMutableString& operator=(Text const& text)
    {
        return *this = CString(text);
    }
    template <class Char, class Traits>
    CMutableString& operator=(std::basic_string_view<Char, Traits> text)
    {
        return *this = CMutableString(text);
    }

    [[nodiscard]] u64 GetLength() const override;
    [[nodiscard]] u64 GetAllocatedSize() const override;

    /// Adopts a buffer of Memory::Malloc that holds terminated text of the encoding. Null gives a null string.
    void SetManagedReference(void* buffer, EStringEncoding::Type encoding);

    /// Change A to Z or a to z in place, nothing else.
    CMutableString& ToLowercaseASCII();
    CMutableString& ToUppercaseASCII();

    /// As IString's; refused for a temporary, whose text would be gone before the loop begins.
    [[nodiscard]] CCodePoints GetCodePoints() const& { return IString::GetCodePoints(); }
    CCodePoints GetCodePoints() const&& = delete;

protected:
    void Assign(void const* data, EStringEncoding::Type encoding) override;
    /// Holds the text converted; null gives a null string of the encoding `to`. `data` may be this text's own.
    void Convert(void const* data, EStringEncoding::Type from, EStringEncoding::Type to);
    /// Hold the rendering of a number in the encoding. Throw CBadAllocation, the text then stays. (Core_StringNumber*.)
    void AssignInt64(i64 value, EStringEncoding::Type encoding);
    void AssignUInt64(u64 value, EStringEncoding::Type encoding);
    void AssignDouble(f64 value, EStringEncoding::Type encoding);

private:
    friend class IString;          // its operations build their results in place
    friend class Impl::CFormatter; // hands over finished buffers (format.h)

    void AssignUnits(void const* units, u64 count, EStringEncoding::Type encoding);
    void MapCaseASCII(TPair<Math::TRange<unsigned int>, unsigned int> const& map);
    void Adopt(void* buffer, EStringEncoding::Type encoding, u64 length, u64 allocatedSize) noexcept;

    u64 m_length = 0;
    u64 m_allocatedSize = 0;
};

static_assert(sizeof(IString) == 24 && sizeof(CString) == 24, "table pointer, data, encoding");
static_assert(sizeof(CMutableString) == 40, "IString, length, allocated size");

// ---- Concatenation --------------------------------------------------------------------------------------------------

/// One piece of a concatenation chain: a view, and the piece behind it, which it owns. Chains are meant to be consumed
/// in the expression that forms them; they hold views, not copies.
class VLM_API CStringElement {
public:
    /// A piece that views `text`.
    explicit CStringElement(CString const& text) : m_data(text.GetData()), m_encoding(text.GetEncoding()) {}
    CStringElement(CStringElement const&) = delete;
    CStringElement& operator=(CStringElement const&) = delete;
    ~CStringElement();

    /// The piece's text.
    [[nodiscard]] CString GetText() const { return CString(m_data, m_encoding); }
    /// Null for the last piece.
    [[nodiscard]] CStringElement const* GetNext() const { return m_next; }
    /// Puts a chain behind the last piece.
    void Append(TUniquePtr<CStringElement>&& rest);

private:
    void const* m_data;
    EStringEncoding::Type m_encoding;
    CStringElement* m_next = nullptr;
};

static_assert(sizeof(CStringElement) == 24, "data, encoding, next");

/// `a + b + c` forms a chain that a CMutableString is constructed or assigned from. Throw CBadAllocation.
[[nodiscard]] VLM_API TUniquePtr<CStringElement> operator+(CString const& left, CString const& right);
[[nodiscard]] VLM_API TUniquePtr<CStringElement> operator+(TUniquePtr<CStringElement>&& left, CString const& right);
[[nodiscard]] VLM_API TUniquePtr<CStringElement> operator+(CString const& left, TUniquePtr<CStringElement>&& right);
[[nodiscard]] VLM_API TUniquePtr<CStringElement> operator+(TUniquePtr<CStringElement>&& left,
                                                           TUniquePtr<CStringElement>&& right);

// ---- Comparison of any two texts ------------------------------------------------------------------------------------

namespace Impl {

/// At least one of the two belongs to the family, the other can be viewed. Matching both operands exactly keeps the
/// members of IString and their reversed forms out of the choice.
template <class Left, class Right>
concept ComparableText = (String<Left> || String<Right>) && std::is_convertible_v<Left const&, CString> &&
                         std::is_convertible_v<Right const&, CString>;

/// The text itself where it belongs to the family, else a view of it.
template <class Text>
[[nodiscard]] decltype(auto) AsString(Text const& text)
{
    if constexpr (String<Text>)
        return static_cast<IString const&>(text);
    else
        return CString(text);
}

/// Order of any two texts: negative, zero, positive.
[[nodiscard]] VLM_API int CompareTexts(IString const& left, IString const& right);
/// Order of two UTF-8 texts that are not null, as their bytes.
[[nodiscard]] VLM_API int CompareUTF8(void const* left, void const* right);
/// True for texts that are equal.
[[nodiscard]] VLM_API bool AreEqual(IString const& left, IString const& right);

[[nodiscard]] inline bool AreBothUTF8(IString const& left, IString const& right)
{
    return left.GetEncoding() == EStringEncoding::UTF8 && right.GetEncoding() == EStringEncoding::UTF8 &&
           left.GetData() != nullptr && right.GetData() != nullptr;
}

[[nodiscard]] inline bool IsSame(IString const& left, IString const& right)
{
    if (AreBothUTF8(left, right))
        return left.GetData() == right.GetData() || CompareUTF8(left.GetData(), right.GetData()) == 0;
    return AreEqual(left, right);
}

[[nodiscard]] inline int Compare(IString const& left, IString const& right)
{
    return AreBothUTF8(left, right) ? CompareUTF8(left.GetData(), right.GetData()) : CompareTexts(left, right);
}

} // namespace Impl

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator==(Left const& left, Right const& right)
{
    return Impl::IsSame(Impl::AsString(left), Impl::AsString(right));
}

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator!=(Left const& left, Right const& right)
{
    return !Impl::IsSame(Impl::AsString(left), Impl::AsString(right));
}

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator<(Left const& left, Right const& right)
{
    return Impl::Compare(Impl::AsString(left), Impl::AsString(right)) < 0;
}

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator>(Left const& left, Right const& right)
{
    return Impl::Compare(Impl::AsString(left), Impl::AsString(right)) > 0;
}

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator<=(Left const& left, Right const& right)
{
    return Impl::Compare(Impl::AsString(left), Impl::AsString(right)) <= 0;
}

template <class Left, class Right>
    requires Impl::ComparableText<Left, Right>
[[nodiscard]] bool operator>=(Left const& left, Right const& right)
{
    return Impl::Compare(Impl::AsString(left), Impl::AsString(right)) >= 0;
}

/// Hash for unordered containers: equal texts of any encoding hash alike. With std::equal_to<> also for looking up by
/// literal or view.
struct SStringHash {
    /// Lets containers look up by any string.
    using is_transparent = void;
    [[nodiscard]] std::size_t operator()(CString const& text) const { return text.GetTextHash(); }
};

template <class Char>
std::basic_string<Char> IString::ToStandardString() const
{
    // A view: its sizes come from the text itself, whatever a CMutableString has cached.
    CString const text(*this);
    EStringEncoding::Type const target = Encodings::OfUnit<Char>;
    std::basic_string<Char> result;
    if (u64 const size = text.GetAllocatedSizeAs(target); size > sizeof(Char)) {
        result.resize(size / sizeof(Char) - 1);
        text.CopyAs(target, result.data(), false);
        // Malformed characters may have decoded to 0, where the text ends.
        result.resize(std::char_traits<Char>::length(result.c_str()));
    }
    return result;
}

} // namespace Velmor

template <>
struct std::hash<Velmor::CString> : Velmor::SStringHash {};
template <>
struct std::hash<Velmor::CMutableString> : Velmor::SStringHash {};
