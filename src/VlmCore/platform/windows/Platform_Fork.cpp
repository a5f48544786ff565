#include "../Platform_Fork.h"

#include "../Platform_Thread.h"

namespace Velmor::Platform {

// Copies

u32 AskThreadId()
{
    return GetThreadId();
}

u32 GetForkDepth()
{
    return 0;
}

bool IsOnPassingStack(void const*)
{
    return false; // nobody asks for anything but copies
}

void WatchForks(SForkWatch const&) {}

} // namespace Velmor::Platform
