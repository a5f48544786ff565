#include "Core_Backoff.h"

#include "platform/Platform_Thread.h"

#include <vlmcore/threads.h>

namespace Velmor {

void CBackoff::Wait()
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
        Platform::SleepThread(1, Platform::ESleep::Deaf);
}

} // namespace Velmor
