// The heap object: hook functions, counters and the table of allocation records. One heap may serve several modules,
// so everything that it needs lies in the object itself or in memory that it points to.
#pragma once

#include "Core_MemoryExtension.h"
#include "Core_MemoryRecords.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <cstddef>
#include <utility>

namespace Velmor {

class CGlobalHeap {
public:
    /// Largest size that a record can hold; larger requests are refused before anything else happens.
    static constexpr u64 LargestSize = SAllocationRecord::SizeMask;
    static constexpr u64 RecordsPerChunk = 256;
    static constexpr u64 OwnBucketCount = 256;

    using CLock = TScopedLock<CRecursiveSpinLock>;

    /// A heap in memory of its own malloc hook; null when the hook gives none.
    [[nodiscard]] static CGlobalHeap* Create(SMemoryHooks const& hooks, u8 flags, u64 budget);

    /// Gives the record store back. The object stays as an empty heap: another module may still hold its address, and
    /// finds every block unknown.
    void ReleaseRecords();

    /// Whether this module's build of the library made the heap, or one that lays out everything alike.
    [[nodiscard]] bool IsOfThisBuild() const { return m_layout == GetLayout(); }
    [[nodiscard]] bool IsReporting() const { return m_report != 0; }
    [[nodiscard]] bool IsPassthrough() const { return m_passthrough != 0; }
    [[nodiscard]] u64 GetAllocationCount() const { return GetTotals().requests; }
    [[nodiscard]] u64 GetLiveCount() const { return GetTotals().liveCount; }
    [[nodiscard]] u64 GetBytesInUse() const { return GetTotals().bytesInUse; }
    [[nodiscard]] u64 GetBudget() const { return m_budget; }
    [[nodiscard]] CRecursiveSpinLock& GetLock() { return m_lock; }
    [[nodiscard]] SMemoryHooks const& GetHooks() const { return m_hooks; }

    /// True when `size` more bytes, up to LargestSize and an alignment, stay within the budget.
    [[nodiscard]] bool FitsBudget(u64 size) const
    {
        if (IsFarFromEnd())
            return true;
        u64 const used = HasBudget() ? m_bytesInUse.Get() : GetBytesInUse();
        return used <= m_budget && size <= m_budget - used;
    }

    // ---- Hook calls with their bookkeeping, for what the heap needs itself. With any lock but a shard's held ----

    /// Asks the malloc hook within the budget. Counts an allocation when the hook was asked, and a live block when it
    /// answered. Null otherwise.
    [[nodiscard]] void* HookAllocate(u64 size);
    /// The same with the realloc hook; a null block is HookAllocate.
    [[nodiscard]] void* HookReallocate(void* block, u64 size);
    /// Nothing for null.
    void HookRelease(void* block);

    /// Runs `count(counters)`: the heap with its lock held, or CLaneCounters, which has the same functions. No lock
    /// held.
    template <class Count>
    void ChangeCounters(Count&& count)
    {
        if (CHeapExtension* const extension = GetExtension())
            extension->UseLane([&](CHeapLane& lane) { CountInLane(lane, count); });
        else {
            CLock const lock(m_lock);
            count(*this);
        }
    }
    /// A refused request counts its size all the same, as pressure on the budget; kept, hosts watch it.
    void CountRefused(u64 requests, u64 size)
    {
        CLock const lock(m_lock);
        CountHookBlocks(requests, 0);
        AddBytes(size);
    }

    /// Changes of the counters that belong together. Under the heap lock.
    void CountHookBlocks(u64 requests, u64 blocks)
    {
        m_allocationCount.Add(requests);
        m_liveCount.Add(blocks);
        ExtendIfBusy(m_allocationCount.Get());
    }
    void CountReleasedHookBlocks(u64 blocks) { m_liveCount.Subtract(blocks); }
    /// The bytes in use need no lock. A count that would pass the end of its type is left out: it could only come from
    /// refused requests.
    void AddBytes(u64 size)
    {
        u64 const used = HasBudget() || IsFarFromEnd() ? m_bytesInUse.Get() : GetBytesInUse();
        if (size <= ~u64{0} - used)
            m_bytesInUse.Add(size);
    }
    void SubtractBytes(u64 size) { m_bytesInUse.Subtract(size); }

    /// Whether a block's bytes are counted in lanes: where they decide nothing, and are not so many that the lanes'
    /// could come near the end of their type.
    [[nodiscard]] bool CountsBytesInLanes(u64 size) const { return !HasBudget() && size < u64{1} << 48; }

    // ---- The record table ----

    /// What the heap has beyond its own fields; null up to 1,024 records and 4,096 allocations of the hooks or from a
    /// pool.
    [[nodiscard]] CHeapExtension* GetExtension() const { return m_extension.load(std::memory_order_acquire); }
    /// Where it is found; as long as the heap object, whatever becomes of the extension.
    [[nodiscard]] std::atomic<CHeapExtension*> const& GetExtensionWord() const { return m_extension; }

    /// Extends the heap, if it is not. Under the heap lock. Without memory for it the heap goes on as it is.
    void Extend();
    /// A heap that is used a lot is extended even when it never holds much: `count` allocations so far, of the hooks or
    /// of a pool. Under the heap lock. Where it cannot be had, it is asked for again after as many.
    void ExtendIfBusy(u64 count)
    {
        constexpr u64 ManyAllocations = 4096;
        // A class that grows counts two at once.
        if (count >= ManyAllocations && GetExtension() == nullptr && count % ManyAllocations < 2)
            Extend();
    }

    /// What is known of a block; size 0 for an unknown one.
    struct SKnown {
        u64 size = 0;
        EHeap::Type kind = EHeap::General;
    };

    /// Enters a record in the table and runs `count(counters)`, as ChangeCounters does. False, and `count` not run,
    /// when there is no record to be had.
    template <class Count>
    [[nodiscard]] bool Enter(void* block, u64 size, EHeap::Type kind, Count&& count,
                             EStoreGrowth growth = EStoreGrowth::Allowed)
    {
        if (CHeapExtension* const extension = GetExtension())
            return EnterInShard(*extension, block, size, kind, count, growth);
        do {
            CLock const lock(m_lock);
            if (GetExtension() != nullptr)
                break;
            if (SAllocationRecord* const record = PopFreeRecord()) [[likely]] {
                record->Set(block, size, kind);
                Link(record);
                count(*this);
                return true;
            }
        } while (MakeFreeRecords(growth));
        // Extended meanwhile, or out of records.
        CHeapExtension* const extension = GetExtension();
        return extension != nullptr && EnterInShard(*extension, block, size, kind, count, growth);
    }

    /// Takes the block's record out of the table, runs `count(counters, size, kind)` and returns true; false for a
    /// block that is not in the table. From here on the address may be recorded anew.
    template <class Count>
    bool Take(void const* block, Count&& count)
    {
        SAllocationRecord* const record = Unlink(block);
        if (record == nullptr)
            return false;
        Discard(record, [&](auto& counters) { count(counters, record->GetSize(), record->GetKind()); });
        return true;
    }

    /// Takes the block's record out of the table but keeps it for Attach or Discard, so that a resize never lacks one.
    /// Null for a block that is not in the table.
    [[nodiscard]] SAllocationRecord* Detach(void const* block) { return Unlink(block); }

    /// Enters a detached record for its new block.
    void Attach(SAllocationRecord* record, void const* block, u64 size)
    {
        record->Set(block, size, record->GetKind());
        if (GetExtension() == nullptr) {
            CLock const lock(m_lock);
            if (GetExtension() == nullptr) {
                Link(record);
                return;
            }
        }
        LinkInShard(*GetExtension(), *record);
    }

    /// Gives a detached record up and runs `count(counters)` before, as ChangeCounters does.
    template <class Count>
    void Discard(SAllocationRecord* record, Count&& count)
    {
        if (CHeapExtension* const extension = GetExtension()) {
            extension->UseLane([&](CHeapLane& lane) {
                CountInLane(lane, count);
                if (lane.PushRecord(*record) > CHeapLane::MostRecords)
                    ReturnRecordsOf(lane);
            });
            return;
        }
        CLock const lock(m_lock);
        count(*this);
        PushFreeRecord(record);
    }

    /// What is known of a block, wherever its record lies.
    [[nodiscard]] SKnown Find(void const* block)
    {
        if (CHeapExtension const* const extension = GetExtension())
            if (CChunkMap::SFound const found = extension->Find(block); found.record != nullptr)
                if (auto const record = found.record->load(std::memory_order_relaxed); record != 0)
                    return {CBlockRecord::GetSize(record), found.tag.GetKind()};
        SKnown known;
        UseRecord(block, [&](SAllocationRecord& record) { known = {record.GetSize(), record.GetKind()}; });
        return known;
    }

    /// Records another size for a known block that stays where it is.
    void SetSize(void const* block, u64 size)
    {
        if (CHeapExtension* const extension = GetExtension())
            if (CChunkRecords::Record* const record = extension->Find(block).record;
                record != nullptr && record->load(std::memory_order_relaxed) != 0) {
                extension->SetSize(*record, size);
                return;
            }
        UseRecord(block, [&](SAllocationRecord& record) { record.SetSize(size); });
    }

    // ---- The chunks of the pools, once the heap is extended ----

    /// Offers a chunk to the chunk map, so that its blocks' records are found without a lock.
    void AddChunk(void const* start, u32 blockCount, SBlockShape const& shape, u32 home)
    {
        CLock const lock(m_lock);
        if (CHeapExtension* const extension = GetExtension())
            extension->AddChunk(m_hooks, start, blockCount, shape, home);
    }
    /// Before the chunk goes back to the hooks.
    void RemoveChunk(void const* start)
    {
        CLock const lock(m_lock);
        if (CHeapExtension* const extension = GetExtension())
            extension->RemoveChunk(start);
    }
    /// Memory for what an extended heap notes, until its end; null when the hook gives none.
    [[nodiscard]] void* AllocateNotes(u64 byteCount)
    {
        CLock const lock(m_lock);
        return GetExtension()->AllocateNotes(m_hooks, byteCount);
    }
    /// Before the pools are purged.
    void BeginPurge()
    {
        CLock const lock(m_lock);
        if (CHeapExtension* const extension = GetExtension())
            extension->ReuseRemoved();
    }

    // ---- Credits: records of the store that stand for records in the chunks, and for those that lanes have ----

    /// Sets up to `wanted` records aside, few of the last ones; how many. 0 when the store has none: MakeFreeRecords
    /// may help.
    [[nodiscard]] u32 ReserveRecords(u32 wanted);
    /// Sees to it that the store has a record, which another thread may take at once; false when that cannot be. No
    /// lock held, that of a lane included.
    [[nodiscard]] bool MakeFreeRecords(EStoreGrowth growth);
    void ReturnRecords(u64 count)
    {
        CLock const lock(m_lock);
        m_buckets.beyond.available += count;
    }

private:
    struct STotals {
        u64 requests;
        u64 liveCount;
        u64 bytesInUse;
    };

    CGlobalHeap(SMemoryHooks const& hooks, u8 flags, u64 budget);

    [[nodiscard]] static u32 GetLayout();

    // The bucket heads: the heap's own 256, or, once the store has outgrown them, what goes with the extension.
    union UBuckets {
        SAllocationRecord* own[OwnBucketCount];
        struct {
            u64 available;    ///< records of the store that are neither in use nor set aside
            u64 neededChunks; ///< chunks of the store that have been taken from the hook
        } beyond;
    };

    // ---- Up to 1,024 records: under the heap lock ----

    [[nodiscard]] SAllocationRecord*& BucketOf(u64 address)
    {
        return m_buckets.own[((address >> 8) ^ address) & (OwnBucketCount - 1)];
    }

    void Link(SAllocationRecord* record)
    {
        SAllocationRecord*& head = BucketOf(record->address);
        record->next = head;
        head = record;
    }

    [[nodiscard]] SAllocationRecord** FindLink(u64 address)
    {
        SAllocationRecord** link = &BucketOf(address);
        while (*link != nullptr && (*link)->address != address)
            link = &(*link)->next;
        return link;
    }

    // ---- With an extension ----

    template <class Count>
    [[nodiscard]] bool EnterInShard(CHeapExtension& extension, void* block, u64 size, EHeap::Type kind, Count&& count,
                                    EStoreGrowth growth)
    {
        u64 const address = reinterpret_cast<u64>(block);
        extension.GetTable().GetShard(address).Prefetch(address);
        for (bool hasCollected = false;;) {
            SAllocationRecord* record = nullptr;
            ERecords records = ERecords::None;
            extension.UseLane([&](CHeapLane& lane) {
                if (!lane.HasRecords())
                    records = FillRecords(lane);
                if (lane.HasRecords()) {
                    record = &lane.PopRecord();
                    CountInLane(lane, count);
                }
            });
            if (record != nullptr) {
                record->Set(block, size, kind);
                LinkInShard(extension, *record);
                return true;
            }
            if (records == ERecords::Refused) {
                // Other lanes may have some.
                if (std::exchange(hasCollected, true))
                    return false;
                TScopedLock const collecting(extension.GetCollectingLock());
                CollectRecords(extension);
            }
            else if (!MakeFreeRecords(growth))
                return false;
        }
    }

    void LinkInShard(CHeapExtension& extension, SAllocationRecord& record)
    {
        extension.GetTable().GetShard(record.address).Link(m_hooks, record);
    }

    // With the lane's lock held.
    template <class Count>
    void CountInLane(CHeapLane& lane, Count&& count);

    [[nodiscard]] bool HasBudget() const { return m_budget != ~u64{0}; }
    // Without a budget: so far from the end of their type are the bytes in use that any request fits, wherever else
    // some are counted.
    [[nodiscard]] bool IsFarFromEnd() const { return !HasBudget() && m_bytesInUse.Get() <= u64{1} << 63; }

    // ---- Either way ----

    [[nodiscard]] STotals GetTotals() const;

    // The block's record, which is in the table no more; null for a block that is not in it.
    [[nodiscard]] SAllocationRecord* Unlink(void const* block)
    {
        u64 const address = reinterpret_cast<u64>(block);
        if (GetExtension() == nullptr) {
            CLock const lock(m_lock);
            if (GetExtension() == nullptr) {
                SAllocationRecord** const link = FindLink(address);
                SAllocationRecord* const record = *link;
                if (record != nullptr)
                    *link = record->next;
                return record;
            }
        }
        CRecordShard& shard = GetExtension()->GetTable().GetShard(address);
        shard.Prefetch(address);
        return shard.Unlink(address);
    }

    // Runs `use(record)` under the lock that guards the block's record, if there is one in the table.
    template <class Use>
    void UseRecord(void const* block, Use&& use)
    {
        u64 const address = reinterpret_cast<u64>(block);
        if (GetExtension() == nullptr) {
            CLock const lock(m_lock);
            if (GetExtension() == nullptr) {
                if (SAllocationRecord* const record = *FindLink(address))
                    use(*record);
                return;
            }
        }
        GetExtension()->GetTable().GetShard(address).Visit(address, use);
    }

    // ---- The record store: under the heap lock ----

    void PushFreeRecord(SAllocationRecord* record)
    {
        record->next = m_freeRecords;
        m_freeRecords = record;
        if (GetExtension() != nullptr)
            ++m_buckets.beyond.available;
    }

    // Null when all are in use or set aside, or the hook refuses the memory for those that are not.
    [[nodiscard]] SAllocationRecord* PopFreeRecord()
    {
        if (GetExtension() != nullptr && !PrepareFreeRecord()) [[unlikely]]
            return nullptr;
        SAllocationRecord* const record = m_freeRecords;
        if (record != nullptr)
            m_freeRecords = record->next;
        return record;
    }

    [[nodiscard]] u64 GetRecordChunkCount() const { return m_growthExponent == 0 ? 0 : u64{1} << m_growthExponent; }
    // Under the collecting lock and no other.
    void CollectRecords(CHeapExtension& extension);
    [[nodiscard]] bool PrepareFreeRecord();
    [[nodiscard]] bool GrowRecordStore();
    [[nodiscard]] bool AddRecordChunk(u64 index);
    void ThreadRecords(u64 chunkIndex);

    // ---- Records of a lane, whose lock is held ----

    enum class ERecords : u8 { Some, None, Refused }; // the hook gave no memory for those that there are

    [[nodiscard]] u64 GetShare(u64 wanted) const;
    [[nodiscard]] ERecords FillRecords(CHeapLane& lane);
    void ReturnRecordsOf(CHeapLane& lane);

    std::atomic<CHeapExtension*> m_extension{nullptr};
    SAllocationRecord** m_recordChunks = nullptr;
    SAllocationRecord* m_freeRecords = nullptr;
    UBuckets m_buckets{};
    SMemoryHooks m_hooks;
    CStatisticsCounter m_allocationCount;
    CStatisticsCounter m_liveCount;
    CSharedCounter m_bytesInUse;
    u64 m_budget;
    CRecursiveSpinLock m_lock;
    u8 m_report;
    u8 m_passthrough;
    u8 m_growthExponent = 0;
    u32 const m_layout = GetLayout(); // stays the last: every build finds it in the same place
};

/// Where blocks of an extended heap are counted: in a lane, whose lock is held, to be summed up later, but for the
/// bytes in use when they decide what is refused.
class CLaneCounters {
public:
    CLaneCounters(CHeapLane& lane, CGlobalHeap& heap) : m_lane(lane), m_heap(heap) {}

    void CountHookBlocks(u64 requests, u64 blocks) { m_lane.CountHookBlocks(requests, blocks); }
    void CountReleasedHookBlocks(u64 blocks) { m_lane.CountReleasedHookBlocks(blocks); }
    void AddBytes(u64 size)
    {
        if (m_heap.CountsBytesInLanes(size))
            m_lane.AddBytes(size);
        else
            m_heap.AddBytes(size);
    }
    void SubtractBytes(u64 size)
    {
        if (m_heap.CountsBytesInLanes(size))
            m_lane.SubtractBytes(size);
        else
            m_heap.SubtractBytes(size);
    }
    /// Of a pool: a block that is none of the lane's.
    void CountAllocation(EHeap::Type kind) { m_lane.GetLargestClass(kind).CountAllocation(); }
    void CountRelease(EHeap::Type kind) { m_lane.GetLargestClass(kind).CountRelease(); }

private:
    CHeapLane& m_lane;
    CGlobalHeap& m_heap;
};

template <class Count>
void CGlobalHeap::CountInLane(CHeapLane& lane, Count&& count)
{
    CLaneCounters counters(lane, *this);
    count(counters);
}

} // namespace Velmor
