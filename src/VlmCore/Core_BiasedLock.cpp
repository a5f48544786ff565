#include "Core_BiasedLock.h"

namespace Velmor {

void CBiasedLock::EnterAsGuest()
{
    m_guests.Acquire();
    // Without an owner the guests are among themselves.
    if (m_owner.load(std::memory_order_relaxed) == NoThread)
        return;
    Impl::MakeWanted(m_isWanted, &Platform::SynchronizeThreads);
    CBackoff backoff;
    while (m_isInside.load(std::memory_order_acquire) != 0)
        backoff.Wait();
}

// By a guest. The system must have the barrier, else there never is an owner.
void CBiasedLock::ChangeOwner(u64 threadKey)
{
    if (m_ownerCount > MostOwners || m_owner.load(std::memory_order_relaxed) == threadKey)
        return;
    ++m_ownerCount;
    bool const isSettled = m_ownerCount <= MostOwners && Platform::CanSynchronizeThreads();
    m_owner.store(isSettled ? threadKey : NoThread, std::memory_order_relaxed);
}

} // namespace Velmor
