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

    [[nodiscard]] bool IsReporting() const { return m_report != 0; }
    [[nodiscard]] bool IsPassthrough() const { return m_passthrough != 0; }
    [[nodiscard]] u64 GetAllocationCount() const { return m_allocationCount.Get(); }
    [[nodiscard]] u64 GetLiveCount() const { return m_liveCount.Get(); }
    [[nodiscard]] u64 GetBytesInUse() const { return m_bytesInUse.Get(); }
    [[nodiscard]] u64 GetBudget() const { return m_budget; }
    [[nodiscard]] CRecursiveSpinLock& GetLock() { return m_lock; }
    [[nodiscard]] SMemoryHooks const& GetHooks() const { return m_hooks; }

    /// True when `size` more bytes stay within the budget.
    [[nodiscard]] bool FitsBudget(u64 size) const
    {
        u64 const used = m_bytesInUse.Get();
        return used <= m_budget && size <= m_budget - used;
    }

    // ---- Hook calls with their bookkeeping ----

    /// Asks the malloc hook within the budget. Counts an allocation when the hook was asked, and a live block when it
    /// answered. Null otherwise.
    [[nodiscard]] void* HookAllocate(u64 size);
    /// The same with the realloc hook; a null block is HookAllocate.
    [[nodiscard]] void* HookReallocate(void* block, u64 size);
    /// Nothing for null.
    void HookRelease(void* block);

    /// Changes of the counters that belong together. Under the heap lock.
    void CountHookBlocks(u64 requests, u64 blocks)
    {
        m_allocationCount.Add(requests);
        m_liveCount.Add(blocks);
    }
    void CountReleasedHookBlocks(u64 blocks) { m_liveCount.Subtract(blocks); }
    /// A count that would pass the end of its type is left out: it could only come from refused requests.
    void AddBytes(u64 size)
    {
        u64 const used = m_bytesInUse.Get();
        if (size <= ~u64{0} - used)
            m_bytesInUse.Set(used + size);
    }
    void SubtractBytes(u64 size) { m_bytesInUse.Subtract(size); }

    // ---- The record table ----

    /// What the heap has beyond its own fields; null up to 1,024 records and 4,096 allocations from a pool.
    [[nodiscard]] CHeapExtension* GetExtension() const { return m_extension.load(std::memory_order_acquire); }
    /// Where it is found; as long as the heap object, whatever becomes of the extension.
    [[nodiscard]] std::atomic<CHeapExtension*> const& GetExtensionWord() const { return m_extension; }

    /// Extends the heap, if it is not. Under the heap lock. Without memory for it the heap goes on as it is.
    void Extend();

    /// What is known of a block; size 0 for an unknown one.
    struct SKnown {
        u64 size = 0;
        EHeap::Type kind = EHeap::General;
    };

    /// Enters a record in the table and runs `count` under the same lock. False, and `count` not run, when there is no
    /// record to be had.
    template <class Count>
    [[nodiscard]] bool Enter(void* block, u64 size, EHeap::Type kind, Count&& count,
                             EStoreGrowth growth = EStoreGrowth::Allowed)
    {
        PrefetchBucket(block);
        do {
            CLock const lock(m_lock);
            if (SAllocationRecord* const record = PopFreeRecord()) [[likely]] {
                record->Set(block, size, kind);
                Link(record);
                count();
                return true;
            }
            if (HasFreeRecords())
                return false; // the hook refused the memory for them
        } while (MakeFreeRecords(growth));
        return false;
    }

    /// Takes the block's record out of the table, runs `count(size, kind)` under the same lock and returns true; false
    /// for a block that is not in the table. From here on the address may be recorded anew.
    template <class Count>
    bool Take(void const* block, Count&& count)
    {
        PrefetchBucket(block);
        CLock const lock(m_lock);
        SAllocationRecord* const record = Unlink(block);
        if (record == nullptr)
            return false;
        PushFreeRecord(record);
        count(record->GetSize(), record->GetKind());
        return true;
    }

    /// Takes the block's record out of the table but keeps it for Attach or Discard, so that a resize never lacks one.
    /// Null for a block that is not in the table. Runs `count(size, kind)` under the same lock.
    template <class Count>
    [[nodiscard]] SAllocationRecord* Detach(void const* block, Count&& count)
    {
        CLock const lock(m_lock);
        SAllocationRecord* const record = Unlink(block);
        if (record != nullptr)
            count(record->GetSize(), record->GetKind());
        return record;
    }

    /// Enters a detached record for its new block; runs `count` under the same lock.
    template <class Count>
    void Attach(SAllocationRecord* record, void const* block, u64 size, Count&& count)
    {
        CLock const lock(m_lock);
        record->Set(block, size, record->GetKind());
        Link(record);
        count();
    }

    /// Gives a detached record up; runs `count` under the same lock.
    template <class Count>
    void Discard(SAllocationRecord* record, Count&& count)
    {
        CLock const lock(m_lock);
        PushFreeRecord(record);
        count();
    }

    /// What is known of a block, wherever its record lies.
    [[nodiscard]] SKnown Find(void const* block)
    {
        if (CHeapExtension const* const extension = GetExtension())
            if (CChunkMap::SFound const found = extension->Find(block); found.record != nullptr)
                if (u64 const size = found.record->load(std::memory_order_relaxed); size != 0)
                    return {size, found.tag.GetKind()};
        CLock const lock(m_lock);
        SAllocationRecord const* const record = FindInTable(block);
        return record != nullptr ? SKnown{record->GetSize(), record->GetKind()} : SKnown{};
    }

    /// Records another size for a known block that stays where it is; runs `count` under the heap lock.
    template <class Count>
    void SetSize(void const* block, u64 size, Count&& count)
    {
        CLock const lock(m_lock);
        count();
        if (CHeapExtension* const extension = GetExtension())
            if (CChunkRecords::Record* const record = extension->Find(block).record;
                record != nullptr && record->load(std::memory_order_relaxed) != 0) {
                record->store(static_cast<u16>(size), std::memory_order_relaxed);
                return;
            }
        if (SAllocationRecord* const record = FindInTable(block))
            record->SetSize(size);
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

    // ---- Credits: records of the store that stand for records in the chunks ----

    /// Sets up to `wanted` records aside; how many. 0 when the store has none: MakeFreeRecords may help.
    [[nodiscard]] u32 ReserveRecords(u32 wanted);
    /// Sees to it that the store has a record, which another thread may take at once; false when that cannot be. No lock
    /// held, that of a lane included.
    [[nodiscard]] bool MakeFreeRecords(EStoreGrowth growth);
    void ReturnRecords(u64 count)
    {
        CLock const lock(m_lock);
        m_buckets.beyond.reserved -= count;
    }

private:
    CGlobalHeap(SMemoryHooks const& hooks, u8 flags, u64 budget);

    // The bucket heads: the heap's own 256, or, once the store has outgrown them, what goes with the extension.
    union UBuckets {
        SAllocationRecord* own[OwnBucketCount];
        struct {
            u64 freeRecords;  ///< in the free list or in chunks that have not been needed yet
            u64 reserved;     ///< so many of them are the lanes' to use
            u64 neededChunks; ///< chunks of the store that have been taken from the hook
        } beyond;
    };

    [[nodiscard]] SAllocationRecord*& BucketOf(u64 address)
    {
        if (CHeapExtension* const extension = GetExtension())
            return extension->GetBuckets().FindBucket(address);
        return m_buckets.own[((address >> 8) ^ address) & (OwnBucketCount - 1)];
    }

    // Before the lock is taken, so that it is held while the memory answers, not while it is asked.
    void PrefetchBucket(void const* block)
    {
        if (CHeapExtension* const extension = GetExtension())
            extension->GetBuckets().Prefetch(reinterpret_cast<u64>(block));
    }

    void Link(SAllocationRecord* record)
    {
        SAllocationRecord*& head = BucketOf(record->address);
        record->next = head;
        head = record;
        if (CHeapExtension* const extension = GetExtension())
            extension->GetBuckets().CountEntry(m_hooks);
    }

    [[nodiscard]] SAllocationRecord* Unlink(void const* block)
    {
        u64 const address = reinterpret_cast<u64>(block);
        for (SAllocationRecord** link = &BucketOf(address); *link != nullptr; link = &(*link)->next)
            if ((*link)->address == address) {
                SAllocationRecord* const record = *link;
                *link = record->next;
                if (CHeapExtension* const extension = GetExtension())
                    extension->GetBuckets().CountExit();
                return record;
            }
        return nullptr;
    }

    [[nodiscard]] SAllocationRecord* FindInTable(void const* block)
    {
        u64 const address = reinterpret_cast<u64>(block);
        SAllocationRecord* record = BucketOf(address);
        while (record != nullptr && record->address != address)
            record = record->next;
        return record;
    }

    void PushFreeRecord(SAllocationRecord* record)
    {
        record->next = m_freeRecords;
        m_freeRecords = record;
        if (GetExtension() != nullptr)
            ++m_buckets.beyond.freeRecords;
    }

    // Null when all are in use or reserved.
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
    // With an extension: records that are neither in use nor reserved.
    [[nodiscard]] bool HasFreeRecords() const
    {
        return GetExtension() != nullptr && m_buckets.beyond.freeRecords != m_buckets.beyond.reserved;
    }
    [[nodiscard]] bool PrepareFreeRecord();
    [[nodiscard]] bool GrowRecordStore();
    [[nodiscard]] bool AddRecordChunk(u64 index);
    void ThreadRecords(u64 chunkIndex);

    std::atomic<CHeapExtension*> m_extension{nullptr};
    SAllocationRecord** m_recordChunks = nullptr;
    SAllocationRecord* m_freeRecords = nullptr;
    UBuckets m_buckets{};
    SMemoryHooks m_hooks;
    CStatisticsCounter m_allocationCount;
    CStatisticsCounter m_liveCount;
    CStatisticsCounter m_bytesInUse;
    u64 m_budget;
    CRecursiveSpinLock m_lock;
    u8 m_report;
    u8 m_passthrough;
    u8 m_growthExponent = 0;
};

} // namespace Velmor
