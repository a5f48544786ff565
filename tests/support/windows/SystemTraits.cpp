#include "../SystemTraits.h"

#include <windows.h>

namespace TestSupport {

namespace {

bool IsWine()
{
    return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = false,
    .questionNeedsTerminal = false,
    .killMayCutWrites = IsWine(),
    .privilegedInstructionException = "Operation not allowed in current machine mode",
    .writesMinidumps = true,
    .reportsStackOverflow = !IsWine(),
    .debuggedProcessMayThrow = !IsWine(),
    .endsThreadsBeforeModules = true,
    .accessViolationExitCode = 0xC0000005,
};

int GetLowestThreadPriority()
{
    return -15;
}

} // namespace TestSupport
