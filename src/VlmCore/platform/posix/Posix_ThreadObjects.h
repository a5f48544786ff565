/// \file
/// Objects that each thread has one of, outside of the thread's own storage.
///
/// That storage is scarce: what a library keeps there for quick access must fit, with that of all others that are
/// loaded late, into a reserve of less than two kilobytes, or the library cannot be loaded; and a thread with a small
/// stack has it on that stack. So a thread keeps a pointer there, and the object lies in a page of its own.
///
/// Nothing runs when a thread ends: that could come after the host has closed the library. Pages of threads that have
/// ended are looked for when others are claimed.
#pragma once

#include "../Platform_Thread.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/types.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace Velmor::Platform {

/// Of static lifetime. Pages of threads that outlive the library stay mapped.
template <class T>
class TThreadObjects {
    static_assert(std::is_trivially_destructible_v<T>);

public:
    /// Gives the word in which the calling thread keeps its object: null at first.
    using GetWord = T*& (*)();

    explicit constexpr TThreadObjects(GetWord getWord) : m_getWord(getWord) {}
    TThreadObjects(TThreadObjects const&) = delete;
    TThreadObjects& operator=(TThreadObjects const&) = delete;

    /// The end of the library or of the process, when other threads may still be at work: they keep theirs. So do all
    /// when somebody is at work here, perhaps only in the process that this one was forked from.
    ~TThreadObjects()
    {
        if (!m_lock.TryAcquire())
            return;
        m_isClosed = true;
        T* const own = std::exchange(m_getWord(), nullptr);
        for (SPage** link = &m_pages; *link != nullptr;)
            if (&(*link)->object == own || IsLeft(**link))
                Remove(*link);
            else
                link = &(*link)->next;
        m_lock.TryRelease();
    }

    /// A fresh object for the calling thread until it ends, or the one that it has. Null when there is none to be had
    /// now: no memory, the end is near, or somebody else is asking at this moment, which may be what a signal
    /// interrupted in this thread. Never waits.
    T* Claim()
    {
        if (!m_lock.TryAcquire())
            return nullptr;
        int const error = errno; // of what a signal may have interrupted
        T*& word = m_getWord();
        if (word == nullptr && !m_isClosed) { // or a signal's handler came before
            LookForLeftPages();
            if (SPage* const page = MakePage()) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
                word = &page->object;
            }
        }
        errno = error;
        m_lock.TryRelease();
        return word;
    }

    /// Objects that there are, those of threads that have ended and were not looked for yet included.
    [[nodiscard]] u64 GetCount()
    {
        TScopedLock const lock(m_lock);
        u64 count = 0;
        for (SPage const* page = m_pages; page != nullptr; page = page->next)
            ++count;
        return count;
    }

private:
    struct SPage {
        T object;
        pid_t process; ///< the numbers of threads say nothing in a process that was forked from it
        u32 thread;
        SPage* next;
    };

    static constexpr u32 LooksPerClaim = 8;

    // Not Platform's, which remembers the number: that would be the parent's in a process that was forked.
    static u32 AskThreadId() { return static_cast<u32>(::syscall(SYS_gettid)); }

    // Under the lock, all of them:

    // True when the page's thread has ended. A thread of the same number as the caller's has.
    static bool IsLeft(SPage const& page)
    {
        return page.process == ::getpid() && (page.thread == AskThreadId() || !IsThreadAlive(page.thread));
    }

    void LookForLeftPages()
    {
        for (u32 look = 0; look < LooksPerClaim && m_pages != nullptr; ++look) {
            if (*m_next == nullptr)
                m_next = &m_pages;
            if (IsLeft(**m_next))
                Remove(*m_next);
            else
                m_next = &(*m_next)->next;
        }
    }

    SPage* MakePage()
    {
        void* const memory = ::mmap(nullptr, sizeof(SPage), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            return nullptr;
        SPage* const page = ::new (memory) SPage{T(), ::getpid(), AskThreadId(), m_pages};
        m_pages = page;
        return page;
    }

    static void Remove(SPage*& link)
    {
        SPage* const page = link;
        link = page->next;
        ::munmap(page, sizeof(SPage));
    }

    GetWord m_getWord;
    CSpinLock m_lock;
    bool m_isClosed = false;
    SPage* m_pages = nullptr;
    SPage** m_next = &m_pages; ///< the link to the page to look at next
};

} // namespace Velmor::Platform
