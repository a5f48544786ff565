/// \file
/// How a thread of the library waits for something that another thread will do: busy at first, then yielding, at last
/// asleep for a millisecond at a time. A wait that ends soon costs nothing, one that does not end costs next to
/// nothing.
#pragma once

#include <vlmcore/types.h>

namespace Velmor {

/// One wait; make a new one, or Reset, for the next.
class CBackoff {
public:
    /// Passes time once: the more often it is called, the longer.
    void Wait();
    /// The next Wait is the first of a new wait.
    void Reset() { m_rounds = 0; }
    /// True once Wait sleeps.
    [[nodiscard]] bool IsSleeping() const { return m_rounds >= SpinRounds + YieldRounds; }

private:
    static constexpr u32 SpinRounds = 64;
    static constexpr u32 YieldRounds = 256;

    u32 m_rounds = 0;
};

} // namespace Velmor
