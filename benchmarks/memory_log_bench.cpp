// The price of the memory event log: what one event costs its thread, how many events the writer takes a second, and what
// becomes of a host that allocates a million blocks on a thousand call sites. The peers are the same work without it.
#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <utility>

namespace {

using namespace Velmor;

constexpr u64 BatchSize = 20000;
constexpr u64 EventCount = 500000;
constexpr u64 BlockCount = 1000000;
constexpr u64 SiteCount = 1000;
constexpr u64 Capacity = 8192;
constexpr char const* EventsPath = "memory_log_bench_events.json";
constexpr char const* StacksPath = "memory_log_bench_stacks.json";

using Clock = std::chrono::steady_clock;

void SetManualTime(benchmark::State& state, Clock::time_point start)
{
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
}

void RemoveFiles()
{
    std::remove(EventsPath);
    std::remove(StacksPath);
}

// ---- one event ----

/// Buffers that take all events of a batch: the writer is not waited for.
void RecordBuffered(benchmark::State& state)
{
    for (auto _ : state) {
        CFileMemoryLogger logger(EventsPath, StacksPath, 2 * BatchSize);
        auto const start = Clock::now();
        for (u64 event = 0; event < BatchSize; ++event)
            logger.OnAllocate(&logger, event);
        SetManualTime(state, start);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BatchSize));
    RemoveFiles();
}

/// The capture alone.
void Capture(benchmark::State& state)
{
    for (auto _ : state) {
        auto const start = Clock::now();
        for (u64 event = 0; event < BatchSize; ++event) {
            void* addresses[Debug::MaxFrames] = {};
            unsigned int hash = 0;
            Debug::Backtrace(addresses, &hash);
            benchmark::DoNotOptimize(hash);
        }
        SetManualTime(state, start);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BatchSize));
}

// ---- the writer ----

void WriteEvents(benchmark::State& state)
{
    for (auto _ : state) {
        CFileMemoryLogger logger(EventsPath, StacksPath, Capacity);
        for (u64 event = 0; event < EventCount; ++event)
            logger.OnAllocate(&logger, event);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(EventCount));
    RemoveFiles();
}

// ---- a host ----

template <u64 Site>
[[gnu::noinline]] void AllocateHere()
{
    void* const block = Memory::Malloc(Site % 200 + 1, EHeap::Pool8);
    benchmark::DoNotOptimize(block);
    Memory::Free(block);
}

template <u64... Sites>
constexpr std::array<void (*)(), sizeof...(Sites)> MakeSites(std::integer_sequence<u64, Sites...>)
{
    return {&AllocateHere<Sites>...};
}

constexpr auto Sites = MakeSites(std::make_integer_sequence<u64, SiteCount>());

void AllocateEverywhere()
{
    for (u64 block = 0; block < BlockCount; ++block)
        Sites[block % SiteCount]();
}

void HostWithoutLog(benchmark::State& state)
{
    for (auto _ : state)
        AllocateEverywhere();
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BlockCount));
}

void HostWithLog(benchmark::State& state)
{
    for (auto _ : state) {
        CFileMemoryLogger logger(EventsPath, StacksPath, Capacity);
        Memory::InitializeLog(&logger);
        AllocateEverywhere();
        Memory::ReleaseLog();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BlockCount));
    RemoveFiles();
}

BENCHMARK(RecordBuffered)->Name("MemoryLog/Event/ours")->UseManualTime();
BENCHMARK(Capture)->Name("MemoryLog/Event/capture")->UseManualTime();
BENCHMARK(WriteEvents)->Name("MemoryLog/Writer/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(HostWithLog)->Name("MemoryLog/Host/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(HostWithoutLog)->Name("MemoryLog/Host/none")->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
