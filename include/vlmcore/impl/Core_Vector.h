/// \file
/// TVector: the library's growable array.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace Velmor {

/// Growable array. Elements lie one behind the other; growing moves them, so pointers into the array do not survive
/// an Append. Growth is by half of the capacity. An array that outlives the heap, as statics do at exit, forgets its
/// elements without destroying them: pools take them with them.
///
/// \tparam T          element type; moved when the array grows (copied when it cannot be moved).
/// \tparam Alignment  alignment in bytes that the storage asks for: 1, 4, 8 or 16; chooses the heap kind: Pool, Pool4,
///                    Pool8 or Pool16. Types that need 16 bytes get them whatever is asked for.
template <class T, u64 Alignment = 1>
class TVector {
    static_assert(Alignment == 1 || Alignment == 4 || Alignment == 8 || Alignment == 16);
    static_assert(alignof(T) <= 16, "the memory manager aligns to at most 16 bytes");

public:
    TVector() = default;

    TVector(TVector const& other)
    {
        Reserve(other.m_count);
        try {
            std::uninitialized_copy(other.begin(), other.end(), m_data);
        }
        catch (...) {
            ReleaseStorage();
            throw;
        }
        m_count = other.m_count;
    }

    TVector(TVector&& other) noexcept { Swap(other); }

    ~TVector() { ReleaseStorage(); }

    TVector& operator=(TVector const& other)
    {
        if (this != &other) {
            TVector copy(other);
            Swap(copy);
        }
        return *this;
    }

    TVector& operator=(TVector&& other) noexcept
    {
        if (this != &other) {
            TVector taken(std::move(other));
            Swap(taken);
        }
        return *this;
    }

    /// Elements stored.
    [[nodiscard]] u64 GetCount() const { return m_count; }
    /// Elements that fit without growing.
    [[nodiscard]] u64 GetCapacity() const { return m_capacity; }
    [[nodiscard]] bool IsEmpty() const { return m_count == 0; }

    /// First element; null while nothing was ever stored.
    [[nodiscard]] T* GetData() { return m_data; }
    [[nodiscard]] T const* GetData() const { return m_data; }

    /// The element at `index`, which must be below GetCount().
    [[nodiscard]] T& operator[](u64 index) { return m_data[index]; }
    [[nodiscard]] T const& operator[](u64 index) const { return m_data[index]; }

    /// Adds a copy at the end; `element` may be one of this array's own. Returns the new element.
    T& Append(T const& element) { return AppendAny(element); }
    T& Append(T&& element) { return AppendAny(std::move(element)); }

    /// Makes room for `capacity` elements in all; never shrinks. Throws CBadAllocation.
    void Reserve(u64 capacity)
    {
        if (capacity > m_capacity)
            Relocate(capacity);
    }

    /// Sets the count: new elements are value-initialised, surplus ones destroyed. The capacity never shrinks; where
    /// it must grow again, it grows as Append makes it, so that many small steps take linear time. Throws
    /// CBadAllocation or what a constructor throws; the elements are then as before.
    void Resize(u64 count)
    {
        if (count < m_count) {
            DestroyFrom(count);
            return;
        }
        if (count > m_capacity)
            Relocate(m_capacity == 0 ? count : std::max(count, GrownCapacity()), count);
        std::uninitialized_value_construct_n(m_data + m_count, count - m_count);
        m_count = count;
    }

    /// Removes the element at `index`, which must be below GetCount(); the order of the others stays.
    void RemoveAt(u64 index)
    {
        std::move(m_data + index + 1, m_data + m_count, m_data + index);
        DestroyFrom(m_count - 1);
    }

    /// Destroys all elements; the capacity stays.
    void Clear() { DestroyFrom(0); }

    [[nodiscard]] T* begin() { return m_data; }
    [[nodiscard]] T* end() { return m_data + m_count; }
    [[nodiscard]] T const* begin() const { return m_data; }
    [[nodiscard]] T const* end() const { return m_data + m_count; }

private:
    static constexpr u64 LargestCount = (u64{1} << 60) / sizeof(T);
    // Blocks of EHeap::Pool are as aligned as the malloc hook's, which suits every type up to 8 bytes.
    static constexpr EHeap::Type Heap = alignof(T) > 8 || Alignment == 16 ? EHeap::Pool16
                                        : Alignment == 8                  ? EHeap::Pool8
                                        : Alignment == 4                  ? EHeap::Pool4
                                                                          : EHeap::Pool;

    template <class Source>
    T& AppendAny(Source&& element)
    {
        if (m_count == m_capacity) {
            // The element may live in the storage that is about to go: take it out first.
            T taken(std::forward<Source>(element));
            Relocate(GrownCapacity());
            return ConstructAtEnd(std::move(taken));
        }
        return ConstructAtEnd(std::forward<Source>(element));
    }

    [[nodiscard]] static void* TryAllocate(u64 capacity)
    {
        return capacity <= LargestCount ? Memory::Malloc(capacity * sizeof(T), Heap) : nullptr;
    }

    [[nodiscard]] u64 GrownCapacity() const
    {
        u64 const grown = static_cast<u64>(static_cast<f64>(m_capacity) * static_cast<f64>(m_growth));
        return std::max<u64>(grown, m_capacity + 4);
    }

    template <class... Arguments>
    T& ConstructAtEnd(Arguments&&... arguments)
    {
        T* const place = ::new (static_cast<void*>(m_data + m_count)) T(std::forward<Arguments>(arguments)...);
        ++m_count;
        return *place;
    }

    void DestroyFrom(u64 count)
    {
        while (m_count > count)
            m_data[--m_count].~T();
    }

    // Allocates, moves and frees instead of resizing: a refused Realloc would unrecord the old block.
    void Relocate(u64 capacity) { Relocate(capacity, capacity); }

    // Where that much cannot be had, to storage for `least` elements.
    void Relocate(u64 capacity, u64 least)
    {
        void* memory = TryAllocate(capacity);
        if (memory == nullptr && least < capacity) {
            capacity = least;
            memory = TryAllocate(capacity);
        }
        if (memory == nullptr)
            throw CBadAllocation();
        T* const target = static_cast<T*>(memory);
        if constexpr (std::is_trivially_copyable_v<T>) {
            if (m_count != 0)
                std::memcpy(memory, static_cast<void const*>(m_data), m_count * sizeof(T));
        }
        else {
            u64 moved = 0;
            try {
                for (; moved < m_count; ++moved)
                    ::new (static_cast<void*>(target + moved)) T(std::move_if_noexcept(m_data[moved]));
            }
            catch (...) {
                while (moved > 0)
                    target[--moved].~T();
                Memory::Free(memory);
                throw;
            }
            for (u64 index = 0; index < m_count; ++index)
                m_data[index].~T();
        }
        Memory::FreeQuietly(m_data);
        m_data = target;
        m_capacity = capacity;
    }

    // Without a heap the elements, which a pool may have held, are gone already.
    void ReleaseStorage() noexcept
    {
        if constexpr (!std::is_trivially_destructible_v<T>)
            if (m_count != 0 && !Memory::IsInitialized()) [[unlikely]]
                m_count = 0;
        DestroyFrom(0);
        Memory::FreeQuietly(m_data);
        m_data = nullptr;
        m_capacity = 0;
    }

    void Swap(TVector& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_count, other.m_count);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_growth, other.m_growth);
    }

    T* m_data = nullptr;
    u64 m_count = 0;
    u64 m_capacity = 0;
    f32 m_growth = 1.5f;
};

} // namespace Velmor
