/// \file
/// Standard containers on the memory manager: TAllocator and CMemoryResource.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <cstddef>
#include <memory_resource>

namespace Velmor {

namespace Impl {

/// The kind that serves `heap` with at least this alignment. EHeap::General and EHeap::Pool are as aligned as the
/// malloc hook, which the C runtime makes 16 bytes and other hooks at least 8.
[[nodiscard]] constexpr EHeap::Type GetAlignedKind(EHeap::Type heap, u64 alignment)
{
    if (alignment > 8)
        return EHeap::Pool16;
    if (alignment > 4 && heap == EHeap::Pool4)
        return EHeap::Pool8;
    return heap;
}

} // namespace Impl

/// An allocator for standard containers that draws from one heap kind. Allocators of one kind are equal, stateless, and
/// may free each other's blocks. Types that need more alignment than the kind gives are served by the next kind that
/// does; more than 16 bytes are not supported.
///
///     std::vector<int, TAllocator<int>> numbers;
///     std::map<int, int, std::less<>, TAllocator<std::pair<int const, int>, EHeap::Pool8>> table;
///
/// Exhaustion throws CBadAllocation. Containers that outlive the heap, as statics do at exit, free nothing and do not
/// throw.
template <class T, EHeap::Type Heap = EHeap::Pool>
class TAllocator {
    static_assert(alignof(T) <= 16, "the memory manager aligns to at most 16 bytes");

public:
    using value_type = T;
    /// Which kind serves the blocks.
    static constexpr EHeap::Type Kind = Impl::GetAlignedKind(Heap, alignof(T));

    /// The same heap for another type.
    template <class U>
    struct rebind {
        /// That type's allocator.
        using other = TAllocator<U, Heap>;
    };

    constexpr TAllocator() noexcept = default;
    template <class U>
    constexpr TAllocator(TAllocator<U, Heap> const&) noexcept
    {
    }

    /// Room for `count` objects. Throws CBadAllocation.
    [[nodiscard]] T* allocate(std::size_t count)
    {
        // Zero elements get a block of their own, too: the container compares and frees the address.
        u64 const size = count == 0 ? 1 : u64{count} * sizeof(T);
        void* const memory = count <= ~u64{0} / sizeof(T) ? Memory::Malloc(size, Kind) : nullptr;
        if (memory == nullptr)
            throw CBadAllocation();
        return static_cast<T*>(memory);
    }

    /// Gives back what allocate returned.
    void deallocate(T* block, std::size_t) noexcept { Memory::FreeQuietly(block); }

    template <class U>
    friend constexpr bool operator==(TAllocator const&, TAllocator<U, Heap> const&) noexcept
    {
        return true;
    }
};

/// A resource for the containers of std::pmr that draws from one heap kind. Alignments above 16 bytes throw
/// CBadAllocation, as exhaustion does. Any number of threads may use one resource.
///
///     CMemoryResource resource(EHeap::Pool16);
///     std::pmr::vector<int> numbers(&resource);
class VLM_API CMemoryResource : public std::pmr::memory_resource {
public:
    /// Draws from `heap`.
    explicit CMemoryResource(EHeap::Type heap = EHeap::Pool) : m_heap(heap) {}
    ~CMemoryResource() override;

    /// The kind it draws from.
    [[nodiscard]] EHeap::Type GetHeap() const { return m_heap; }

protected:
    void* do_allocate(std::size_t size, std::size_t alignment) override;
    void do_deallocate(void* block, std::size_t size, std::size_t alignment) override;
    /// Blocks of every resource go back to the same heap.
    [[nodiscard]] bool do_is_equal(std::pmr::memory_resource const& other) const noexcept override;

private:
    EHeap::Type m_heap;
};

} // namespace Velmor
