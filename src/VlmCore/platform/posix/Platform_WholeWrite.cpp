#include "../Platform_WholeWrite.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace Velmor::Platform {

#if defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define VLM_THREAD_SANITIZER 1
#  endif
#endif
#if defined(__SANITIZE_THREAD__)
#  define VLM_THREAD_SANITIZER 1
#endif

// What can be cut

namespace {

constexpr u64 PageSize = 4096;
/// What makes the price of a helper small beside that of the write.
[[maybe_unused]] constexpr u64 WorthwhileSize = 1024 * 1024;

} // namespace

u64 GetWholeWriteEnd(u64 position)
{
#if defined(VLM_THREAD_SANITIZER)
    return (position / PageSize + 1) * PageSize; // no helper, see below
#else
    return position + WorthwhileSize;
#endif
}

bool NeedsWholeWrite(u64 position, u64 size)
{
    return size > PageSize - position % PageSize;
}

// Whole writes

namespace {

/// What the helper is given and leaves behind.
struct SHelperCall {
    FileHandle handle;
    void const* buffer;
    u64 size;
    u64 done;
    u32 error;
};

/// The helper runs on a piece of its caller's stack and, as far as the C library goes, in its caller's thread: the
/// caller stands still meanwhile.
int RunHelper(void* argument)
{
    SHelperCall& call = *static_cast<SHelperCall*>(argument);
    ::setpgid(0, 0); // a kill of the group does not reach it
    call.error = WriteFileHandle(call.handle, call.buffer, call.size, call.done);
    return 0;
}

/// False when there is no helper to be had.
[[nodiscard]] bool WriteByHelper(SHelperCall& call)
{
#if defined(VLM_THREAD_SANITIZER)
    // Its runtime cannot follow a helper that shares the memory of its caller's thread.
    static_cast<void>(call);
    static_cast<void>(&RunHelper);
    return false;
#else
    constexpr u64 StackSize = 64 * 1024;
    alignas(16) char stack[StackSize];
    // Signals that reach the helper would run the host's handlers in it. No signal announces its end either, so that
    // the host's own waiting for children does not see it.
    sigset_t all;
    sigset_t previous;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    int const helper = ::clone(&RunHelper, stack + StackSize, CLONE_VM | CLONE_VFORK | CLONE_FILES, &call);
    if (helper != -1) {
        while (::waitpid(helper, nullptr, __WALL) == -1 && errno == EINTR)
            continue;
    }
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return helper != -1;
#endif
}

} // namespace

u32 WriteFileWhole(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    SHelperCall call{handle, buffer, size, 0, 0};
    if (!WriteByHelper(call))
        return WriteFileHandle(handle, buffer, size, done);
    done = call.done;
    return call.error;
}

} // namespace Velmor::Platform
