#include "Core_Backoff.h"

#include "platform/Platform_Thread.h"

#include <vlmcore/threads.h>

namespace Velmor {

bool CBackoff::TryWaitAwake()
{
    if (m_rounds < SpinRounds) {
        ++m_rounds;
        Thread::Spin();
        Platform::RelaxProcessor();
    }
    else if (m_rounds < SpinRounds + YieldRounds) {
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

} // namespace Velmor
