#include "Core_BlockAllocator.h"
#include "Core_MemoryReport.h"

#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/system.h>

#include <type_traits>

namespace Velmor {

static_assert(sizeof(TBlockAllocator<0>) == 8 * 32 + 24);
static_assert(sizeof(TBlockAllocator<4>) == 7 * 32 + 24);
static_assert(std::is_standard_layout_v<TBlockAllocator<0>>, "modules of different builds share the object");

template <u32 AlignmentBits>
TBlockAllocator<AlignmentBits>::TBlockAllocator(bool report) : m_report(report ? 1 : 0)
{
    System::SCPUInfo info{};
    System::GetCPUInfo(info);
    for (u32 index = 0; index < ClassCount; ++index)
        m_classes[index].SetBlocksPerChunk(GetBlocksPerChunk(info.cacheSize[0], GetShape(index).blockSize));
}

// ---- Large blocks ----

template <u32 AlignmentBits>
void* TBlockAllocator<AlignmentBits>::TakeLarge(CGlobalHeap& heap, u64 size)
{
    if (size > CGlobalHeap::LargestSize)
        return nullptr;
    u64 const hookSize = size + Alignment;
    void* const raw = heap.FitsBudget(hookSize) ? heap.GetHooks().malloc(hookSize) : nullptr;
    return raw != nullptr ? MemoryAlignment::MoveForward(raw, Alignment) : nullptr;
}

template <u32 AlignmentBits>
void TBlockAllocator<AlignmentBits>::ResizeInPlace(CGlobalHeap& heap, void* block, u64 oldSize, u64 newSize)
{
    if (oldSize > LargestBlock) {
        // Releasing will lower the bytes by the new size.
        heap.ChangeCounters([&](auto& counters) { counters.SubtractBytes(oldSize - newSize); });
        return;
    }
    u64 const blockSize = GetShape(GetClass(oldSize)).blockSize;
    MemoryDebug::Unpoison(block, blockSize);
    MemoryDebug::ResizeGuard(block, oldSize, newSize, blockSize);
    MemoryDebug::Poison(block, blockSize);
    MemoryDebug::Unpoison(block, newSize);
}

// ---- Purge ----

template <u32 AlignmentBits>
void TBlockAllocator<AlignmentBits>::Purge(CGlobalHeap& heap)
{
    CPurgeScratch scratch(heap);
    for (u32 index = 0; index < ClassCount; ++index)
        if (!m_classes[index].Purge(heap, GetShape(index), scratch))
            return;
}

// ---- Teardown and statistics ----

template <u32 AlignmentBits>
u64 TBlockAllocator<AlignmentBits>::GetAllocationCount(CGlobalHeap const& heap) const
{
    CHeapExtension const* const extension = heap.GetExtension();
    return m_allocationCount.Get() + (extension != nullptr ? extension->GetAllocationCount(Kind) : 0);
}

template <u32 AlignmentBits>
u64 TBlockAllocator<AlignmentBits>::GetLiveCount(CGlobalHeap const& heap) const
{
    CHeapExtension const* const extension = heap.GetExtension();
    return m_liveCount.Get() + (extension != nullptr ? extension->GetLiveCount(Kind) : 0);
}

template <u32 AlignmentBits>
void TBlockAllocator<AlignmentBits>::Report(CGlobalHeap const& heap)
{
    u32 const alignment = static_cast<u32>(Alignment);
    u32 const live = static_cast<u32>(GetLiveCount(heap));
    Debug::Print("Block allocator (%u byte align) statistics:\n", alignment);
    Debug::Print("This allocator counted a total of %lu allocations.\n",
                 static_cast<unsigned long>(GetAllocationCount(heap)));
    if (GetLiveCount(heap) != 0) {
        Debug::Print("\nWARNING: %u block memory leak(s) detected.\n\n", live);
        RunQuietly([&] { Log::WarningF("%u block<%u> memory leak(s) detected.", live, alignment); });
    }
    else
        Debug::Print("No leaks detected for this allocator.\n\n");
    u32 total = 0;
    for (u32 index = 0; index < ClassCount; ++index) {
        CBlockClass& blocks = m_classes[index];
        u32 const chunkCount = blocks.GetChunkCount();
        u32 const bytes = static_cast<u32>(chunkCount * blocks.GetChunkSize(GetShape(index)));
        Debug::Print("%-4u byte: %u chunks (%u blocks) = %lu bytes\n", static_cast<u32>(GetShape(index).blockSize),
                     chunkCount, chunkCount * blocks.GetBlocksPerChunk(), static_cast<unsigned long>(bytes));
        total += bytes;
    }
    Debug::Print("Total of %u bytes\n\n", total);
}

template <u32 AlignmentBits>
void TBlockAllocator<AlignmentBits>::TearDown(CGlobalHeap& heap) noexcept
{
    if (m_report != 0 && GetAllocationCount(heap) > 0)
        Report(heap);
    for (u32 index = 0; index < ClassCount; ++index)
        m_classes[index].TearDown(heap, GetShape(index));
}

template <u32 AlignmentBits>
void TBlockAllocator<AlignmentBits>::GetStatistics(CGlobalHeap const& heap, Memory::SStatistics::SPool& pool)
{
    pool.alignment = Alignment;
    pool.allocationCount = GetAllocationCount(heap);
    pool.liveCount = GetLiveCount(heap);
    pool.classCount = ClassCount;
    for (u32 index = 0; index < ClassCount; ++index)
        pool.classes[index] = {GetShape(index).blockSize, m_classes[index].GetBlocksPerChunk(),
                               m_classes[index].GetChunkCount()};
}

template class TBlockAllocator<0>;
template class TBlockAllocator<2>;
template class TBlockAllocator<3>;
template class TBlockAllocator<4>;

} // namespace Velmor
