// A spin lock that costs the thread which mostly takes it no locked instruction.
//
// Its owner only says that it is inside, and looks whether it still is the owner. Somebody else who wants in takes the
// ownership away for that time. That both see each other needs a barrier between a store and a load; it is paid by the
// others, for both sides, with a barrier that the system carries out in the owner's thread. So the owner takes the lock
// for the price of two stores, others for that of a system call.
//
// A thread may be put aside between its look at the owner and its word that it is inside, and say so when another one
// has long been the owner. So each owner has a word of its own, and nobody else gets that word before the thread has
// been seen elsewhere or has ended. Threads are told apart by their ids, which the system gives to one at a time: while
// it does not know an owner's id, no thread takes itself for that owner.
// Method: David Dice, Hui Huang, Mingyao Yang, "Asymmetric Dekker Synchronization" (2001).
#pragma once

#include "Core_Backoff.h"
#include "Platform_ThreadKey.h"
#include "platform/Platform_Thread.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

/// How a biased lock is held, which its release has to know.
enum class EBiasedHold : u8 { Owner, Guest };

/// The rules, over any word with the members of std::atomic, so that they can be checked step by step.
namespace Impl {

/// The owner's attempt. False, and nothing changed, when it is not the owner (any more).
/// \param isInside  the thread's own word
template <class OwnerWord, class Word, class Key>
bool TryEnterAsOwner(OwnerWord& owner, Word& isInside, Key thread)
{
    if (owner.load(std::memory_order_relaxed) != thread)
        return false;
    isInside.store(1, std::memory_order_relaxed);
    // The processor may let the load pass the store; Disown's barrier makes up for it. The compiler may not.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (owner.load(std::memory_order_acquire) == thread)
        return true;
    isInside.store(0, std::memory_order_release);
    return false;
}

/// No thread's id.
inline constexpr u32 NoThread = ~u32{0};

/// What a guest, which holds the lock among guests, does before it waits for the owner to be outside. It makes somebody
/// the owner again when it leaves.
template <class OwnerWord, class Barrier>
void Disown(OwnerWord& owner, Barrier&& barrierInOwner)
{
    owner.store(NoThread, std::memory_order_seq_cst);
    barrierInOwner();
}

/// Threads are told apart by a place of this many bits where their whole id is too much. Those that were started one
/// after the other have different ones; of others one pair in 16,384 has the same.
inline constexpr u32 ThreadPlaceBits = 14;

[[nodiscard]] inline u32 GetThreadPlace(u32 threadId)
{
    return threadId >> Platform::ThreadKeyShift & ((1u << ThreadPlaceBits) - 1);
}

} // namespace Impl

/// Not recursive; no system object, nothing to destroy. Threads come with their ids (see Thread::GetId).
class CBiasedLock {
public:
    static constexpr u32 NoThread = Impl::NoThread;

    CBiasedLock() = default;
    CBiasedLock(CBiasedLock const&) = delete;
    CBiasedLock& operator=(CBiasedLock const&) = delete;
    ~CBiasedLock() = default;

    /// The owner's quick way in, while no guest wants in, and out. An id of 0 is nobody's.
    [[nodiscard]] bool TryAcquireAsOwner(u32 threadId)
    {
        return Impl::TryEnterAsOwner(m_owner, m_isInside[GetSlot(threadId)], threadId);
    }
    void ReleaseAsOwner(u32 threadId) { m_isInside[GetSlot(threadId)].store(0, std::memory_order_release); }

    /// Takes the lock for a thread that will take it again and again: it becomes the owner when there is none, or in
    /// the place of another one that is probably gone. When owners change all the time, there is none for a while; ever
    /// longer, if the next ones change as fast.
    [[nodiscard]] EBiasedHold Acquire(u32 threadId)
    {
        if (TryAcquireAsOwner(threadId))
            return EBiasedHold::Owner;
        EnterAsGuest();
        ChangeOwner(threadId, false);
        return EBiasedHold::Guest;
    }

    /// Takes the lock like Acquire, as a guest, and answers NoThread. If another thread owns it that still runs, does
    /// nothing and answers that one's id.
    [[nodiscard]] u32 AcquireUnlessOwned(u32 threadId);

    /// By a guest that came with Acquire or AcquireUnlessOwned: the thread that keeps it from being the next owner, so
    /// that there is none for a while from now on; else NoThread. It is named a few times only: going elsewhere may not
    /// help.
    [[nodiscard]] u32 GetRival() const { return m_rival; }
    /// By the same guest, when it will not come again: the while is over.
    void RestoreOwners()
    {
        m_visitsLeft = 0;
        m_ownersLeft = MostOwnersAgain;
    }

    /// True when it is nobody else's at the moment: no guest is inside, and no other thread that still runs owns it, or
    /// was the last one to come while it had no owner. Waits for nobody.
    [[nodiscard]] bool IsVacantFor(u32 threadId);

    /// Whether there is an owner, and no guest inside.
    [[nodiscard]] bool HasOwner() const { return m_owner.load(std::memory_order_relaxed) != NoThread; }

    /// Takes the lock without a claim to it.
    [[nodiscard]] EBiasedHold AcquireAsGuest()
    {
        EnterAsGuest();
        return EBiasedHold::Guest;
    }

    /// First half of a look at the lock from outside: afterwards its owner sees what the caller stored before, unless
    /// it is inside already.
    void SynchronizeOwner();
    /// Second half, once or again and again: true when whoever was inside then has left since. Waits for nobody.
    [[nodiscard]] bool HasBeenLeft();

    /// In a copy of the process, by the guest that holds it: of those who came to it only the calling thread is left.
    void ForgetThreads();

    /// \param threadId  with which it was taken; any for a guest
    void Release(EBiasedHold hold, u32 threadId)
    {
        if (hold == EBiasedHold::Owner) {
            ReleaseAsOwner(threadId);
            return;
        }
        m_owner.store(m_nextOwner, std::memory_order_release);
        m_guests.Release();
    }

private:
    static constexpr u32 MostOwners = 64;
    static constexpr u32 MostOwnersAgain = 4; // after a while without one
    static constexpr u32 FirstShare = 4096;
    static constexpr u32 LongShare = FirstShare << 4;
    // In a row, for longer than threads take turns on a processor.
    static constexpr u32 VisitsOfOneAlone = 1u << 17;
    static constexpr u32 SlotBits = 3;
    static constexpr u32 SlotShift = 5; // bits in which threads that come to the same lock may be alike

    [[nodiscard]] static u32 GetSlot(u32 threadId)
    {
        return threadId >> (Platform::ThreadKeyShift + SlotShift) & ((1u << SlotBits) - 1);
    }

    void EnterAsGuest();
    void DisplaceOwner();
    [[nodiscard]] bool ClaimSlot(u32 threadId);
    void ChangeOwner(u32 threadId, bool isFormerGone);

    std::atomic<u32> m_owner{NoThread}; // none while a guest is inside
    std::atomic<u32> m_isInside[1u << SlotBits] = {};
    CSpinLock m_guests;
    // For guests, under their lock:
    u32 m_nextOwner = NoThread;             // once the guest inside has left
    u32 m_slotThreads[1u << SlotBits] = {}; // the threads that may be about to say that they are inside; 0: none
    u32 m_ownersLeft = MostOwners;          // changes of owners until there is none for a while
    u32 m_visitsLeft = 0;                   // of that while
    u32 m_nextShare = FirstShare;           // visits of the next such while
    u32 m_lastVisitor = NoThread;           // in that while
    u32 m_visitsInARow = 0;                 // by that one
    u32 m_rival = NoThread;
};

/// Holds a biased lock for the length of a scope; the id is that of Release.
class [[nodiscard]] CBiasedGuard {
public:
    CBiasedGuard(CBiasedLock& lock, EBiasedHold hold, u32 threadId = 0)
        : m_lock(lock), m_threadId(threadId), m_hold(hold)
    {
    }
    CBiasedGuard(CBiasedGuard const&) = delete;
    CBiasedGuard& operator=(CBiasedGuard const&) = delete;
    ~CBiasedGuard() { m_lock.Release(m_hold, m_threadId); }

private:
    CBiasedLock& m_lock;
    u32 m_threadId;
    EBiasedHold m_hold;
};

} // namespace Velmor
