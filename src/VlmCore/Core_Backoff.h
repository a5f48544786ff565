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
/// longer, which costs nobody anything; on an idle one it ends after a millisecond or so.
class CBackoff {
public:
    /// Passes time once: the more often it is called, the longer; a millisecond at most.
    void Wait();
    /// The same, but false, and no time passed, instead of sleeping.
    [[nodiscard]] bool TryWaitAwake();
    /// The next Wait is the first of a new wait.
    void Reset() { m_rounds = 0; }

private:
    static constexpr u32 SpinRounds = 64;
    static constexpr u32 YieldRounds = 2000;

    u32 m_rounds = 0;
};

} // namespace Velmor
