// Damage to pool blocks is found: by fill patterns in a build for it, by the address sanitizer at the access itself.
#include "../support/DebuggedProcess.h"
#include "Core_MemoryDebug.h"

#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace Velmor;

namespace {

u8* Allocate(u64 size)
{
    return static_cast<u8*>(Memory::Malloc(size, EHeap::Pool));
}

// Ends with what was found; the sanitizer, where there is one, stops at the access and names it in its own words.
void ExpectFound(char const* child, char const* report)
{
    auto const result = TestSupport::RunChild(child);
    EXPECT_TRUE(result.started);
    EXPECT_NE(result.exitCode, 0u);
#if defined(VLM_ADDRESS_SANITIZER)
    static_cast<void>(report);
    EXPECT_NE(result.standardError.find("use-after-poison"), std::string::npos) << result.standardError;
#else
    EXPECT_NE(result.standardError.find(report), std::string::npos) << result.standardError;
#endif
}

} // namespace

VLMCORE_CHILD(UndamagedBlocks)
{
    Memory::Initialize(0, 0);
    u8* const block = Allocate(20);
    for (u64 index = 0; index < 20; ++index)
        if (block[index] != 0xCD)
            return 1;
    std::memset(block, 1, 20);
    u8* const same = static_cast<u8*>(Memory::Realloc(block, 32, EHeap::Pool));
    if (same != block || same[19] != 1 || same[20] != 0xCD)
        return 2;
    std::memset(block, 2, 32);
    if (Memory::Realloc(block, 17, EHeap::Pool) != block)
        return 3;
    Memory::Free(block);
    for (u64 size = 1; size < 3000; ++size) {
        void* const other = Allocate(size);
        std::memset(other, 3, size);
        Memory::Free(other);
    }
    Memory::Purge();
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryDebug, LeavesUndamagedBlocksAlone)
{
    auto const result = TestSupport::RunChild("UndamagedBlocks");
    EXPECT_EQ(result.exitCode, 0u) << result.standardError;
}

VLMCORE_CHILD(WriteAfterFree)
{
    Memory::Initialize(0, 0);
    u8 volatile* const block = Allocate(64);
    Memory::Free(const_cast<u8*>(block));
    block[40] = 1;
    static_cast<void>(Allocate(64));
    return 0;
}

TEST(MemoryDebug, FindsAWriteToAFreeBlock)
{
    ExpectFound("WriteAfterFree", "of 64 bytes was written to after it was freed.");
}

VLMCORE_CHILD(WriteBehindTheEnd)
{
    Memory::Initialize(0, 0);
    u8 volatile* const block = Allocate(50);
    block[50] = 1;
    Memory::Free(const_cast<u8*>(block));
    return 0;
}

TEST(MemoryDebug, FindsAWriteBehindTheEnd)
{
    ExpectFound("WriteBehindTheEnd", "of 64 bytes was written to behind its end.");
}

VLMCORE_CHILD(WriteBehindTheEndBeforeAResize)
{
    Memory::Initialize(0, 0);
    u8 volatile* const block = Allocate(50);
    block[63] = 1;
    static_cast<void>(Memory::Realloc(const_cast<u8*>(block), 60, EHeap::Pool));
    return 0;
}

TEST(MemoryDebug, FindsAWriteBehindTheEndAtAResize)
{
    ExpectFound("WriteBehindTheEndBeforeAResize", "of 64 bytes was written to behind its end.");
}

#if defined(VLM_ADDRESS_SANITIZER)
VLMCORE_CHILD(ReadAfterFree)
{
    Memory::Initialize(0, 0);
    u8 volatile* const block = Allocate(64);
    Memory::Free(const_cast<u8*>(block));
    return block[0];
}

TEST(MemoryDebug, TheSanitizerFindsAReadOfAFreeBlock)
{
    ExpectFound("ReadAfterFree", "");
}
#endif
