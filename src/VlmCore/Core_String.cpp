#include "Core_Text.h"
#include "Core_TextBuilder.h"

#include <vlmcore/strings.h>

#include <cstring>

namespace Velmor {

using namespace Encodings;

namespace {

/// Wide enough for the terminator of any encoding.
constexpr char32_t EmptyText[1] = {};

} // namespace

// ---- IString: measures ----------------------------------------------------------------------------------------------

bool IString::IsEmpty() const
{
    return m_data == nullptr ||
           Dispatch(m_encoding, [this](auto rules) { return IsEnd<decltype(rules)>(AsBytes(m_data)); });
}

u64 IString::GetLength() const
{
    if (m_data == nullptr)
        return 0;
    return Dispatch(m_encoding, [this](auto rules) { return Text::CountCharacters<decltype(rules)>(AsBytes(m_data)); });
}

u64 IString::GetAllocatedSize() const
{
    if (m_data == nullptr)
        return 0;
    return GetUnitSize(m_encoding) +
           Dispatch(m_encoding, [this](auto rules) { return Text::GetTextSize<decltype(rules)>(AsBytes(m_data)); });
}

u64 IString::GetAllocatedSizeAs(EStringEncoding::Type target) const
{
    if (m_data == nullptr)
        return 0;
    if (Normalize(target) == Normalize(m_encoding))
        return GetAllocatedSize();
    if (Normalize(target) == EStringEncoding::UTF32)
        return GetLength() * 4 + 4;
    return GetUnitSize(target) + Dispatch(m_encoding, [this, target](auto from) {
               return Dispatch(target, [this](auto to) {
                   return Text::GetConvertedSize<decltype(from), decltype(to)>(AsBytes(m_data));
               });
           });
}

u64 IString::GetByteOffset(u64 index) const
{
    if (m_data == nullptr)
        return 0;
    u8 const* const text = AsBytes(m_data);
    return Dispatch(m_encoding, [text, index](auto rules) {
        return static_cast<u64>(TextRules::Advance<decltype(rules)>(text, index) - text);
    });
}

u32 IString::GetCodePointAt(u64 index) const
{
    if (m_data == nullptr)
        return 0;
    return Dispatch(m_encoding, [this, index](auto rules) {
        return rules.Read(TextRules::Advance<decltype(rules)>(AsBytes(m_data), index)).codePoint;
    });
}

CString IString::GetSubstring(u64 start) const
{
    return m_data == nullptr ? CString(nullptr, m_encoding)
                             : CString(AsBytes(m_data) + GetByteOffset(start), m_encoding);
}

CGenericStringIterator IString::GetIterator(u64 index) const
{
    CGenericStringIterator position(this, m_data, m_encoding);
    position += index;
    return position;
}

// ---- IString: copies ------------------------------------------------------------------------------------------------

CMutableString IString::ToUTF8() const
{
    CMutableString result;
    result.Convert(m_data, m_encoding, EStringEncoding::UTF8);
    return result;
}

CMutableString IString::ToUTF16() const
{
    CMutableString result;
    result.Convert(m_data, m_encoding, EStringEncoding::UTF16);
    return result;
}

CMutableString IString::ToUTF32() const
{
    CMutableString result;
    result.Convert(m_data, m_encoding, EStringEncoding::UTF32);
    return result;
}

CMutableString IString::ToWide() const
{
    return ToUTF16();
}

CMutableString IString::CopyToLowercaseASCII() const
{
    CMutableString result{CString(*this)};
    result.ToLowercaseASCII();
    return result;
}

CMutableString IString::CopyToUppercaseASCII() const
{
    CMutableString result{CString(*this)};
    result.ToUppercaseASCII();
    return result;
}

// ---- CString --------------------------------------------------------------------------------------------------------

void CString::Assign(void const* data, EStringEncoding::Type encoding)
{
    m_data = data;
    m_encoding = encoding;
}

// ---- CMutableString -------------------------------------------------------------------------------------------------

CMutableString::CMutableString(CString const& text)
{
    CMutableString::Assign(text.GetData(), text.GetEncoding());
}

CMutableString::CMutableString(char const* utf8, EStringEncoding::Type target)
{
    Convert(utf8, EStringEncoding::UTF8, target);
}

CMutableString::CMutableString(CMutableString const& other) : IString()
{
    CMutableString::Assign(other.m_data, other.m_encoding);
}

CMutableString::CMutableString(CMutableString&& other) noexcept : IString()
{
    *this = static_cast<CMutableString&&>(other);
}

CMutableString::CMutableString(TUniquePtr<CStringElement> const& chain)
{
    *this = chain;
}

CMutableString::~CMutableString()
{
    Memory::FreeQuietly(const_cast<void*>(m_data));
}

CMutableString& CMutableString::operator=(CString const& text)
{
    Assign(text.GetData(), text.GetEncoding());
    return *this;
}

CMutableString& CMutableString::operator=(CMutableString const& other)
{
    Assign(other.m_data, other.m_encoding);
    return *this;
}

CMutableString& CMutableString::operator=(CMutableString&& other) noexcept
{
    if (this != &other) {
        Adopt(const_cast<void*>(other.m_data), other.m_encoding, other.m_length, other.m_allocatedSize);
        other.m_data = nullptr;
        other.m_length = 0;
        other.m_allocatedSize = 0;
    }
    return *this;
}

u64 CMutableString::GetLength() const
{
    return m_length;
}

u64 CMutableString::GetAllocatedSize() const
{
    return m_allocatedSize;
}

void CMutableString::Adopt(void* buffer, EStringEncoding::Type encoding, u64 length, u64 allocatedSize) noexcept
{
    void* const old = const_cast<void*>(m_data);
    m_data = buffer;
    m_encoding = encoding;
    m_length = length;
    m_allocatedSize = allocatedSize;
    Memory::FreeQuietly(old);
}

void CMutableString::Assign(void const* data, EStringEncoding::Type encoding)
{
    Convert(data, encoding, encoding);
}

void CMutableString::Convert(void const* data, EStringEncoding::Type from, EStringEncoding::Type to)
{
    if (data == nullptr) {
        // Kept: the allocated size of the text that was here stays.
        Adopt(nullptr, to, 0, m_allocatedSize);
        return;
    }
    // Each text is walked once for what has to be known about it; only the copy's own length is counted anew, since
    // what a malformed character was converted to may be read differently.
    Dispatch(from, [&](auto fromRules) {
        Dispatch(to, [&](auto toRules) {
            using From = decltype(fromRules);
            using To = decltype(toRules);
            Text::SExtent const extent = Text::GetExtent<From>(AsBytes(data));
            if constexpr (From::Encoding == To::Encoding) {
                u64 const size = extent.size + To::UnitSize;
                u8* const buffer = TextBuilder::Allocate(size);
                std::memcpy(buffer, data, size);
                Adopt(buffer, to, extent.count, size);
            }
            else {
                u64 const size = To::UnitSize + (To::UnitSize == 4 ? extent.count * 4
                                                                   : Text::GetConvertedSize<From, To>(AsBytes(data)));
                u8* const buffer = TextBuilder::Allocate(size);
                Store(Text::ConvertCharacters<From, To>(AsBytes(data), extent.count, buffer), typename To::Unit{0});
                Adopt(buffer, to, Text::CountCharacters<To>(buffer), size);
            }
        });
    });
}

void CMutableString::AssignUnits(void const* units, u64 count, EStringEncoding::Type encoding)
{
    u64 const unitSize = GetUnitSize(encoding);
    if (count >= ~u64{0} / unitSize)
        throw CBadAllocation();
    u64 textSize = 0;
    Dispatch(encoding, [&](auto rules) {
        while (textSize < count * unitSize && !IsEnd<decltype(rules)>(AsBytes(units) + textSize))
            textSize += unitSize;
    });
    u8* const buffer = TextBuilder::Allocate(textSize + unitSize);
    if (textSize != 0)
        std::memcpy(buffer, units, textSize);
    std::memset(buffer + textSize, 0, unitSize);
    Adopt(buffer, encoding, CString(buffer, encoding).GetLength(), textSize + unitSize);
}

void CMutableString::SetManagedReference(void* buffer, EStringEncoding::Type encoding)
{
    Text::SExtent extent{};
    u64 size = 0;
    if (buffer != nullptr) {
        extent = Dispatch(encoding, [buffer](auto rules) { return Text::GetExtent<decltype(rules)>(AsBytes(buffer)); });
        size = extent.size + GetUnitSize(encoding);
    }
    if (buffer == m_data)
        m_data = nullptr;
    Adopt(buffer, encoding, extent.count, size);
}

CMutableString& CMutableString::ToLowercaseASCII()
{
    MapCaseASCII({{0x41, 0x5B}, 0x61});
    return *this;
}

CMutableString& CMutableString::ToUppercaseASCII()
{
    MapCaseASCII({{0x61, 0x7B}, 0x41});
    return *this;
}

namespace {

/// Maps the character at `position` and returns where the next one is looked for. Kept: behind a character that is left
/// alone that is as far as it would be written, not as it was read; only the end of the text stops it.
template <class Rules>
u8* MapCharacter(u8* position, u8* end, TPair<Math::TRange<unsigned int>, unsigned int> const& map)
{
    u32 codePoint = Rules::Read(position).codePoint;
    if (IString::MapCodepoint(codePoint, map))
        return Rules::Write(codePoint, position);
    u64 const step = Rules::GetWrittenSize(codePoint);
    return step < static_cast<u64>(end - position) ? position + step : end;
}

} // namespace

void CMutableString::MapCaseASCII(TPair<Math::TRange<unsigned int>, unsigned int> const& map)
{
    if (m_data == nullptr)
        return;
    u8* position = static_cast<u8*>(const_cast<void*>(m_data));
    m_length = Dispatch(m_encoding, [&](auto rules) {
        using Rules = decltype(rules);
        u8* const end = position + Text::GetTextSize<Rules>(position);
        auto const kernel = TextKernels::Get().mapCase[TextKernels::IndexOf<Rules>];
        while (position != end) {
            if (kernel != nullptr)
                position += kernel(position, static_cast<u64>(end - position), map.first.lower);
            for (u64 step = 0; step < TextKernels::BlockSize && position != end; ++step)
                position = MapCharacter<Rules>(position, end, map);
        }
        return Text::CountCharacters<Rules>(AsBytes(m_data));
    });
}

// ---- Concatenation --------------------------------------------------------------------------------------------------

CStringElement::~CStringElement()
{
    // In a loop: a chain of any length ends without depth.
    for (CStringElement* piece = m_next; piece != nullptr;) {
        CStringElement* const next = piece->m_next;
        piece->m_next = nullptr;
        Memory::Delete(piece);
        piece = next;
    }
}

void CStringElement::Append(TUniquePtr<CStringElement>&& rest)
{
    CStringElement* last = this;
    while (last->m_next != nullptr)
        last = last->m_next;
    last->m_next = rest.Detach();
}

namespace {

TUniquePtr<CStringElement> MakeChain(CString const& text)
{
    return TUniquePtr<CStringElement>(Memory::New<CStringElement>(EHeap::Pool8, text));
}

TUniquePtr<CStringElement> Link(TUniquePtr<CStringElement>&& left, TUniquePtr<CStringElement>&& right)
{
    if (!left)
        return static_cast<TUniquePtr<CStringElement>&&>(right);
    left->Append(static_cast<TUniquePtr<CStringElement>&&>(right));
    return static_cast<TUniquePtr<CStringElement>&&>(left);
}

} // namespace

TUniquePtr<CStringElement> operator+(CString const& left, CString const& right)
{
    return Link(MakeChain(left), MakeChain(right));
}

TUniquePtr<CStringElement> operator+(TUniquePtr<CStringElement>&& left, CString const& right)
{
    return Link(static_cast<TUniquePtr<CStringElement>&&>(left), MakeChain(right));
}

TUniquePtr<CStringElement> operator+(CString const& left, TUniquePtr<CStringElement>&& right)
{
    return Link(MakeChain(left), static_cast<TUniquePtr<CStringElement>&&>(right));
}

TUniquePtr<CStringElement> operator+(TUniquePtr<CStringElement>&& left, TUniquePtr<CStringElement>&& right)
{
    return Link(static_cast<TUniquePtr<CStringElement>&&>(left), static_cast<TUniquePtr<CStringElement>&&>(right));
}

CMutableString& CMutableString::operator=(TUniquePtr<CStringElement> const& chain)
{
    if (!chain) {
        Assign(EmptyText, m_encoding);
        return *this;
    }
    EStringEncoding::Type const target = chain->GetText().GetEncoding();
    Dispatch(target, [&](auto rules) {
        TextBuilder::Build<decltype(rules)>(*this, target, [&](auto& out) {
            for (CStringElement const* piece = chain.Get(); piece != nullptr; piece = piece->GetNext())
                out.Convert(piece->GetText());
        });
    });
    return *this;
}

} // namespace Velmor
