/// \file
/// When a writer thread takes over a buffer that others fill.
#pragma once

#include "Core_Backoff.h"

#include <vlmcore/types.h>

namespace Velmor {

/// Taking over at every entry would have the producers meet the writer each time. So a part-filled buffer is given the
/// time of one idle wait to fill up to the half: some microseconds while there is work, a millisecond at most.
class CDrainPolicy {
public:
    /// True: take the buffer over now. False: some time has passed; look and ask again.
    [[nodiscard]] bool IsDue(u64 used, u64 capacity)
    {
        if (used > capacity / 2 || (used > 0 && m_idle.IsSleeping())) {
            m_idle.Reset();
            return true;
        }
        m_idle.Wait();
        return false;
    }

private:
    CBackoff m_idle;
};

} // namespace Velmor
