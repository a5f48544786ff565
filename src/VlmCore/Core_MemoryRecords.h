// What the parts of the memory manager have in common: hooks, counters, allocation records.
#pragma once

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

/// Buckets that grow with the number of records in them. Under the heap lock, but for Prefetch.
class CRecordBuckets {
public:
    /// False when the hook gives no memory.
    [[nodiscard]] bool Create(SMemoryHooks const& hooks);
    void Release(SMemoryHooks const& hooks);

    [[nodiscard]] SAllocationRecord*& FindBucket(u64 address)
    {
        return GetHeads()[GetIndex(address, m_bits.load(std::memory_order_relaxed))];
    }

    /// May meet an array that is being replaced: a prefetch of memory that is gone does no harm.
    void Prefetch(u64 address) const
    {
        __builtin_prefetch(GetHeads() + GetIndex(address, m_bits.load(std::memory_order_relaxed)), 1);
    }

    [[nodiscard]] u64 GetCount() const { return m_count; }

    void CountEntry(SMemoryHooks const& hooks)
    {
        if (++m_count > u64{1} << m_bits.load(std::memory_order_relaxed)) [[unlikely]]
            Grow(hooks);
    }
    void CountExit() { --m_count; }

private:
    static constexpr u32 FirstBits = 12;
    static constexpr u32 GrowthBits = 2;

    // Blocks lie at least 8, mostly 16 bytes apart; neighbours get neighbouring buckets, which suits the cache.
    [[nodiscard]] static u64 GetIndex(u64 address, u32 bits)
    {
        return ((address >> 4) ^ (address >> (4 + bits))) & ((u64{1} << bits) - 1);
    }
    [[nodiscard]] SAllocationRecord** GetHeads() const { return m_heads.load(std::memory_order_relaxed); }
    [[nodiscard]] static SAllocationRecord** MakeHeads(SMemoryHooks const& hooks, u32 bits);
    void Grow(SMemoryHooks const& hooks);

    std::atomic<SAllocationRecord**> m_heads{nullptr};
    std::atomic<u32> m_bits{FirstBits};
    u64 m_count = 0;
};

} // namespace Velmor
