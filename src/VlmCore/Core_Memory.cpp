// The life of the heap: creation, sharing between modules, purge, statistics, shutdown.
#include "Core_BlockAllocator.h"
#include "Core_MemoryHeap.h"
#include "Core_MemoryLog.h"
#include "Core_MemoryModule.h"
#include "Core_MemoryReport.h"
#include "platform/Platform_Memory.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <type_traits>

namespace Velmor {

constinit CSpinLock g_quietExtensionLock;

// Under a lock: of two threads at once, the last one sees what both did.
void UpdateQuietExtension()
{
    TScopedLock const lock(g_quietExtensionLock);
    CGlobalHeap const* const heap = g_heapModule.heap;
    bool const isQuiet = heap != nullptr && !MemoryLog::IsInstalled();
    g_quietExtension.store(isQuiet ? &heap->GetExtensionWord() : &g_noExtension, std::memory_order_release);
}

CBadAllocation::~CBadAllocation() = default;

char const* CBadAllocation::what() const noexcept
{
    return "bad allocation";
}

CForeignHeap::~CForeignHeap() = default;

char const* CForeignHeap::what() const noexcept
{
    return "heap of another build of the library";
}

namespace Memory {
namespace {

// What GetExternalHooks hands out.
SHeapModule g_externalHooks{};

void CreateHeap(SMemoryHooks const& hooks, u8 flags, u64 budget)
{
    g_heapModule.heap = CGlobalHeap::Create(hooks, flags, budget);
    UpdateQuietExtension();
    if (g_heapModule.heap != nullptr)
        Fork::Enrol(EForkRank::Heap, g_heapModule);
    if (g_heapModule.heap != nullptr && g_heapModule.heap->IsReporting())
        Debug::Print("Heap initialized, using %u bytes\n", static_cast<u32>(g_heapModule.heap->GetBytesInUse()));
}

// The host's leaks are the host's to report; what is reported here was left in this heap.
void ReportHeap(CGlobalHeap const& heap)
{
    u32 const live = static_cast<u32>(heap.GetLiveCount());
    u32 const bytes = static_cast<u32>(heap.GetBytesInUse());
    Debug::Print("Counted a total of %u global allocations.\n", static_cast<u32>(heap.GetAllocationCount()));
    if (heap.GetLiveCount() == 0) {
        Debug::Print("No global memory leaks detected.\n\n");
        return;
    }
    Debug::Print("\nWARNING: %u global memory leak(s) with a total size of %u bytes detected.\n\n", live, bytes);
    RunQuietly([&] { Log::WarningF("%u global memory leak(s) with a total size of %u bytes detected.", live, bytes); });
}

template <class Pool>
void TearDownPool(CGlobalHeap& heap, Pool*& pool)
{
    if (pool == nullptr)
        return;
    Pool* const leaving = pool;
    leaving->TearDown(heap);
    pool = nullptr;
    Delete(leaving);
}

template <class Pool>
class TPurgeJob : public IThreadJob {
public:
    void Execute() override
    {
        g_heapModule.VisitPools([](auto* pool) {
            if constexpr (std::is_same_v<decltype(pool), Pool*>)
                if (pool != nullptr)
                    pool->Purge(*g_heapModule.heap);
        });
    }
};

} // namespace

// ---- Lifecycle ----

void Initialize(unsigned char flags, u64 budget)
{
    Initialize(nullptr, nullptr, nullptr, flags, budget);
}

void Initialize(void* (*mallocHook)(u64), void* (*reallocHook)(void*, u64), void (*freeHook)(void*),
                unsigned char flags, u64 budget)
{
    // First, so that a heap whose pools do not fit the budget is taken down, too.
    Platform::RunAtExit(&Deinitialize);
    if (g_heapModule.heap == nullptr)
        CreateHeap({mallocHook != nullptr ? mallocHook : &Platform::AllocateMemory,
                    reallocHook != nullptr ? reallocHook : &Platform::ResizeMemory,
                    freeHook != nullptr ? freeHook : &Platform::FreeMemory},
                   flags, budget);
    if (g_heapModule.heap == nullptr || g_heapModule.heap->IsPassthrough())
        return;
    g_heapModule.VisitPools([&](auto*& pool) {
        if (pool == nullptr)
            pool = New<std::remove_pointer_t<std::remove_reference_t<decltype(pool)>>>(
                EHeap::General, (flags & EHeapFlag::Report) != 0);
    });
}

void InitFromExternal(void* hooks)
{
    SHeapModule* const external = static_cast<SHeapModule*>(hooks);
    bool const isNeeded = external != nullptr && external->heap != nullptr && !IsInitialized();
    if (isNeeded && !external->heap->IsOfThisBuild())
        throw CForeignHeap();
    if (g_heapModule.heap == nullptr && external != nullptr) {
        g_heapModule.heap = external->heap;
        UpdateQuietExtension();
    }
    if (g_heapModule.FetchHeap().IsPassthrough() || external == nullptr)
        return;
    auto const adopt = [](auto*& ours, auto* theirs) {
        if (ours == nullptr)
            ours = theirs;
    };
    adopt(g_heapModule.pool, external->pool);
    adopt(g_heapModule.pool4, external->pool4);
    adopt(g_heapModule.pool8, external->pool8);
    adopt(g_heapModule.pool16, external->pool16);
}

void* GetExternalHooks()
{
    g_externalHooks = SHeapModule{};
    if (g_heapModule.FetchHeap().IsPassthrough())
        g_externalHooks.heap = g_heapModule.heap;
    else
        g_externalHooks = g_heapModule;
    return &g_externalHooks;
}

bool IsInitialized()
{
    if (g_heapModule.heap == nullptr)
        return false;
    if (g_heapModule.heap->IsPassthrough())
        return true;
    bool isComplete = true;
    g_heapModule.VisitPools([&](auto* pool) { isComplete = isComplete && pool != nullptr; });
    return isComplete;
}

void Deinitialize()
{
    // The logger is the host's, which destroys it.
    static_cast<void>(ReleaseLog());
    CGlobalHeap* const heap = g_heapModule.heap;
    if (heap == nullptr)
        return;
    Fork::Withdraw(&g_heapModule);
    if (!heap->IsPassthrough())
        g_heapModule.VisitPools([&](auto*& pool) { TearDownPool(*heap, pool); });
    heap->ReleaseRecords();
    g_heapModule.heap = nullptr;
    UpdateQuietExtension();
    heap->SubtractBytes(sizeof(CGlobalHeap));
    if (heap->IsReporting())
        ReportHeap(*heap);
    // The heap object itself stays allocated: another module may still look into it, and finds it empty. The free hook
    // is told of the end with a null pointer; kept, hosts depend on that call.
    heap->GetHooks().free(g_heapModule.heap);
    MemoryDebug::IgnoreLeak(heap);
}

// ---- Purge and statistics ----

void Purge()
{
    if (g_heapModule.FetchHeap().IsPassthrough())
        return;
    g_heapModule.heap->BeginPurge();
    CThreadPool workers;
    g_heapModule.VisitPools([&](auto* pool) {
        using Job = TPurgeJob<std::remove_pointer_t<decltype(pool)>>;
        static_assert(sizeof(Job) == 8);
        Job* const job = New<Job>(EHeap::General);
        try {
            workers.PushJob(job);
        }
        catch (...) { // there is no thread for it, and it has not been queued
            job->Execute();
            Delete(job);
        }
    });
    workers.WaitForJobs();
}

bool GetStatistics(SStatistics& statistics)
{
    CGlobalHeap const* const heap = g_heapModule.heap;
    if (heap == nullptr)
        return false;
    statistics = SStatistics{};
    statistics.allocationCount = heap->GetAllocationCount();
    statistics.liveCount = heap->GetLiveCount();
    statistics.bytesInUse = heap->GetBytesInUse();
    statistics.budget = heap->GetBudget();
    u64 index = 0;
    g_heapModule.VisitPools([&](auto* pool) {
        if (pool != nullptr)
            pool->GetStatistics(*heap, statistics.pools[index]);
        ++index;
    });
    return true;
}

} // namespace Memory
} // namespace Velmor
