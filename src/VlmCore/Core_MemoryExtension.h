// What a heap has in addition once it holds more than 1,024 records: buckets that grow, records of pool blocks that are
// found without a lock, and lanes, so that threads do not stand in each other's way.
//
//     CGlobalHeap -- CHeapExtension -+- CRecordBuckets   blocks of the hooks, and those of chunks not in the map
//                                    +- CChunkMap        address -> CChunkRecords of its chunk, the records of pool blocks
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

#include "Core_MemoryChunkMap.h"
#include "Core_MemoryDebug.h"
#include "Core_MemoryRecords.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/threads.h>
#include <vlmcore/types.h>

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
};

/// A few free blocks in a row.
struct SMagazine {
    SFreeBlock* first = nullptr;
    SFreeBlock* last = nullptr;
    u32 count = 0;

    void Push(SFreeBlock* block)
    {
        MemoryDebug::WriteNext(block, first);
        if (count == 0)
            last = block;
        first = block;
        ++count;
    }
    [[nodiscard]] SFreeBlock* Pop()
    {
        SFreeBlock* const block = first;
        first = MemoryDebug::ReadNext(block);
        --count;
        return block;
    }
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
        SMagazine loaded;
        SMagazine spare;
    };

    [[nodiscard]] SClass& GetClass(SBlockShape const& shape) { return m_classes[shape.kind - 1][shape.blockBits - 3]; }
    [[nodiscard]] CStatisticsCounter& GetAllocationCount(EHeap::Type kind) { return m_allocationCount[kind - 1]; }
    [[nodiscard]] CStatisticsCounter& GetLiveCount(EHeap::Type kind) { return m_liveCount[kind - 1]; }
    [[nodiscard]] CStatisticsCounter const& GetAllocationCount(EHeap::Type kind) const
    {
        return m_allocationCount[kind - 1];
    }
    [[nodiscard]] CStatisticsCounter const& GetLiveCount(EHeap::Type kind) const { return m_liveCount[kind - 1]; }

    /// Blocks that a magazine holds: 16 KB of them, within bounds.
    [[nodiscard]] static u32 GetMagazineSize(SBlockShape const& shape)
    {
        return shape.blockBits >= 10 ? 16u : (shape.blockBits == 9 ? 32u : 64u);
    }

    CSpinLock lock;
    u32 credits = 0; ///< records that blocks may take

private:
    CStatisticsCounter m_allocationCount[KindCount];
    CStatisticsCounter m_liveCount[KindCount]; // below zero where others' blocks are freed
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

    /// The record of a pool block; null when it is not found this way.
    [[nodiscard]] CChunkRecords::Record* FindRecord(void const* block) const
    {
        return m_map.FindRecord(reinterpret_cast<u64>(block));
    }
    [[nodiscard]] CChunkRecords* FindChunk(void const* block) const
    {
        return m_map.FindChunk(reinterpret_cast<u64>(block));
    }

    // ---- Blocks ----

    /// A block for `size` bytes, recorded and counted in the calling thread's lane where its chunk is in the map.
    [[nodiscard]] STaken Take(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, u64 size)
    {
        CHeapLane& lane = GetLane();
        CHeapLane::SClass& magazines = lane.GetClass(shape);
        lane.lock.Acquire();
        if (magazines.loaded.count == 0 || lane.credits == 0) [[unlikely]]
            if (!Refill(heap, blocks, shape, lane))
                return {nullptr, false};
        SFreeBlock* const block = magazines.loaded.Pop();
#if !defined(VLM_ADDRESS_SANITIZER)
        // The next one's link is what the next request will wait for.
        __builtin_prefetch(magazines.loaded.first, 1);
#endif
        CChunkRecords::Record* const record = FindRecord(block);
        if (record != nullptr) [[likely]] {
            record->store(static_cast<u16>(size), std::memory_order_relaxed);
            --lane.credits;
            lane.GetAllocationCount(shape.kind).Add(1);
            lane.GetLiveCount(shape.kind).Add(1);
        }
        lane.lock.Release();
        return {block, record != nullptr};
    }

    /// Takes back a block whose record has been taken out, with its credit.
    void GiveBack(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, SFreeBlock* block)
    {
        CHeapLane& lane = GetLane();
        CHeapLane::SClass& magazines = lane.GetClass(shape);
        lane.lock.Acquire();
        if (magazines.loaded.count == CHeapLane::GetMagazineSize(shape)) [[unlikely]]
            Unload(blocks, magazines);
        magazines.loaded.Push(block);
        lane.GetLiveCount(shape.kind).Subtract(1);
        if (++lane.credits > 2 * CreditsAtOnce) [[unlikely]]
            ReturnCredits(heap, lane);
        lane.lock.Release();
    }

    /// A record was taken out whose block stays where it is, counted as live.
    void GiveBackCredit()
    {
        CHeapLane& lane = GetLane();
        TScopedLock const guard(lane.lock);
        ++lane.credits;
    }

    /// Gives all lanes' blocks of the class back to it. True when there were any.
    bool Drain(CBlockClass& blocks, SBlockShape const& shape);

    /// Takes all lanes' unused credits away; how many they were. No lock held.
    [[nodiscard]] u64 CollectCredits();

    [[nodiscard]] u64 GetAllocationCount(EHeap::Type kind) const;
    [[nodiscard]] u64 GetLiveCount(EHeap::Type kind) const;

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
    static constexpr u64 SlabSize = 16384;

    struct SSlab {
        SSlab* next;
    };

    CHeapExtension() = default;

    // Fibonacci hashing: neighbouring numbers, and those four apart, get lanes far from each other.
    [[nodiscard]] CHeapLane& GetLane() { return m_lanes[(Thread::GetId() * 0x9E3779B9u) >> (32 - LaneBits)]; }

    [[nodiscard]] bool Refill(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, CHeapLane& lane);
    static void Unload(CBlockClass& blocks, CHeapLane::SClass& magazines);
    static void ReturnCredits(CGlobalHeap& heap, CHeapLane& lane);
    [[nodiscard]] void* AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount);

    CRecordBuckets m_buckets;
    void* m_memory = nullptr; // of this object, as the hook gave it
    SSlab* m_slabs = nullptr;
    u64 m_slabUsed = SlabSize;
    CChunkRecords* m_unused[CHeapLane::ClassCount] = {};  // by block size, ready for another chunk
    CChunkRecords* m_removed[CHeapLane::ClassCount] = {}; // ready after the next purge
    CChunkMap m_map;
    CHeapLane m_lanes[LaneCount];
};

} // namespace Velmor
