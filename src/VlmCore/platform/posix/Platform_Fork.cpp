#include "../Platform_Fork.h"

#include "Posix_Fork.h"

#include <atomic>
#include <pthread.h>

namespace Velmor::Platform {

// Copies

namespace {

constinit std::atomic<SForkWatch const*> g_watch{nullptr};
constinit u32 g_depth = 0;

void CallBefore()
{
    if (SForkWatch const* const watch = g_watch.load(std::memory_order_acquire))
        watch->before();
}

void CallInOriginal()
{
    if (SForkWatch const* const watch = g_watch.load(std::memory_order_acquire))
        watch->afterInOriginal();
}

void CallInCopy()
{
    ++g_depth;
    if (SForkWatch const* const watch = g_watch.load(std::memory_order_acquire))
        watch->afterInCopy();
    ForgetThreadId();
}

/// At loading, so that threads get their new ids also in a process that never asked for more. The system forgets the
/// functions when the library is unloaded.
struct SRegistration {
    SRegistration() { ::pthread_atfork(&CallBefore, &CallInOriginal, &CallInCopy); }
};

SRegistration const g_registration;

} // namespace

u32 GetForkDepth()
{
    return g_depth;
}

void WatchForks(SForkWatch const& watch)
{
    g_watch.store(&watch, std::memory_order_release);
}

} // namespace Velmor::Platform
