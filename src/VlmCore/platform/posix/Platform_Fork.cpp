#include "../Platform_Fork.h"

#include "Posix_Fork.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

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

u32 AskThreadId()
{
    return static_cast<u32>(::syscall(SYS_gettid));
}

u32 GetForkDepth()
{
    return g_depth;
}

bool IsOnPassingStack(void const* object)
{
    pthread_attr_t attributes;
    if (AskThreadId() == static_cast<u32>(::getpid()))
        return false;
    if (::pthread_getattr_np(::pthread_self(), &attributes) != 0)
        return false;
    void* low = nullptr;
    std::size_t size = 0;
    bool const isKnown = ::pthread_attr_getstack(&attributes, &low, &size) == 0;
    ::pthread_attr_destroy(&attributes);
    return isKnown && std::less_equal<>()(low, object) && std::less<>()(object, static_cast<char const*>(low) + size);
}

void WatchForks(SForkWatch const& watch)
{
    g_watch.store(&watch, std::memory_order_release);
}

} // namespace Velmor::Platform
