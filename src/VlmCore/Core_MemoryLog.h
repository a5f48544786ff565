// The dispatch to the memory logger. The quick ways of Malloc and Free ask g_quietExtension, where there is none while
// a logger is installed; all others IsInstalled.
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

/// The installed memory logger, null without one. To be asked once for an event: another thread may release it
/// meanwhile.
[[nodiscard]] inline IMemoryLogger* FindLogger()
{
    return g_logger.load(std::memory_order_acquire);
}

/// Ends the installation of `logger`, if it is the installed one.
void Uninstall(IMemoryLogger& logger);

/// The installed memory logger; without one it throws CException. Callers ask IsInstalled first: the exception is a
/// guard.
[[nodiscard]] IMemoryLogger& GetLogger();

/// Bytes that the heap accounts for now, which every event carries; 0 without a heap.
[[nodiscard]] u64 GetHeapSize();

} // namespace MemoryLog
} // namespace Velmor
