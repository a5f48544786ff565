// The pooled heap kinds: small blocks of power-of-two classes from chunks, larger ones from the hooks.
//
// A block allocator keeps no pointer to its heap, since modules share both; every operation is handed the heap. Its
// counters are changed under the heap lock, or are those of a lane (see CGlobalHeap::ChangeCounters), its classes under
// a lock each. Order of locks: a class lock before the heap lock, never the other way round. Once the heap is extended,
// blocks come and go by lanes, rows of them at a time (see CHeapExtension).
#pragma once

#include "Core_Fork.h"
#include "Core_MemoryAlignment.h"
#include "Core_MemoryDebug.h"
#include "Core_MemoryHeap.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <span>

namespace Velmor {

/// Blocks that a chunk of this class holds: half of the level 1 data cache (bytes, 0 when unknown), within bounds.
[[nodiscard]] constexpr u32 GetBlocksPerChunk(u64 cacheSize, u64 blockSize)
{
    constexpr u64 Fewest = 4;
    constexpr u64 Most = 256;
    return static_cast<u32>(std::clamp(cacheSize / 2 / blockSize, Fewest, Most));
}

/// Working memory of a purge, one for all classes of an allocator. Taken from the hooks, given back at the end.
class CPurgeScratch {
public:
    /// A chunk and its place in the chunk table.
    struct SChunk {
        u8* start;
        u64 tableIndex;
    };

    explicit CPurgeScratch(CGlobalHeap& heap) : m_heap(heap) {}
    CPurgeScratch(CPurgeScratch const&) = delete;
    CPurgeScratch& operator=(CPurgeScratch const&) = delete;
    ~CPurgeScratch() { m_heap.HookRelease(m_memory); }

    /// Makes room for a class of `chunkCount` chunks; false when the hooks refuse it.
    [[nodiscard]] bool Reserve(u64 chunkCount);

    /// The chunks, to be sorted by address.
    [[nodiscard]] SChunk* GetChunks() const { return static_cast<SChunk*>(m_memory); }
    /// Free blocks per chunk, by table index.
    [[nodiscard]] u16* GetCounters() const
    {
        return static_cast<u16*>(static_cast<void*>(static_cast<SChunk*>(m_memory) + m_capacity));
    }

private:
    CGlobalHeap& m_heap;
    void* m_memory = nullptr;
    u64 m_capacity = 0;
};

/// One size class. Its block size is not stored: the allocator knows it from the index.
///
/// Its free blocks form a list until the heap is extended. From then on they are bits in the notes of their chunks (see
/// CFreeChunks), but for those of a chunk for which there was no memory for notes: these stay a list.
class CBlockClass {
public:
    using SShape = SBlockShape;

    void SetBlocksPerChunk(u32 count) { m_blocksPerChunk = count; }

    /// A block; null when the class cannot grow.
    [[nodiscard]] void* Take(CGlobalHeap& heap, SShape const& shape, u64 size)
    {
        m_lock.Acquire();
        SFreeBlock* const block = m_free;
        if (block == nullptr) [[unlikely]] {
            m_lock.Release();
            return TakeAfterGrowth(heap, shape, size);
        }
        return HandOut(block, shape, size);
    }

    /// Takes a block back that was requested with `size` bytes.
    void GiveBack(CGlobalHeap& heap, void* memory, SShape const& shape, u64 size)
    {
        SFreeBlock* const block = PrepareFree(memory, shape.blockSize, size);
        m_lock.Acquire();
        AddFree(heap.GetExtension(), shape, block);
        m_lock.Release();
    }

    /// Fills the slots with free blocks, the one to hand out first last; grows the class when there are none. How many
    /// there were: fewer than wanted when the class has not more in one place, 0 when it has none and cannot grow. A
    /// block of a chunk without notes comes alone, when there is no other.
    /// \param home  the lane that they are for
    [[nodiscard]] u32 TakeRow(CGlobalHeap& heap, SShape const& shape, u32 home, std::span<SFreeSlot> slots);

    /// Takes blocks back.
    void GiveBackRow(CHeapExtension& extension, SShape const& shape, std::span<SFreeSlot const> slots);

    /// What a block in use goes through before it may join a list, and a free one before it is handed out.
    [[nodiscard]] static SFreeBlock* PrepareFree(void* memory, u64 blockSize, u64 size)
    {
        MemoryDebug::Unpoison(memory, blockSize);
        MemoryDebug::CheckGuard(memory, size, blockSize);
        MemoryDebug::FillFree(memory, blockSize);
        MemoryDebug::Poison(memory, blockSize);
        return static_cast<SFreeBlock*>(memory);
    }
    static void PrepareUse(void* block, u64 blockSize, u64 size)
    {
        MemoryDebug::Unpoison(block, blockSize);
        MemoryDebug::HandOut(block, size, blockSize);
        MemoryDebug::Poison(block, blockSize);
        MemoryDebug::Unpoison(block, size);
    }

    /// Gives wholly free chunks back. False when there is no working memory for it; the class is whole then, too.
    [[nodiscard]] bool Purge(CGlobalHeap& heap, SShape const& shape, CPurgeScratch& scratch);

    /// Gives all chunks back, with the blocks still in use.
    void TearDown(CGlobalHeap& heap, SShape const& shape);

    [[nodiscard]] u32 GetBlocksPerChunk() const { return m_blocksPerChunk; }
    [[nodiscard]] u32 GetChunkCount();

    /// Around a copy of the process. The copy does without what a purge held at that moment.
    void FollowFork(EFork moment)
    {
        if (moment == EFork::Before) {
            m_lock.Acquire();
            return;
        }
        if (moment == EFork::InCopy)
            m_isPurging = 0;
        m_lock.TryRelease();
    }
    [[nodiscard]] u64 GetChunkSize(SShape const& shape) const
    {
        return m_blocksPerChunk * shape.blockSize + shape.alignment;
    }

private:
    static constexpr u32 NoLane = 0; // a block for a heap without lanes: as good as any

    // With the lock held; releases it.
    [[nodiscard]] void* HandOut(SFreeBlock* block, SShape const& shape, u64 size)
    {
        SFreeBlock* const next = MemoryDebug::ReadNext(block);
        m_free = next;
        m_lock.Release();
#if !defined(VLM_ADDRESS_SANITIZER)
        // The next one's link is what the next request will wait for.
        __builtin_prefetch(next, 1);
#endif
        PrepareUse(block, shape.blockSize, size);
        return block;
    }

    // With the lock held.
    void AddFree(CHeapExtension* extension, SShape const& shape, SFreeBlock* block)
    {
        if (extension != nullptr)
            if (CChunkRecords* const chunk = extension->FindChunk(block)) {
                extension->GetFreeChunks(shape).Add(*chunk, reinterpret_cast<u64>(block));
                return;
            }
        MemoryDebug::WriteNext(block, m_free);
        m_free = block;
    }

    void AddFreeList(CHeapExtension* extension, SShape const& shape, SFreeBlock* list);
    [[nodiscard]] void* TakeAfterGrowth(CGlobalHeap& heap, SShape const& shape, u64 size);
    [[nodiscard]] bool AcquireWithFreeBlock(CGlobalHeap& heap, SShape const& shape, u32 home);
    void AddChunksToMap(CGlobalHeap& heap, SShape const& shape, u32 home);
    [[nodiscard]] bool Grow(CGlobalHeap& heap, SShape const& shape, u32 home);
    void AddFreshBlocks(CHeapExtension* extension, SShape const& shape, u8* start);
    void BeginPurge();
    [[nodiscard]] static SFreeBlock* UnlinkFreeChunks(SFreeBlock*& list, CPurgeScratch const& scratch, u64 chunkCount,
                                                      u32 blocksPerChunk);
    void ShrinkTable(CGlobalHeap& heap, u32 removed);
    [[nodiscard]] u32 RemoveFreeChunks(CGlobalHeap& heap, CPurgeScratch& scratch, u64 counted);

    u32 m_blocksPerChunk = 0;
    u32 m_chunkCount = 0;
    CSpinLock m_lock;
    u16 m_isPurging = 0; // a purge holds the free list; under the lock
    u16 m_isMapped = 0;  // the chunks have been offered to the heap's chunk map; under the lock
    SFreeBlock* m_free = nullptr;
    u8** m_chunks = nullptr;
};

static_assert(sizeof(CBlockClass) == 32);

/// \tparam AlignmentBits  base-2 logarithm of the alignment; 0 for none of its own.
template <u32 AlignmentBits>
class TBlockAllocator {
public:
    static constexpr u64 Alignment = AlignmentBits == 0 ? 0 : u64{1} << AlignmentBits;
    static constexpr u32 SmallestBits = AlignmentBits == 4 ? 4 : 3;
    static constexpr u32 LargestBits = 10;
    static constexpr u32 ClassCount = LargestBits - SmallestBits + 1;
    static constexpr u64 LargestBlock = u64{1} << LargestBits;
    static constexpr EHeap::Type Kind = AlignmentBits == 0   ? EHeap::Pool
                                        : AlignmentBits == 2 ? EHeap::Pool4
                                        : AlignmentBits == 3 ? EHeap::Pool8
                                                             : EHeap::Pool16;

    explicit TBlockAllocator(bool report);
    TBlockAllocator(TBlockAllocator const&) = delete;
    TBlockAllocator& operator=(TBlockAllocator const&) = delete;
    ~TBlockAllocator() = default;

    /// A block of `size` bytes, above 0; null when there is none to be had. Counts nothing in this allocator: that goes
    /// with the record.
    [[nodiscard]] void* Take(CGlobalHeap& heap, u64 size)
    {
        if (size > LargestBlock) [[unlikely]]
            return TakeLarge(heap, size);
        u32 const index = GetClass(size);
        return m_classes[index].Take(heap, GetShape(index), size);
    }

    /// The same for an extended heap: the block is recorded and counted, or has to be by the caller.
    [[nodiscard]] CHeapExtension::STaken Take(CGlobalHeap& heap, CHeapExtension& extension, u64 size, ECredit& credit)
    {
        if (size > LargestBlock) [[unlikely]]
            return {TakeLarge(heap, size), false};
        u32 const index = GetClass(size);
        CHeapExtension::STaken const taken = extension.Take(heap, m_classes[index], GetShape(index), size, credit);
        if (taken.block != nullptr)
            CBlockClass::PrepareUse(taken.block, GetShape(index).blockSize, size);
        return taken;
    }

    /// Takes back a block whose record was found in its chunk and taken out. The block is prepared.
    void GiveBack(CGlobalHeap& heap, CHeapExtension& extension, SFreeSlot const& slot, u64 size, ECredit credit)
    {
        u32 const index = GetClass(size);
        extension.GiveBack(heap, m_classes[index], GetShape(index), slot, credit);
    }

    /// Takes back a block that was recorded with `size` bytes.
    void GiveBack(CGlobalHeap& heap, void* block, u64 size)
    {
        if (size > LargestBlock) [[unlikely]] {
            heap.GetHooks().free(MemoryAlignment::MoveBack(block, Alignment));
            return;
        }
        u32 const index = GetClass(size);
        m_classes[index].GiveBack(heap, block, GetShape(index), size);
    }

    /// The size of the blocks that serve `size` bytes, up to 1,024.
    [[nodiscard]] static u64 GetBlockSize(u64 size) { return GetShape(GetClass(size)).blockSize; }

    /// True when a block of `oldSize` bytes serves `newSize` bytes where it is.
    [[nodiscard]] static bool StaysInPlace(u64 oldSize, u64 newSize)
    {
        if (oldSize == newSize)
            return true;
        if (oldSize > LargestBlock)
            return newSize > LargestBlock && newSize < oldSize && oldSize - newSize < LargestBlock;
        return newSize <= LargestBlock && GetClass(oldSize) == GetClass(newSize);
    }

    /// Follows a resize in place: the guard of a small block, the bytes of a large one.
    static void ResizeInPlace(CGlobalHeap& heap, void* block, u64 oldSize, u64 newSize);

    /// For CGlobalHeap::ChangeCounters: a block of `size` bytes came or went, and with a large one its memory.
    template <class Counters>
    void CountAllocation(Counters& counters, u64 size)
    {
        if (size > LargestBlock) {
            counters.CountHookBlocks(1, 1);
            counters.AddBytes(size + Alignment);
        }
        CountOwnAllocation(counters);
    }
    template <class Counters>
    void CountRelease(Counters& counters, u64 size)
    {
        if (size > LargestBlock) {
            counters.CountReleasedHookBlocks(1);
            counters.SubtractBytes(size + Alignment);
        }
        CountOwnRelease(counters);
    }

    void Purge(CGlobalHeap& heap);

    /// Around a copy of the process.
    void FollowFork(EFork moment)
    {
        for (CBlockClass& blocks : m_classes)
            blocks.FollowFork(moment);
    }

    /// Prints the statistics when asked to at creation, and gives every chunk back. Never throws.
    void TearDown(CGlobalHeap& heap) noexcept;

    void GetStatistics(CGlobalHeap const& heap, Memory::SStatistics::SPool& pool);

private:
    [[nodiscard]] static u32 GetClass(u64 size) { return SBlockShape::GetBlockBits(Kind, size) - SmallestBits; }
    [[nodiscard]] static constexpr SBlockShape GetShape(u32 index)
    {
        u32 const bits = index + SmallestBits;
        return {u64{1} << bits, Alignment, bits, Kind};
    }

    void CountOwnAllocation(CGlobalHeap& heap)
    {
        m_allocationCount.Add(1);
        m_liveCount.Add(1);
        heap.ExtendIfBusy(m_allocationCount.Get());
    }
    static void CountOwnAllocation(CLaneCounters& counters) { counters.CountAllocation(Kind); }
    void CountOwnRelease(CGlobalHeap&) { m_liveCount.Subtract(1); }
    static void CountOwnRelease(CLaneCounters& counters) { counters.CountRelease(Kind); }

    [[nodiscard]] static void* TakeLarge(CGlobalHeap& heap, u64 size);
    [[nodiscard]] u64 GetAllocationCount(CGlobalHeap const& heap) const;
    [[nodiscard]] u64 GetLiveCount(CGlobalHeap const& heap) const;
    void Report(CGlobalHeap const& heap);

    CBlockClass m_classes[ClassCount];
    CStatisticsCounter m_allocationCount;
    CStatisticsCounter m_liveCount;
    u8 m_report;
};

extern template class TBlockAllocator<0>;
extern template class TBlockAllocator<2>;
extern template class TBlockAllocator<3>;
extern template class TBlockAllocator<4>;

} // namespace Velmor
