#include "../SystemTraits.h"

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = true,
    .questionNeedsTerminal = true,
    .killMayCutWrites = false,
    .privilegedInstructionException = "Access violation",
    .writesMinidumps = false,
    .reportsStackOverflow = true,
    .debuggedProcessMayThrow = true,
    .accessViolationExitCode = 128 + 11,
};

} // namespace TestSupport
