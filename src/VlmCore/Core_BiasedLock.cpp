#include "Core_BiasedLock.h"

namespace Velmor {

void CBiasedLock::EnterAsGuest()
{
    m_guests.Acquire();
    // Without an owner the guests are among themselves.
    u64 const owner = m_owner.load(std::memory_order_relaxed);
    if (owner == NoThread)
        return;
    Impl::MakeWanted(m_isWanted, [owner] { Platform::SynchronizeThread(owner); });
    CBackoff backoff;
    while (m_isInside.load(std::memory_order_acquire) != 0)
        backoff.Wait();
}

// By a guest.
void CBiasedLock::ChangeOwner(u64 threadKey)
{
    if (m_isShared.load(std::memory_order_relaxed) || m_owner.load(std::memory_order_relaxed) == threadKey)
        return;
    ++m_ownerCount;
    if (m_ownerCount <= MostOwners && Platform::CanSynchronizeThreads()) {
        m_owner.store(threadKey, std::memory_order_relaxed);
        return;
    }
    m_owner.store(NoThread, std::memory_order_relaxed);
    m_isShared.store(true, std::memory_order_relaxed);
}

} // namespace Velmor
