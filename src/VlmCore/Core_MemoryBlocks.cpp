// Malloc, Realloc, Free and the two queries.
#include "Core_BlockAllocator.h"
#include "Core_MemoryAlignment.h"
#include "Core_MemoryHeap.h"
#include "Core_MemoryLog.h"
#include "Core_MemoryModule.h"

#include <vlmcore/memory.h>

#include <algorithm>
#include <cstring>

namespace Velmor::Memory {
namespace {

EHeap::Type CutKind(EHeap::Type heap)
{
    return static_cast<EHeap::Type>(heap & 7u);
}

// Without a memory logger, the usual case, an event costs a load and a branch.
void ReportAllocation(void* block, u64 size)
{
    if (MemoryLog::IsInstalled()) [[unlikely]]
        LogAllocate(block, size);
}

void ReportFree(void* block)
{
    if (MemoryLog::IsInstalled()) [[unlikely]]
        LogFree(block);
}

// ---- Blocks of the hooks ----

// Alignment that the hooks' blocks are given by hand, in passthrough mode.
u64 GetHookAlignment(CGlobalHeap const& heap, EHeap::Type kind)
{
    if (!heap.IsPassthrough())
        return 0;
    switch (kind) {
    case EHeap::Pool4:
        return 4;
    case EHeap::Pool8:
        return 8;
    case EHeap::Pool16:
        return 16;
    default:
        return 0;
    }
}

void* AllocateFromHooks(CGlobalHeap& heap, u64 size, EHeap::Type kind)
{
    u64 const alignment = GetHookAlignment(heap, kind);
    u64 const hookSize = size + alignment;
    bool const isAsked = heap.FitsBudget(hookSize);
    void* const raw = isAsked ? heap.GetHooks().malloc(hookSize) : nullptr;
    if (raw == nullptr) {
        ReportAllocation(nullptr, size);
        heap.CountRefused(isAsked ? 1 : 0, size);
        return nullptr;
    }
    void* const block = MemoryAlignment::MoveForward(raw, alignment);
    ReportAllocation(block, size);
    bool const isEntered = heap.Enter(block, size, kind, [&](auto& counters) {
        counters.CountHookBlocks(1, 1);
        counters.AddBytes(size);
    });
    if (!isEntered) {
        ReportFree(block);
        heap.GetHooks().free(raw);
        return nullptr;
    }
    return block;
}

void* ResizeFromHooks(CGlobalHeap& heap, void* block, u64 size, EHeap::Type kind)
{
    ReportFree(block);
    SAllocationRecord* const record = heap.Detach(block);
    if (record == nullptr)
        return nullptr;
    u64 const oldSize = record->GetSize();
    heap.ChangeCounters([&](auto& counters) { counters.SubtractBytes(oldSize); });

    u64 const alignment = GetHookAlignment(heap, kind);
    void* const raw = MemoryAlignment::MoveBack(block, alignment);
    u64 const distance = static_cast<u64>(static_cast<u8*>(block) - static_cast<u8*>(raw));
    bool const isRecordable = size <= CGlobalHeap::LargestSize;
    bool const isAsked = isRecordable && heap.FitsBudget(size + alignment);
    void* const movedRaw = isAsked ? heap.GetHooks().realloc(raw, size + alignment) : nullptr;
    if (movedRaw == nullptr) {
        ReportAllocation(nullptr, size);
        heap.Discard(record, [](auto&) {});
        heap.CountRefused(isAsked ? 1 : 0, isRecordable ? size : 0);
        return nullptr;
    }
    // The hook kept the contents at their old distance from the start; the new start may need another.
    void* const contents = static_cast<u8*>(movedRaw) + distance;
    u64 const newDistance = MemoryAlignment::GetDistance(movedRaw, alignment);
    if (newDistance != distance)
        std::memmove(static_cast<u8*>(movedRaw) + newDistance, contents, std::min(oldSize, size));
    void* const moved = MemoryAlignment::MoveForward(movedRaw, alignment);
    ReportAllocation(moved, size);
    heap.Attach(record, moved, size);
    heap.ChangeCounters([&](auto& counters) {
        counters.CountHookBlocks(1, 0);
        counters.AddBytes(size);
    });
    return moved;
}

// ---- Blocks of the pools ----

// An extended heap's: taken and recorded in one go.
template <class Pool>
CHeapExtension::STaken TakeFromPool(CGlobalHeap& heap, Pool& pool, u64 size, ECredit& credit)
{
    if (CHeapExtension* const extension = heap.GetExtension())
        return pool.Take(heap, *extension, size, credit);
    return {pool.Take(heap, size), false};
}

template <class Pool>
bool EnterPoolBlock(CGlobalHeap& heap, Pool& pool, void* block, u64 size, ECredit& credit)
{
    auto const count = [&](auto& counters) { pool.CountAllocation(counters, size); };
    if (credit == ECredit::InHand) {
        if (heap.Enter(block, size, Pool::Kind, count, EStoreGrowth::Refused))
            return true;
        heap.ReturnRecords(1);
        credit = ECredit::None;
    }
    return heap.Enter(block, size, Pool::Kind, count);
}

// A credit in hand goes into the new block's record where the store would have to grow for it.
template <class Pool>
void* AllocateFromPool(CGlobalHeap& heap, Pool* pool, u64 size, ECredit& credit)
{
    CHeapExtension::STaken const taken =
        pool != nullptr ? TakeFromPool(heap, *pool, size, credit) : CHeapExtension::STaken{nullptr, false};
    if (taken.block == nullptr)
        return nullptr;
    ReportAllocation(taken.block, size);
    if (taken.isRecorded || EnterPoolBlock(heap, *pool, taken.block, size, credit)) [[likely]]
        return taken.block;
    ReportFree(taken.block);
    pool->GiveBack(heap, taken.block, size);
    return nullptr;
}

// Where the record of a block that is no longer recorded was.
struct STakenRecord {
    CChunkRecords::Record* record; ///< in the block's chunk; null when it was in the table
    bool isKnown;
};

// Takes a pool block's record out, wherever it is; its counters stay as they are.
STakenRecord TakeRecord(CGlobalHeap& heap, void const* block)
{
    if (CHeapExtension* const extension = heap.GetExtension()) {
        CChunkMap::SFound found;
        if (extension->TryFind(block, found) && extension->TakeRecord(*found.record) != 0)
            return {found.record, true};
    }
    return {nullptr, heap.Take(block, [](auto&, u64, EHeap::Type) {})};
}

// To a new place; the block did not fit where it is. Its record goes first: when there is no new place to be had, the
// block stays allocated, but known no more; kept, as with a refused resize of the hooks.
template <class Pool>
void* MoveInPool(CGlobalHeap& heap, Pool& pool, void* block, u64 oldSize, u64 size)
{
    STakenRecord const taken = TakeRecord(heap, block);
    if (!taken.isKnown)
        return nullptr;
    ECredit credit = taken.record != nullptr ? ECredit::InHand : ECredit::None;
    void* const moved = AllocateFromPool(heap, &pool, size, credit);
    if (moved != nullptr) {
        std::memcpy(moved, block, std::min(oldSize, size));
        ReportFree(block);
    }
    if (taken.record != nullptr) {
        if (moved != nullptr)
            pool.GiveBack(heap, *heap.GetExtension(),
                          {CBlockClass::PrepareFree(block, Pool::GetBlockSize(oldSize), oldSize), taken.record},
                          oldSize, credit);
        else if (credit == ECredit::InHand)
            heap.GetExtension()->GiveBackCredit();
    }
    else if (moved != nullptr) {
        heap.ChangeCounters([&](auto& counters) { pool.CountRelease(counters, oldSize); });
        pool.GiveBack(heap, block, oldSize);
    }
    return moved;
}

template <class Pool>
void* ResizeInPool(CGlobalHeap& heap, Pool* pool, void* block, u64 oldSize, u64 size)
{
    if (pool == nullptr)
        return nullptr;
    if (!Pool::StaysInPlace(oldSize, size))
        return MoveInPool(heap, *pool, block, oldSize, size);
    Pool::ResizeInPlace(heap, block, oldSize, size);
    heap.SetSize(block, size);
    return block;
}

// In a lane that the calling thread owns; false, and nothing done, in all other cases.
[[gnu::always_inline]] inline bool TryAllocateFromLane(CHeapExtension& extension, u64 size, EHeap::Type heap,
                                                       void*& block)
{
    if (!extension.TryTake(heap, size, block)) [[unlikely]]
        return false;
    CBlockClass::PrepareUse(block, u64{1} << SBlockShape::GetBlockBits(heap, size), size);
    return true;
}

[[gnu::noinline]] void* AllocateSlowly(u64 size, EHeap::Type heap)
{
    if (size == 0)
        return nullptr;
    CGlobalHeap& global = g_heapModule.FetchHeap();
    if (size > CGlobalHeap::LargestSize)
        return nullptr;
    // Under a memory logger the usual case comes here, too.
    CHeapExtension* const extension = MemoryLog::IsInstalled() ? global.GetExtension() : nullptr;
    if (void* block = nullptr; extension != nullptr && TryAllocateFromLane(*extension, size, heap, block)) {
        ReportAllocation(block, size);
        return block;
    }
    EHeap::Type const kind = CutKind(heap);
    auto const useHooks = [&] { return AllocateFromHooks(global, size, kind); };
    if (global.IsPassthrough())
        return useHooks();
    ECredit credit = ECredit::None;
    return g_heapModule.Dispatch(
        kind, [&](auto* pool) { return AllocateFromPool(global, pool, size, credit); }, useHooks);
}

// ---- Release ----

// A pool block whose record was taken out of its chunk.
void GiveBackSlowly(CChunkTag chunk, SFreeSlot const& slot, u64 size)
{
    CGlobalHeap& heap = *g_heapModule.heap;
    g_heapModule.Dispatch(
        chunk.GetKind(),
        [&](auto* pool) {
            if (pool != nullptr)
                pool->GiveBack(heap, *heap.GetExtension(), slot, size, ECredit::InHand);
        },
        [] {});
}

// A block whose record was taken out of its chunk, ready for its slot.
[[gnu::always_inline]] inline SFreeBlock* PrepareFree(CChunkMap::SFound const& found, void* block, u64 size)
{
#if !defined(VLM_ADDRESS_SANITIZER)
    // Whoever gets it next will write to it. Not before the record is out: the exchange in a shared lane waits until
    // all before it is done.
    __builtin_prefetch(block, 1);
#endif
    return CBlockClass::PrepareFree(block, u64{1} << found.tag.GetBlockBits(), size);
}

// In a lane that the calling thread owns; false, and nothing done, in all other cases.
[[gnu::always_inline]] inline bool TryFreeInLane(CHeapExtension& extension, CChunkMap::SFound const& found, void* block)
{
    return extension.TryGiveBack(found, [&](u64 size) { return PrepareFree(found, block, size); });
}

// True when the block had a record in its chunk.
bool TryFreeInChunk(CHeapExtension& extension, CChunkMap::SFound const& found, void* block)
{
    if (TryFreeInLane(extension, found, block))
        return true;
    u64 const size = extension.TakeRecord(*found.record);
    if (size == 0)
        return false;
    GiveBackSlowly(found.tag, {PrepareFree(found, block, size), found.record}, size);
    return true;
}

// A block whose record is in the heap's table, or unknown.
void FreeInTable(CGlobalHeap& heap, void* block)
{
    // The record goes before the block: once that is free, its address may be handed out and recorded anew.
    bool const isPassthrough = heap.IsPassthrough();
    u64 size = 0;
    EHeap::Type kind = EHeap::General;
    bool const isKnown = heap.Take(block, [&](auto& counters, u64 recordedSize, EHeap::Type recordedKind) {
        size = recordedSize;
        kind = recordedKind;
        auto const countHookBlock = [&] {
            counters.CountReleasedHookBlocks(1);
            counters.SubtractBytes(recordedSize);
        };
        if (isPassthrough)
            countHookBlock();
        else
            g_heapModule.Dispatch(
                recordedKind,
                [&](auto* pool) {
                    if (pool != nullptr)
                        pool->CountRelease(counters, recordedSize);
                },
                countHookBlock);
    });
    if (!isKnown)
        return;

    auto const useHooks = [&] { heap.GetHooks().free(MemoryAlignment::MoveBack(block, GetHookAlignment(heap, kind))); };
    if (isPassthrough)
        useHooks();
    else
        g_heapModule.Dispatch(
            kind,
            [&](auto* pool) {
                if (pool != nullptr)
                    pool->GiveBack(heap, block, size);
            },
            useHooks);
}

// Without a memory logger, a block that is not recorded in its chunk.
[[gnu::noinline]] void FreeBesideChunks(void* block)
{
    if (block != nullptr)
        FreeInTable(g_heapModule.FetchHeap(), block);
}

[[gnu::noinline]] void FreeSlowly(void* block)
{
    if (block == nullptr)
        return;
    CGlobalHeap& heap = g_heapModule.FetchHeap();
    CHeapExtension* const extension = heap.GetExtension();
    if (CChunkMap::SFound found; extension != nullptr && extension->TryFind(block, found) &&
                                 found.record->load(std::memory_order_relaxed) != 0) {
        ReportFree(block);
        if (TryFreeInChunk(*extension, found, block))
            return;
    }
    if (MemoryLog::IsInstalled() && heap.Find(block).size != 0)
        LogFree(block);
    FreeInTable(heap, block);
}

// The extension of a heap whose usual cases need nothing else: there is one, and no memory logger wants to know.
CHeapExtension* FindQuickWay()
{
    return g_quietExtension.load(std::memory_order_acquire)->load(std::memory_order_acquire);
}

} // namespace

void* Malloc(u64 size, EHeap::Type heap)
{
    if (CHeapExtension* const extension = FindQuickWay())
        if (void* block = nullptr; TryAllocateFromLane(*extension, size, heap, block)) [[likely]]
            return block;
    return AllocateSlowly(size, heap);
}

void* Realloc(void* block, u64 size, EHeap::Type heap)
{
    if (block == nullptr)
        return Malloc(size, heap);
    if (size == 0) {
        Free(block);
        return nullptr;
    }
    CGlobalHeap& global = g_heapModule.FetchHeap();
    CGlobalHeap::SKnown const known = global.Find(block);
    if (known.size == 0)
        return nullptr;
    auto const useHooks = [&] { return ResizeFromHooks(global, block, size, known.kind); };
    if (global.IsPassthrough())
        return useHooks();
    return g_heapModule.Dispatch(
        known.kind, [&](auto* pool) { return ResizeInPool(global, pool, block, known.size, size); }, useHooks);
}

void Free(void* block)
{
    CHeapExtension* const extension = FindQuickWay();
    if (CChunkMap::SFound found; extension == nullptr) [[unlikely]]
        FreeSlowly(block);
    else if (!extension->TryFind(block, found)) [[unlikely]]
        FreeBesideChunks(block);
    else if (!TryFreeInLane(*extension, found, block)) [[unlikely]]
        FreeSlowly(block);
}

void FreeQuietly(void* block) noexcept
{
    if (block == nullptr || g_heapModule.heap == nullptr)
        return;
    try {
        Free(block);
    }
    catch (...) {
        // Only a memory logger of the host can throw here; the block is lost rather than the process.
    }
}

u64 GetSize(void const* block)
{
    return g_heapModule.FetchHeap().Find(block).size;
}

EHeap::Type GetHeap(void* block)
{
    return g_heapModule.FetchHeap().Find(block).kind;
}

} // namespace Velmor::Memory
