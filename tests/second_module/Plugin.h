// What the plugin offers its host: a table of functions behind one exported name.
#pragma once

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
};

using GetPluginFunction = SPlugin const* (*)();
inline constexpr char GetPluginName[] = "GetMemoryPlugin";

} // namespace PluginTest
