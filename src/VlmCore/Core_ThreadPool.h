/// \file
/// The threads of a CThreadPool.
#pragma once

#include "Core_Backoff.h"

#include <vlmcore/threads.h>

namespace Velmor {

/// Takes jobs from its pool's ring, one each pass, until it retires.
class CWorkerThread final : public IThread {
public:
    explicit CWorkerThread(CThreadPool& pool);

    /// From before a job is taken until nothing of it is left to do.
    [[nodiscard]] bool IsBusy() const { return m_busy.load(std::memory_order_acquire) != 0; }
    [[nodiscard]] bool IsStopped() const { return GetStopFlag(); }

    /// Starts the thread anew; alone (under the pool's lock).
    void Restart();
    /// Lets this pass be the last; on this thread, under the pool's lock.
    void Stop() { SetStopFlag(true); }

    /// Keeps a job of this thread's own for which the ring has no room. On this thread, within a job. Throws
    /// CBadAllocation.
    void PutBy(IThreadJob* job) { m_putBy.Append(job); }

private:
    friend struct SWorkerLayout;

    void Execute() override;

    [[nodiscard]] IThreadJob* TryTake();
    void WorkOff(IThreadJob* job);
    static void RunJob(IThreadJob* job) noexcept;
    void Rest();

    f64 m_lastActive; // milliseconds of System::GetTimeMs
    CThreadPool* m_pool;
    std::atomic<u8> m_busy{0};
    bool m_worked = false; // since the last rest
    CBackoff m_backoff;
    TVector<IThreadJob*, 1> m_putBy;
};

} // namespace Velmor
