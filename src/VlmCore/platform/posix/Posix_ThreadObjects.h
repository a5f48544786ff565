/// \file
/// Objects that each thread has one of, outside of the thread's own storage.
///
/// That storage is scarce: what a library keeps there for quick access must fit, with that of all others that are loaded
/// late, into a reserve of less than two kilobytes, or the library cannot be loaded; and a thread with a small stack has
/// it on that stack. So a thread keeps a pointer there, and the object lies in a page of its own.
#pragma once

#include <vlmcore/impl/Core_Lock.h>

#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <type_traits>
#include <utility>

namespace Velmor::Platform {

/// Of static lifetime. The objects of threads that have ended are used again; those of threads that outlive the library
/// stay mapped.
template <class T>
class TThreadObjects {
    static_assert(std::is_trivially_destructible_v<T>);

public:
    constexpr TThreadObjects() = default;
    TThreadObjects(TThreadObjects const&) = delete;
    TThreadObjects& operator=(TThreadObjects const&) = delete;

    /// The end of the library or of the process, when other threads may still be at work: they keep theirs.
    ~TThreadObjects()
    {
        TScopedLock const lock(m_lock);
        m_isClosed = true;
        if (!m_hasKey)
            return;
        if (SPage* const own = static_cast<SPage*>(::pthread_getspecific(m_key))) {
            *own->known = nullptr;
            own->next = std::exchange(m_free, own);
        }
        ::pthread_key_delete(m_key);
        while (m_free != nullptr)
            ::munmap(std::exchange(m_free, m_free->next), sizeof(SPage));
    }

    /// A fresh object for the calling thread, which has none, until the thread ends. Null when there is none to be had
    /// now: no memory, the end is near, or somebody else is asking at this moment, which may be what a signal interrupted
    /// in this thread. Never waits.
    /// \param known  where the thread keeps the object: set, and null again when the thread ends
    T* Claim(T*& known)
    {
        if (!m_lock.TryAcquire())
            return nullptr;
        SPage* const page = TakePage();
        m_lock.Release();
        if (page == nullptr)
            return nullptr;
        page->known = &known;
        known = ::new (&page->object) T;
        return known;
    }

private:
    struct SPage {
        T object;
        T** known;
        TThreadObjects* owner;
        SPage* next; ///< of those in use by no thread
    };

    // Under the lock.
    SPage* TakePage()
    {
        if (m_isClosed || (!m_hasKey && ::pthread_key_create(&m_key, &GiveBack) != 0))
            return nullptr;
        m_hasKey = true;
        SPage* page = m_free;
        if (page == nullptr) {
            void* const memory =
                ::mmap(nullptr, sizeof(SPage), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (memory == MAP_FAILED)
                return nullptr;
            page = static_cast<SPage*>(memory);
            page->owner = this;
        }
        else
            m_free = page->next;
        if (::pthread_setspecific(m_key, page) == 0)
            return page;
        page->next = std::exchange(m_free, page);
        return nullptr;
    }

    // At the end of the thread.
    static void GiveBack(void* memory)
    {
        SPage* const page = static_cast<SPage*>(memory);
        TThreadObjects& owner = *page->owner;
        *page->known = nullptr;
        TScopedLock const lock(owner.m_lock);
        page->next = std::exchange(owner.m_free, page);
    }

    CSpinLock m_lock;
    bool m_hasKey = false;
    bool m_isClosed = false;
    pthread_key_t m_key{};
    SPage* m_free = nullptr;
};

} // namespace Velmor::Platform
