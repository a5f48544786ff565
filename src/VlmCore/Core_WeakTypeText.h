// The texts that weak types own: zero-terminated UTF-8, a block of the pool heap each.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <cstring>

namespace Velmor::WeakTypeText {

/// Throws CBadAllocation.
[[nodiscard]] inline char* Allocate(u64 size)
{
    void* const text = Memory::Malloc(size, EHeap::Pool);
    if (text == nullptr)
        throw CBadAllocation();
    return static_cast<char*>(text);
}

/// A new text of one text and another behind it.
[[nodiscard]] inline char* Join(char const* left, char const* right)
{
    u64 const leftSize = std::strlen(left);
    u64 const rightSize = std::strlen(right) + 1;
    char* const text = Allocate(leftSize + rightSize);
    std::memcpy(text, left, leftSize);
    std::memcpy(text + leftSize, right, rightSize);
    return text;
}

} // namespace Velmor::WeakTypeText
