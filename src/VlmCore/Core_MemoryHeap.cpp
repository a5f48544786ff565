#include "Core_MemoryHeap.h"

#include <new>
#include <type_traits>

namespace Velmor {

namespace {

constexpr u64 ChunkSize = CGlobalHeap::RecordsPerChunk * sizeof(SAllocationRecord);

// Records that the heap's own buckets serve; beyond them the bucket array grows with the store.
constexpr u64 OwnBucketsServe = 1024;

} // namespace

static_assert(sizeof(CGlobalHeap) == 2144, "the number that a fresh heap reports");
static_assert(std::is_standard_layout_v<CGlobalHeap>, "modules of different builds share the object");
static_assert(sizeof(CRecursiveSpinLock) == 8);

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
    u64 const chunkCount = GetRecordChunkCount();
    for (u64 index = 0; index < chunkCount; ++index) {
        m_hooks.free(m_recordChunks[index]);
        SubtractBytes(ChunkSize);
    }
    if (m_recordChunks != nullptr)
        m_hooks.free(m_recordChunks);
    SubtractBytes(chunkCount * sizeof(SAllocationRecord*));
    if (m_bucketBits.load(std::memory_order_relaxed) != OwnBucketBits)
        m_hooks.free(m_buckets.larger);

    m_growthExponent = 0;
    m_recordChunks = nullptr;
    m_freeRecords = nullptr;
    m_buckets = UBuckets{};
    m_bucketBits.store(OwnBucketBits, std::memory_order_relaxed);
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

// ---- The record store ----

bool CGlobalHeap::GrowRecordStore()
{
    u64 const oldCount = GetRecordChunkCount();
    u64 const newCount = u64{2} << m_growthExponent;
    void* const table = m_hooks.realloc(m_recordChunks, newCount * sizeof(SAllocationRecord*));
    if (table == nullptr)
        return false;
    m_recordChunks = static_cast<SAllocationRecord**>(table);

    SAllocationRecord* const freeBefore = m_freeRecords;
    for (u64 index = oldCount; index < newCount; ++index) {
        void* const chunk = m_hooks.malloc(ChunkSize);
        if (chunk == nullptr) {
            // As it was, but for a table with room to spare.
            while (index > oldCount)
                m_hooks.free(m_recordChunks[--index]);
            m_freeRecords = freeBefore;
            if (oldCount == 0) {
                m_hooks.free(m_recordChunks);
                m_recordChunks = nullptr;
            }
            return false;
        }
        m_recordChunks[index] = static_cast<SAllocationRecord*>(chunk);
        for (u64 slot = 0; slot < RecordsPerChunk; ++slot) {
            SAllocationRecord* const record = ::new (m_recordChunks[index] + slot) SAllocationRecord;
            record->next = m_freeRecords;
            m_freeRecords = record;
        }
    }

    ++m_growthExponent;
    AddBytes((newCount - oldCount) * (ChunkSize + sizeof(SAllocationRecord*)));
    if (newCount * RecordsPerChunk > OwnBucketsServe)
        GrowBuckets();
    return true;
}

// Two buckets per record of the store: most chains are one record long. Without memory for them the chains just grow longer.
void CGlobalHeap::GrowBuckets()
{
    u8 const oldBits = m_bucketBits.load(std::memory_order_relaxed);
    u8 const newBits = static_cast<u8>(m_growthExponent + OwnBucketBits + 1);
    u64 const oldCount = u64{1} << oldBits;
    u64 const newCount = u64{1} << newBits;
    void* const memory = m_hooks.malloc(newCount * sizeof(SAllocationRecord*));
    if (memory == nullptr)
        return;
    SAllocationRecord** const buckets = static_cast<SAllocationRecord**>(memory);
    for (u64 index = 0; index < newCount; ++index)
        buckets[index] = nullptr;

    bool const wereOwn = oldBits == OwnBucketBits;
    SAllocationRecord** const oldBuckets = wereOwn ? m_buckets.own : m_buckets.larger;
    for (u64 index = 0; index < oldCount; ++index)
        for (SAllocationRecord* record = oldBuckets[index]; record != nullptr;) {
            SAllocationRecord* const next = record->next;
            SAllocationRecord*& head = buckets[GetLargerIndex(record->address, newBits)];
            record->next = head;
            head = record;
            record = next;
        }
    if (!wereOwn)
        m_hooks.free(oldBuckets);
    std::atomic_ref(m_buckets.larger).store(buckets, std::memory_order_relaxed);
    m_bucketBits.store(newBits, std::memory_order_release); // PrefetchBucket looks without the lock
}

} // namespace Velmor
