// The price of the memory event log: what one event costs its thread, how many events the writer takes a second, and
// what becomes of a host that allocates a million blocks on a thousand call sites. The peers are the same work without
// it.
#include <vlmcore/debug.h>
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>
#include <vlmcore/threads.h>

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

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

/// Before each run, not timed: to empty the hundreds of megabytes of the run before would take longer than the work,
/// since the system has begun to bring them to the disk.
void StartWithoutFiles(benchmark::State& state)
{
    state.PauseTiming();
    RemoveFiles();
    state.ResumeTiming();
}

// ---- one event ----

/// The first events of a logger: its buffers have not been touched before. They take all events of a batch, so that the
/// writer is not waited for.
void RecordFirst(benchmark::State& state)
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

/// The events of a logger that has been at work for a while.
void RecordBuffered(benchmark::State& state)
{
    CFileMemoryLogger logger(EventsPath, StacksPath, 2 * BatchSize);
    auto const record = [&logger] {
        for (u64 event = 0; event < BatchSize; ++event)
            logger.OnAllocate(&logger, event);
    };
    auto const letWriterFinish = [] { Thread::Sleep(20); };
    for (int round = 0; round < 4; ++round) {
        record();
        letWriterFinish();
    }
    for (auto _ : state) {
        auto const start = Clock::now();
        record();
        SetManualTime(state, start);
        letWriterFinish();
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
        StartWithoutFiles(state);
        CFileMemoryLogger logger(EventsPath, StacksPath, Capacity);
        for (u64 event = 0; event < EventCount; ++event)
            logger.OnAllocate(&logger, event);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(EventCount));
    RemoveFiles();
}

// ---- hosts ----

template <u64 Site>
[[gnu::noinline]] void* AllocateHere()
{
    void* const block = Memory::Malloc(Site % 200 + 16, EHeap::Pool8);
    benchmark::DoNotOptimize(block);
    return block;
}

template <u64... Sites>
constexpr std::array<void* (*)(), sizeof...(Sites)> MakeSites(std::integer_sequence<u64, Sites...>)
{
    return {&AllocateHere<Sites>...};
}

constexpr auto Sites = MakeSites(std::make_integer_sequence<u64, SiteCount>());

/// Does nothing but allocate and free: there is no cheaper host, and none for which a log is dearer.
void AllocateOnly()
{
    for (u64 block = 0; block < BlockCount; ++block)
        Memory::Free(Sites[block % SiteCount]());
}

/// Does a little with each block: fills it, keeps it while the next hundred thousand come, reads it, and frees it.
void UseBlocks()
{
    struct SLive {
        u8* block;
        u64 size;
    };
    constexpr u64 LiveCount = 100000;
    std::vector<SLive> live(LiveCount);
    u64 sum = 0;
    auto const finish = [&sum](SLive& old) {
        for (u64 offset = 0; offset + sizeof(u64) <= old.size; offset += sizeof(u64)) {
            u64 word;
            std::memcpy(&word, old.block + offset, sizeof word);
            sum += word;
        }
        Memory::Free(old.block);
        old = {};
    };
    for (u64 block = 0; block < BlockCount; ++block) {
        u64 const site = block % SiteCount;
        SLive& place = live[block * 7919 % LiveCount];
        finish(place);
        place = {static_cast<u8*>(Sites[site]()), site % 200 + 16};
        std::memset(place.block, static_cast<int>(block), place.size);
    }
    for (SLive& rest : live)
        finish(rest);
    benchmark::DoNotOptimize(sum);
}

template <void (*Work)()>
void RunWithoutLog(benchmark::State& state)
{
    for (auto _ : state)
        Work();
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BlockCount));
}

template <void (*Work)()>
void RunWithLog(benchmark::State& state)
{
    for (auto _ : state) {
        StartWithoutFiles(state);
        CFileMemoryLogger logger(EventsPath, StacksPath, Capacity);
        Memory::InitializeLog(&logger);
        Work();
        Memory::ReleaseLog();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(BlockCount));
    RemoveFiles();
}

BENCHMARK(RecordFirst)->Name("MemoryLog/FirstEvent/ours")->UseManualTime();
BENCHMARK(Capture)->Name("MemoryLog/FirstEvent/capture")->UseManualTime();
BENCHMARK(RecordBuffered)->Name("MemoryLog/Event/ours")->UseManualTime();
BENCHMARK(Capture)->Name("MemoryLog/Event/capture")->UseManualTime();
BENCHMARK(WriteEvents)->Name("MemoryLog/Writer/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RunWithLog<UseBlocks>)->Name("MemoryLog/Host/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RunWithoutLog<UseBlocks>)->Name("MemoryLog/Host/none")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RunWithLog<AllocateOnly>)->Name("MemoryLog/BareLoop/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RunWithoutLog<AllocateOnly>)->Name("MemoryLog/BareLoop/none")->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
