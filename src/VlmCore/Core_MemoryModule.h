// What this module knows of the heap: its own, or one adopted from another module.
#pragma once

#include "Core_BlockAllocator.h"
#include "Core_MemoryHeap.h"

#include <vlmcore/memory.h>

#include <atomic>

namespace Velmor {

/// The heap and its block allocators, in the form that one module hands to another: five pointers, in this order. Not
/// guarded: set up and taken down while no other thread allocates.
struct SHeapModule {
    CGlobalHeap* heap;
    TBlockAllocator<0>* pool;
    TBlockAllocator<2>* pool4;
    TBlockAllocator<3>* pool8;
    TBlockAllocator<4>* pool16;

    /// The heap; throws CBadAllocation without one.
    [[nodiscard]] CGlobalHeap& FetchHeap() const
    {
        if (heap == nullptr) [[unlikely]]
            throw CBadAllocation();
        return *heap;
    }

    /// Calls `visit(allocator)` with a reference to each of the four pointers, kind 1 first.
    template <class Visit>
    void VisitPools(Visit&& visit)
    {
        visit(pool);
        visit(pool4);
        visit(pool8);
        visit(pool16);
    }

    /// Around a copy of the process: all locks of the heap. In the module that made it.
    void FollowFork(EFork moment);

    /// Calls `usePool(allocator pointer)` for the four pooled kinds, `useHooks()` for all others.
    template <class UsePool, class UseHooks>
    decltype(auto) Dispatch(EHeap::Type kind, UsePool&& usePool, UseHooks&& useHooks) const
    {
        switch (kind) {
        case EHeap::Pool:
            return usePool(pool);
        case EHeap::Pool4:
            return usePool(pool4);
        case EHeap::Pool8:
            return usePool(pool8);
        case EHeap::Pool16:
            return usePool(pool16);
        default:
            return useHooks();
        }
    }
};

static_assert(sizeof(SHeapModule) == 40);

// Inline, so that every source file knows that they belong to this module.
inline constinit SHeapModule g_heapModule{};

/// Where a heap keeps its extension, null or not.
using HeapExtensionWord = std::atomic<CHeapExtension*>;
inline constinit HeapExtensionWord g_noExtension{nullptr};

/// The heap's while nobody wants to know of allocations, g_noExtension without a heap and while a memory logger is
/// installed: what the usual cases ask has one answer, an extension or none.
inline constinit std::atomic<HeapExtensionWord const*> g_quietExtension{&g_noExtension};

/// Held while that is changed.
extern CSpinLock g_quietExtensionLock;

/// Follows a change of the heap or of the memory logger. Any thread.
void UpdateQuietExtension();

} // namespace Velmor
