#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/strings.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

using namespace Encodings;

namespace {

/// `count` code points of a text read with the given rules, whatever its own encoding is. Nothing outside its `size`
/// bytes is read: units that lie there count as zero.
template <class Rules>
void ReadCodePoints(u8 const* text, u64 size, u64 count, u32* out)
{
    u64 offset = 0;
    for (u64 index = 0; index < count; ++index) {
        u8 window[8] = {};
        if (offset < size)
            std::memcpy(window, text + offset, std::min<u64>(size - offset, 4));
        auto const [codePoint, taken] = Rules::Read(window);
        out[index] = codePoint;
        offset += taken;
    }
}

/// One row of the matrix at a time; the row stands in `row`, of one cell more than the shorter text is long.
u64 GetRowDistance(u32 const* longer, u64 longerLength, u32 const* shorter, u64 shorterLength, u64* row)
{
    for (u64 index = 0; index <= shorterLength; ++index)
        row[index] = index;
    u64 left = 0;
    for (u64 outer = 0; outer < longerLength; ++outer) {
        left = outer + 1;
        for (u64 inner = 0; inner < shorterLength; ++inner) {
            u64 const diagonal = row[inner];
            row[inner] = left;
            left = longer[outer] == shorter[inner] ? diagonal : 1 + std::min({row[inner + 1], left, diagonal});
        }
        row[shorterLength] = left;
    }
    return left;
}

} // namespace

u64 IString::GetDistance(CString const& other) const
{
    u64 const ownLength = GetLength();
    u64 const otherLength = other.GetLength();
    if (ownLength == 0 || otherLength == 0)
        return ownLength + otherLength;
    u64 const shorterLength = std::min(ownLength, otherLength);
    u64 const longerLength = std::max(ownLength, otherLength);
    // One block: the row, then both texts as code points. Lengths are of texts in memory: no sum wraps.
    void* const block =
        Memory::Malloc((shorterLength + 1) * sizeof(u64) + (ownLength + otherLength) * sizeof(u32), EHeap::Pool8);
    if (block == nullptr)
        throw CBadAllocation();
    u64* const row = static_cast<u64*>(block);
    u32* const own = reinterpret_cast<u32*>(row + shorterLength + 1);
    u32* const others = own + ownLength;
    Dispatch(m_encoding, [&](auto rules) {
        ReadCodePoints<decltype(rules)>(AsBytes(m_data), IString::GetAllocatedSize(), ownLength, own);
        ReadCodePoints<decltype(rules)>(AsBytes(other.GetData()), other.GetAllocatedSize(), otherLength, others);
    });
    bool const ownIsLonger = ownLength >= otherLength;
    u64 const distance =
        GetRowDistance(ownIsLonger ? own : others, longerLength, ownIsLonger ? others : own, shorterLength, row);
    Memory::Free(block);
    return distance;
}

} // namespace Velmor
