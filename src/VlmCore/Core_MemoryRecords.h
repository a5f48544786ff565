// What the parts of the memory manager have in common: hooks, counters, allocation records.
#pragma once

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

/// The functions that a heap takes its memory from.
struct SMemoryHooks {
    void* (*malloc)(u64);
    void* (*realloc)(void*, u64);
    void (*free)(void*);
};

/// A statistics counter. Every change is made under one lock or while one thread alone has the heap; readers take it as
/// it is, without a lock and without a data race.
class CStatisticsCounter {
public:
    [[nodiscard]] u64 Get() const { return m_value.load(std::memory_order_relaxed); }
    /// Who sees the value, and has a fence behind that, sees what was counted before it.
    void Set(u64 value) { m_value.store(value, std::memory_order_release); }
    void Add(u64 value) { Set(Get() + value); }
    void Subtract(u64 value) { Set(Get() - value); }

private:
    std::atomic<u64> m_value{0};
};

/// A counter that any thread changes at any time.
class CSharedCounter {
public:
    [[nodiscard]] u64 Get() const { return m_value.load(std::memory_order_relaxed); }
    void Set(u64 value) { m_value.store(value, std::memory_order_relaxed); }
    void Add(u64 value) { m_value.fetch_add(value, std::memory_order_relaxed); }
    void Subtract(u64 value) { m_value.fetch_sub(value, std::memory_order_relaxed); }

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

namespace Impl {

/// The part of the record table for a block, as one of 2^bits: neighbours share it, so that threads with memory of
/// their own mostly have parts of their own. Method: multiplication by the golden ratio (Donald Knuth, "The Art of
/// Computer Programming", volume 3, 6.4).
[[nodiscard]] constexpr u64 GetRecordShard(u64 address, u32 bits)
{
    constexpr u32 RegionBits = 18;
    constexpr u64 GoldenRatio = 0x9E3779B97F4A7C15u;
    return (address >> RegionBits) * GoldenRatio >> (64 - bits);
}

/// The bucket within that part, of 2^bits. Blocks lie at least 8, mostly 16 bytes apart; neighbours get neighbouring
/// buckets, which suits the cache. Large ones lie at distances near to powers of two: where a run of buckets begins is
/// a hash of the higher bits, by another factor than above (one of David Stafford's mixer 13), or each part would use a
/// few of its buckets only.
[[nodiscard]] constexpr u64 GetRecordBucket(u64 address, u32 bits)
{
    constexpr u64 Factor = 0xBF58476D1CE4E5B9u;
    u64 const number = address >> 4;
    return (number + ((number >> bits) * Factor >> (64 - bits))) & ((u64{1} << bits) - 1);
}

} // namespace Impl

/// A part of the record table, with a lock of its own and buckets that grow with the records in them.
class alignas(64) CRecordShard {
public:
    CRecordShard() = default;
    CRecordShard(CRecordShard const&) = delete;
    CRecordShard& operator=(CRecordShard const&) = delete;
    ~CRecordShard() = default;

    void Release(SMemoryHooks const& hooks);

    /// Before the lock is taken, so that it is held while the memory answers, not while it is asked. May meet an array
    /// that is being replaced: a prefetch of memory that is gone does no harm.
    void Prefetch(u64 address) const
    {
        __builtin_prefetch(GetHeads() + Impl::GetRecordBucket(address, m_bits.load(std::memory_order_relaxed)), 1);
    }

    void Link(SMemoryHooks const& hooks, SAllocationRecord& record)
    {
        TScopedLock const lock(m_lock);
        SAllocationRecord*& head = FindBucket(record.address);
        record.next = head;
        head = &record;
        if (++m_count > u64{1} << m_bits.load(std::memory_order_relaxed)) [[unlikely]]
            Grow(hooks);
    }

    /// The block's record, which is in the table no more; null for a block that is not in it.
    [[nodiscard]] SAllocationRecord* Unlink(u64 address)
    {
        TScopedLock const lock(m_lock);
        for (SAllocationRecord** link = &FindBucket(address); *link != nullptr; link = &(*link)->next)
            if (SAllocationRecord* const record = *link; record->address == address) {
                *link = record->next;
                --m_count;
                return record;
            }
        return nullptr;
    }

    /// Runs `visit(record)` with the block's record under the shard's lock, if there is one.
    template <class Visitor>
    void Visit(u64 address, Visitor&& visit)
    {
        TScopedLock const lock(m_lock);
        SAllocationRecord* record = FindBucket(address);
        while (record != nullptr && record->address != address)
            record = record->next;
        if (record != nullptr)
            visit(*record);
    }

    [[nodiscard]] CSpinLock& GetLock() { return m_lock; }

    /// Base-2 logarithms of the buckets at first, and of what they grow by.
    static constexpr u32 FirstBits = 5;
    static constexpr u32 GrowthBits = 2;

private:
    [[nodiscard]] SAllocationRecord** GetHeads() const { return m_heads.load(std::memory_order_relaxed); }
    [[nodiscard]] SAllocationRecord*& FindBucket(u64 address)
    {
        return GetHeads()[Impl::GetRecordBucket(address, m_bits.load(std::memory_order_relaxed))];
    }
    void Grow(SMemoryHooks const& hooks);

    CSpinLock m_lock;
    std::atomic<u32> m_bits{FirstBits};
    std::atomic<SAllocationRecord**> m_heads{m_ownHeads};
    u64 m_count = 0;
    SAllocationRecord* m_ownHeads[1u << FirstBits] = {};
};

/// The record table of an extended heap, for blocks of the hooks and those of chunks that are not in the map.
class CRecordTable {
public:
    static constexpr u32 ShardBits = 6;

    [[nodiscard]] CRecordShard& GetShard(u64 address) { return m_shards[Impl::GetRecordShard(address, ShardBits)]; }

    void Release(SMemoryHooks const& hooks)
    {
        for (CRecordShard& shard : m_shards)
            shard.Release(hooks);
    }

    /// Around a copy of the process.
    void AcquireAll()
    {
        for (CRecordShard& shard : m_shards)
            shard.GetLock().Acquire();
    }
    void ReleaseAll()
    {
        for (CRecordShard& shard : m_shards)
            shard.GetLock().TryRelease();
    }

private:
    CRecordShard m_shards[1u << ShardBits];
};

} // namespace Velmor
