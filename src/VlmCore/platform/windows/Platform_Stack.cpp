#include "../Platform_Stack.h"

#include <windows.h>

namespace Velmor::Platform {

u32 CaptureStack(void** addresses, u32* hash)
{
    ULONG sum = 0;
    u32 const count = ::RtlCaptureStackBackTrace(1, MaxStackFrames, addresses, &sum); // 1: not this function
    if (hash != nullptr)
        *hash = sum;
    return count;
}

} // namespace Velmor::Platform
