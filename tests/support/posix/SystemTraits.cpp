#include "../SystemTraits.h"

#include <sys/resource.h>
#include <unistd.h>

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = true,
    .questionNeedsTerminal = true,
    .killMayCutWrites = false,
    .privilegedInstructionException = "Access violation",
    .writesMinidumps = false,
    .reportsStackOverflow = true,
    .debuggedProcessMayThrow = true,
    .endsThreadsBeforeModules = false,
    .accessViolationExitCode = 128 + 11,
};

int GetLowestThreadPriority()
{
    constexpr int HighestNice = 19;
    constexpr int NicePerPriority = 5;
    return (::getpriority(PRIO_PROCESS, static_cast<id_t>(::getpid())) - HighestNice) / NicePerPriority;
}

} // namespace TestSupport
