#include "Core_Text.h"

#include <vlmcore/strings.h>

#include <cstring>

namespace Velmor {

using namespace Encodings;

u64 const IString::UTF8SizeTable[16] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 3, 4};

namespace {

/// Kept: the result counts all but the last byte of the terminator, whatever its width.
template <class Rules>
u64 CopyWhole(void const* source, void* destination)
{
    u64 const size = Text::GetTextSize<Rules>(AsBytes(source)) + Rules::UnitSize;
    std::memcpy(destination, source, size);
    return size - 1;
}

/// Ends the text and gives its size.
template <class Rules>
u64 Terminate(u8* end, void* destination)
{
    Store(end, typename Rules::Unit{0});
    return static_cast<u64>(end - static_cast<u8*>(destination));
}

template <class From, class To>
u64 ConvertWhole(void const* source, void* destination, u64 count)
{
    u8* const out = static_cast<u8*>(destination);
    return Terminate<To>(Text::ConvertCharacters<From, To>(AsBytes(source), count, out), destination);
}

} // namespace

u64 IString::ConvertUTF8(void const* source, void* destination, u64 count, EStringEncoding::Type target)
{
    if (source == nullptr || destination == nullptr)
        return 0;
    if (target == EStringEncoding::UTF8)
        return CopyWhole<SUTF8>(source, destination);
    if (target == EStringEncoding::UTF16)
        return ConvertWhole<SUTF8, SUTF16>(source, destination, count);
    return ConvertWhole<SUTF8, SUTF32>(source, destination, count);
}

u64 IString::ConvertUTF16(void const* source, void* destination, u64 count, EStringEncoding::Type target,
                          bool planeZeroOnly)
{
    if (source == nullptr || destination == nullptr)
        return 0;
    if (target == EStringEncoding::UTF16)
        return CopyWhole<SUTF16>(source, destination);
    if (target != EStringEncoding::UTF8)
        return ConvertWhole<SUTF16, SUTF32>(source, destination, count);
    if (!planeZeroOnly)
        return ConvertWhole<SUTF16, SUTF8>(source, destination, count);
    u8* const out = static_cast<u8*>(destination);
    return Terminate<SUTF8>(Text::ConvertPlaneZeroUnits(AsBytes(source), count, out), destination);
}

u64 IString::ConvertUTF32(void const* source, void* destination, u64 count, EStringEncoding::Type target)
{
    if (source == nullptr || destination == nullptr)
        return 0;
    if (target == EStringEncoding::UTF32)
        return CopyWhole<SUTF32>(source, destination);
    if (target == EStringEncoding::UTF8)
        return ConvertWhole<SUTF32, SUTF8>(source, destination, count);
    return ConvertWhole<SUTF32, SUTF16>(source, destination, count);
}

void IString::CopyAs(EStringEncoding::Type target, void* destination, bool planeZeroOnly) const
{
    if (m_data == nullptr || destination == nullptr)
        return;
    // ConvertUTF32 takes an unknown target for UTF-16; here it is UTF-32, as everywhere else.
    Dispatch(m_encoding, [&](auto from) {
        Dispatch(target, [&](auto to) {
            using From = decltype(from);
            using To = decltype(to);
            u8* const out = static_cast<u8*>(destination);
            if constexpr (From::Encoding == To::Encoding)
                CopyWhole<From>(m_data, destination);
            else if (From::UnitSize == 2 && To::UnitSize == 1 && planeZeroOnly)
                Store(Text::ConvertPlaneZeroUnits(AsBytes(m_data), GetLength(), out), typename To::Unit{0});
            else
                Store(Text::ConvertCharacters<From, To>(AsBytes(m_data), GetLength(), out), typename To::Unit{0});
        });
    });
}

} // namespace Velmor
