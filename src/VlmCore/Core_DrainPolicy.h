/// \file
/// When a writer thread takes over a buffer that others fill, and how it sleeps while they do not.
#pragma once

#include "Core_Backoff.h"
#include "platform/Platform_Thread.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

/// What a writer thread is to do next.
enum class EDrain {
    Now,   ///< take the buffer over
    Later, ///< some time has passed; look and ask again
    Idle,  ///< nothing has come for a while: sleep until something does
};

/// Taking over at every entry would have the producers meet the writer each time. So a part-filled buffer is given the
/// time of one idle wait to fill up to the half: some microseconds while there is work, a millisecond at most. The wait
/// counts rounds; on a busy machine a single one of them may take longer than all should, so the clock has its say.
class CDrainPolicy {
public:
    static constexpr f64 LongestWait = 1.0; // milliseconds

    /// \param getTime  gives a time in milliseconds; asked while a part-filled buffer waits.
    template <class GetTime>
    [[nodiscard]] EDrain Decide(u64 used, u64 capacity, GetTime const& getTime)
    {
        if (used > capacity / 2 || m_idle.IsSleeping() || (used > 0 && HasWaitedLong(getTime()))) {
            m_idle.Reset();
            m_isWaited = false;
            return used > 0 ? EDrain::Now : EDrain::Idle;
        }
        m_idle.Wait();
        return EDrain::Later;
    }

private:
    [[nodiscard]] bool HasWaitedLong(f64 now)
    {
        if (!m_isWaited) {
            m_isWaited = true;
            m_since = now;
        }
        return now - m_since >= LongestWait;
    }

    CBackoff m_idle;
    bool m_isWaited = false; ///< something has been in the buffer since m_since
    f64 m_since = 0;
};

/// Lets the writer sleep at no cost and wake at once. Producers look at it under the lock of their buffers, which they
/// hold anyway: a plain load.
class CWriterBell {
public:
    /// Producer, under the lock, with something in the buffer: true when Ring is to follow once the lock is released.
    [[nodiscard]] bool IsWanted()
    {
        if (m_asleep.load(std::memory_order_relaxed) == 0) [[likely]]
            return false;
        m_asleep.store(0, std::memory_order_relaxed);
        return true;
    }
    void Ring() { Platform::WakeSleeper(m_asleep); }

    /// Writer: sleeps, unless `isEmpty()` is false under the lock, until the bell rings; a quarter of a second at most.
    template <class Lock, class IsEmpty>
    void Sleep(Lock& lock, IsEmpty const& isEmpty)
    {
        lock.Acquire();
        bool const sleeps = !m_isClosed && isEmpty();
        m_asleep.store(sleeps ? 1 : 0, std::memory_order_relaxed);
        lock.TryRelease();
        if (sleeps)
            Platform::SleepOn(m_asleep, 1, LongestSleepMilliseconds);
    }

    /// The writer does not sleep any more: it is about to be joined. Not under the lock.
    template <class Lock>
    void Close(Lock& lock)
    {
        lock.Acquire();
        m_isClosed = true;
        m_asleep.store(0, std::memory_order_relaxed);
        lock.TryRelease();
        Ring();
    }

    /// In a copy of the process, where nobody waits: the first producer is wanted.
    void StartOver() { m_asleep.store(1, std::memory_order_relaxed); }

    /// The next producer is wanted. Not under the lock.
    template <class Lock>
    void Want(Lock& lock)
    {
        TScopedLock const guard(lock);
        m_asleep.store(1, std::memory_order_relaxed);
    }

private:
    static constexpr u32 LongestSleepMilliseconds = 256;

    std::atomic<u32> m_asleep{0}; ///< written under the lock only
    bool m_isClosed = false;
};

} // namespace Velmor
