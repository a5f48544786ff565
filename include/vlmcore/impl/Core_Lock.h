/// \file
/// Spin locks and their guard. (Being written.)
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

/// Plain spin lock: one 32-bit word, bit 0 set while held. For very short critical sections.
class VLM_API CSpinLock {
public:
    void Acquire();
    void Release();

private:
    std::atomic<u32> m_word{0};
};

/// Spin lock that its owner may acquire again.
class VLM_API CRecursiveSpinLock {
public:
    void Acquire();
    void Release();

private:
    std::atomic<u32> m_count{0};
    std::atomic<u32> m_owner{~u32{0}};
};

/// Holds a lock for the length of a scope.
template <class Lock>
class TScopedLock {
public:
    explicit TScopedLock(Lock& lock) : m_lock(lock) { m_lock.Acquire(); }
    TScopedLock(TScopedLock const&) = delete;
    TScopedLock& operator=(TScopedLock const&) = delete;
    ~TScopedLock() { m_lock.Release(); }

private:
    Lock& m_lock;
};

} // namespace Velmor
