#include "Core_MemoryAlignment.h"
#include "Core_MemoryHeap.h"
#include "Core_MemoryLog.h"
#include "platform/Platform_Memory.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <algorithm>
#include <cstring>

namespace Velmor {

CBadAllocation::~CBadAllocation() = default;

char const* CBadAllocation::what() const noexcept
{
    return "bad allocation";
}

namespace Memory {
namespace {

CGlobalHeap* g_heap = nullptr;

// What one module hands to another.
struct SExternalHooks {
    CGlobalHeap* heap;
    void* pools[4];
};
SExternalHooks g_externalHooks{};

CGlobalHeap& FetchHeap()
{
    if (g_heap == nullptr) [[unlikely]]
        throw CBadAllocation();
    return *g_heap;
}

EHeap::Type CutKind(EHeap::Type heap)
{
    return static_cast<EHeap::Type>(heap & 7u);
}

// Alignment that the hooks' blocks are given by hand, in passthrough mode.
u64 GetHookAlignment(EHeap::Type kind)
{
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

// ---- Blocks of the hooks ----

void* AllocateFromHooks(CGlobalHeap& heap, u64 size, EHeap::Type kind, u64 alignment)
{
    void* const raw = heap.HookAllocate(size + alignment);
    void* const block = raw != nullptr ? MemoryAlignment::MoveForward(raw, alignment) : nullptr;
    LogAllocate(block, size);
    // A refused request counts all the same; kept, hosts read it as pressure on the budget.
    if (block == nullptr) {
        CGlobalHeap::CLock const lock(heap.GetLock());
        heap.AddBytes(size);
        return nullptr;
    }
    if (heap.Enter(block, size, kind, [&] { heap.AddBytes(size); }))
        return block;
    LogFree(block);
    heap.HookRelease(raw);
    return nullptr;
}

void* ResizeFromHooks(CGlobalHeap& heap, void* block, u64 size, u64 alignment)
{
    u64 oldSize = 0;
    SAllocationRecord* const record = heap.Detach(block, [&](u64 recorded, EHeap::Type) {
        oldSize = recorded;
        heap.SubtractBytes(recorded);
    });
    if (record == nullptr)
        return nullptr;
    void* const raw = MemoryAlignment::MoveBack(block, alignment);
    u64 const distance = static_cast<u64>(static_cast<u8*>(block) - static_cast<u8*>(raw));
    void* const movedRaw = size <= CGlobalHeap::LargestSize ? heap.HookReallocate(raw, size + alignment) : nullptr;
    if (movedRaw == nullptr) {
        heap.Discard(record, [&] { heap.AddBytes(size); });
        LogAllocate(nullptr, size);
        return nullptr;
    }
    // The hook kept the contents at their old distance, which the new address may not have.
    u8* const contents = static_cast<u8*>(movedRaw) + distance;
    u64 const newDistance = alignment == 0 ? 0 : alignment - (reinterpret_cast<u64>(movedRaw) & (alignment - 1));
    if (newDistance != distance)
        std::memmove(static_cast<u8*>(movedRaw) + newDistance, contents, std::min(oldSize, size));
    void* const moved = MemoryAlignment::MoveForward(movedRaw, alignment);
    LogAllocate(moved, size);
    heap.Attach(record, moved, size, [&] { heap.AddBytes(size); });
    return moved;
}

} // namespace

// ---- Lifecycle ----

void Initialize(unsigned char flags, u64 budget)
{
    Initialize(nullptr, nullptr, nullptr, flags, budget);
}

void Initialize(void* (*mallocHook)(u64), void* (*reallocHook)(void*, u64), void (*freeHook)(void*),
                unsigned char flags, u64 budget)
{
    Platform::RunAtExit(&Deinitialize);
    if (g_heap == nullptr) {
        SMemoryHooks const hooks{mallocHook != nullptr ? mallocHook : &Platform::AllocateMemory,
                                 reallocHook != nullptr ? reallocHook : &Platform::ResizeMemory,
                                 freeHook != nullptr ? freeHook : &Platform::FreeMemory};
        g_heap = CGlobalHeap::Create(hooks, flags, budget);
        if (g_heap != nullptr && g_heap->IsReporting())
            Debug::Print("Heap initialized, using %u bytes\n", static_cast<u32>(g_heap->GetBytesInUse()));
    }
}

void InitFromExternal(void* hooks)
{
    SExternalHooks const* const external = static_cast<SExternalHooks const*>(hooks);
    if (g_heap == nullptr && external != nullptr)
        g_heap = external->heap;
    static_cast<void>(FetchHeap());
}

void* GetExternalHooks()
{
    g_externalHooks = SExternalHooks{};
    g_externalHooks.heap = &FetchHeap();
    return &g_externalHooks;
}

bool IsInitialized()
{
    return g_heap != nullptr;
}

void Deinitialize()
{
    static_cast<void>(ReleaseLog());
    CGlobalHeap* const heap = g_heap;
    if (heap == nullptr)
        return;
    heap->ReleaseRecords();
    g_heap = nullptr;
}

// ---- Blocks ----

void* Malloc(u64 size, EHeap::Type heap)
{
    if (size == 0)
        return nullptr;
    CGlobalHeap& global = FetchHeap();
    if (size > CGlobalHeap::LargestSize)
        return nullptr;
    EHeap::Type const kind = CutKind(heap);
    return AllocateFromHooks(global, size, kind, GetHookAlignment(kind));
}

void* Realloc(void* block, u64 size, EHeap::Type heap)
{
    if (block == nullptr)
        return Malloc(size, heap);
    if (size == 0) {
        Free(block);
        return nullptr;
    }
    CGlobalHeap& global = FetchHeap();
    EHeap::Type kind = EHeap::General;
    if (!global.Find(block, [&](SAllocationRecord const& record) { kind = record.GetKind(); }))
        return nullptr;
    LogFree(block);
    return ResizeFromHooks(global, block, size, GetHookAlignment(kind));
}

void Free(void* block)
{
    if (block == nullptr)
        return;
    CGlobalHeap& heap = FetchHeap();
    EHeap::Type kind = EHeap::General;
    if (MemoryLog::IsInstalled() && GetSize(block) != 0)
        LogFree(block);
    if (heap.Take(block, [&](u64 recorded, EHeap::Type recordedKind) {
            kind = recordedKind;
            heap.SubtractBytes(recorded);
        }))
        heap.HookRelease(MemoryAlignment::MoveBack(block, GetHookAlignment(kind)));
}

void FreeQuietly(void* block) noexcept
{
    if (block == nullptr || g_heap == nullptr)
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
    u64 size = 0;
    FetchHeap().Find(block, [&](SAllocationRecord const& record) { size = record.GetSize(); });
    return size;
}

EHeap::Type GetHeap(void* block)
{
    EHeap::Type kind = EHeap::General;
    FetchHeap().Find(block, [&](SAllocationRecord const& record) { kind = record.GetKind(); });
    return kind;
}

void Purge()
{
    static_cast<void>(FetchHeap());
}

bool GetStatistics(SStatistics& statistics)
{
    if (g_heap == nullptr)
        return false;
    statistics = SStatistics{};
    statistics.allocationCount = g_heap->GetAllocationCount();
    statistics.liveCount = g_heap->GetLiveCount();
    statistics.bytesInUse = g_heap->GetBytesInUse();
    statistics.budget = g_heap->GetBudget();
    return true;
}

} // namespace Memory
} // namespace Velmor
