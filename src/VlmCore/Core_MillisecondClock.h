/// \file
/// The time in whole milliseconds, for who asks millions of times a second.
#pragma once

#include <vlmcore/types.h>

#include <algorithm>

namespace Velmor {

/// Gives exactly what the system's clock would, cut to whole milliseconds, but asks the system once or twice in a
/// millisecond: in between the processor's counter tells that the millisecond is not over. How fast that counter runs
/// is learnt on the way, and rather underestimated, so that the system is asked too early and not too late. A counter
/// that starts over, or a system clock that stood still meanwhile, is believed for a millisecond of asking at most: the
/// time may be an old one then, never an earlier one than before.
///
/// One thread at a time.
class CMillisecondClock {
public:
    /// \param isSteady  whether the counter keeps its pace; otherwise the system is asked each time.
    explicit CMillisecondClock(bool isSteady) : m_isSteady(isSteady) {}

    /// \param getTicks  gives the processor's counter.
    /// \param getTime   gives the system's time in milliseconds.
    template <class GetTicks, class GetTime>
    [[nodiscard]] u64 GetWhole(GetTicks const& getTicks, GetTime const& getTime)
    {
        u64 const ticks = getTicks();
        if (ticks - m_start >= m_length) [[unlikely]] { // also when the counter went back: the difference wraps
            f64 const now = getTime();
            Set(ticks, now, getTicks());
        }
        return m_time;
    }

private:
    static constexpr f64 SlowestPace = 65536;  ///< ticks in a millisecond; what counters have is twenty times that
    static constexpr f64 LearningTime = 2;     ///< milliseconds between two looks at the pace, at least
    static constexpr f64 Trust = 1 - 1.0 / 64; ///< the system's clock may be told to run a little faster for a while

    /// \param before,after  the counter around the moment at which the system was asked, which lie apart when the
    ///                      thread was put aside in between.
    void Set(u64 before, f64 now, u64 after)
    {
        m_time = static_cast<u64>(now);
        if (!m_isSteady)
            return;
        if (now - m_learntAt >= LearningTime) {
            // A pace that is too high by a fault lasts until the next look; not more than twice the last one, it
            // makes a millisecond last two.
            f64 const pace = static_cast<f64>(before > m_learntTicks ? before - m_learntTicks : 0) / (now - m_learntAt);
            m_pace = std::max(SlowestPace, std::min(pace, 2 * m_pace));
            m_learntAt = now;
            m_learntTicks = after;
        }
        m_start = before;
        m_length = static_cast<u64>((static_cast<f64>(m_time + 1) - now) * m_pace * Trust);
    }

    u64 m_start = 0;  ///< the counter since which m_time is the time
    u64 m_length = 0; ///< how far the counter may go from there
    u64 m_time = 0;
    f64 m_pace = SlowestPace; ///< ticks in a millisecond
    f64 m_learntAt = 0;
    u64 m_learntTicks = 0;
    bool m_isSteady;
};

} // namespace Velmor
