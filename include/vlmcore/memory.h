/// \file
/// The memory manager: every allocation of the library, and those of its hosts that want pooled heaps, exact
/// statistics and leak reports.
///
/// Start with Memory::Initialize before anything else of the library is used, end with Memory::Deinitialize
/// (also run at process exit). Without a heap every other function here throws std::bad_alloc.
///
/// Errors: "no heap" throws CBadAllocation; an exceeded budget or an exhausted system gives null from Malloc and
/// Realloc. Threads: everything but Initialize, InitFromExternal, InitializeLog, ReleaseLog and Deinitialize may
/// be called from any thread at any time.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/types.h>

#include <new>
#include <utility>

namespace Velmor {

class IMemoryLogger;

/// Heap kinds. Only the low three bits of a value count: 9 is served as 1; 5 to 7 are served as General.
namespace EHeap {
enum Type : u32 {
    General = 0, ///< straight from the malloc hook
    Pool = 1,    ///< block allocator, no alignment of its own
    Pool4 = 2,   ///< block allocator, blocks aligned to 4 bytes
    Pool8 = 3,   ///< block allocator, blocks aligned to 8 bytes
    Pool16 = 4,  ///< block allocator, blocks aligned to 16 bytes
};
} // namespace EHeap

/// Flags of Memory::Initialize; combine with `|`.
namespace EHeapFlag {
enum Type : u8 {
    Report = 1,      ///< print a line at start, statistics and leaks at shutdown (debugger output)
    Passthrough = 2, ///< no block allocators: the hooks serve every kind
};
} // namespace EHeapFlag

/// Out of memory, or no heap. `what()` is "bad allocation".
class VLM_API CBadAllocation : public std::bad_alloc {
public:
    CBadAllocation() noexcept = default;
    CBadAllocation(CBadAllocation const&) noexcept = default;
    CBadAllocation& operator=(CBadAllocation const&) noexcept = default;
    ~CBadAllocation() override;
    [[nodiscard]] char const* what() const noexcept override;
};

/// Thrown by Memory::InitFromExternal: the other module's heap was made by another build of the library, whose blocks
/// and records lie otherwise.
class VLM_API CForeignHeap : public CBadAllocation {
public:
    CForeignHeap() noexcept = default;
    CForeignHeap(CForeignHeap const&) noexcept = default;
    CForeignHeap& operator=(CForeignHeap const&) noexcept = default;
    ~CForeignHeap() override;
    [[nodiscard]] char const* what() const noexcept override;
};

namespace Memory {

/// Creates this module's heap on the C runtime's malloc, realloc and free. Does nothing when there is one.
/// \param flags   EHeapFlag values.
/// \param budget  most bytes that the heap may account for; 0 is no limit.
VLM_API void Initialize(unsigned char flags, u64 budget);

/// The same on the caller's functions; a null function is replaced by the C runtime's.
VLM_API void Initialize(void* (*mallocHook)(u64), void* (*reallocHook)(void*, u64), void (*freeHook)(void*),
                        unsigned char flags, u64 budget);

/// Adopts the heap of another module, as its GetExternalHooks returned it. A heap this module already has is kept.
/// Throws CForeignHeap, and adopts nothing, when that heap is of another build of the library.
VLM_API void InitFromExternal(void* hooks);

/// This module's heap in the form that InitFromExternal of another module takes. Valid as long as this module.
[[nodiscard]] VLM_API void* GetExternalHooks();

/// True when the heap and, unless in passthrough mode, its four block allocators exist. Never throws.
[[nodiscard]] VLM_API bool IsInitialized();

/// Allocates `size` bytes; null for size 0, for an exceeded budget and for an exhausted system.
[[nodiscard]] VLM_API void* Malloc(u64 size, EHeap::Type heap);

/// Resizes a block; the block keeps the kind it was allocated with. Null block: Malloc. Size 0: Free, null.
/// Null for a block that this heap does not know, and when the new size cannot be had; the old block then stays
/// allocated but is no longer known to Free, GetSize and GetHeap (kept: hosts depend on it).
[[nodiscard]] VLM_API void* Realloc(void* block, u64 size, EHeap::Type heap);

/// Releases a block. Null and unknown pointers are ignored.
VLM_API void Free(void* block);

/// Free for destructors: does nothing when the heap is already gone (statics of a host outlive it at exit).
VLM_API void FreeQuietly(void* block) noexcept;

/// Bytes asked for when the block was allocated or last resized; 0 for an unknown pointer.
[[nodiscard]] VLM_API u64 GetSize(void const* block);

/// Kind of the block; General for an unknown pointer.
[[nodiscard]] VLM_API EHeap::Type GetHeap(void* block);

/// Gives wholly free pool chunks back to the system, the four allocators in parallel if threads can be started.
VLM_API void Purge();

/// Uninstalls the memory logger, reports, and tears the heap down. Registered with atexit by Initialize.
VLM_API void Deinitialize();

/// Installs the process-wide memory logger; not owned. Must not race with allocation.
VLM_API void InitializeLog(IMemoryLogger* logger);

/// Uninstalls the memory logger and hands it back to the caller; null when there is none.
VLM_API IMemoryLogger* ReleaseLog();

/// Report an event to the memory logger, if one is installed.
VLM_API void LogAllocate(void* block, u64 size);
VLM_API void LogFree(void* block);
VLM_API void LogRetain(void const* counter);
VLM_API void LogRelease(void const* counter);

/// Counters of one heap; see GetStatistics.
struct SStatistics {
    /// One size class.
    struct SClass {
        u64 blockSize;      ///< bytes per block
        u64 blocksPerChunk; ///< blocks carved from one chunk
        u64 chunkCount;     ///< chunks held now
    };
    /// One block allocator.
    struct SPool {
        u64 alignment;       ///< 0, 4, 8 or 16 bytes
        u64 allocationCount; ///< allocations since creation, small and large
        u64 liveCount;       ///< allocations not yet released
        u64 classCount;      ///< entries of `classes` in use
        SClass classes[8];
    };
    u64 allocationCount; ///< allocations and reallocations through the hooks since start
    u64 liveCount;       ///< blocks taken from the malloc hook and not yet given back
    u64 bytesInUse;      ///< bytes accounted for, the heap's own included
    u64 budget;          ///< all ones when there is no limit
    SPool pools[4];      ///< kinds 1 to 4; all zero in passthrough mode
};

/// Fills `statistics`; false, and nothing written, without a heap. Counters may drift while other threads allocate.
VLM_API bool GetStatistics(SStatistics& statistics);

/// Allocates and constructs a T; throws CBadAllocation, or what the constructor throws after giving the memory back.
/// Destroy with Memory::Delete.
template <class T, class... Arguments>
[[nodiscard]] T* New(EHeap::Type heap, Arguments&&... arguments)
{
    void* const memory = Malloc(sizeof(T), heap);
    if (memory == nullptr)
        throw CBadAllocation();
    try {
        return ::new (memory) T(std::forward<Arguments>(arguments)...);
    }
    catch (...) {
        FreeQuietly(memory);
        throw;
    }
}

/// Destroys an object of Memory::New and gives its memory back; nothing for null.
template <class T>
void Delete(T* object)
{
    if (object != nullptr) {
        void* const memory = const_cast<void*>(static_cast<void const volatile*>(object));
        object->~T();
        FreeQuietly(memory);
    }
}

} // namespace Memory
} // namespace Velmor
