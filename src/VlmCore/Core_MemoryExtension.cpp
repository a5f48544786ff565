#include "Core_MemoryExtension.h"

#include "Core_BlockAllocator.h"
#include "Core_MemoryHeap.h"

#include <bit>
#include <new>

namespace Velmor {

static_assert(CHeapLane::ClassCount == TBlockAllocator<0>::ClassCount);

// ---- Creation and end ----

CHeapExtension* CHeapExtension::Create(SMemoryHooks const& hooks)
{
    constexpr u64 Alignment = alignof(CHeapExtension);
    void* const memory = hooks.malloc(sizeof(CHeapExtension) + Alignment);
    if (memory == nullptr)
        return nullptr;
    u64 const address = (reinterpret_cast<u64>(memory) + Alignment - 1) & ~(Alignment - 1);
    CHeapExtension* const extension = ::new (reinterpret_cast<void*>(address)) CHeapExtension;
    extension->m_memory = memory;
    if (!extension->m_buckets.Create(hooks)) {
        hooks.free(memory);
        return nullptr;
    }
    return extension;
}

void CHeapExtension::Release(SMemoryHooks const& hooks)
{
    m_map.Release(hooks);
    m_buckets.Release(hooks);
    for (SSlab* slab = m_slabs; slab != nullptr;) {
        SSlab* const next = slab->next;
        hooks.free(slab);
        slab = next;
    }
    hooks.free(m_memory);
}

// ---- Lanes ----

// With the lane's lock held, which it keeps on success: a block in the loaded magazine and a credit. The lock is let go
// whenever other lanes or the record store have to be looked into; what was there before may be gone afterwards.
bool CHeapExtension::Refill(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, CHeapLane& lane)
{
    CHeapLane::SClass& magazines = lane.GetClass(shape);
    for (;;) {
        if (lane.credits == 0) {
            lane.lock.Release();
            u32 const reserved = heap.ReserveRecords(CreditsAtOnce);
            if (reserved == 0)
                return false;
            lane.lock.Acquire();
            lane.credits += reserved;
        }
        if (magazines.loaded.count == 0)
            std::swap(magazines.loaded, magazines.spare);
        if (magazines.loaded.count != 0 || blocks.TakeRow(heap, shape, magazines.loaded))
            return true;
        // Nothing is refused while another lane has a free block.
        lane.lock.Release();
        if (!Drain(blocks, shape))
            return false;
        lane.lock.Acquire();
    }
}

void CHeapExtension::Unload(CBlockClass& blocks, CHeapLane::SClass& magazines)
{
    blocks.GiveBackRow(magazines.spare);
    magazines.spare = std::exchange(magazines.loaded, SMagazine{});
}

void CHeapExtension::ReturnCredits(CGlobalHeap& heap, CHeapLane& lane)
{
    lane.credits -= CreditsAtOnce;
    heap.ReturnRecords(CreditsAtOnce);
}

bool CHeapExtension::Drain(CBlockClass& blocks, SBlockShape const& shape)
{
    bool hasDrained = false;
    for (CHeapLane& lane : m_lanes) {
        TScopedLock const guard(lane.lock);
        CHeapLane::SClass& magazines = lane.GetClass(shape);
        hasDrained = hasDrained || magazines.loaded.count != 0 || magazines.spare.count != 0;
        blocks.GiveBackRow(magazines.spare);
        blocks.GiveBackRow(magazines.loaded);
    }
    return hasDrained;
}

u64 CHeapExtension::CollectCredits()
{
    u64 collected = 0;
    for (CHeapLane& lane : m_lanes) {
        TScopedLock const guard(lane.lock);
        collected += std::exchange(lane.credits, 0u);
    }
    return collected;
}

u64 CHeapExtension::GetAllocationCount(EHeap::Type kind) const
{
    u64 count = 0;
    for (CHeapLane const& lane : m_lanes)
        count += lane.GetAllocationCount(kind).Get();
    return count;
}

u64 CHeapExtension::GetLiveCount(EHeap::Type kind) const
{
    u64 count = 0;
    for (CHeapLane const& lane : m_lanes)
        count += lane.GetLiveCount(kind).Get();
    return count;
}

// ---- Chunks ----

void* CHeapExtension::AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount)
{
    if (CChunkRecords* const unused = m_unused[blockBits - 3]) {
        m_unused[blockBits - 3] = unused->next;
        return unused;
    }
    constexpr u64 LineSize = 64;
    u64 const size = (byteCount + LineSize - 1) & ~(LineSize - 1);
    if (SlabSize - m_slabUsed < size) {
        void* const memory = hooks.malloc(SlabSize);
        if (memory == nullptr)
            return nullptr;
        m_slabs = ::new (memory) SSlab{m_slabs};
        u64 const address = reinterpret_cast<u64>(memory) + sizeof(SSlab);
        m_slabUsed = sizeof(SSlab) + (LineSize - address % LineSize) % LineSize;
    }
    void* const records = reinterpret_cast<u8*>(m_slabs) + m_slabUsed;
    m_slabUsed += size;
    return records;
}

void CHeapExtension::AddChunk(SMemoryHooks const& hooks, void const* start, u32 blockCount, SBlockShape const& shape)
{
    CChunkRecords const* const known = FindChunk(start);
    if (known != nullptr && known->GetStart() == reinterpret_cast<u64>(start))
        return;
    void* const memory = AllocateRecords(hooks, shape.blockBits, CChunkRecords::GetByteCount(blockCount));
    if (memory == nullptr)
        return;
    CChunkRecords* const chunk = ::new (memory) CChunkRecords(start, shape.blockBits, blockCount, shape.kind);
    if (!m_map.Add(hooks, chunk))
        chunk->next = std::exchange(m_unused[shape.blockBits - 3], chunk);
}

void CHeapExtension::RemoveChunk(void const* start)
{
    CChunkRecords* const chunk = FindChunk(start);
    if (chunk == nullptr || chunk->GetStart() != reinterpret_cast<u64>(start))
        return;
    m_map.Remove(chunk);
    chunk->next = std::exchange(m_removed[chunk->GetBlockBits() - 3], chunk);
}

void CHeapExtension::ReuseRemoved()
{
    for (u32 index = 0; index < CHeapLane::ClassCount; ++index)
        while (CChunkRecords* const chunk = m_removed[index]) {
            m_removed[index] = chunk->next;
            chunk->next = std::exchange(m_unused[index], chunk);
        }
}

} // namespace Velmor
