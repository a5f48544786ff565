/// \file
/// Spin locks and their guard.
///
/// Both locks are one word or two, need no system object, no construction at run time and no destruction, and are meant
/// for critical sections of a few instructions: who waits, keeps a processor busy (after a while it yields, and at last
/// sleeps, so that a holder that was put aside gets to run). Hold one longer, or across a system call, only where
/// nobody waits for it in earnest.
///
///     CSpinLock lock;
///     {
///         TScopedLock guard(lock);
///         ... // alone here
///     }
///
/// |                        | CSpinLock          | CRecursiveSpinLock                |
/// |------------------------|--------------------|-----------------------------------|
/// | acquired by its holder | waits for ever     | counts; as many releases are due  |
/// | released by another    | is released        | throws CException                 |
/// | released when free     | throws CException  | throws CException                 |
///
/// (Without a heap there is no text to throw: CBadAllocation takes the place of CException.)
///
/// An acquisition sees everything that was written before the release that let it in.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

namespace Thread {

/// Id of the calling thread as the system numbers its threads; never all ones.
[[nodiscard]] VLM_API unsigned int GetId();

} // namespace Thread

/// The locks' rules, over any word with the members of std::atomic: the locks use them on std::atomic, the model check
/// on words that let it try every order of steps.
namespace Impl {

inline constexpr u32 NoOwner = ~u32{0};

/// One attempt at the plain lock: sets bit 0, true when it was clear.
template <class Word>
bool TryAcquirePlain(Word& word)
{
    return (word.fetch_or(1, std::memory_order_acquire) & 1) == 0;
}

/// False, and nothing changed, when the lock is not held. A held word is exactly 1, so that storing 0 clears the bit.
template <class Word>
bool TryReleasePlain(Word& word)
{
    if (word.load(std::memory_order_relaxed) != 1)
        return false;
    word.store(0, std::memory_order_release);
    return true;
}

/// One attempt at the recursive lock. The count belongs to the owner alone and needs no locked instruction.
template <class Word>
bool TryAcquireRecursive(Word& count, Word& owner, u32 threadId)
{
    u32 seen = owner.load(std::memory_order_relaxed);
    if (seen == threadId) {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return true;
    }
    return seen == NoOwner &&
           owner.compare_exchange_strong(seen, threadId, std::memory_order_acquire, std::memory_order_relaxed);
}

/// False, and nothing changed, when the caller does not own the lock.
template <class Word>
bool TryReleaseRecursive(Word& count, Word& owner, u32 threadId)
{
    if (owner.load(std::memory_order_relaxed) != threadId)
        return false;
    u32 const extra = count.load(std::memory_order_relaxed);
    if (extra != 0)
        count.store(extra - 1, std::memory_order_relaxed);
    else
        owner.store(NoOwner, std::memory_order_release);
    return true;
}

/// Tells the debugger that a guard found its lock released behind its back.
VLM_API void ReportLostLock() noexcept;

} // namespace Impl

/// Plain spin lock: one 32-bit word, bit 0 set while held. Any thread may release it.
class CSpinLock {
public:
    constexpr CSpinLock() = default;
    CSpinLock(CSpinLock const&) = delete;
    CSpinLock& operator=(CSpinLock const&) = delete;

    /// Waits until the lock is free and takes it. Waits for ever when the caller holds it.
    void Acquire()
    {
        if (!Impl::TryAcquirePlain(m_word))
            AcquireSlowly();
    }

    /// Takes the lock when it is free; does not wait. True when taken.
    [[nodiscard]] bool TryAcquire() { return Impl::TryAcquirePlain(m_word); }

    /// Frees the lock. Throws CException when it is not held.
    void Release()
    {
        if (!Impl::TryReleasePlain(m_word))
            ThrowNotAcquired();
    }

    /// Frees the lock, or returns false when it is not held.
    bool TryRelease() noexcept { return Impl::TryReleasePlain(m_word); }

private:
    VLM_API void AcquireSlowly();
    [[noreturn]] VLM_API static void ThrowNotAcquired();

    std::atomic<u32> m_word{0};
};

/// Spin lock that its owner may acquire again; it is free after as many releases.
class CRecursiveSpinLock {
public:
    constexpr CRecursiveSpinLock() = default;
    CRecursiveSpinLock(CRecursiveSpinLock const&) = delete;
    CRecursiveSpinLock& operator=(CRecursiveSpinLock const&) = delete;

    /// Waits until the lock is free or the caller's own, and takes it.
    void Acquire()
    {
        u32 const threadId = Thread::GetId();
        if (!Impl::TryAcquireRecursive(m_count, m_owner, threadId))
            AcquireSlowly(threadId);
    }

    /// Takes the lock when it is free or the caller's own; does not wait. True when taken.
    [[nodiscard]] bool TryAcquire() { return Impl::TryAcquireRecursive(m_count, m_owner, Thread::GetId()); }

    /// Takes one acquisition back. Throws CException when the caller is not the owner.
    void Release()
    {
        if (!Impl::TryReleaseRecursive(m_count, m_owner, Thread::GetId()))
            ThrowNotOwned();
    }

    /// Takes one acquisition back, or returns false when the caller is not the owner.
    bool TryRelease() noexcept { return Impl::TryReleaseRecursive(m_count, m_owner, Thread::GetId()); }

    /// True while the calling thread holds the lock.
    [[nodiscard]] bool IsOwned() const { return m_owner.load(std::memory_order_relaxed) == Thread::GetId(); }

private:
    VLM_API void AcquireSlowly(u32 threadId);
    [[noreturn]] VLM_API static void ThrowNotOwned();

    std::atomic<u32> m_count{0};
    std::atomic<u32> m_owner{Impl::NoOwner};
};

static_assert(sizeof(CSpinLock) == 4 && sizeof(CRecursiveSpinLock) == 8, "shared between modules as plain words");

/// Holds a lock for the length of a scope. A lock that somebody released meanwhile is reported to the debugger and left
/// as it is: a destructor must not throw.
template <class Lock>
class [[nodiscard]] TScopedLock {
public:
    /// Waits for the lock.
    explicit TScopedLock(Lock& lock) : m_lock(lock) { m_lock.Acquire(); }
    TScopedLock(TScopedLock const&) = delete;
    TScopedLock& operator=(TScopedLock const&) = delete;
    ~TScopedLock()
    {
        if (!m_lock.TryRelease())
            Impl::ReportLostLock();
    }

private:
    Lock& m_lock;
};

} // namespace Velmor
