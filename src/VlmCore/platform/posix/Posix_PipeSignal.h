/// \file
/// Writing to a pipe whose reader has gone: an error here, as on Windows, and not the end of the process.
#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>

namespace Velmor::Platform {

/// While it lives, such a write of the calling thread gives EPIPE and no signal, whatever the host does with SIGPIPE. A
/// signal that was on its way before stays so. For signal handlers, too.
class CNoPipeSignal {
public:
    CNoPipeSignal()
    {
        sigset_t pending;
        ::sigpending(&pending);
        m_wasPending = ::sigismember(&pending, SIGPIPE) == 1;
        ::sigemptyset(&m_pipe);
        ::sigaddset(&m_pipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
    }
    CNoPipeSignal(CNoPipeSignal const&) = delete;
    CNoPipeSignal& operator=(CNoPipeSignal const&) = delete;
    ~CNoPipeSignal()
    {
        constexpr timespec NoWait{};
        int const error = errno; // of the write
        if (!m_wasPending)
            ::sigtimedwait(&m_pipe, nullptr, &NoWait);
        ::pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
        errno = error;
    }

private:
    sigset_t m_pipe;
    sigset_t m_previous;
    bool m_wasPending;
};

} // namespace Velmor::Platform
