#include "Core_BlockAllocator.h"

#include <vlmcore/threads.h>

#include <algorithm>
#include <utility>

namespace Velmor {

// ---- Growth ----

void* CBlockClass::TakeAfterGrowth(CGlobalHeap& heap, SShape const& shape, u64 size)
{
    if (!AcquireWithFreeBlock(heap, shape, NoLane))
        return nullptr;
    if (m_free != nullptr)
        return HandOut(m_free, shape, size);
    void* block = nullptr;
    heap.GetExtension()->GetFreeChunks(shape).Take(
        1, NoLane, [&](u64 address, CChunkRecords::Record*) { block = reinterpret_cast<void*>(address); });
    m_lock.Release();
    PrepareUse(block, shape.blockSize, size);
    return block;
}

// Takes the lock with at least one free block; false, and the lock not taken, when the class cannot grow.
bool CBlockClass::AcquireWithFreeBlock(CGlobalHeap& heap, SShape const& shape, u32 home)
{
    for (;;) {
        m_lock.Acquire();
        CHeapExtension* const extension = heap.GetExtension();
        if (m_free != nullptr || (extension != nullptr && !extension->GetFreeChunks(shape).IsEmpty()) ||
            Grow(heap, shape, home))
            return true;
        // A purge may hold free blocks: nothing is refused before they are back.
        bool const blocksAreComing = m_isPurging != 0;
        m_lock.Release();
        if (!blocksAreComing)
            return false;
        Thread::Reschedule();
    }
}

u32 CBlockClass::TakeRow(CGlobalHeap& heap, SShape const& shape, u32 home, std::span<SFreeSlot> slots)
{
    if (!AcquireWithFreeBlock(heap, shape, home))
        return 0;
    if (m_isMapped == 0)
        AddChunksToMap(heap, shape, home);
    u32 const wanted = static_cast<u32>(slots.size());
    u32 count = 0;
    heap.GetExtension()->GetFreeChunks(shape).Take(wanted, home, [&](u64 address, CChunkRecords::Record* record) {
        slots[count++] = {reinterpret_cast<SFreeBlock*>(address), record};
    });
    if (count == 0) {
        SFreeBlock* const next = MemoryDebug::ReadNext(m_free);
        slots[count++] = {std::exchange(m_free, next), nullptr};
    }
    m_lock.Release();
    std::reverse(slots.begin(), slots.begin() + count);
    return count;
}

void CBlockClass::GiveBackRow(CHeapExtension& extension, SShape const& shape, std::span<SFreeSlot const> slots)
{
    if (slots.empty())
        return;
    m_lock.Acquire();
    for (SFreeSlot const& slot : slots)
        AddFree(&extension, shape, slot.block);
    m_lock.Release();
}

// The chunks from before the heap was extended, and what is free in them. Their blocks in use keep their records until
// they are freed.
void CBlockClass::AddChunksToMap(CGlobalHeap& heap, SShape const& shape, u32 home)
{
    for (u32 index = 0; index < m_chunkCount; ++index)
        heap.AddChunk(m_chunks[index], m_blocksPerChunk, shape, home);
    AddFreeList(heap.GetExtension(), shape, std::exchange(m_free, nullptr));
    m_isMapped = 1;
}

// With the lock held: each block of a list goes where it belongs.
void CBlockClass::AddFreeList(CHeapExtension* extension, SShape const& shape, SFreeBlock* list)
{
    while (list != nullptr) {
        SFreeBlock* const next = MemoryDebug::ReadNext(list);
        AddFree(extension, shape, std::exchange(list, next));
    }
}

// Nothing is counted before both the table and the chunk are there.
bool CBlockClass::Grow(CGlobalHeap& heap, SShape const& shape, u32 home)
{
    SMemoryHooks const& hooks = heap.GetHooks();
    u64 const tableSize = (u64{m_chunkCount} + 1) * sizeof(u8*);
    u64 const chunkSize = GetChunkSize(shape);
    if (!heap.FitsBudget(tableSize) || !heap.FitsBudget(chunkSize))
        return false;
    void* const table = hooks.realloc(m_chunks, tableSize);
    if (table == nullptr)
        return false;
    m_chunks = static_cast<u8**>(table);
    void* const chunk = hooks.malloc(chunkSize);
    if (chunk == nullptr) {
        if (m_chunkCount == 0) {
            hooks.free(m_chunks);
            m_chunks = nullptr;
        }
        return false;
    }

    u8* const start = static_cast<u8*>(MemoryAlignment::MoveForward(chunk, shape.alignment));
    m_chunks[m_chunkCount] = start;
    ++m_chunkCount;
    {
        CGlobalHeap::CLock const lock(heap.GetLock());
        heap.CountHookBlocks(2, m_chunkCount == 1 ? 2 : 1);
        heap.AddBytes(sizeof(u8*));
        heap.AddBytes(chunkSize);
    }
    heap.AddChunk(start, m_blocksPerChunk, shape, home);
    AddFreshBlocks(heap.GetExtension(), shape, start);
    return true;
}

// From the last one to the first, so that a list begins with the first.
void CBlockClass::AddFreshBlocks(CHeapExtension* extension, SShape const& shape, u8* start)
{
    for (u64 index = m_blocksPerChunk; index > 0; --index) {
        void* const memory = start + (index - 1) * shape.blockSize;
        MemoryDebug::FillFree(memory, shape.blockSize);
        AddFree(extension, shape, static_cast<SFreeBlock*>(memory));
        MemoryDebug::Poison(memory, shape.blockSize);
    }
}

// ---- Purge ----

bool CPurgeScratch::Reserve(u64 chunkCount)
{
    if (chunkCount <= m_capacity)
        return true;
    void* const memory = m_heap.HookReallocate(m_memory, chunkCount * (sizeof(SChunk) + sizeof(u16)));
    if (memory == nullptr)
        return false;
    m_memory = memory;
    m_capacity = chunkCount;
    return true;
}

namespace {

// The chunk that holds the block, among chunks sorted by address; the last one that does not start behind it.
CPurgeScratch::SChunk const& FindChunk(CPurgeScratch::SChunk const* chunks, u64 count, void const* block)
{
    CPurgeScratch::SChunk const* first = chunks;
    while (count > 1) {
        u64 const half = count / 2;
        first = first[half].start <= static_cast<u8 const*>(block) ? first + half : first;
        count -= half;
    }
    return *first;
}

} // namespace

// One purge at a time: two would not know of the blocks that the other holds.
void CBlockClass::BeginPurge()
{
    m_lock.Acquire();
    while (m_isPurging != 0) {
        m_lock.Release();
        Thread::Reschedule();
        m_lock.Acquire();
    }
    m_isPurging = 1;
}

// Chunks with notes tell how many of their blocks are free; wholly free ones are taken out of the queue at once. The
// free list, if there is one, is taken away first and looked through without the lock, so that other threads can go on:
// they free into a new list and, should it run empty, grow the class. A chunk whose blocks are all in the list that was
// taken away cannot be in use.
bool CBlockClass::Purge(CGlobalHeap& heap, SShape const& shape, CPurgeScratch& scratch)
{
    CHeapExtension* const extension = heap.GetExtension();
    if (extension != nullptr)
        static_cast<void>(extension->Drain(*this, shape));
    BeginPurge();
    u64 const chunkCount = m_chunkCount;
    if (chunkCount == 0 || !scratch.Reserve(chunkCount)) {
        m_isPurging = 0;
        m_lock.Release();
        return chunkCount == 0;
    }
    CPurgeScratch::SChunk* const chunks = scratch.GetChunks();
    u16* const counters = scratch.GetCounters();
    for (u64 index = 0; index < chunkCount; ++index) {
        CChunkRecords const* const noted = extension != nullptr ? extension->FindChunk(m_chunks[index]) : nullptr;
        counters[index] = noted != nullptr ? static_cast<u16>(noted->GetFreeCount()) : u16{0};
        chunks[index] = {m_chunks[index], index};
    }
    if (extension != nullptr)
        extension->GetFreeChunks(shape).RemoveWhollyFree();
    SFreeBlock* list = std::exchange(m_free, nullptr);
    m_lock.Release();

    if (list != nullptr)
        std::sort(chunks, chunks + chunkCount, [](auto const& a, auto const& b) { return a.start < b.start; });
    SFreeBlock* last = nullptr;
    for (SFreeBlock* block = list; block != nullptr; block = MemoryDebug::ReadNext(block)) {
        ++counters[FindChunk(chunks, chunkCount, block).tableIndex];
        last = block;
    }
    bool const hasFreeChunks = std::find(counters, counters + chunkCount, m_blocksPerChunk) != counters + chunkCount;
    if (hasFreeChunks)
        last = UnlinkFreeChunks(list, scratch, chunkCount, m_blocksPerChunk);

    m_lock.Acquire();
    // Chunks that got notes meanwhile have their free blocks there and nowhere else.
    if (m_isMapped != 0)
        AddFreeList(heap.GetExtension(), shape, list);
    else if (last != nullptr) {
        MemoryDebug::WriteNext(last, m_free);
        m_free = list;
    }
    u32 const removed = hasFreeChunks ? RemoveFreeChunks(heap, scratch, chunkCount) : 0;
    m_isPurging = 0;
    m_lock.Release();

    // The chunks go back when nobody waits any more.
    for (u32 index = 0; index < removed; ++index) {
        u8* const chunk = chunks[index].start;
        heap.RemoveChunk(chunk);
        MemoryDebug::Unpoison(chunk, m_blocksPerChunk * shape.blockSize);
        {
            CGlobalHeap::CLock const lock(heap.GetLock());
            heap.SubtractBytes(GetChunkSize(shape));
        }
        heap.HookRelease(MemoryAlignment::MoveBack(chunk, shape.alignment));
    }
    return true;
}

// Takes the blocks of wholly free chunks out of a free list; the others keep their order. The last one left, if any.
SFreeBlock* CBlockClass::UnlinkFreeChunks(SFreeBlock*& list, CPurgeScratch const& scratch, u64 chunkCount,
                                          u32 blocksPerChunk)
{
    u16 const* const counters = scratch.GetCounters();
    SFreeBlock* last = nullptr;
    for (SFreeBlock* block = list; block != nullptr;) {
        SFreeBlock* const next = MemoryDebug::ReadNext(block);
        if (counters[FindChunk(scratch.GetChunks(), chunkCount, block).tableIndex] != blocksPerChunk)
            last = block;
        else if (last == nullptr)
            list = next;
        else
            MemoryDebug::WriteNext(last, next);
        block = next;
    }
    return last;
}

// Takes the wholly free ones of the first `counted` chunks out of the table and leaves them at the front of the
// scratch's chunks; chunks behind them have come meanwhile and stay. The last chunk moves into each gap.
u32 CBlockClass::RemoveFreeChunks(CGlobalHeap& heap, CPurgeScratch& scratch, u64 counted)
{
    u16* const counters = scratch.GetCounters();
    u32 removed = 0;
    for (u32 index = 0; index < m_chunkCount && index < counted;) {
        if (counters[index] != m_blocksPerChunk) {
            ++index;
            continue;
        }
        scratch.GetChunks()[removed++].start = m_chunks[index];
        --m_chunkCount;
        m_chunks[index] = m_chunks[m_chunkCount];
        counters[index] = m_chunkCount < counted ? counters[m_chunkCount] : u16{0};
    }
    ShrinkTable(heap, removed);
    return removed;
}

void CBlockClass::ShrinkTable(CGlobalHeap& heap, u32 removed)
{
    {
        CGlobalHeap::CLock const lock(heap.GetLock());
        heap.SubtractBytes(removed * sizeof(u8*));
    }
    if (m_chunkCount == 0) {
        heap.HookRelease(m_chunks);
        m_chunks = nullptr;
    }
    // A refused smaller table leaves the larger one in use.
    else if (void* const table = heap.HookReallocate(m_chunks, m_chunkCount * sizeof(u8*)))
        m_chunks = static_cast<u8**>(table);
}

// ---- Teardown and statistics ----

void CBlockClass::TearDown(CGlobalHeap& heap, SShape const& shape)
{
    // A logger that is told of leaks allocates meanwhile: it must not be given blocks that are gone.
    if (CHeapExtension* const extension = heap.GetExtension())
        static_cast<void>(extension->Drain(*this, shape));
    for (u32 index = 0; index < m_chunkCount; ++index) {
        heap.RemoveChunk(m_chunks[index]);
        MemoryDebug::Unpoison(m_chunks[index], m_blocksPerChunk * shape.blockSize);
        heap.HookRelease(MemoryAlignment::MoveBack(m_chunks[index], shape.alignment));
    }
    heap.HookRelease(m_chunks);
    {
        CGlobalHeap::CLock const lock(heap.GetLock());
        heap.SubtractBytes(m_chunkCount * (GetChunkSize(shape) + sizeof(u8*)));
    }
    if (CHeapExtension* const extension = heap.GetExtension())
        extension->GetFreeChunks(shape).Clear();
    m_chunks = nullptr;
    m_chunkCount = 0;
    m_free = nullptr;
}

u32 CBlockClass::GetChunkCount()
{
    TScopedLock const lock(m_lock);
    return m_chunkCount;
}

} // namespace Velmor
