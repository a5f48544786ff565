// Capturing a call stack, at several depths, beside what the system offers for it.
#include <benchmark/benchmark.h>

#include <vlmcore/debug.h>

#if defined(_WIN32)
#  include <windows.h>
#else
#  include <execinfo.h>
#endif

using namespace Velmor;

namespace {

struct SOurs {
    static void Capture(void** addresses)
    {
        unsigned hash = 0;
        benchmark::DoNotOptimize(Debug::Backtrace(addresses, &hash));
        benchmark::DoNotOptimize(hash);
    }
};

struct SSystem {
    static void Capture(void** addresses)
    {
#if defined(_WIN32)
        ULONG hash = 0;
        benchmark::DoNotOptimize(::RtlCaptureStackBackTrace(0, Debug::MaxFrames, addresses, &hash));
        benchmark::DoNotOptimize(hash);
#else
        benchmark::DoNotOptimize(::backtrace(addresses, Debug::MaxFrames));
#endif
    }
};

/// Calls itself until the stack is as deep as wanted, then measures.
template <class Capturer>
__attribute__((noinline)) void MeasureAt(benchmark::State& state, int depth)
{
    if (depth > 0) {
        MeasureAt<Capturer>(state, depth - 1);
        benchmark::ClobberMemory(); // not a jump
        return;
    }
    void* addresses[Debug::MaxFrames];
    for (auto _ : state) {
        Capturer::Capture(addresses);
        benchmark::DoNotOptimize(addresses);
    }
}

template <class Capturer>
void Measure(benchmark::State& state)
{
    MeasureAt<Capturer>(state, static_cast<int>(state.range(0)));
}

} // namespace

BENCHMARK(Measure<SOurs>)->Name("Debug/Backtrace/ours")->Arg(4)->Arg(16)->Arg(40)->ThreadRange(1, 2);
#if defined(_WIN32)
BENCHMARK(Measure<SSystem>)
    ->Name("Debug/Backtrace/RtlCaptureStackBackTrace")
    ->Arg(4)
    ->Arg(16)
    ->Arg(40)
    ->ThreadRange(1, 2);
#else
BENCHMARK(Measure<SSystem>)->Name("Debug/Backtrace/glibc")->Arg(4)->Arg(16)->Arg(40)->ThreadRange(1, 2);
#endif

BENCHMARK_MAIN();
