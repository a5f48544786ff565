#include "Core_MemoryHeap.h"

#include "Core_BlockAllocator.h"
#include "Core_MemoryChunkMap.h"
#include "Core_MemoryDebug.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <type_traits>

namespace Velmor {

namespace {

constexpr u64 ChunkSize = CGlobalHeap::RecordsPerChunk * sizeof(SAllocationRecord);

// Records that the heap's own buckets serve; beyond them the bucket array grows with the store.
constexpr u64 OwnBucketsServe = 1024;

} // namespace

static_assert(sizeof(CGlobalHeap) == 2144, "the number that a fresh heap reports");
static_assert(std::is_standard_layout_v<CGlobalHeap>, "modules share the object");
static_assert(sizeof(CRecursiveSpinLock) == 8);

// A number that differs between builds that could not use each other's heaps. What changes the layout without changing
// a size here, or what is written into blocks, needs another generation.
u32 CGlobalHeap::GetLayout()
{
    static_assert(offsetof(CGlobalHeap, m_layout) == 2140, "every build looks there");
    constexpr u32 Generation = 3;
    constexpr u32 Layout = [] {
        u32 layout = Generation;
        for (u64 const size :
             {sizeof(CGlobalHeap), sizeof(CHeapExtension), sizeof(CHeapLane), sizeof(CLaneClass), sizeof(SFreeSlot),
              sizeof(CChunkMap), sizeof(CChunkRecords), sizeof(CFreeChunks), sizeof(CRecordTable), sizeof(CRecordShard),
              sizeof(SAllocationRecord), sizeof(TBlockAllocator<0>), sizeof(TBlockAllocator<4>), sizeof(CBlockClass)})
            layout = layout * 31 + static_cast<u32>(size);
        return layout << 2 | (MemoryDebug::IsFilling ? 2 : 0) | (MemoryDebug::IsPoisoning ? 1 : 0);
    }();
    return Layout;
}

// ---- Creation and teardown ----

CGlobalHeap* CGlobalHeap::Create(SMemoryHooks const& hooks, u8 flags, u64 budget)
{
    void* const memory = hooks.malloc(sizeof(CGlobalHeap));
    return memory != nullptr ? ::new (memory) CGlobalHeap(hooks, flags, budget) : nullptr;
}

CGlobalHeap::CGlobalHeap(SMemoryHooks const& hooks, u8 flags, u64 budget)
    : m_hooks(hooks), m_budget(budget != 0 ? budget : ~u64{0}), m_report((flags & EHeapFlag::Report) != 0 ? 1 : 0),
      m_passthrough((flags & EHeapFlag::Passthrough) != 0 ? 1 : 0)
{
    m_bytesInUse.Set(sizeof(CGlobalHeap));
    // Without a store yet, the first block asks for one again.
    static_cast<void>(GrowRecordStore());
}

void CGlobalHeap::ReleaseRecords()
{
    STotals const totals = GetTotals();
    m_allocationCount.Set(totals.requests);
    m_liveCount.Set(totals.liveCount);
    m_bytesInUse.Set(totals.bytesInUse);
    u64 const chunkCount = GetRecordChunkCount();
    for (u64 index = 0; index < chunkCount; ++index) {
        if (m_recordChunks[index] != nullptr)
            m_hooks.free(m_recordChunks[index]);
        SubtractBytes(ChunkSize);
    }
    if (m_recordChunks != nullptr)
        m_hooks.free(m_recordChunks);
    SubtractBytes(chunkCount * sizeof(SAllocationRecord*));
    CHeapExtension* const extension = GetExtension();

    m_growthExponent = 0;
    m_recordChunks = nullptr;
    m_freeRecords = nullptr;
    m_buckets = UBuckets{};
    m_extension.store(nullptr, std::memory_order_relaxed);
    if (extension != nullptr)
        extension->Release(m_hooks);
}

// ---- Hook calls ----

void* CGlobalHeap::HookAllocate(u64 size)
{
    if (!FitsBudget(size))
        return nullptr;
    void* const block = m_hooks.malloc(size);
    CLock const lock(m_lock);
    CountHookBlocks(1, block != nullptr ? 1 : 0);
    return block;
}

void* CGlobalHeap::HookReallocate(void* block, u64 size)
{
    if (block == nullptr)
        return HookAllocate(size);
    if (!FitsBudget(size))
        return nullptr;
    void* const moved = m_hooks.realloc(block, size);
    CLock const lock(m_lock);
    CountHookBlocks(1, 0);
    return moved;
}

void CGlobalHeap::HookRelease(void* block)
{
    if (block == nullptr)
        return;
    {
        CLock const lock(m_lock);
        CountReleasedHookBlocks(1);
    }
    m_hooks.free(block);
}

// ---- Counters ----

auto CGlobalHeap::GetTotals() const -> STotals
{
    CHeapExtension const* const extension = GetExtension();
    CHeapExtension::SHookTotals const lanes =
        extension != nullptr ? extension->GetHookTotals() : CHeapExtension::SHookTotals{};
    return {m_allocationCount.Get() + lanes.requests, m_liveCount.Get() + lanes.liveCount,
            m_bytesInUse.Get() + lanes.bytesInUse};
}

// ---- The record store ----

bool CGlobalHeap::GrowRecordStore()
{
    u64 const oldCount = GetRecordChunkCount();
    u64 const newCount = u64{2} << m_growthExponent;
    void* const table = m_hooks.realloc(m_recordChunks, newCount * sizeof(SAllocationRecord*));
    if (table == nullptr)
        return false;
    m_recordChunks = static_cast<SAllocationRecord**>(table);
    if (GetExtension() != nullptr)
        // Counted here, but taken when they are needed: most records of an extended heap lie in the pools' chunks.
        std::fill(m_recordChunks + oldCount, m_recordChunks + newCount, nullptr);
    else
        for (u64 index = oldCount; index < newCount; ++index)
            if (!AddRecordChunk(index)) {
                // As it was, but for a table with room to spare.
                while (index > oldCount)
                    m_hooks.free(m_recordChunks[--index]);
                if (oldCount == 0) {
                    m_hooks.free(m_recordChunks);
                    m_recordChunks = nullptr;
                }
                return false;
            }
    ++m_growthExponent;
    AddBytes((newCount - oldCount) * (ChunkSize + sizeof(SAllocationRecord*)));

    if (GetExtension() != nullptr)
        m_buckets.beyond.available += (newCount - oldCount) * RecordsPerChunk;
    else {
        for (u64 index = oldCount; index < newCount; ++index)
            ThreadRecords(index);
        if (newCount * RecordsPerChunk > OwnBucketsServe)
            Extend();
    }
    return true;
}

bool CGlobalHeap::AddRecordChunk(u64 index)
{
    m_recordChunks[index] = static_cast<SAllocationRecord*>(m_hooks.malloc(ChunkSize));
    return m_recordChunks[index] != nullptr;
}

void CGlobalHeap::ThreadRecords(u64 chunkIndex)
{
    for (u64 slot = 0; slot < RecordsPerChunk; ++slot) {
        SAllocationRecord* const record = ::new (m_recordChunks[chunkIndex] + slot) SAllocationRecord;
        record->next = m_freeRecords;
        m_freeRecords = record;
    }
}

void CGlobalHeap::Extend()
{
    if (GetExtension() != nullptr)
        return;
    CHeapExtension* const extension = CHeapExtension::Create(m_hooks);
    if (extension == nullptr)
        return;
    for (SAllocationRecord* record : m_buckets.own)
        while (record != nullptr) {
            SAllocationRecord* const next = record->next;
            LinkInShard(*extension, *record);
            record = next;
        }
    u64 available = 0;
    for (SAllocationRecord const* record = m_freeRecords; record != nullptr; record = record->next)
        ++available;
    m_buckets.beyond = {available, GetRecordChunkCount()};
    m_extension.store(extension, std::memory_order_release);
}

// With an extension: an available record at the head of the free list. False when there is none, or no memory for it.
bool CGlobalHeap::PrepareFreeRecord()
{
    auto& beyond = m_buckets.beyond;
    if (beyond.available == 0)
        return false;
    if (m_freeRecords == nullptr) {
        if (!AddRecordChunk(beyond.neededChunks))
            return false;
        ThreadRecords(beyond.neededChunks++);
    }
    --beyond.available;
    return true;
}

u32 CGlobalHeap::ReserveRecords(u32 wanted)
{
    CLock const lock(m_lock);
    u64 const count = GetShare(wanted);
    m_buckets.beyond.available -= count;
    return static_cast<u32>(count);
}

// What a lane gets of the available records: few of the last ones, or lanes would take them from each other at every
// step, since whoever has none calls them in from all.
u64 CGlobalHeap::GetShare(u64 wanted) const
{
    u64 const available = m_buckets.beyond.available;
    return std::min({wanted, available, std::max<u64>(1, available / CHeapExtension::LaneCount)});
}

auto CGlobalHeap::FillRecords(CHeapLane& lane) -> ERecords
{
    CLock const lock(m_lock);
    if (m_buckets.beyond.available == 0)
        return ERecords::None;
    for (u64 count = GetShare(CHeapLane::RecordsAtOnce); count != 0; --count) {
        SAllocationRecord* const record = PopFreeRecord();
        if (record == nullptr)
            break;
        static_cast<void>(lane.PushRecord(*record));
    }
    return lane.HasRecords() ? ERecords::Some : ERecords::Refused;
}

void CGlobalHeap::ReturnRecordsOf(CHeapLane& lane)
{
    CLock const lock(m_lock);
    for (u32 count = 0; count < CHeapLane::RecordsAtOnce; ++count)
        PushFreeRecord(&lane.PopRecord());
}

void CGlobalHeap::CollectRecords(CHeapExtension& extension)
{
    CHeapExtension::SCollected collected = extension.CollectCredits();
    CLock const lock(m_lock);
    m_buckets.beyond.available += collected.credits;
    while (SAllocationRecord* const record = collected.records) {
        collected.records = record->next;
        PushFreeRecord(record);
    }
}

// Before the store grows, the lanes' unused credits are called in: it grows only when every record is in use. One
// thread calls at a time: what another has collected would look as if it were in use.
bool CGlobalHeap::MakeFreeRecords(EStoreGrowth growth)
{
    bool const mayGrow = growth == EStoreGrowth::Allowed;
    CHeapExtension* const extension = GetExtension();
    if (extension == nullptr) {
        CLock const lock(m_lock);
        bool const isExtended = GetExtension() != nullptr; // by another thread: to be asked again
        return isExtended || m_freeRecords != nullptr || (mayGrow && GrowRecordStore());
    }
    TScopedLock const collecting(extension->GetCollectingLock());
    {
        CLock const lock(m_lock);
        if (m_buckets.beyond.available != 0) // another thread made them
            return true;
    }
    CollectRecords(*extension);
    CLock const lock(m_lock);
    return m_buckets.beyond.available != 0 || (mayGrow && GrowRecordStore());
}

// ---- Shards of the table ----

void CRecordShard::Release(SMemoryHooks const& hooks)
{
    if (GetHeads() != m_ownHeads)
        hooks.free(GetHeads());
}

// Without memory for more of them, the chains just grow longer.
void CRecordShard::Grow(SMemoryHooks const& hooks)
{
    u32 const oldBits = m_bits.load(std::memory_order_relaxed);
    u32 const newBits = oldBits + GrowthBits;
    u64 const count = u64{1} << newBits;
    SAllocationRecord** const heads =
        static_cast<SAllocationRecord**>(hooks.malloc(count * sizeof(SAllocationRecord*)));
    if (heads == nullptr)
        return;
    std::fill_n(heads, count, nullptr);
    SAllocationRecord** const oldHeads = GetHeads();
    for (u64 index = 0; index < u64{1} << oldBits; ++index)
        for (SAllocationRecord* record = oldHeads[index]; record != nullptr;) {
            SAllocationRecord* const next = record->next;
            SAllocationRecord*& head = heads[Impl::GetRecordBucket(record->address, newBits)];
            record->next = head;
            head = record;
            record = next;
        }
    m_heads.store(heads, std::memory_order_relaxed);
    m_bits.store(newBits, std::memory_order_relaxed);
    if (oldHeads != m_ownHeads)
        hooks.free(oldHeads);
}

} // namespace Velmor
