// The allocators that the memory benchmark runs side by side, and what the system knows about this process.
#pragma once

#include <vlmcore/types.h>

#include <vector>

namespace MemoryBench {

struct SAllocator {
    char const* name;
    void* (*allocate)(Velmor::u64 size);
    void (*release)(void* block);
    void (*settle)();   ///< gives memory that is free back to the system, as far as the allocator can
    bool isSlowAtScale; ///< takes minutes with 100,000 live blocks
};

/// The allocators of this platform that are there; the C runtime's first.
std::vector<SAllocator> FindPeers();

/// Bytes of memory that the process occupies now.
Velmor::u64 GetResidentBytes();

} // namespace MemoryBench
