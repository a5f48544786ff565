// What a heap has in addition once it holds more than 1,024 records or is used a lot: buckets that grow, records of pool blocks that are
// found without a lock, and lanes, so that threads do not stand in each other's way.
//
//     CGlobalHeap -- CHeapExtension -+- CRecordBuckets   blocks of the hooks, and those of chunks not in the map
//                                    +- CChunkMap        address -> CChunkRecords of its chunk, the records of pool blocks
//                                    +- CFreeChunks [32] chunks with free blocks, by class
//                                    +- CHeapLane [32]   free pool blocks and record credits, a lane per thread
//
// All memory of it comes from the malloc hook and is counted nowhere. Without memory for it, the heap goes on as before,
// with longer chains.
//
// Every record in a chunk's notes stands for one of the record store, which counts as taken: the store grows, and with it
// the bytes in use, by the number of recorded blocks alone, wherever their records lie. Lanes draw such credits by the
// dozen.
//
// Order of locks: lane, class, heap.
#pragma once

#include "Core_BiasedLock.h"
#include "Core_MemoryChunkMap.h"
#include "Core_MemoryDebug.h"
#include "Core_MemoryRecords.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/types.h>

#include <algorithm>
#include <bit>
#include <span>
#include <utility>

namespace Velmor {

class CBlockClass;
class CGlobalHeap;

/// The shape of a class's blocks.
struct SBlockShape {
    u64 blockSize;
    u64 alignment; ///< bytes that each chunk has in front for it; 0 for none
    u32 blockBits; ///< base-2 logarithm of the block size, 3 to 10
    EHeap::Type kind;

    static constexpr u32 SmallestBits = 3;
    static constexpr u32 LargestBits = 10;

    /// The class for `size` bytes, above 0: the base-2 logarithm of its block size, above 10 for what is no pool block.
    [[nodiscard]] static constexpr u32 GetBlockBits(EHeap::Type kind, u64 size)
    {
        u64 const smallest = kind == EHeap::Pool16 ? 15 : 7; // not max(): a number that cannot be 0 needs no branch
        return static_cast<u32>(std::bit_width((size - 1) | smallest));
    }
};

/// A free pool block and where its record goes: null for a block of a chunk without notes.
struct SFreeSlot {
    SFreeBlock* block;
    CChunkRecords::Record* record;
};

/// Free blocks of one class, last in, first out. They are named in slots, not linked through the blocks: these are not
/// touched from their release until whoever gets them next uses them. Without slots it is empty and full at once.
class CMagazine {
public:
    [[nodiscard]] bool HasSlots() const { return m_first != nullptr; }
    /// The slots stay the caller's.
    void SetSlots(SFreeSlot* slots, u32 count)
    {
        m_first = m_next = slots;
        m_end = slots + count;
    }

    [[nodiscard]] bool IsEmpty() const { return m_next == m_first; }
    [[nodiscard]] bool IsFull() const { return m_next == m_end; }
    [[nodiscard]] SFreeSlot const& GetLast() const { return m_next[-1]; }
    void Push(SFreeSlot const& slot) { *m_next++ = slot; }
    void Pop() { --m_next; }

    /// All slots, of which Fill says how many are taken from the first on.
    [[nodiscard]] std::span<SFreeSlot> GetSlots() const { return {m_first, m_end}; }
    [[nodiscard]] std::span<SFreeSlot const> GetTaken() const { return {m_first, m_next}; }
    void Fill(u32 count) { m_next = m_first + count; }

private:
    SFreeSlot* m_first = nullptr;
    SFreeSlot* m_next = nullptr; // behind the last one taken
    SFreeSlot* m_end = nullptr;
};

/// Free blocks that one thread took out of the classes, or freed, with the counters of what went through. Threads whose
/// numbers collide share a lane.
class alignas(64) CHeapLane {
public:
    static constexpr u32 KindCount = 4;
    static constexpr u32 ClassCount = 8;

    /// Two magazines, so that a thread that allocates and frees by turns at the end of one does not go to the class
    /// each time.
    struct SClass {
        CMagazine loaded;
        CMagazine spare;
    };

    [[nodiscard]] SClass& GetClass(EHeap::Type kind, u32 blockBits)
    {
        return m_classes[kind - 1][blockBits - SBlockShape::SmallestBits];
    }
    [[nodiscard]] SClass& GetClass(SBlockShape const& shape) { return GetClass(shape.kind, shape.blockBits); }

    /// Gives the magazines of a class their slots, twice GetMagazineSize.
    void SetSlots(SBlockShape const& shape, SFreeSlot* slots)
    {
        SClass& magazines = GetClass(shape);
        u32 const count = GetMagazineSize(shape.blockBits);
        magazines.loaded.SetSlots(slots, count);
        magazines.spare.SetSlots(slots + count, count);
        m_usedClasses.fetch_or(GetClassBit(shape), std::memory_order_relaxed);
    }
    /// False when the lane never had a block of the class. Needs no lock: a lane that begins now is like one that takes
    /// blocks a moment after it was looked at.
    [[nodiscard]] bool HasUsed(SBlockShape const& shape) const
    {
        return (m_usedClasses.load(std::memory_order_relaxed) & GetClassBit(shape)) != 0;
    }

    /// Allocations and releases that went through the lane.
    [[nodiscard]] CStatisticsCounter& GetAllocations(EHeap::Type kind) { return m_allocations[kind - 1]; }
    [[nodiscard]] CStatisticsCounter& GetReleases(EHeap::Type kind) { return m_releases[kind - 1]; }
    [[nodiscard]] CStatisticsCounter const& GetAllocations(EHeap::Type kind) const { return m_allocations[kind - 1]; }
    [[nodiscard]] CStatisticsCounter const& GetReleases(EHeap::Type kind) const { return m_releases[kind - 1]; }

    /// Blocks that a magazine holds: 16 KB of them, 64 at most.
    [[nodiscard]] static constexpr u32 GetMagazineSize(u32 blockBits) { return std::min(64u, 16384u >> blockBits); }

    CBiasedLock lock;
    u32 credits = 0; ///< records that blocks may take

private:
    [[nodiscard]] static u32 GetClassBit(SBlockShape const& shape)
    {
        return 1u << ((shape.kind - 1) * ClassCount + shape.blockBits - SBlockShape::SmallestBits);
    }

    std::atomic<u32> m_usedClasses{0};
    CStatisticsCounter m_allocations[KindCount];
    CStatisticsCounter m_releases[KindCount];
    SClass m_classes[KindCount][ClassCount];
};

class CHeapExtension {
public:
    struct STaken {
        void* block;     ///< null when there is none to be had
        bool isRecorded; ///< counted and recorded; otherwise the caller has yet to
    };

    /// Null when the hook gives no memory.
    [[nodiscard]] static CHeapExtension* Create(SMemoryHooks const& hooks);
    /// Gives all memory back, its own included.
    void Release(SMemoryHooks const& hooks);

    [[nodiscard]] CRecordBuckets& GetBuckets() { return m_buckets; }

    /// The record of a pool block, if it is found this way.
    [[nodiscard, gnu::always_inline]] CChunkMap::SFound Find(void const* block) const
    {
        return m_map.Find(reinterpret_cast<u64>(block));
    }

    /// The records of the chunk in which a block begins at the address; null when no chunk in the map has one there.
    [[nodiscard]] CChunkRecords* FindChunk(void const* block) const
    {
        CChunkMap::SFound const found = Find(block);
        return found.record != nullptr ? &m_map.GetChunk(found) : nullptr;
    }

    /// Takes a record out: its size, 0 when there was none. Of two threads that free a block at once, one finds it.
    [[nodiscard]] static u64 TakeRecord(CChunkMap::SFound const& found)
    {
        return found.record != nullptr ? found.record->exchange(0, std::memory_order_acq_rel) : u64{0};
    }

    // ---- Blocks ----

    /// The usual case of Take, in a lane that the calling thread owns; null in every other case, and for what is no pool
    /// block. The block still has to be prepared for use. Calls nothing, like TryGiveBack and what they use: a function
    /// that ends with a call for the other cases then keeps nothing on the stack.
    [[nodiscard, gnu::always_inline]] void* TryTake(EHeap::Type kind, u64 size)
    {
        if (kind - EHeap::Pool >= CHeapLane::KindCount || size - 1 >= u64{1} << SBlockShape::LargestBits) [[unlikely]]
            return nullptr;
        u64 const threadKey = Platform::GetThreadKey();
        CHeapLane& lane = GetLane(threadKey);
        if (!lane.lock.TryAcquireAsOwner(threadKey)) [[unlikely]]
            return nullptr;
        CMagazine& loaded = lane.GetClass(kind, SBlockShape::GetBlockBits(kind, size)).loaded;
        void* block = nullptr;
        if (!loaded.IsEmpty() && lane.credits != 0 && loaded.GetLast().record != nullptr) [[likely]] {
            SFreeSlot const slot = loaded.GetLast();
            loaded.Pop();
            Record(lane, slot, kind, size);
            block = slot.block;
        }
        lane.lock.ReleaseAsOwner();
        return block;
    }

    /// The usual case of GiveBack, likewise; false, and nothing done, in every other case. The block is prepared.
    [[nodiscard, gnu::always_inline]] bool TryGiveBack(EHeap::Type kind, u32 blockBits, SFreeSlot const& slot)
    {
        u64 const threadKey = Platform::GetThreadKey();
        CHeapLane& lane = GetLane(threadKey);
        if (!lane.lock.TryAcquireAsOwner(threadKey)) [[unlikely]]
            return false;
        CMagazine& loaded = lane.GetClass(kind, blockBits).loaded;
        bool const hasRoom = !loaded.IsFull() && lane.credits < MostCredits;
        if (hasRoom) [[likely]] {
            loaded.Push(slot);
            CountRelease(lane, kind);
        }
        lane.lock.ReleaseAsOwner();
        return hasRoom;
    }

    /// A block for `size` bytes, recorded and counted in the calling thread's lane where its chunk is in the map.
    [[nodiscard]] STaken Take(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, u64 size);

    /// Takes back a block whose record has been taken out, with its credit.
    void GiveBack(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, SFreeSlot const& slot);

    /// A record was taken out whose block stays where it is, counted as live.
    void GiveBackCredit();

    /// Gives all lanes' blocks of the class back to it. True when there were any.
    bool Drain(CBlockClass& blocks, SBlockShape const& shape);

    /// Takes all lanes' unused credits away; how many they were. No lock held.
    [[nodiscard]] u64 CollectCredits();

    [[nodiscard]] u64 GetAllocationCount(EHeap::Type kind) const;
    [[nodiscard]] u64 GetLiveCount(EHeap::Type kind) const;

    /// The class's chunks with free blocks. Under the class lock.
    [[nodiscard]] CFreeChunks& GetFreeChunks(SBlockShape const& shape)
    {
        return m_freeChunks[shape.kind - 1][shape.blockBits - SBlockShape::SmallestBits];
    }

    // ---- Notes: under the heap lock ----

    /// Memory that stays until the end, at a multiple of 64; null when the hook gives none.
    [[nodiscard]] void* AllocateNotes(SMemoryHooks const& hooks, u64 byteCount);

    // ---- Chunks: under the heap lock ----

    /// Puts a chunk into the map, if it is not there. Without memory for it, its blocks go on with ordinary records.
    void AddChunk(SMemoryHooks const& hooks, void const* start, u32 blockCount, SBlockShape const& shape);
    void RemoveChunk(void const* start);
    /// Records of chunks removed before may be used for other ones from now on. Called at the start of a purge: by then
    /// nobody looks at them any more, not even for an address that was freed twice.
    void ReuseRemoved();

private:
    static constexpr u32 LaneBits = 5;
    static constexpr u32 LaneCount = 1u << LaneBits;
    static constexpr u32 CreditsAtOnce = 64;
    static constexpr u32 MostCredits = 2 * CreditsAtOnce; // in a lane
    static constexpr u64 SlabSize = 16384;

    struct SSlab {
        SSlab* next;
    };

    CHeapExtension() = default;

    // Fibonacci hashing: neighbours get lanes far from each other.
    [[nodiscard]] CHeapLane& GetLane(u64 threadKey)
    {
        return m_lanes[(threadKey >> Platform::ThreadKeyShift) * 0x9E3779B97F4A7C15u >> (64 - LaneBits)];
    }

    // Records and counts a block that the lane, which has a credit, is about to hand out.
    static void Record(CHeapLane& lane, SFreeSlot const& slot, EHeap::Type kind, u64 size)
    {
        slot.record->store(static_cast<u16>(size), std::memory_order_relaxed);
        --lane.credits;
        lane.GetAllocations(kind).Add(1);
    }

    static void CountRelease(CHeapLane& lane, EHeap::Type kind)
    {
        lane.GetReleases(kind).Add(1);
        ++lane.credits;
    }

    [[nodiscard]] SFreeSlot TakeSlowly(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape,
                                       CHeapLane& lane, EBiasedHold& hold);
    [[nodiscard]] static SFreeSlot TakeFromLane(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape,
                                                CHeapLane& lane);
    void GiveBackAll(CBlockClass& blocks, SBlockShape const& shape, CMagazine& magazine);
    [[nodiscard]] static bool MakeSlots(CGlobalHeap& heap, CHeapLane& lane, SBlockShape const& shape);
    [[nodiscard]] void* AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount);

    CRecordBuckets m_buckets;
    void* m_memory = nullptr; // of this object, as the hook gave it
    SSlab* m_slabs = nullptr;
    u64 m_slabUsed = SlabSize;
    CChunkRecords* m_unused[CHeapLane::ClassCount] = {};  // by block size, ready for another chunk
    CChunkRecords* m_removed[CHeapLane::ClassCount] = {}; // ready after the next purge
    CChunkMap m_map;
    CFreeChunks m_freeChunks[CHeapLane::KindCount][CHeapLane::ClassCount];
    CHeapLane m_lanes[LaneCount];
};

} // namespace Velmor
