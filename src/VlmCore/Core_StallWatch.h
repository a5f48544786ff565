/// \file
/// Tells a thread that is at work from one that stands still.
#pragma once

#include <vlmcore/types.h>

#include <algorithm>

namespace Velmor {

/// Watches a counter that another thread moves on while it works. Looked at again and again, every few milliseconds at
/// most, by one waiting thread.
class CStallWatch {
public:
    /// How long the counter may stand still.
    static constexpr u64 PatienceMilliseconds = 5000;
    /// What one look adds to that at most. A process that was stopped, or a machine that slept, finds that much time
    /// gone between two looks, in which the other thread had no chance to work either.
    static constexpr u64 LongestStepMilliseconds = 50;

    /// \param progress  the counter now.
    /// \param now       time in milliseconds; may stand still or jump.
    /// \return true when the counter has stood still for too long.
    [[nodiscard]] bool HasStoodStill(u64 progress, u64 now)
    {
        if (!m_isWatching || progress != m_progress) {
            m_isWatching = true;
            m_progress = progress;
            m_stood = 0;
        }
        else if (now > m_last)
            m_stood += std::min(now - m_last, LongestStepMilliseconds);
        m_last = now;
        return m_stood >= PatienceMilliseconds;
    }

private:
    bool m_isWatching = false;
    u64 m_progress = 0;
    u64 m_last = 0;
    u64 m_stood = 0;
};

} // namespace Velmor
