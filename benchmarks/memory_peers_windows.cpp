#include "memory_peers.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// After windows.h
#include <psapi.h>

#include <cstdlib>

namespace MemoryBench {

using Velmor::u64;

std::vector<SAllocator> FindPeers()
{
    return {{"malloc", [](u64 size) { return std::malloc(size); }, [](void* block) { std::free(block); }, [] {}, true},
            {"HeapAlloc", [](u64 size) -> void* { return HeapAlloc(GetProcessHeap(), 0, size); },
             [](void* block) { HeapFree(GetProcessHeap(), 0, block); }, [] {}, true}};
}

u64 GetResidentBytes()
{
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    return K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) != 0 ? counters.WorkingSetSize : 0;
}

} // namespace MemoryBench
