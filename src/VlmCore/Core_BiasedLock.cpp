#include "Core_BiasedLock.h"

#include <algorithm>
#include <utility>

namespace Velmor {

void CBiasedLock::EnterAsGuest()
{
    m_guests.Acquire();
    DisplaceOwner();
}

// By a guest, for as long as it is inside.
void CBiasedLock::DisplaceOwner()
{
    // Without an owner the guests are among themselves.
    m_nextOwner = m_owner.load(std::memory_order_relaxed);
    if (m_nextOwner == NoThread)
        return;
    Impl::Disown(m_owner, [this] { Platform::SynchronizeThread(m_nextOwner); });
    CBackoff backoff;
    while (m_isInside[GetSlot(m_nextOwner)].load(std::memory_order_acquire) != 0 && !backoff.IsInVain())
        backoff.Wait();
}

u32 CBiasedLock::AcquireUnlessOwned(u32 threadId)
{
    m_guests.Acquire();
    u32 const owner = m_owner.load(std::memory_order_relaxed);
    bool const isOthers = owner != NoThread && owner != threadId;
    if (isOthers && Platform::IsThreadAlive(owner)) {
        m_guests.Release();
        return owner;
    }
    DisplaceOwner();
    ChangeOwner(threadId, isOthers);
    return NoThread;
}

bool CBiasedLock::IsVacantFor(u32 threadId)
{
    if (!m_guests.TryAcquire()) // a guest may wait for long
        return false;
    u32 const user = m_visitsLeft != 0 ? m_lastVisitor : m_owner.load(std::memory_order_relaxed);
    bool const isVacant = user == NoThread || user == threadId || !Platform::IsThreadAlive(user);
    if (isVacant && m_visitsLeft != 0)
        RestoreOwners();
    m_guests.Release();
    return isVacant;
}

// By a guest; whether the owner that it displaced has ended, which is no sign of threads that take turns.
void CBiasedLock::ChangeOwner(u32 threadId, bool isFormerGone)
{
    m_rival = NoThread;
    if (m_nextOwner == threadId)
        return;
    // Whatever it was about to do as a former owner, it is here now.
    if (u32& thread = m_slotThreads[GetSlot(threadId)]; thread == threadId)
        thread = 0;
    if (m_visitsLeft != 0) {
        m_visitsInARow = std::exchange(m_lastVisitor, threadId) == threadId ? m_visitsInARow + 1 : 1;
        bool const isAlone = m_visitsInARow == VisitsOfOneAlone;
        if (--m_visitsLeft != 0 && !isAlone)
            return;
        if (isAlone)
            m_nextShare = FirstShare;
        RestoreOwners();
    }
    bool const mayOwn = isFormerGone || m_ownersLeft != 0;
    if (mayOwn && Platform::CanSynchronizeThreads() && ClaimSlot(threadId)) {
        m_ownersLeft -= isFormerGone ? 0u : 1u;
        m_nextOwner = threadId;
        return;
    }
    if (Platform::CanSynchronizeThreads() && m_nextShare < LongShare)
        m_rival = mayOwn ? m_slotThreads[GetSlot(threadId)] : m_nextOwner;
    m_nextOwner = NoThread;
    m_visitsLeft = m_nextShare;
    m_nextShare = std::max(m_nextShare, m_nextShare * 2);
    m_lastVisitor = threadId;
    m_visitsInARow = 0;
}

// False when a former owner that still runs has the thread's word.
bool CBiasedLock::ClaimSlot(u32 threadId)
{
    u32& thread = m_slotThreads[GetSlot(threadId)];
    if (thread != 0 && thread != threadId && Platform::IsThreadAlive(thread))
        return false;
    thread = threadId;
    return true;
}

void CBiasedLock::SynchronizeOwner()
{
    if (u32 const owner = m_owner.load(std::memory_order_relaxed); owner != NoThread)
        Platform::SynchronizeThread(owner);
}

// An owner that a guest displaces meanwhile has left when the guest is inside. One that comes and goes all the time is
// outside soon; one that was put aside inside may take long.
bool CBiasedLock::HasBeenLeft()
{
    constexpr u32 MostLooks = 100;
    if (!m_guests.TryAcquire())
        return false;
    u32 looks = 0;
    for (std::atomic<u32> const& isInside : m_isInside)
        while (isInside.load(std::memory_order_acquire) != 0 && ++looks < MostLooks)
            Platform::RelaxProcessor();
    m_guests.Release();
    return looks < MostLooks;
}

void CBiasedLock::ForgetThreads()
{
    m_nextOwner = NoThread;
    std::ranges::fill(m_slotThreads, 0u);
    for (std::atomic<u32>& isInside : m_isInside) // a former owner may have been about to find that it is none
        isInside.store(0, std::memory_order_relaxed);
    m_visitsLeft = 0;
    m_ownersLeft = MostOwners;
    m_nextShare = FirstShare;
}

} // namespace Velmor
