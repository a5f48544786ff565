#include "Core_BiasedLock.h"

#include <vlmcore/threads.h>

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
    while (m_isInside[GetSlot(m_nextOwner)].load(std::memory_order_acquire) != 0 && !backoff.IsInVain())
        backoff.Wait();
}

// By a guest.
void CBiasedLock::ChangeOwner(u64 threadKey)
{
    if (m_nextOwner == threadKey)
        return;
    // Whatever it was about to do as a former owner, it is here now.
    if (u32& thread = m_slotThreads[GetSlot(threadKey)]; thread == Thread::GetId())
        thread = 0;
    if (m_visitsLeft != 0) {
        if (--m_visitsLeft != 0)
            return;
        m_ownersLeft = MostOwnersAgain;
    }
    if (m_ownersLeft != 0 && Platform::CanSynchronizeThreads() && ClaimSlot(threadKey)) {
        --m_ownersLeft;
        m_nextOwner = threadKey;
        return;
    }
    m_nextOwner = NoThread;
    m_visitsLeft = m_nextShare;
    m_nextShare = std::max(m_nextShare, m_nextShare * 2);
}

// False when a former owner that still runs has the thread's word.
bool CBiasedLock::ClaimSlot(u64 threadKey)
{
    u32& thread = m_slotThreads[GetSlot(threadKey)];
    if (thread != 0 && thread != Thread::GetId() && Platform::IsThreadAlive(thread))
        return false;
    thread = Thread::GetId();
    return true;
}

} // namespace Velmor
