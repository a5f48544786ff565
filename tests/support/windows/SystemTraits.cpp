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
};

} // namespace TestSupport
