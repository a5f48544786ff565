#include "../Platform_Memory.h"

#include <cstdlib>

namespace Velmor::Platform {

// ---- The C runtime's heap ----

void* AllocateMemory(u64 size)
{
    return std::malloc(size);
}

void* ResizeMemory(void* block, u64 size)
{
    return std::realloc(block, size);
}

void FreeMemory(void* block)
{
    std::free(block);
}

// ---- Exit ----

void RunAtExit(void (*function)())
{
    static_cast<void>(std::atexit(function));
}

} // namespace Velmor::Platform
