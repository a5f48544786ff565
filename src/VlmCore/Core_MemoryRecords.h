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
    void Set(u64 value) { m_value.store(value, std::memory_order_relaxed); }
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
    /// Nothing when it would pass `most`.
    void AddUpTo(u64 value, u64 most)
    {
        u64 seen = Get();
        do {
            if (seen > most || value > most - seen)
                return;
        } while (!m_value.compare_exchange_weak(seen, seen + value, std::memory_order_relaxed));
    }
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
        __builtin_prefetch(GetHeads() + GetIndex(address, m_bits.load(std::memory_order_relaxed)), 1);
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

private:
    static constexpr u32 FirstBits = 5;
    static constexpr u32 GrowthBits = 2;

    // Blocks lie at least 8, mostly 16 bytes apart; neighbours get neighbouring buckets, which suits the cache. Large
    // blocks often begin at multiples of a page or of 64 KB: higher bits count, too.
    [[nodiscard]] static u64 GetIndex(u64 address, u32 bits)
    {
        u64 const number = address >> 4;
        return (number ^ number >> bits ^ number >> 2 * bits) & ((u64{1} << bits) - 1);
    }
    [[nodiscard]] SAllocationRecord** GetHeads() const { return m_heads.load(std::memory_order_relaxed); }
    [[nodiscard]] SAllocationRecord*& FindBucket(u64 address)
    {
        return GetHeads()[GetIndex(address, m_bits.load(std::memory_order_relaxed))];
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
    /// The shard for a block: neighbours share it, so that threads with memory of their own mostly have shards of their
    /// own.
    [[nodiscard]] CRecordShard& GetShard(u64 address)
    {
        constexpr u64 GoldenRatio = 0x9E3779B97F4A7C15u;
        return m_shards[(address >> RegionBits) * GoldenRatio >> (64 - ShardBits)];
    }

    void Release(SMemoryHooks const& hooks)
    {
        for (CRecordShard& shard : m_shards)
            shard.Release(hooks);
    }

private:
    static constexpr u32 RegionBits = 18;
    static constexpr u32 ShardBits = 6;

    CRecordShard m_shards[1u << ShardBits];
};

} // namespace Velmor
