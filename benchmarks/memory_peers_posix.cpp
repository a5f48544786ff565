#include "memory_peers.h"

#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#if defined(VLMCORE_HAVE_JEMALLOC)
// The static library with its malloc family renamed, so that it does not replace the C runtime's.
extern "C" void* peer_jemalloc_malloc(std::size_t size);
extern "C" void peer_jemalloc_free(void* block);
#endif

namespace MemoryBench {

using Velmor::u64;

std::vector<SAllocator> FindPeers()
{
    std::vector<SAllocator> peers;
    peers.push_back({"glibc", [](u64 size) { return std::malloc(size); }, [](void* block) { std::free(block); },
                     [] { malloc_trim(0); }, false});
#if defined(VLMCORE_HAVE_JEMALLOC)
    peers.push_back({"jemalloc", [](u64 size) { return peer_jemalloc_malloc(size); },
                     [](void* block) { peer_jemalloc_free(block); }, [] {}, false});
#endif
    // Linked, it would replace the C runtime's malloc; loaded, it only offers its own names.
    for (char const* const name : {"libmimalloc.so", "libmimalloc.so.2", "libmimalloc.so.2.0"})
        if (void* const library = dlopen(name, RTLD_NOW | RTLD_LOCAL)) {
            static void* (*allocate)(std::size_t) =
                reinterpret_cast<void* (*)(std::size_t)>(dlsym(library, "mi_malloc"));
            static void (*release)(void*) = reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"));
            static void (*collect)(bool) = reinterpret_cast<void (*)(bool)>(dlsym(library, "mi_collect"));
            if (allocate != nullptr && release != nullptr && collect != nullptr)
                peers.push_back({"mimalloc", [](u64 size) { return allocate(size); },
                                 [](void* block) { release(block); }, [] { collect(true); }, false});
            break;
        }
    return peers;
}

u64 GetResidentBytes()
{
    unsigned long pages = 0;
    unsigned long resident = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%lu %lu", &pages, &resident) != 2)
            resident = 0;
        static_cast<void>(std::fclose(file));
    }
    return resident * static_cast<u64>(sysconf(_SC_PAGESIZE));
}

} // namespace MemoryBench
