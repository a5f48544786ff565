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

    /// What a worker is at. It reaches out from before it takes a job until it has it, or finds that it was late.
    enum class EState : u8 { Idle, Reaching, Working };

    [[nodiscard]] EState GetState() const { return static_cast<EState>(m_busy.load(std::memory_order_acquire)); }
    /// From before a job is taken until nothing of it is left to do.
    [[nodiscard]] bool IsBusy() const { return GetState() != EState::Idle; }
    [[nodiscard]] bool IsStopped() const { return GetStopFlag(); }

    /// Starts the thread anew; alone (under the pool's lock).
    void Restart();
    /// In a copy of the process, for a worker whose thread was left in the original: it is stopped.
    void StartOver();
    /// Lets the present pass be the last, also of a worker that sleeps; under the pool's lock.
    void Stop();

    [[nodiscard]] bool IsAsleep() const { return m_asleep.load(std::memory_order_relaxed) != 0; }
    /// Ends the worker's sleep; nothing when it is awake.
    void Wake();

    /// Keeps a job of this thread's own for which the ring has no room. On this thread, within a job. Throws
    /// CBadAllocation.
    void PutBy(IThreadJob* job) { m_putBy.Append(job); }

private:
    friend struct SWorkerLayout;

    void Execute() override;

    void SetState(EState state) { m_busy.store(static_cast<u8>(state), std::memory_order_release); }
    [[nodiscard]] IThreadJob* TryTake();
    void WorkOff(IThreadJob* job);
    static void RunJob(IThreadJob* job) noexcept;
    void Rest();
    void Sleep();

    static constexpr u32 LongestSleep = 256; // milliseconds

    f64 m_lastActive; // milliseconds of System::GetTimeMs
    CThreadPool* m_pool;
    std::atomic<u8> m_busy{0}; // EState
    bool m_worked = false;     // since the last rest
    std::atomic<u32> m_asleep{0};
    u32 m_nextSleep = 1; // milliseconds
    CBackoff m_backoff;
    TVector<IThreadJob*, 1> m_putBy;
};

} // namespace Velmor
