/// \file
/// How a thread of the library waits for something that another thread will do: busy at first, then yielding, at last
/// asleep for a millisecond at a time. A wait that ends soon costs nothing, one that does not end costs next to
/// nothing.
#pragma once

#include <vlmcore/types.h>

namespace Velmor {

/// One wait; make a new one, or Reset, for the next.
///
/// Rounds are counted, not timed: on a busy machine, where a yield gives a whole time slice away, yielding goes on for
/// longer, which costs nobody anything; on an idle one a yield takes a fraction of a microsecond.
class CBackoff {
public:
    /// Yields before the first sleep: for who waits for an event that may never come, and for who waits for work that
    /// is being done.
    static constexpr u32 FewYields = 256;
    static constexpr u32 ManyYields = 4096;

    explicit CBackoff(u32 yieldRounds = FewYields) : m_yieldRounds(yieldRounds) {}

    /// Passes time once: the more often it is called, the longer; a millisecond at most.
    void Wait();
    /// The same, but false, and no time passed, instead of sleeping.
    [[nodiscard]] bool TryWaitAwake();
    /// The next Wait is the first of a new wait.
    void Reset() { m_rounds = 0; }
    /// True when the next Wait sleeps.
    [[nodiscard]] bool IsSleeping() const { return m_rounds >= SpinRounds + m_yieldRounds; }
    /// True when nobody is left who could end the wait: the process is ending, and its other threads have been ended
    /// before. Never true of a wait that does not sleep yet.
    [[nodiscard]] bool IsInVain() const;

private:
    static constexpr u32 SpinRounds = 12;

    u32 m_rounds = 0;
    u32 m_yieldRounds;
};

} // namespace Velmor
