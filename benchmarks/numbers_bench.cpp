// Numbers to text and back beside the standard library.
#include <vlmcore/strings.h>

#include <benchmark/benchmark.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

using namespace Velmor;

namespace {

constexpr u64 Count = 1024;

/// 0: numbers of all lengths alike. 1: up to 999. 2: of 19 and 20 digits.
std::array<u64, Count> MakeNumbers(i64 kind)
{
    std::mt19937_64 generator(5);
    std::array<u64, Count> numbers;
    for (u64& number : numbers) {
        u64 const random = generator();
        number = kind == 0 ? random >> (generator() % 64) : kind == 1 ? random % 1000 : random | u64{1} << 63;
    }
    return numbers;
}

std::array<f64, Count> MakeDoubles()
{
    std::mt19937_64 generator(6);
    std::uniform_real_distribution<f64> distribution(-100000, 100000);
    std::array<f64, Count> numbers;
    for (f64& number : numbers)
        number = distribution(generator);
    return numbers;
}

template <class Numbers, class Function>
void Run(benchmark::State& state, Numbers const& numbers, Function function)
{
    u64 index = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(function(numbers[index++ % Count]));
}

char text[64];

void UnsignedOurs(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return IString::FromUnsignedInteger(number, text, sizeof(text), EStringEncoding::UTF8);
    });
}
void UnsignedToChars(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return std::to_chars(text, text + sizeof(text), number).ptr;
    });
}
void SignedOurs(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return IString::FromInteger(static_cast<i64>(number), text, sizeof(text), EStringEncoding::UTF8);
    });
}
void SignedToChars(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return std::to_chars(text, text + sizeof(text), static_cast<i64>(number)).ptr;
    });
}
void HexOurs(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return IString::FromHex(number, text, sizeof(text), EStringEncoding::UTF8);
    });
}
void HexToChars(benchmark::State& state)
{
    Run(state, MakeNumbers(state.range(0)), [](u64 number) {
        benchmark::ClobberMemory();
        return std::to_chars(text, text + sizeof(text), number, 16).ptr;
    });
}
void DoubleOurs(benchmark::State& state)
{
    Run(state, MakeDoubles(), [](f64 number) {
        benchmark::ClobberMemory();
        return IString::FromDouble(number, text, sizeof(text), EStringEncoding::UTF8);
    });
}
void DoubleSnprintf(benchmark::State& state)
{
    Run(state, MakeDoubles(), [](f64 number) {
        benchmark::ClobberMemory();
        return std::snprintf(text, sizeof(text), "%.17g", number);
    });
}

template <class Number>
std::array<std::string, Count> MakeTexts(std::array<Number, Count> const& numbers)
{
    std::array<std::string, Count> texts;
    for (u64 i = 0; i < Count; ++i)
        texts[i] = std::to_string(numbers[i]);
    return texts;
}

void ParseOurs(benchmark::State& state)
{
    Run(state, MakeTexts(MakeNumbers(state.range(0))), [](std::string const& digits) {
        return CString(digits.c_str()).ToUnsignedInteger(EBinaryEncoding::BigEndian);
    });
}
void ParseFromChars(benchmark::State& state)
{
    Run(state, MakeTexts(MakeNumbers(state.range(0))), [](std::string const& digits) {
        u64 number = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
        return number;
    });
}
void ParseDoubleOurs(benchmark::State& state)
{
    Run(state, MakeTexts(MakeDoubles()), [](std::string const& digits) { return CString(digits.c_str()).ToDouble(); });
}
void ParseDoubleStrtod(benchmark::State& state)
{
    Run(state, MakeTexts(MakeDoubles()),
        [](std::string const& digits) { return std::strtod(digits.c_str(), nullptr); });
}

void Kinds(benchmark::internal::Benchmark* benchmark)
{
    benchmark->ArgName("kind")->Arg(0)->Arg(1)->Arg(2);
}

} // namespace

BENCHMARK(UnsignedOurs)->Name("Numbers/Unsigned/ours")->Apply(Kinds);
BENCHMARK(UnsignedToChars)->Name("Numbers/Unsigned/to_chars")->Apply(Kinds);
BENCHMARK(SignedOurs)->Name("Numbers/Signed/ours")->Apply(Kinds);
BENCHMARK(SignedToChars)->Name("Numbers/Signed/to_chars")->Apply(Kinds);
BENCHMARK(HexOurs)->Name("Numbers/Hex/ours")->Apply(Kinds);
BENCHMARK(HexToChars)->Name("Numbers/Hex/to_chars")->Apply(Kinds);
BENCHMARK(DoubleOurs)->Name("Numbers/Double/ours");
BENCHMARK(DoubleSnprintf)->Name("Numbers/Double/snprintf");
BENCHMARK(ParseOurs)->Name("Numbers/Parse/ours")->Apply(Kinds);
BENCHMARK(ParseFromChars)->Name("Numbers/Parse/from_chars")->Apply(Kinds);
BENCHMARK(ParseDoubleOurs)->Name("Numbers/ParseDouble/ours");
BENCHMARK(ParseDoubleStrtod)->Name("Numbers/ParseDouble/strtod");

BENCHMARK_MAIN();
