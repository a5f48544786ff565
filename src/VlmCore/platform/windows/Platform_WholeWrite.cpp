#include "../Platform_WholeWrite.h"

namespace Velmor::Platform {

// What can be cut

bool CanKillCutWrite(u64, u64)
{
    return false;
}

// Whole writes

u32 WriteFileWhole(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    return WriteFileHandle(handle, buffer, size, done);
}

} // namespace Velmor::Platform
