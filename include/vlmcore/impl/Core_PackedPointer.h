/// \file
/// TPackedPointer: a pointer for objects that live in 4-byte-aligned pool blocks.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

namespace Velmor {

/// A pointer that asks for an alignment of 4 bytes only, so that nodes of EHeap::Pool4 are never misaligned in the
/// language's sense. Costs what a plain pointer costs.
template <class T>
class TPackedPointer {
public:
    TPackedPointer() = default;
    /// Holds `pointer`, null included.
    TPackedPointer(T* pointer) { std::memcpy(m_words, &pointer, sizeof pointer); }

    /// The pointer as the language knows it.
    [[nodiscard]] T* Get() const
    {
        T* pointer;
        std::memcpy(&pointer, m_words, sizeof pointer);
        return pointer;
    }

    operator T*() const { return Get(); }
    T* operator->() const { return Get(); }

private:
    u32 m_words[2] = {};
};

static_assert(sizeof(TPackedPointer<int>) == 8 && alignof(TPackedPointer<int>) == 4);

} // namespace Velmor
