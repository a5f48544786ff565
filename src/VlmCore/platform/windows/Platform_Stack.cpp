#include "../Platform_Stack.h"

#include <windows.h>

namespace Velmor::Platform {

u32 CaptureStack(void** addresses, u32* hash)
{
    ULONG sum = 0;
    u32 const captured = ::RtlCaptureStackBackTrace(1, MaxStackFrames, addresses, &sum); // 1: without this function
    if (hash != nullptr)
        *hash = sum;
    u32 count = 0; // the walk may run past the start of the thread; a null address then shows it
    while (count < captured && addresses[count] != nullptr)
        ++count;
    return count;
}

} // namespace Velmor::Platform
