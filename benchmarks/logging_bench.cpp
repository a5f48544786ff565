// Lines of a log file, end to end: open, write every line, close with everything in the file. A message has 60
// characters; every logger puts a time stamp and a level in front. Beside ours: spdlog's basic file logger, and a line
// that lies ready, under a mutex, into stdio: what a program without a logger does.
#include <vlmcore/logging.h>
#include <vlmcore/memory.h>

#if defined(VLMCORE_HAVE_SPDLOG)
#  if defined(__clang__)
#    pragma clang diagnostic push
#    pragma clang diagnostic ignored "-Weverything"
#  endif
#  include <spdlog/sinks/basic_file_sink.h>
#  include <spdlog/spdlog.h>
#  if defined(__clang__)
#    pragma clang diagnostic pop
#  endif
#endif

#include <benchmark/benchmark.h>

#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace Velmor;

constexpr int LineCount = 400000;
constexpr u64 BufferSize = 256 * 1024;
constexpr char const* Path = "logging_bench.log";
constexpr char const* Message = "sixty characters of text, as a program would log them often.";

/// Calls `write` LineCount times in all, from as many threads as the benchmark's argument says.
template <class Write>
void Produce(benchmark::State const& state, Write write)
{
    int const producerCount = static_cast<int>(state.range(0));
    auto const produce = [&] {
        for (int line = 0; line < LineCount / producerCount; ++line)
            write();
    };
    std::vector<std::thread> others;
    for (int producer = 1; producer < producerCount; ++producer)
        others.emplace_back(produce);
    produce();
    for (std::thread& other : others)
        other.join();
}

void Finish(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * LineCount);
    std::remove(Path);
}

void LogToFile(benchmark::State& state, u64 bufferSize)
{
    Memory::Initialize(0, 0);
    for (auto _ : state) {
        CFileLogger logger(Path, bufferSize);
        Log::Initialize(&logger);
        Produce(state, [] { Log::Info(Message); });
        Log::Release();
    }
    Finish(state);
}

void Buffered(benchmark::State& state)
{
    LogToFile(state, BufferSize);
}

void Unbuffered(benchmark::State& state)
{
    LogToFile(state, 0);
}

void Stdio(benchmark::State& state)
{
    for (auto _ : state) {
        std::FILE* const file = std::fopen(Path, "wb");
        std::mutex mutex;
        std::string const line = std::string("123456789: [Info] ") + Message + "\n";
        Produce(state, [&] {
            std::lock_guard const lock(mutex);
            std::fwrite(line.data(), 1, line.size(), file);
        });
        std::fclose(file);
    }
    Finish(state);
}

#if defined(VLMCORE_HAVE_SPDLOG)
void Spdlog(benchmark::State& state)
{
    for (auto _ : state) {
        auto const logger = spdlog::basic_logger_mt("bench", Path, true);
        Produce(state, [&] { logger->info(Message); });
        spdlog::drop("bench");
    }
    Finish(state);
}
BENCHMARK(Spdlog)->Name("Logging/Buffered/spdlog")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

BENCHMARK(Buffered)->Name("Logging/Buffered/ours")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Stdio)->Name("Logging/Buffered/fwrite")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Unbuffered)->Name("Logging/Unbuffered/ours")->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
