// What the plugin offers its host: the table of functions behind its entry.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

namespace PluginTest {

struct SPlugin {
    void (*adopt)(void* hooks);
    bool (*isInitialized)();
    void* (*allocate)(Velmor::u64 size, Velmor::u32 kind);
    void* (*resize)(void* block, Velmor::u64 size);
    void (*release)(void* block);
    Velmor::u64 (*getSize)(void* block);
    Velmor::u32 (*getHeap)(void* block);
    Velmor::u64 (*getLivePoolBlocks)();
    void (*churn)(Velmor::u64 seed, Velmor::u64 count);
    bool (*throwsWithoutHeap)();
    char const* (*getRefusal)(void* hooks); ///< adopts the heap; null, or the text of the exception
};

/// As this module sees them.
inline Velmor::u64 GetLivePoolBlocks()
{
    Velmor::Memory::SStatistics statistics{};
    Velmor::Memory::GetStatistics(statistics);
    Velmor::u64 count = 0;
    for (auto const& pool : statistics.pools)
        count += pool.liveCount;
    return count;
}

} // namespace PluginTest
