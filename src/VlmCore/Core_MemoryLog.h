// The dispatch to the memory logger. An allocation asks IsInstalled, one load and one branch, before anything else.
#pragma once

#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

class IMemoryLogger;

namespace MemoryLog {

/// The process-wide memory logger; null while none is installed.
extern std::atomic<IMemoryLogger*> g_logger;

[[nodiscard]] inline bool IsInstalled()
{
    return g_logger.load(std::memory_order_acquire) != nullptr;
}

} // namespace MemoryLog
} // namespace Velmor
