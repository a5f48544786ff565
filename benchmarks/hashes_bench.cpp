// Checksums and hashes beside zlib, ISA-L, and the shortest chain that FNV-1a allows.
#include <vlmcore/hashes.h>

#include <benchmark/benchmark.h>

#include <vector>

#ifdef BENCH_ZLIB
#  include <zlib.h>
#endif
#ifdef BENCH_ISAL
extern "C" unsigned int crc32_gzip_refl(unsigned int initial, unsigned char const* data, unsigned long size);
#endif

using namespace Velmor;

namespace {

std::vector<u8> MakeBytes(u64 size)
{
    std::vector<u8> bytes(size);
    u32 state = 1;
    for (u8& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<u8>(state >> 24);
    }
    return bytes;
}

/// Hashes the same bytes again and again, each time from the result before, so that calls cannot overlap.
template <class Word, class Function>
void Run(benchmark::State& state, Function function)
{
    u64 const size = static_cast<u64>(state.range(0));
    std::vector<u8> const bytes = MakeBytes(size);
    Word hash = 1;
    for (auto _ : state)
        hash = function(bytes.data(), size, hash);
    benchmark::DoNotOptimize(hash);
    state.SetBytesProcessed(static_cast<i64>(size) * state.iterations());
}

template <class Word, Word Prime>
Word PlainFNV(u8 const* data, u64 size, Word hash)
{
    for (u64 i = 0; i < size; ++i)
        hash = (hash ^ data[i]) * Prime;
    return hash;
}

void CRC32Ours(benchmark::State& state)
{
    Run<u32>(state, [](u8 const* data, u64 size, u32 crc) { return GetCRC32(data, size, crc); });
}
#ifdef BENCH_ZLIB
void CRC32Zlib(benchmark::State& state)
{
    Run<u32>(state, [](u8 const* data, u64 size, u32 crc) { return static_cast<u32>(crc32_z(crc, data, size)); });
}
#endif
#ifdef BENCH_ISAL
void CRC32ISAL(benchmark::State& state)
{
    Run<u32>(state, [](u8 const* data, u64 size, u32 crc) { return crc32_gzip_refl(crc, data, size); });
}
#endif

void FNV64Ours(benchmark::State& state)
{
    Run<u64>(state, [](u8 const* data, u64 size, u64 hash) { return GetFNV64(data, size, 0, hash); });
}
void FNV64Chain(benchmark::State& state)
{
    Run<u64>(state, PlainFNV<u64, 0x100000001B3u>);
}
void FNV32Ours(benchmark::State& state)
{
    Run<u32>(state, [](u8 const* data, u64 size, u32 hash) { return GetFNV32(data, size, 0, hash); });
}
void FNV32Chain(benchmark::State& state)
{
    Run<u32>(state, PlainFNV<u32, 16777619u>);
}

void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(9)->Arg(64)->Arg(4096)->Arg(1 << 20);
}

} // namespace

BENCHMARK(CRC32Ours)->Name("Hashes/CRC32/ours")->Apply(Sizes);
#ifdef BENCH_ZLIB
BENCHMARK(CRC32Zlib)->Name("Hashes/CRC32/zlib")->Apply(Sizes);
#endif
#ifdef BENCH_ISAL
BENCHMARK(CRC32ISAL)->Name("Hashes/CRC32/isal")->Apply(Sizes);
#endif
BENCHMARK(FNV64Ours)->Name("Hashes/FNV64/ours")->Apply(Sizes);
BENCHMARK(FNV64Chain)->Name("Hashes/FNV64/chain")->Apply(Sizes);
BENCHMARK(FNV32Ours)->Name("Hashes/FNV32/ours")->Apply(Sizes);
BENCHMARK(FNV32Chain)->Name("Hashes/FNV32/chain")->Apply(Sizes);

BENCHMARK_MAIN();
