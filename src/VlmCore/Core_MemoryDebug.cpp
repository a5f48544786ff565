#include "Core_MemoryDebug.h"

#if defined(VLMCORE_MEMORY_DEBUG)

#  include <vlmcore/debug.h>

#  include <cstdio>
#  include <cstdlib>

namespace Velmor::MemoryDebug {

void ReportDamage(char const* what, void const* block, u64 blockSize)
{
    constexpr char Format[] = "Memory block %p of %u bytes was %s.\n";
    Debug::Print(Format, block, static_cast<u32>(blockSize), what);
    static_cast<void>(std::fprintf(stderr, Format, block, static_cast<u32>(blockSize), what));
    std::abort();
}

void CheckBytes(u8 const* bytes, u64 count, u8 expected, char const* what, void const* block, u64 blockSize)
{
    for (u64 index = 0; index < count; ++index)
        if (bytes[index] != expected)
            ReportDamage(what, block, blockSize);
}

} // namespace Velmor::MemoryDebug

#endif
