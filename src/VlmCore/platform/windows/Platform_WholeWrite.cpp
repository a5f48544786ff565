#include "../Platform_WholeWrite.h"

namespace Velmor::Platform {

// What can be cut

u64 GetWholeWriteEnd(u64 position)
{
    // The kernel does not cut. Another system that stands in for it may, between two pages, and staying in a page costs
    // next to nothing.
    constexpr u64 PageSize = 4096;
    return (position / PageSize + 1) * PageSize;
}

bool NeedsWholeWrite(u64, u64)
{
    return false;
}

// Whole writes

u32 WriteFileWhole(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    return WriteFileHandle(handle, buffer, size, done);
}

} // namespace Velmor::Platform
