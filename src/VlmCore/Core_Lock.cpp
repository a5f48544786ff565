#include "Core_Backoff.h"

#include <vlmcore/debug.h>
#include <vlmcore/exceptions.h>
#include <vlmcore/impl/Core_Lock.h>

namespace Velmor {

// A waiter looks before it tries again: looking leaves the word's cache line with the holder, who needs it to release.
// It yields after a while, and sleeps in the end, because a holder of lower priority would otherwise never run on the
// processor that the waiter keeps busy.
//
// A holder that was ended with its process will never release: what is left of the process takes its place.

void CSpinLock::AcquireSlowly()
{
    CBackoff backoff;
    do {
        backoff.Wait();
        if (backoff.IsInVain())
            return; // held, as it was
    } while ((m_word.load(std::memory_order_relaxed) & 1) != 0 || !Impl::TryAcquirePlain(m_word));
}

void CSpinLock::ThrowNotAcquired()
{
    throw CException("include/vlmcore/impl/Core_Lock.h(44): Trying to release a lock that has not been acquired.");
}

void CRecursiveSpinLock::AcquireSlowly(u32 threadId)
{
    CBackoff backoff;
    do {
        backoff.Wait();
        if (backoff.IsInVain()) {
            m_count.store(0, std::memory_order_relaxed);
            m_owner.store(threadId, std::memory_order_relaxed);
            return;
        }
    } while (!Impl::TryAcquireRecursive(m_count, m_owner, threadId));
}

void CRecursiveSpinLock::ThrowNotOwned()
{
    throw CException(
        "include/vlmcore/impl/Core_Lock.h(87): Trying to release a recursive lock that is not owned by the "
        "current thread.");
}

void Impl::ReportLostLock() noexcept
{
    Debug::Print("A lock was released while a guard was holding it.\n");
}

} // namespace Velmor
