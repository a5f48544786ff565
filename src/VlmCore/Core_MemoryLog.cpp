#include "Core_MemoryLog.h"

#include "Core_MemoryHeap.h"
#include "Core_MemoryModule.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

namespace Velmor {

IMemoryLogger::~IMemoryLogger() = default;

std::atomic<IMemoryLogger*> MemoryLog::g_logger{nullptr};

IMemoryLogger& MemoryLog::GetLogger()
{
    IMemoryLogger* const logger = g_logger.load(std::memory_order_acquire);
    if (logger == nullptr)
        throw CException("src/VlmCore/Core_MemoryLog.cpp(72): CMemoryLogSingleton has no instance.");
    return *logger;
}

void MemoryLog::Uninstall(IMemoryLogger& logger)
{
    IMemoryLogger* expected = &logger;
    if (g_logger.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel))
        UpdateQuietExtension();
}

u64 MemoryLog::GetHeapSize()
{
    CGlobalHeap const* const heap = g_heapModule.heap;
    return heap != nullptr ? heap->GetBytesInUse() : 0;
}

namespace Memory {

void InitializeLog(IMemoryLogger* logger)
{
    MemoryLog::g_logger.store(logger, std::memory_order_release);
    UpdateQuietExtension();
}

IMemoryLogger* ReleaseLog()
{
    IMemoryLogger* const logger = MemoryLog::g_logger.exchange(nullptr, std::memory_order_acq_rel);
    UpdateQuietExtension();
    return logger;
}

void LogAllocate(void* block, u64 size)
{
    if (IMemoryLogger* const logger = MemoryLog::FindLogger())
        logger->OnAllocate(block, size);
}

void LogFree(void* block)
{
    if (IMemoryLogger* const logger = MemoryLog::FindLogger())
        logger->OnFree(block);
}

void LogRetain(void const* counter)
{
    if (IMemoryLogger* const logger = MemoryLog::FindLogger())
        logger->OnRetain(counter);
}

void LogRelease(void const* counter)
{
    if (IMemoryLogger* const logger = MemoryLog::FindLogger())
        logger->OnRelease(counter);
}

} // namespace Memory
} // namespace Velmor
