#include "Core_BiasedLock.h"

#include <algorithm>

namespace Velmor {

void CBiasedLock::EnterAsGuest()
{
    m_guests.Acquire();
    // Without an owner the guests are among themselves.
    m_nextOwner = m_owner.load(std::memory_order_relaxed);
    if (m_nextOwner == NoThread)
        return;
    Impl::Disown(m_owner, [this] { Platform::SynchronizeThread(m_nextOwner); });
    CBackoff backoff;
    while (m_isInside.load(std::memory_order_acquire) != 0)
        backoff.Wait();
}

// By a guest.
void CBiasedLock::ChangeOwner(u64 threadKey)
{
    if (m_nextOwner == threadKey)
        return;
    if (m_visitsLeft != 0) {
        if (--m_visitsLeft != 0)
            return;
        m_ownersLeft = MostOwnersAgain;
    }
    if (m_ownersLeft != 0 && Platform::CanSynchronizeThreads()) {
        --m_ownersLeft;
        m_nextOwner = threadKey;
        return;
    }
    m_nextOwner = NoThread;
    m_visitsLeft = m_nextShare;
    m_nextShare = std::max(m_nextShare, m_nextShare * 2);
}

} // namespace Velmor
