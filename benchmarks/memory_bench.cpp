// The memory manager beside the allocators a user would otherwise pick: pairs, random replacement, threads, memory use
// and purge.
#include "memory_peers.h"

#include <vlmcore/memory.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Velmor;
using MemoryBench::SAllocator;

namespace {

using Clock = std::chrono::steady_clock;

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

/// How much of a block its user writes to.
enum class EWritten { FirstByte, Whole };

void* Allocate(SAllocator const& allocator, u64 size, EWritten written = EWritten::FirstByte)
{
    void* const block = allocator.allocate(size);
    if (written == EWritten::Whole) {
        std::memset(block, 1, size);
        benchmark::ClobberMemory();
    }
    else {
        *static_cast<u8 volatile*>(block) = 1;
    }
    return block;
}

/// Blocks that a benchmark asks for: their sizes in bytes, each as often as any other, and what it does with them.
struct SBlocks {
    u64 smallest;
    u64 largest;
    EWritten written = EWritten::FirstByte;

    u64 GetSize(u64 random) const { return smallest + random % (largest - smallest + 1); }
};

constexpr SBlocks SmallBlocks{8, 1024};
constexpr SBlocks FilledBlocks{8, 1024, EWritten::Whole};
constexpr SBlocks LargeBlocks{1025, 16384}; // more than a pool's classes serve

// ---- Pairs ----

void MeasurePairs(benchmark::State& state, SAllocator const& allocator, u64 size)
{
    for (auto _ : state)
        allocator.release(Allocate(allocator, size));
}

// ---- Random replacement ----

/// Live blocks of random sizes of which random ones are freed and allocated anew.
class CPopulation {
public:
    CPopulation(SAllocator const& allocator, u64 count, u64 seed, SBlocks kind)
        : m_allocator(allocator), m_kind(kind), m_random(seed)
    {
        for (u64 index = 0; index < count; ++index)
            m_blocks.push_back(Make(m_random.Next()));
    }
    CPopulation(CPopulation const&) = delete;
    CPopulation& operator=(CPopulation const&) = delete;
    ~CPopulation()
    {
        for (void* const block : m_blocks)
            m_allocator.release(block);
    }

    void ReplaceOne()
    {
        u64 const number = m_random.Next();
        void*& block = m_blocks[(number >> 16) % m_blocks.size()];
        m_allocator.release(block);
        block = Make(number & 0xFFFF);
    }

    /// Until nothing is left of the order in which the blocks were made.
    void Mix()
    {
        for (u64 index = 0; index < 4 * m_blocks.size(); ++index)
            ReplaceOne();
    }

private:
    void* Make(u64 random) { return Allocate(m_allocator, m_kind.GetSize(random), m_kind.written); }

    SAllocator const& m_allocator;
    SBlocks m_kind;
    CRandom m_random;
    std::vector<void*> m_blocks;
};

void MeasureReplacement(benchmark::State& state, SAllocator const& allocator, u64 live, SBlocks kind)
{
    {
        CPopulation population(allocator, live, 1, kind);
        population.Mix();
        for (auto _ : state)
            population.ReplaceOne();
    }
    allocator.settle();
}

// No allocator at all: a released block is the next one handed out, whatever its size. What is left of a replacement is
// the caller's own part of it: a place looked up at random, and a byte written to the block there.
void* released = nullptr;

SAllocator const nothing{
    "nothing",
    [](u64 size) { return released != nullptr ? std::exchange(released, nullptr) : Memory::Malloc(size, EHeap::Pool); },
    [](void* block) {
        if (void* const other = std::exchange(released, block); other != nullptr)
            Memory::Free(other);
    },
    [] {
        Memory::Free(std::exchange(released, nullptr));
        Memory::Purge();
    },
    false};

// ---- Threads ----

// Every thread has blocks of its own.
void MeasureOwnBlocks(benchmark::State& state, SAllocator const& allocator, u64 count, SBlocks kind)
{
    {
        CPopulation population(allocator, count, 10 + static_cast<u64>(state.thread_index()), kind);
        population.Mix();
        for (auto _ : state)
            population.ReplaceOne();
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        allocator.settle();
}

// One thread allocates, the other frees, by batches.
void MeasureForeignFrees(benchmark::State& state, SAllocator const& allocator)
{
    constexpr u64 BatchSize = 1024;
    constexpr u64 Slots = 8;
    constexpr u64 Batches = 500;
    for (auto _ : state) {
        std::vector<void*> slots[Slots];
        std::atomic<u64> written{0};
        std::atomic<u64> read{0};
        std::thread consumer([&] {
            for (u64 batch = 0; batch < Batches; ++batch) {
                while (written.load(std::memory_order_acquire) == batch)
                    std::this_thread::yield();
                for (void* const block : slots[batch % Slots])
                    allocator.release(block);
                read.store(batch + 1, std::memory_order_release);
            }
        });
        CRandom random(5);
        for (u64 batch = 0; batch < Batches; ++batch) {
            while (batch - read.load(std::memory_order_acquire) >= Slots)
                std::this_thread::yield();
            std::vector<void*>& slot = slots[batch % Slots];
            slot.resize(BatchSize);
            for (void*& block : slot)
                block = Allocate(allocator, SmallBlocks.GetSize(random.Next()));
            written.store(batch + 1, std::memory_order_release);
        }
        consumer.join();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(Batches * BatchSize));
    allocator.settle();
}

// ---- Memory use ----

struct SMemoryUse {
    double resident; ///< bytes that the process grew by, for each byte asked for
    double counted;  ///< the same by the heap's own count; 0 for others
};

// All stay until the end, so that none is given what another one had.
std::vector<SMemoryUse> MeasureMemoryUse(std::vector<SAllocator> const& allocators)
{
    constexpr u64 Count = 1000000;
    constexpr u64 Size = 24;
    constexpr double Payload = Count * Size;
    std::vector<std::vector<void*>> blocks(allocators.size(), std::vector<void*>(Count));
    std::vector<SMemoryUse> uses;
    for (u64 index = 0; index < allocators.size(); ++index) {
        for (SAllocator const& allocator : allocators)
            allocator.settle(); // ours stands on the C runtime's and leaves free memory there while it grows
        Memory::SStatistics first{};
        Memory::SStatistics last{};
        Memory::GetStatistics(first);
        u64 const before = MemoryBench::GetResidentBytes();
        for (void*& block : blocks[index]) {
            block = allocators[index].allocate(Size);
            std::memset(block, 1, Size);
        }
        u64 const after = MemoryBench::GetResidentBytes();
        Memory::GetStatistics(last);
        uses.push_back({(static_cast<double>(after) - static_cast<double>(before)) / Payload,
                        static_cast<double>(last.bytesInUse - first.bytesInUse) / Payload});
    }
    for (u64 index = 0; index < allocators.size(); ++index) {
        for (void* const block : blocks[index])
            allocators[index].release(block);
        allocators[index].settle();
    }
    return uses;
}

void ReportMemoryUse(benchmark::State& state, SMemoryUse const& use)
{
    for (auto _ : state)
        state.SetIterationTime(0); // there is nothing but the counters
    state.counters["resident_per_byte"] = use.resident;
    if (use.counted > 0)
        state.counters["counted_per_byte"] = use.counted;
}

// ---- Purge ----

// 256 MB of blocks of which every other one is free, while another thread goes on.
void MeasurePurge(benchmark::State& state, SAllocator const& allocator)
{
    double longestStall = 0;
    for (auto _ : state) {
        CRandom random(41);
        std::vector<void*> blocks;
        for (u64 index = 0; index < 500000; ++index)
            blocks.push_back(Allocate(allocator, SmallBlocks.GetSize(random.Next())));
        std::vector<void*> kept;
        for (void* const block : blocks)
            if (random.Next() % 2 == 0)
                kept.push_back(block);
            else
                allocator.release(block);
        std::atomic<bool> isPurging{true};
        std::thread other([&] {
            CRandom sizes(42);
            while (isPurging) {
                auto const start = Clock::now();
                allocator.release(Allocate(allocator, SmallBlocks.GetSize(sizes.Next())));
                longestStall = std::max(longestStall, GetSeconds(start));
            }
        });
        auto const start = Clock::now();
        Memory::Purge();
        state.SetIterationTime(GetSeconds(start));
        isPurging = false;
        other.join();
        for (void* const block : kept)
            allocator.release(block);
        allocator.settle();
    }
    state.counters["longest_stall_ms"] = longestStall * 1e3;
}

template <class Measure, class... Arguments>
benchmark::internal::Benchmark* Register(std::string const& what, SAllocator const& allocator, Measure measure,
                                         Arguments const&... arguments)
{
    std::string const name = "Memory/" + what + "/" + allocator.name;
    return benchmark::RegisterBenchmark(
        name.c_str(), [=, &allocator](benchmark::State& state) { measure(state, allocator, arguments...); });
}

void RegisterReplacements(std::string const& what, SAllocator const& allocator, i64 steps, SBlocks kind)
{
    for (u64 const live : {100000u, 1000000u})
        Register(what + std::to_string(live), allocator, &MeasureReplacement, live, kind)->Iterations(steps);
}

void RegisterAll(std::vector<SAllocator> const& allocators, std::vector<SMemoryUse> const& uses)
{
    for (u64 index = 0; index < allocators.size(); ++index) {
        SAllocator const& allocator = allocators[index];
        benchmark::RegisterBenchmark((std::string("Memory/MillionBlocks/") + allocator.name).c_str(), &ReportMemoryUse,
                                     uses[index])
            ->UseManualTime()
            ->Iterations(1);
        Register("Pair16", allocator, &MeasurePairs, 16u);
        Register("Pair64", allocator, &MeasurePairs, 64u);
        Register("Pair256", allocator, &MeasurePairs, 256u);
        Register("Pair1024", allocator, &MeasurePairs, 1024u);
        Register("Pair4096", allocator, &MeasurePairs, 4096u);
        // A fixed number of steps: the blocks are not to be made and mixed again for each attempt at one.
        i64 const steps = allocator.isSlowAtScale ? 50000 : 2000000;
        if (!allocator.isSlowAtScale) {
            RegisterReplacements("Replace", allocator, steps, SmallBlocks);
            RegisterReplacements("ReplaceFilled", allocator, steps, FilledBlocks);
        }
        Register("OwnBlocks", allocator, &MeasureOwnBlocks, 10000u, SmallBlocks)
            ->ThreadRange(1, 2)
            ->UseRealTime()
            ->Iterations(steps);
        Register("OwnLargeBlocks", allocator, &MeasureOwnBlocks, 1000u, LargeBlocks)
            ->ThreadRange(1, 2)
            ->UseRealTime()
            ->Iterations(steps / 4);
        Register("ForeignFrees", allocator, &MeasureForeignFrees)->UseRealTime()->Iterations(1);
    }
    RegisterReplacements("Replace", nothing, 2000000, SmallBlocks); // not filled: it keeps no sizes
    Register("PurgeHalfFree256MB", allocators.front(), &MeasurePurge)->UseManualTime()->Iterations(1);
}

} // namespace

int main(int count, char** arguments)
{
    Memory::Initialize(0, 0);
    std::vector<SAllocator> allocators = MemoryBench::FindPeers();
    allocators.insert(allocators.begin(), {"ours", [](u64 size) { return Memory::Malloc(size, EHeap::Pool); },
                                           &Memory::Free, &Memory::Purge, false});
    std::vector<SMemoryUse> const uses = MeasureMemoryUse(allocators); // first, while the heaps are empty
    RegisterAll(allocators, uses);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Memory::Deinitialize();
    return 0;
}
