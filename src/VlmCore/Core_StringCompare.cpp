#include "Core_Text.h"

#include <vlmcore/hashes.h>
#include <vlmcore/strings.h>

namespace Velmor {

using namespace Encodings;

namespace {

constexpr u64 HashStart = 0x14650FB0739D0383;

/// Order of two texts that are not null. An empty one is in front of all others, as its terminator tells.
int CompareNonNull(IString const& left, IString const& right)
{
    return Dispatch(left.GetEncoding(), [&](auto leftRules) {
        return Dispatch(right.GetEncoding(), [&](auto rightRules) {
            return Text::Compare<decltype(leftRules), decltype(rightRules)>(AsBytes(left.GetData()),
                                                                            AsBytes(right.GetData()));
        });
    });
}

u32 Fold(u64 hash)
{
    return static_cast<u32>(hash ^ (hash >> 32));
}

} // namespace

int Impl::CompareTexts(IString const& left, IString const& right)
{
    if (left.GetData() == nullptr || right.GetData() == nullptr)
        return static_cast<int>(right.IsEmpty()) - static_cast<int>(left.IsEmpty());
    return CompareNonNull(left, right);
}

int Impl::CompareUTF8(void const* left, void const* right)
{
    return Text::CompareUnits<SUTF8>(AsBytes(left), AsBytes(right));
}

bool Impl::AreEqual(IString const& left, IString const& right)
{
    if (left.GetData() != right.GetData() || left.GetData() == nullptr)
        return CompareTexts(left, right) == 0;
    // Nothing is read for two views of one text.
    return left.GetEncoding() == right.GetEncoding() || left.IsEmpty() == right.IsEmpty();
}

bool IString::operator==(CString const& other) const
{
    return Impl::AreEqual(*this, other);
}

bool IString::operator!=(CString const& other) const
{
    return !Impl::AreEqual(*this, other);
}

bool IString::operator<(CString const& other) const
{
    return Impl::CompareTexts(*this, other) < 0;
}

bool IString::operator>(CString const& other) const
{
    return Impl::CompareTexts(*this, other) > 0;
}

u32 IString::GetHash() const
{
    if (IsEmpty())
        return 0;
    // Kept: code points are taken for bytes, so most texts hash a prefix only.
    return Fold(GetFNV64(m_data, GetLength() + GetUnitSize(m_encoding), 0, HashStart));
}

u32 IString::GetHash(u64 start, u64 end) const
{
    if (IsEmpty())
        return 0;
    u64 const from = GetByteOffset(start);
    u64 const to = GetByteOffset(end);
    return Fold(GetFNV64(AsBytes(m_data) + from, to > from ? to - from : 0, GetUnitSize(m_encoding), HashStart));
}

u64 IString::GetTextHash() const
{
    u64 hash = HashStart;
    for (u32 const codePoint : GetCodePoints())
        hash = (hash ^ codePoint) * 0x100000001B3;
    // The last code points have not reached the low bits' neighbours yet; tables use the low bits.
    hash ^= hash >> 32;
    hash *= 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 29);
}

} // namespace Velmor
