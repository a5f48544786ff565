// Help against stray writes to pool blocks. Nothing here exists in an ordinary build.
//
// VLMCORE_MEMORY_DEBUG fills and checks the bytes of pool blocks:
//
//     in use   |CD CD ... (as handed out)      |FD FD ...|   the bytes behind the requested size are the guard
//     free     |next block|DD DD DD ...                  |   checked when the block is handed out again
//
// Under the address sanitizer, free blocks and the bytes behind the requested size are poisoned, so that the first
// stray access is reported where it happens.
//
// All modules that share one heap have to be built with the same choice.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

#if defined(__has_feature)
#  if __has_feature(address_sanitizer)
#    define VLM_ADDRESS_SANITIZER 1
#  endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#  define VLM_ADDRESS_SANITIZER 1
#endif

#if defined(VLM_ADDRESS_SANITIZER)
extern "C" void __asan_poison_memory_region(void const volatile* address, std::size_t size);
extern "C" void __asan_unpoison_memory_region(void const volatile* address, std::size_t size);
extern "C" void __lsan_ignore_object(void const* block);
#  define VLM_UNCHECKED_ACCESS __attribute__((no_sanitize_address))
#else
#  define VLM_UNCHECKED_ACCESS
#endif

namespace Velmor {

// Blocks of EHeap::Pool4 lie at multiples of 4 only: the link is read and written without regard to alignment.
#pragma pack(push, 1)
/// What a free block holds.
struct SFreeBlock {
    SFreeBlock* next;
};
#pragma pack(pop)
static_assert(sizeof(SFreeBlock) == 8 && alignof(SFreeBlock) == 1);

namespace MemoryDebug {

#if defined(VLM_ADDRESS_SANITIZER)
inline constexpr bool IsPoisoning = true;

// The sanitizer keeps one byte of notes for 8 of memory. Blocks of EHeap::Pool4 begin in the middle of such 8: the note
// that two neighbours share is left alone, else two threads would change it at once.
inline constexpr u64 NoteSize = 8;

inline u8 const* SkipSharedNote(void const* block)
{
    u64 const distance = (NoteSize - reinterpret_cast<u64>(block) % NoteSize) % NoteSize;
    return static_cast<u8 const*>(block) + distance;
}

/// Forbids a whole block.
inline void Poison(void const* block, u64 blockSize)
{
    u8 const* const start = SkipSharedNote(block);
    u8 const* const end = static_cast<u8 const*>(block) + blockSize;
    u64 const tail = reinterpret_cast<u64>(end) % NoteSize;
    if (end - tail > start)
        __asan_poison_memory_region(start, static_cast<u64>(end - tail - start));
}
/// Allows the first `size` bytes of a block.
inline void Unpoison(void const* block, u64 size)
{
    u8 const* const start = SkipSharedNote(block);
    u8 const* const end = static_cast<u8 const*>(block) + size;
    if (end > start)
        __asan_unpoison_memory_region(start, static_cast<u64>(end - start));
}
/// This block is never freed on purpose.
inline void IgnoreLeak(void const* block)
{
    __lsan_ignore_object(block);
}
#else
inline constexpr bool IsPoisoning = false;

inline void IgnoreLeak(void const*) {}
inline void Poison(void const*, u64) {}
inline void Unpoison(void const*, u64) {}
#endif

/// The link of a free block, poisoned or not.
VLM_UNCHECKED_ACCESS inline SFreeBlock* ReadNext(SFreeBlock const* block)
{
    return block->next;
}
VLM_UNCHECKED_ACCESS inline void WriteNext(SFreeBlock* block, SFreeBlock* next)
{
    block->next = next;
}

#if defined(VLMCORE_MEMORY_DEBUG)

inline constexpr bool IsFilling = true;
inline constexpr u8 FreshByte = 0xCD;
inline constexpr u8 FreeByte = 0xDD;
inline constexpr u8 GuardByte = 0xFD;

/// Reports what was found at the block and ends the program: its memory can no longer be trusted.
[[noreturn]] void ReportDamage(char const* what, void const* block, u64 blockSize);

void CheckBytes(u8 const* bytes, u64 count, u8 expected, char const* what, void const* block, u64 blockSize);

/// A block joins the free list: `blockSize` bytes, the link included, are filled.
inline void FillFree(void* block, u64 blockSize)
{
    std::memset(block, FreeByte, blockSize);
}

/// A block leaves the free list for a request of `size` bytes.
inline void HandOut(void* block, u64 size, u64 blockSize)
{
    u8* const bytes = static_cast<u8*>(block);
    CheckBytes(bytes + sizeof(SFreeBlock), blockSize - sizeof(SFreeBlock), FreeByte, "written to after it was freed",
               block, blockSize);
    std::memset(bytes, FreshByte, size);
    std::memset(bytes + size, GuardByte, blockSize - size);
}

/// A block of `size` bytes is freed.
inline void CheckGuard(void* block, u64 size, u64 blockSize)
{
    CheckBytes(static_cast<u8*>(block) + size, blockSize - size, GuardByte, "written to behind its end", block,
               blockSize);
}

/// A block changes its size where it is.
inline void ResizeGuard(void* block, u64 oldSize, u64 newSize, u64 blockSize)
{
    CheckGuard(block, oldSize, blockSize);
    u8* const bytes = static_cast<u8*>(block);
    if (newSize > oldSize)
        std::memset(bytes + oldSize, FreshByte, newSize - oldSize);
    std::memset(bytes + newSize, GuardByte, blockSize - newSize);
}

#else

inline constexpr bool IsFilling = false;

inline void FillFree(void*, u64) {}
inline void HandOut(void*, u64, u64) {}
inline void CheckGuard(void*, u64, u64) {}
inline void ResizeGuard(void*, u64, u64, u64) {}

#endif

} // namespace MemoryDebug
} // namespace Velmor
