// The logger's line, "%1: [%2] %3\n" of a 64-bit number, 8 and 40 characters, into a new string and into a buffer.
#include <vlmcore/format.h>
#include <vlmcore/memory.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <string_view>

#ifdef BENCH_FMT
#  include <fmt/compile.h>
#  include <fmt/format.h>
#endif

using namespace Velmor;

namespace {

constexpr char Level[] = "WARNINGS";
constexpr char Message[] = "the file could not be read, trying again";
static_assert(sizeof(Level) == 9 && sizeof(Message) == 41);

u64 stamp = 1234567890123;
char buffer[256];

void StringOurs(benchmark::State& state)
{
    CString const message(Message);
    for (auto _ : state) {
        CMutableString line;
        Format(line, "%1: [%2] %3\n", stamp, Level, message);
        benchmark::DoNotOptimize(line.GetData());
    }
}
/// The text as loggers pass it: owned, its length known.
void StringOursOwned(benchmark::State& state)
{
    CMutableString const level(Level);
    CMutableString const message(Message);
    for (auto _ : state) {
        CMutableString line;
        Format(line, "%1: [%2] %3\n", stamp, level, message);
        benchmark::DoNotOptimize(line.GetData());
    }
}
void BufferOurs(benchmark::State& state)
{
    CString const message(Message);
    for (auto _ : state) {
        benchmark::DoNotOptimize(FormatTo(buffer, sizeof(buffer), "%1: [%2] %3\n", stamp, Level, message));
        benchmark::ClobberMemory();
    }
}
void BufferSnprintf(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buffer, sizeof(buffer), "%llu: [%s] %s\n",
                                               static_cast<unsigned long long>(stamp), Level, Message));
        benchmark::ClobberMemory();
    }
}
#ifdef BENCH_FMT
void StringFmt(benchmark::State& state)
{
    for (auto _ : state) {
        std::string line = fmt::format("{}: [{}] {}\n", stamp, Level, Message);
        benchmark::DoNotOptimize(line.data());
    }
}
void BufferFmt(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(fmt::format_to_n(buffer, sizeof(buffer), "{}: [{}] {}\n", stamp, Level, Message).size);
        benchmark::ClobberMemory();
    }
}
void BufferFmtCompiled(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(fmt::format_to(buffer, FMT_COMPILE("{}: [{}] {}\n"), stamp, std::string_view(Level),
                                                std::string_view(Message)));
        benchmark::ClobberMemory();
    }
}
#endif

} // namespace

BENCHMARK(StringOurs)->Name("Format/String/ours");
#ifdef BENCH_FMT
BENCHMARK(StringFmt)->Name("Format/String/fmt");
#endif
BENCHMARK(StringOursOwned)->Name("Format/StringOfOwned/ours");
#ifdef BENCH_FMT
BENCHMARK(StringFmt)->Name("Format/StringOfOwned/fmt");
#endif
BENCHMARK(BufferOurs)->Name("Format/Buffer/ours");
BENCHMARK(BufferSnprintf)->Name("Format/Buffer/snprintf");
#ifdef BENCH_FMT
BENCHMARK(BufferFmt)->Name("Format/Buffer/fmt");
BENCHMARK(BufferFmtCompiled)->Name("Format/Buffer/fmt_compiled");
#endif

int main(int argc, char** argv)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Memory::Deinitialize();
    return 0;
}
