// The heap object: hook functions, counters and the table of allocation records. One heap may serve several modules,
// so everything that it needs lies in the object itself or in memory that it points to.
#pragma once

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>
#include <cstddef>

namespace Velmor {

/// The functions that a heap takes its memory from.
struct SMemoryHooks {
    void* (*malloc)(u64);
    void* (*realloc)(void*, u64);
    void (*free)(void*);
};

/// A statistics counter. Every change is made under the heap lock or while one thread alone has the heap; readers take
/// it as it is, without a lock and without a data race.
class CStatisticsCounter {
public:
    [[nodiscard]] u64 Get() const { return m_value.load(std::memory_order_relaxed); }
    void Set(u64 value) { m_value.store(value, std::memory_order_relaxed); }
    void Add(u64 value) { Set(Get() + value); }
    void Subtract(u64 value) { Set(Get() - value); }

private:
    std::atomic<u64> m_value{0};
};

/// What the heap knows about one block: 61 bits of size, three bits of heap kind.
struct SAllocationRecord {
    u64 address;
    SAllocationRecord* next; ///< in the same bucket, or in the free list
    u64 sizeAndKind;

    static constexpr u32 KindShift = 61;
    static constexpr u64 SizeMask = (u64{1} << KindShift) - 1;

    [[nodiscard]] u64 GetSize() const { return sizeAndKind & SizeMask; }
    [[nodiscard]] EHeap::Type GetKind() const { return static_cast<EHeap::Type>(sizeAndKind >> KindShift); }
    void Set(void const* block, u64 size, EHeap::Type kind)
    {
        address = reinterpret_cast<u64>(block);
        sizeAndKind = size | (u64{kind} << KindShift);
    }
    void SetSize(u64 size) { sizeAndKind = size | (sizeAndKind & ~SizeMask); }
};

static_assert(sizeof(SAllocationRecord) == 24);

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

    /// Records a block and runs `count` under the same lock. False, and `count` not run, when there is no record to be
    /// had.
    template <class Count>
    [[nodiscard]] bool Enter(void* block, u64 size, EHeap::Type kind, Count&& count)
    {
        PrefetchBucket(block);
        CLock const lock(m_lock);
        if (m_freeRecords == nullptr && !GrowRecordStore()) [[unlikely]]
            return false;
        SAllocationRecord* const record = m_freeRecords;
        m_freeRecords = record->next;
        record->Set(block, size, kind);
        Link(record);
        count();
        return true;
    }

    /// Takes the block's record out, runs `count(size, kind)` under the same lock and returns true; false for an
    /// unknown block. From here on the address may be recorded anew.
    template <class Count>
    bool Take(void const* block, Count&& count)
    {
        PrefetchBucket(block);
        CLock const lock(m_lock);
        SAllocationRecord* const record = Unlink(block);
        if (record == nullptr)
            return false;
        record->next = m_freeRecords;
        m_freeRecords = record;
        count(record->GetSize(), record->GetKind());
        return true;
    }

    /// Takes the block's record out of the table but keeps it for Attach or Discard, so that a resize never lacks one.
    /// Null for an unknown block. Runs `count(size, kind)` under the same lock.
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
        record->next = m_freeRecords;
        m_freeRecords = record;
        count();
    }

    /// Records `to` in the place of `from`; false, and nothing changed, when `from` is unknown. Runs `count` under the
    /// same lock.
    template <class Count>
    [[nodiscard]] bool Move(void const* from, void const* to, u64 size, Count&& count)
    {
        CLock const lock(m_lock);
        SAllocationRecord* const record = Unlink(from);
        if (record == nullptr)
            return false;
        record->Set(to, size, record->GetKind());
        Link(record);
        count();
        return true;
    }

    /// Runs `inspect(record)` under the lock; false for an unknown block.
    template <class Inspect>
    bool Find(void const* block, Inspect&& inspect)
    {
        CLock const lock(m_lock);
        for (SAllocationRecord* record = BucketOf(reinterpret_cast<u64>(block)); record != nullptr;
             record = record->next)
            if (record->address == reinterpret_cast<u64>(block)) {
                inspect(*record);
                return true;
            }
        return false;
    }

private:
    CGlobalHeap(SMemoryHooks const& hooks, u8 flags, u64 budget);

    // The bucket heads: the heap's own 256, or, once the store has outgrown them, a larger array of the same scheme.
    union UBuckets {
        SAllocationRecord* own[OwnBucketCount];
        SAllocationRecord** larger;
    };
    static constexpr u8 OwnBucketBits = 8;

    [[nodiscard]] SAllocationRecord*& BucketOf(u64 address)
    {
        u32 const bits = m_bucketBits.load(std::memory_order_relaxed);
        if (bits == OwnBucketBits)
            return m_buckets.own[((address >> 8) ^ address) & (OwnBucketCount - 1)];
        return GetLarger()[GetLargerIndex(address, bits)];
    }

    // Blocks lie at least 8, mostly 16 bytes apart; neighbours get neighbouring buckets, which suits the cache.
    [[nodiscard]] static u64 GetLargerIndex(u64 address, u32 bits)
    {
        return ((address >> 4) ^ (address >> (4 + bits))) & ((u64{1} << bits) - 1);
    }

    // Before the lock is taken, so that it is held while the memory answers, not while it is asked. The array may be
    // replaced meanwhile: a prefetch of memory that is gone does no harm.
    void PrefetchBucket(void const* block)
    {
        u32 const bits = m_bucketBits.load(std::memory_order_acquire);
        if (bits != OwnBucketBits)
            __builtin_prefetch(GetLarger() + GetLargerIndex(reinterpret_cast<u64>(block), bits), 1);
    }

    [[nodiscard]] SAllocationRecord** GetLarger()
    {
        return std::atomic_ref(m_buckets.larger).load(std::memory_order_relaxed);
    }

    void Link(SAllocationRecord* record)
    {
        SAllocationRecord*& head = BucketOf(record->address);
        record->next = head;
        head = record;
    }

    [[nodiscard]] SAllocationRecord* Unlink(void const* block)
    {
        u64 const address = reinterpret_cast<u64>(block);
        for (SAllocationRecord** link = &BucketOf(address); *link != nullptr; link = &(*link)->next)
            if ((*link)->address == address) {
                SAllocationRecord* const record = *link;
                *link = record->next;
                return record;
            }
        return nullptr;
    }

    [[nodiscard]] u64 GetRecordChunkCount() const { return m_growthExponent == 0 ? 0 : u64{1} << m_growthExponent; }
    [[nodiscard]] bool GrowRecordStore();
    void GrowBuckets();

    u64 m_growthExponent = 0;
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
    std::atomic<u8> m_bucketBits{OwnBucketBits};
};

} // namespace Velmor
