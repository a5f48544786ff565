// What a heap says in the debugger output, word by word.
#include "support/CountingHooks.h"
#include "support/DebuggedProcess.h"

#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace Velmor;
using Velmor::Test::CCountingHooks;

namespace {

std::string GetOutput(char const* child)
{
    auto const result = TestSupport::RunDebugged(child);
    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 0u);
    return result.debuggerOutput;
}

std::vector<std::string> GetLines(std::string const& text)
{
    std::vector<std::string> lines;
    std::string line;
    for (char const unit : text)
        if (unit == '\n') {
            lines.push_back(line);
            line.clear();
        }
        else
            line += unit;
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

// The line of a class without a chunk: block size left-aligned in four places.
std::string GetEmptyClassLine(char const* blockSize)
{
    return std::string(blockSize) + " byte: 0 chunks (0 blocks) = 0 bytes";
}

} // namespace

VLMCORE_CHILD(QuietHeap)
{
    CCountingHooks::Initialize(0);
    static_cast<void>(Memory::Malloc(10, EHeap::Pool));
    static_cast<void>(Memory::Malloc(10, EHeap::General));
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryReports, AHeapWithoutTheReportFlagSaysNothing)
{
    EXPECT_EQ(GetOutput("QuietHeap"), "");
}

VLMCORE_CHILD(UnusedPassthroughHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Report | EHeapFlag::Passthrough);
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryReports, AnUnusedPassthroughHeap)
{
    EXPECT_EQ(GetOutput("UnusedPassthroughHeap"), "Heap initialized, using 14448 bytes\n"
                                                  "Counted a total of 0 global allocations.\n"
                                                  "No global memory leaks detected.\n\n");
}

VLMCORE_CHILD(UnusedNormalHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Report);
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryReports, AllocatorsWithoutAllocationsSayNothing)
{
    EXPECT_EQ(GetOutput("UnusedNormalHeap"), "Heap initialized, using 14448 bytes\n"
                                             "Counted a total of 4 global allocations.\n"
                                             "No global memory leaks detected.\n\n");
}

VLMCORE_CHILD(LeakyPassthroughHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Report | EHeapFlag::Passthrough);
    static_cast<void>(Memory::Malloc(1000, EHeap::General));
    static_cast<void>(Memory::Malloc(234, EHeap::Pool16));
    Memory::Free(Memory::Malloc(5, EHeap::Pool));
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryReports, LeaksOfAPassthroughHeap)
{
    EXPECT_EQ(GetOutput("LeakyPassthroughHeap"),
              "Heap initialized, using 14448 bytes\n"
              "Counted a total of 3 global allocations.\n"
              "\nWARNING: 2 global memory leak(s) with a total size of 1234 bytes detected.\n\n");
}

VLMCORE_CHILD(LeakyBusyHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Report | EHeapFlag::Passthrough);
    for (u64 index = 0; index < 3; ++index)
        std::thread([] {
            for (u64 round = 0; round < 5000; ++round)
                Memory::Free(Memory::Malloc(10, EHeap::General));
            static_cast<void>(Memory::Malloc(1000, EHeap::General));
            static_cast<void>(Memory::Malloc(234, EHeap::Pool16));
        }).join();
    Memory::Deinitialize();
    return 0;
}

// What threads counted that are gone is in it.
TEST(MemoryReports, LeaksOfAHeapThatWasUsedALot)
{
    EXPECT_EQ(GetOutput("LeakyBusyHeap"),
              "Heap initialized, using 14448 bytes\n"
              "Counted a total of 15006 global allocations.\n"
              "\nWARNING: 6 global memory leak(s) with a total size of 3702 bytes detected.\n\n");
}

VLMCORE_CHILD(PooledHeap)
{
    CCountingHooks::Initialize(EHeapFlag::Report);
    Memory::Free(Memory::Malloc(1024, EHeap::Pool16));
    static_cast<void>(Memory::Malloc(100, EHeap::Pool4));
    static_cast<void>(Memory::Malloc(2000, EHeap::Pool4));
    Memory::SStatistics statistics{};
    Memory::GetStatistics(statistics);
    // What only this machine knows, for the parent.
    std::printf("%u %u", static_cast<unsigned>(statistics.pools[1].classes[4].blocksPerChunk),
                static_cast<unsigned>(statistics.pools[3].classes[6].blocksPerChunk));
    Memory::Deinitialize();
    return 0;
}

TEST(MemoryReports, AllocatorsReportTheirClassesAndLeaks)
{
    auto const result = TestSupport::RunDebugged("PooledHeap");
    unsigned blocks128 = 0;
    unsigned blocks1024 = 0;
    ASSERT_EQ(std::sscanf(result.standardOutput.c_str(), "%u %u", &blocks128, &blocks1024), 2);
    std::vector<std::string> const expected = {
        "Heap initialized, using 14448 bytes",
        "Block allocator (4 byte align) statistics:",
        "This allocator counted a total of 2 allocations.",
        "",
        "WARNING: 2 block memory leak(s) detected.",
        "",
        GetEmptyClassLine("8   "),
        GetEmptyClassLine("16  "),
        GetEmptyClassLine("32  "),
        GetEmptyClassLine("64  "),
        "128  byte: 1 chunks (" + std::to_string(blocks128) + " blocks) = " + std::to_string(blocks128 * 128 + 4) +
            " bytes",
        GetEmptyClassLine("256 "),
        GetEmptyClassLine("512 "),
        GetEmptyClassLine("1024"),
        "Total of " + std::to_string(blocks128 * 128 + 4) + " bytes",
        "",
        "Block allocator (16 byte align) statistics:",
        "This allocator counted a total of 1 allocations.",
        "No leaks detected for this allocator.",
        "",
        GetEmptyClassLine("16  "),
        GetEmptyClassLine("32  "),
        GetEmptyClassLine("64  "),
        GetEmptyClassLine("128 "),
        GetEmptyClassLine("256 "),
        GetEmptyClassLine("512 "),
        "1024 byte: 1 chunks (" + std::to_string(blocks1024) + " blocks) = " + std::to_string(blocks1024 * 1024 + 16) +
            " bytes",
        "Total of " + std::to_string(blocks1024 * 1024 + 16) + " bytes",
        "",
        // Four allocators, two tables, two chunks, one large block.
        "Counted a total of 9 global allocations.",
        "",
        "WARNING: 1 global memory leak(s) with a total size of 2004 bytes detected.",
        "",
    };
    EXPECT_EQ(GetLines(result.debuggerOutput), expected);
}

VLMCORE_CHILD(HeapLeftToTheExit)
{
    CCountingHooks::Initialize(EHeapFlag::Report | EHeapFlag::Passthrough);
    CCountingHooks::Initialize(EHeapFlag::Report | EHeapFlag::Passthrough);
    return 0;
}

TEST(MemoryReports, TheExitOfTheProcessTakesTheHeapDownOnce)
{
    EXPECT_EQ(GetOutput("HeapLeftToTheExit"), "Heap initialized, using 14448 bytes\n"
                                              "Counted a total of 0 global allocations.\n"
                                              "No global memory leaks detected.\n\n");
}
