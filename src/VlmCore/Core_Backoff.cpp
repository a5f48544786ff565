#include "Core_Backoff.h"

#include "platform/Platform_Thread.h"

#include <vlmcore/threads.h>

namespace Velmor {

bool CBackoff::TryWaitAwake()
{
    if (m_rounds < SpinRounds) {
        // Ever longer: looking at a word that others write to slows them down.
        for (u32 pause = 0; pause < (u32{1} << m_rounds / 2); ++pause) {
            Thread::Spin();
            Platform::RelaxProcessor();
        }
        ++m_rounds;
    }
    else if (m_rounds < SpinRounds + m_yieldRounds) {
        ++m_rounds;
        Thread::Reschedule();
    }
    else
        return false;
    return true;
}

void CBackoff::Wait()
{
    // Not alertable: foreign code must not run in the middle of a wait for a lock.
    if (!TryWaitAwake())
        Platform::SleepThread(1, Platform::ESleep::Deaf);
}

bool CBackoff::IsInVain() const
{
    return IsSleeping() && Platform::HasEndedOtherThreads();
}

} // namespace Velmor
