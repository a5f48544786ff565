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

void* CHeapExtension::TryTakeShared(CHeapLane& lane, EHeap::Type kind, u32 blockBits, u64 size)
{
    if (!lane.lock.TryAcquireShared())
        return nullptr;
    void* const block = TryPop(lane, kind, blockBits, size);
    lane.lock.Release(EBiasedHold::Guest);
    return block;
}

bool CHeapExtension::TryGiveBackShared(CHeapLane& lane, EHeap::Type kind, u32 blockBits, SFreeBlock* block)
{
    if (!lane.lock.TryAcquireShared())
        return false;
    bool const hasRoom = TryPush(lane, kind, blockBits, block);
    lane.lock.Release(EBiasedHold::Guest);
    return hasRoom;
}

auto CHeapExtension::Take(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, u64 size) -> STaken
{
    u64 const threadKey = Platform::GetThreadKey();
    CHeapLane& lane = GetLane(threadKey);
    EBiasedHold hold = lane.lock.Acquire(threadKey);
    if (!Refill(heap, blocks, shape, lane, hold))
        return {nullptr, false};
    void* const block = lane.GetClass(shape).loaded.Pop();
    bool const isRecorded = TryRecord(lane, block, shape.kind, size);
    lane.lock.Release(hold);
    return {block, isRecorded};
}

void CHeapExtension::GiveBack(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, SFreeBlock* block)
{
    u64 const threadKey = Platform::GetThreadKey();
    CHeapLane& lane = GetLane(threadKey);
    CBiasedGuard const guard(lane.lock, lane.lock.Acquire(threadKey));
    CHeapLane::SClass& magazines = lane.GetClass(shape);
    if (magazines.loaded.count == CHeapLane::GetMagazineSize(shape.blockBits)) {
        blocks.GiveBackRow(*this, shape, magazines.spare);
        magazines.spare = std::exchange(magazines.loaded, SMagazine{});
    }
    if (lane.credits >= MostCredits) {
        lane.credits -= CreditsAtOnce;
        heap.ReturnRecords(CreditsAtOnce);
    }
    Push(lane, magazines.loaded, shape.kind, block);
}

void CHeapExtension::GiveBackCredit()
{
    CHeapLane& lane = GetLane(Platform::GetThreadKey());
    CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
    ++lane.credits;
}

// With the lane's lock held, which it keeps on success: a block in the loaded magazine and a credit. The lock is let go
// whenever other lanes or the record store have to be looked into; what was there before may be gone afterwards.
bool CHeapExtension::Refill(CGlobalHeap& heap, CBlockClass& blocks, SBlockShape const& shape, CHeapLane& lane,
                            EBiasedHold& hold)
{
    u64 const threadKey = Platform::GetThreadKey();
    CHeapLane::SClass& magazines = lane.GetClass(shape);
    for (;;) {
        if (lane.credits == 0) {
            lane.lock.Release(hold);
            u32 const reserved = heap.ReserveRecords(CreditsAtOnce);
            if (reserved == 0)
                return false;
            hold = lane.lock.Acquire(threadKey);
            lane.credits += reserved;
        }
        if (magazines.loaded.count == 0)
            std::swap(magazines.loaded, magazines.spare);
        if (magazines.loaded.count != 0 || blocks.TakeRow(heap, shape, magazines.loaded))
            return true;
        // Nothing is refused while another lane has a free block.
        lane.lock.Release(hold);
        if (!Drain(blocks, shape))
            return false;
        hold = lane.lock.Acquire(threadKey);
    }
}

bool CHeapExtension::Drain(CBlockClass& blocks, SBlockShape const& shape)
{
    bool hasDrained = false;
    for (CHeapLane& lane : m_lanes) {
        CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
        CHeapLane::SClass& magazines = lane.GetClass(shape);
        hasDrained = hasDrained || magazines.loaded.count != 0 || magazines.spare.count != 0;
        blocks.GiveBackRow(*this, shape, magazines.spare);
        blocks.GiveBackRow(*this, shape, magazines.loaded);
    }
    return hasDrained;
}

u64 CHeapExtension::CollectCredits()
{
    u64 collected = 0;
    for (CHeapLane& lane : m_lanes) {
        CBiasedGuard const guard(lane.lock, lane.lock.AcquireAsGuest());
        collected += std::exchange(lane.credits, 0u);
    }
    return collected;
}

u64 CHeapExtension::GetAllocationCount(EHeap::Type kind) const
{
    u64 count = 0;
    for (CHeapLane const& lane : m_lanes)
        count += lane.GetAllocations(kind).Get();
    return count;
}

u64 CHeapExtension::GetLiveCount(EHeap::Type kind) const
{
    u64 count = 0;
    for (CHeapLane const& lane : m_lanes)
        count += lane.GetAllocations(kind).Get() - lane.GetReleases(kind).Get();
    return count;
}

// ---- Chunks ----

void* CHeapExtension::AllocateRecords(SMemoryHooks const& hooks, u32 blockBits, u64 byteCount)
{
    if (CChunkRecords* const unused = m_unused[blockBits - SBlockShape::SmallestBits]) {
        m_unused[blockBits - SBlockShape::SmallestBits] = unused->next;
        return unused->GetRecords();
    }
    constexpr u64 LineSize = CChunkRecords::Alignment;
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
    if (Find(start).record != nullptr)
        return;
    void* const memory = AllocateRecords(hooks, shape.blockBits, CChunkRecords::GetByteCount(blockCount));
    if (memory == nullptr)
        return;
    CChunkRecords* const chunk = CChunkRecords::Create(memory, start, shape.blockBits, blockCount, shape.kind);
    if (!m_map.Add(hooks, *chunk))
        chunk->next = std::exchange(m_unused[shape.blockBits - SBlockShape::SmallestBits], chunk);
}

void CHeapExtension::RemoveChunk(void const* start)
{
    CChunkRecords* const chunk = FindChunk(start);
    if (chunk == nullptr)
        return;
    m_map.Remove(*chunk);
    chunk->next = std::exchange(m_removed[chunk->GetBlockBits() - SBlockShape::SmallestBits], chunk);
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
