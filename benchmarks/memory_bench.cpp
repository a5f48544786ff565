// The memory manager beside the allocators a user would otherwise pick: pairs, random replacement, threads, memory use
// and purge. A program of its own, so that it also runs where Google Benchmark is not at hand; it prints the lines (and,
// with --benchmark_format=json, the document) that the tools read from the other benchmarks.
//
//     memory_bench [--benchmark_format=json] [--benchmark_filter=<part of a name>] [--quick]
#include "memory_peers.h"

#include <vlmcore/memory.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace Velmor;
using MemoryBench::SAllocator;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int Repetitions = 5;

bool isQuick = false;
bool isJson = false;
bool isFirstResult = true;
std::string filter;

double GetSeconds(Clock::time_point from)
{
    return std::chrono::duration<double>(Clock::now() - from).count();
}

class CRandom {
public:
    explicit CRandom(u64 seed) : m_state(seed * 0x9E3779B97F4A7C15u + 1) {}
    u64 Next()
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return m_state;
    }

private:
    u64 m_state;
};

// ---- Results ----

void Print(std::string const& name, std::vector<double> values, char const* unit)
{
    std::sort(values.begin(), values.end());
    double const median = values[values.size() / 2];
    double const spread = median > 0 ? (values.back() - values.front()) / median * 100 : 0;
    if (isJson)
        std::printf("%s    {\"name\": \"%s\", \"run_name\": \"%s\", \"run_type\": \"aggregate\", \"aggregate_name\": "
                    "\"median\", \"repetitions\": %zu, \"real_time\": %.3f, \"cpu_time\": %.3f, \"time_unit\": \"%s\", "
                    "\"spread_percent\": %.1f}",
                    isFirstResult ? "" : ",\n", name.c_str(), name.c_str(), values.size(), median, median, unit,
                    spread);
    else
        std::printf("%-46s %12.2f %-3s  spread %5.1f %%\n", name.c_str(), median, unit, spread);
    static_cast<void>(std::fflush(stdout));
    isFirstResult = false;
}

bool IsWanted(std::string const& name)
{
    return filter.empty() || name.find(filter) != std::string::npos;
}

// Runs each allocator in turn, repetition by repetition, so that a noisy machine disturbs all alike.
void Compare(std::string const& what, std::vector<SAllocator> const& allocators,
             std::function<double(SAllocator const&)> const& measure)
{
    if (!IsWanted("Memory/" + what + "/"))
        return;
    std::vector<std::vector<double>> values(allocators.size());
    for (int repetition = 0; repetition < Repetitions; ++repetition)
        for (u64 index = 0; index < allocators.size(); ++index)
            values[index].push_back(measure(allocators[index]));
    for (u64 index = 0; index < allocators.size(); ++index)
        Print("Memory/" + what + "/" + allocators[index].name, values[index], "ns");
}

// ---- Workloads: nanoseconds per pair of an allocation and a release ----

double MeasurePairs(SAllocator const& allocator, u64 size)
{
    u64 const count = isQuick ? 200000 : 3000000;
    auto const start = Clock::now();
    for (u64 index = 0; index < count; ++index) {
        void* const block = allocator.allocate(size);
        *static_cast<u8 volatile*>(block) = 1;
        allocator.release(block);
    }
    return GetSeconds(start) * 1e9 / static_cast<double>(count);
}

void ReplaceAtRandom(SAllocator const& allocator, std::vector<void*>& blocks, u64 count, u64 seed)
{
    CRandom random(seed);
    for (u64 index = 0; index < count; ++index) {
        u64 const number = random.Next();
        void*& block = blocks[(number >> 16) % blocks.size()];
        allocator.release(block);
        block = allocator.allocate(8 + (number & 0xFFFF) % 1017);
        *static_cast<u8 volatile*>(block) = 1;
    }
}

std::vector<void*> Fill(SAllocator const& allocator, u64 count, u64 seed)
{
    CRandom random(seed);
    std::vector<void*> blocks;
    for (u64 index = 0; index < count; ++index) {
        blocks.push_back(allocator.allocate(8 + random.Next() % 1017));
        *static_cast<u8 volatile*>(blocks.back()) = 1;
    }
    return blocks;
}

void Empty(SAllocator const& allocator, std::vector<void*> const& blocks)
{
    for (void* const block : blocks)
        allocator.release(block);
}

double MeasureReplacement(SAllocator const& allocator, u64 live)
{
    u64 const count = isQuick ? 100000 : 1000000;
    std::vector<void*> blocks = Fill(allocator, live, 1);
    ReplaceAtRandom(allocator, blocks, count / 4, 2);
    auto const start = Clock::now();
    ReplaceAtRandom(allocator, blocks, count, 3);
    double const seconds = GetSeconds(start);
    Empty(allocator, blocks);
    return seconds * 1e9 / static_cast<double>(count);
}

// Every thread replaces its own blocks; the time is that of one operation of the whole program.
double MeasureOwnBlocks(SAllocator const& allocator, u64 threadCount)
{
    u64 const count = isQuick ? 200000 : 2000000;
    std::atomic<u64> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (u64 thread = 0; thread < threadCount; ++thread)
        threads.emplace_back([&, thread] {
            std::vector<void*> blocks = Fill(allocator, 10000, 10 + thread);
            ++ready;
            while (!go)
                std::this_thread::yield();
            ReplaceAtRandom(allocator, blocks, count, 20 + thread);
            ++ready;
            while (go)
                std::this_thread::yield();
            Empty(allocator, blocks);
        });
    while (ready < threadCount)
        std::this_thread::yield();
    auto const start = Clock::now();
    go = true;
    while (ready < 2 * threadCount)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    double const seconds = GetSeconds(start);
    go = false;
    for (std::thread& thread : threads)
        thread.join();
    return seconds * 1e9 / static_cast<double>(count * threadCount);
}

// One thread allocates, the other frees, by batches of 1,024.
double MeasureForeignFrees(SAllocator const& allocator)
{
    constexpr u64 BatchSize = 1024;
    constexpr u64 Slots = 8;
    u64 const batches = isQuick ? 200 : 2000;
    std::vector<void*> slots[Slots];
    std::atomic<u64> written{0};
    std::atomic<u64> read{0};
    auto const start = Clock::now();
    std::thread consumer([&] {
        for (u64 batch = 0; batch < batches; ++batch) {
            while (written.load(std::memory_order_acquire) == batch)
                std::this_thread::yield();
            for (void* const block : slots[batch % Slots])
                allocator.release(block);
            read.store(batch + 1, std::memory_order_release);
        }
    });
    CRandom random(5);
    for (u64 batch = 0; batch < batches; ++batch) {
        while (batch - read.load(std::memory_order_acquire) >= Slots)
            std::this_thread::yield();
        std::vector<void*>& slot = slots[batch % Slots];
        slot.resize(BatchSize);
        for (void*& block : slot) {
            block = allocator.allocate(8 + random.Next() % 1017);
            *static_cast<u8 volatile*>(block) = 1;
        }
        written.store(batch + 1, std::memory_order_release);
    }
    consumer.join();
    return GetSeconds(start) * 1e9 / static_cast<double>(batches * BatchSize);
}

// ---- Memory use and purge ----

void ReportMemoryUse(std::vector<SAllocator> const& allocators)
{
    constexpr u64 Count = 1000000;
    constexpr u64 Size = 24;
    constexpr double Payload = Count * Size;
    if (!IsWanted("Memory/MillionBlocks"))
        return;
    // All stay until the end, so that none is given what another one had.
    std::vector<std::vector<void*>> blocks(allocators.size(), std::vector<void*>(Count));
    for (u64 index = 0; index < allocators.size(); ++index) {
        u64 const before = MemoryBench::GetResidentBytes();
        Memory::SStatistics first{};
        Memory::SStatistics last{};
        Memory::GetStatistics(first);
        for (void*& block : blocks[index]) {
            block = allocators[index].allocate(Size);
            std::memset(block, 1, Size);
        }
        Memory::GetStatistics(last);
        u64 const after = MemoryBench::GetResidentBytes();
        std::string const name = std::string("Memory/MillionBlocks/") + allocators[index].name;
        Print(name + "/resident", {(static_cast<double>(after) - static_cast<double>(before)) / Payload}, "x");
        if (last.bytesInUse != first.bytesInUse)
            Print(name + "/counted", {static_cast<double>(last.bytesInUse - first.bytesInUse) / Payload}, "x");
    }
    for (u64 index = 0; index < allocators.size(); ++index)
        Empty(allocators[index], blocks[index]);
    Memory::Purge();
}

void ReportPurge()
{
    if (!IsWanted("Memory/Purge"))
        return;
    SAllocator const ours{"ours", [](u64 size) { return Memory::Malloc(size, EHeap::Pool); }, &Memory::Free};
    std::vector<double> purges;
    std::vector<double> stalls;
    for (int repetition = 0; repetition < Repetitions; ++repetition) {
        std::vector<void*> blocks = Fill(ours, 500000, 40); // 256 MB and a little
        CRandom random(41);
        std::vector<void*> kept;
        for (void* const block : blocks)
            if (random.Next() % 2 == 0)
                kept.push_back(block);
            else
                Memory::Free(block);
        std::atomic<bool> go{true};
        double worst = 0;
        std::thread other([&] {
            CRandom sizes(42);
            while (go) {
                auto const start = Clock::now();
                Memory::Free(Memory::Malloc(8 + sizes.Next() % 1017, EHeap::Pool));
                worst = std::max(worst, GetSeconds(start));
            }
        });
        auto const start = Clock::now();
        Memory::Purge();
        purges.push_back(GetSeconds(start) * 1e3);
        go = false;
        other.join();
        stalls.push_back(worst * 1e3);
        Empty(ours, kept);
        Memory::Purge();
    }
    Print("Memory/PurgeHalfFree256MB/ours", purges, "ms");
    Print("Memory/PurgeHalfFree256MB/longest_stall_of_another_thread", stalls, "ms");
}

} // namespace

int main(int count, char** arguments)
{
    for (int index = 1; index < count; ++index) {
        std::string const argument = arguments[index];
        if (argument == "--quick")
            isQuick = true;
        else if (argument == "--benchmark_format=json")
            isJson = true;
        else if (argument.rfind("--benchmark_filter=", 0) == 0)
            filter = argument.substr(19);
    }
    Memory::Initialize(0, 0);
    std::vector<SAllocator> allocators = MemoryBench::FindPeers();
    allocators.insert(allocators.begin(),
                      {"ours", [](u64 size) { return Memory::Malloc(size, EHeap::Pool); }, &Memory::Free});

    if (isJson)
        std::printf("{\n  \"context\": {\"executable\": \"memory_bench\"},\n  \"benchmarks\": [\n");
    ReportMemoryUse(allocators); // first, while the heaps are empty
    for (u64 const size : {16u, 64u, 256u, 1024u})
        Compare("Pair" + std::to_string(size), allocators, [&](auto const& a) { return MeasurePairs(a, size); });
    Compare("Replace100000", allocators, [](auto const& a) { return MeasureReplacement(a, 100000); });
    Compare("Replace1000000", allocators, [](auto const& a) { return MeasureReplacement(a, 1000000); });
    Compare("OwnBlocks1Thread", allocators, [](auto const& a) { return MeasureOwnBlocks(a, 1); });
    Compare("OwnBlocks2Threads", allocators, [](auto const& a) { return MeasureOwnBlocks(a, 2); });
    Compare("ForeignFrees", allocators, MeasureForeignFrees);
    ReportPurge();
    if (isJson)
        std::printf("\n  ]\n}\n");
    Memory::Deinitialize();
    return 0;
}
