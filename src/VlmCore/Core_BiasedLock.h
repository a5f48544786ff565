// A spin lock that costs the thread which mostly takes it no locked instruction.
//
// Its owner only says that it is inside, and looks whether it still is the owner. Somebody else who wants in takes the
// ownership away for that time. That both see each other needs a barrier between a store and a load; it is paid by the
// others, for both sides, with a barrier that the system carries out in the owner's thread. So the owner takes the lock
// for the price of two stores, others for that of a system call.
//
// A thread may be put aside between its look at the owner and its word that it is inside, and say so when another one
// has long been the owner. So each owner has a word of its own, and nobody else gets that word before the thread has
// been seen elsewhere or has ended.
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

/// What a guest, which holds the lock among guests, does before it waits for the owner to be outside. It makes somebody
/// the owner again when it leaves.
template <class OwnerWord, class Barrier>
void Disown(OwnerWord& owner, Barrier&& barrierInOwner)
{
    owner.store(0, std::memory_order_seq_cst);
    barrierInOwner();
}

/// Fibonacci hashing: the higher bits tell threads apart, neighbours first of all. The low bits, alike in all keys, do
/// not count.
[[nodiscard]] inline u64 HashThreadKey(u64 threadKey)
{
    constexpr u64 GoldenRatio = 0x9E3779B97F4A7C15u;
    return threadKey * (GoldenRatio >> Platform::ThreadKeyShift);
}

} // namespace Impl

/// Not recursive; no system object, nothing to destroy. Threads are told apart by Platform::GetThreadKey.
class CBiasedLock {
public:
    /// Highest bits of the hash that threads which come to one lock may have in common.
    static constexpr u32 CommonBits = 5;

    CBiasedLock() = default;
    CBiasedLock(CBiasedLock const&) = delete;
    CBiasedLock& operator=(CBiasedLock const&) = delete;
    ~CBiasedLock() = default;

    /// The owner's quick way in, while no guest wants in, and out.
    [[nodiscard]] bool TryAcquireAsOwner(u64 threadKey)
    {
        return Impl::TryEnterAsOwner(m_owner, m_isInside[GetSlot(threadKey)], threadKey);
    }
    void ReleaseAsOwner(u64 threadKey) { m_isInside[GetSlot(threadKey)].store(0, std::memory_order_release); }

    /// Takes the lock for a thread that will take it again and again: it becomes the owner when there is none, or in
    /// the place of another one that is probably gone. When owners change all the time, there is none for a while; ever
    /// longer, if the next ones change as fast.
    [[nodiscard]] EBiasedHold Acquire(u64 threadKey)
    {
        if (TryAcquireAsOwner(threadKey))
            return EBiasedHold::Owner;
        EnterAsGuest();
        ChangeOwner(threadKey);
        return EBiasedHold::Guest;
    }

    /// Takes the lock without a claim to it.
    [[nodiscard]] EBiasedHold AcquireAsGuest()
    {
        EnterAsGuest();
        return EBiasedHold::Guest;
    }

    /// In a copy of the process, by the guest that holds it: of those who came to it only the calling thread is left.
    void ForgetThreads()
    {
        m_nextOwner = NoThread;
        for (u32& thread : m_slotThreads)
            thread = 0;
        for (std::atomic<u32>& isInside : m_isInside) // a former owner may have been about to find that it is none
            isInside.store(0, std::memory_order_relaxed);
    }

    /// \param threadKey  with which it was taken; any for a guest
    void Release(EBiasedHold hold, u64 threadKey)
    {
        if (hold == EBiasedHold::Owner) {
            ReleaseAsOwner(threadKey);
            return;
        }
        m_owner.store(m_nextOwner, std::memory_order_release);
        m_guests.Release();
    }

private:
    static constexpr u32 MostOwners = 64;
    static constexpr u32 MostOwnersAgain = 4; // after a while without one
    static constexpr u32 FirstShare = 4096;
    static constexpr u64 NoThread = 0;
    static constexpr u32 SlotBits = 3;

    [[nodiscard]] static u32 GetSlot(u64 threadKey)
    {
        return Impl::HashThreadKey(threadKey) >> (64 - CommonBits - SlotBits) & ((1u << SlotBits) - 1);
    }

    void EnterAsGuest();
    [[nodiscard]] bool ClaimSlot(u64 threadKey);
    void ChangeOwner(u64 threadKey);

    std::atomic<u64> m_owner{NoThread}; // none while a guest is inside
    std::atomic<u32> m_isInside[1u << SlotBits] = {};
    CSpinLock m_guests;
    // For guests, under their lock:
    u64 m_nextOwner = NoThread;             // once the guest inside has left
    u32 m_slotThreads[1u << SlotBits] = {}; // ids of the threads that may be about to say that they are inside; 0: none
    u32 m_ownersLeft = MostOwners;          // changes of owners until there is none for a while
    u32 m_visitsLeft = 0;                   // of that while
    u32 m_nextShare = FirstShare;           // visits of the next such while
};

/// Holds a biased lock for the length of a scope; the key is that of Release.
class [[nodiscard]] CBiasedGuard {
public:
    CBiasedGuard(CBiasedLock& lock, EBiasedHold hold, u64 threadKey = 0)
        : m_lock(lock), m_threadKey(threadKey), m_hold(hold)
    {
    }
    CBiasedGuard(CBiasedGuard const&) = delete;
    CBiasedGuard& operator=(CBiasedGuard const&) = delete;
    ~CBiasedGuard() { m_lock.Release(m_hold, m_threadKey); }

private:
    CBiasedLock& m_lock;
    u64 m_threadKey;
    EBiasedHold m_hold;
};

} // namespace Velmor
