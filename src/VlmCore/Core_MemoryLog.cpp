#include "Core_MemoryLog.h"

#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

namespace Velmor {

IMemoryLogger::~IMemoryLogger() = default;

std::atomic<IMemoryLogger*> MemoryLog::g_logger{nullptr};

namespace Memory {
namespace {

IMemoryLogger* GetLogger()
{
    return MemoryLog::g_logger.load(std::memory_order_acquire);
}

} // namespace

void InitializeLog(IMemoryLogger* logger)
{
    MemoryLog::g_logger.store(logger, std::memory_order_release);
}

IMemoryLogger* ReleaseLog()
{
    return MemoryLog::g_logger.exchange(nullptr, std::memory_order_acq_rel);
}

void LogAllocate(void* block, u64 size)
{
    if (IMemoryLogger* const logger = GetLogger())
        logger->OnAllocate(block, size);
}

void LogFree(void* block)
{
    if (IMemoryLogger* const logger = GetLogger())
        logger->OnFree(block);
}

void LogRetain(void const* counter)
{
    if (IMemoryLogger* const logger = GetLogger())
        logger->OnRetain(counter);
}

void LogRelease(void const* counter)
{
    if (IMemoryLogger* const logger = GetLogger())
        logger->OnRelease(counter);
}

} // namespace Memory
} // namespace Velmor
