// The ordered map against the ordered maps a user would otherwise take, and weak values against the plain operation.

#include <benchmark/benchmark.h>

#include <vlmcore/vlmcore.h>

#include <algorithm>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#if defined(HAS_BOOST)
#  include <boost/container/map.hpp>
#endif
#if defined(HAS_ABSL)
#  include <absl/container/btree_map.h>
#endif

using namespace Velmor;

namespace {

struct SValue {
    u64 words[4];
};

std::vector<u32> ShuffledKeys(std::size_t count)
{
    std::vector<u32> keys(count);
    std::iota(keys.begin(), keys.end(), 0u);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    return keys;
}

// One face for all maps.
struct SOurs {
    TMap<u32, SValue> map;
    void Insert(u32 key) { map.Insert(key, SValue{{key, 0, 0, 0}}); }
    u64 Find(u32 key) { return map.Find(key)->words[0]; }
    void Erase(u32 key) { map.Erase(key); }
    u64 Sum()
    {
        u64 sum = 0;
        for (auto [key, value] : map)
            sum += value.words[0];
        return sum;
    }
};

template <class Map>
struct SStandard {
    Map map;
    void Insert(u32 key) { map.emplace(key, SValue{{key, 0, 0, 0}}); }
    u64 Find(u32 key) { return map.find(key)->second.words[0]; }
    void Erase(u32 key) { map.erase(key); }
    u64 Sum()
    {
        u64 sum = 0;
        for (auto const& [key, value] : map)
            sum += value.words[0];
        return sum;
    }
};

// Insert and Erase take another order in every round: with a few keys in the same order ever again the processor's
// branch prediction knows every descent by heart, which no program outside of a benchmark has.
template <class Map>
void Insert(benchmark::State& state)
{
    std::vector<u32> keys = ShuffledKeys(static_cast<std::size_t>(state.range(0)));
    std::mt19937 random(2);
    for (auto _ : state) {
        auto map = std::make_unique<Map>();
        for (u32 const key : keys)
            map->Insert(key);
        state.PauseTiming();
        map.reset();
        std::shuffle(keys.begin(), keys.end(), random);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void Find(benchmark::State& state)
{
    std::vector<u32> const keys = ShuffledKeys(static_cast<std::size_t>(state.range(0)));
    Map map;
    for (u32 const key : keys)
        map.Insert(key);
    u64 sum = 0;
    for (auto _ : state) {
        for (u32 const key : keys)
            sum += map.Find(key);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void Iterate(benchmark::State& state)
{
    Map map;
    for (u32 const key : ShuffledKeys(static_cast<std::size_t>(state.range(0))))
        map.Insert(key);
    for (auto _ : state)
        benchmark::DoNotOptimize(map.Sum());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void Erase(benchmark::State& state)
{
    std::vector<u32> keys = ShuffledKeys(static_cast<std::size_t>(state.range(0)));
    std::mt19937 random(2);
    for (auto _ : state) {
        state.PauseTiming();
        auto map = std::make_unique<Map>();
        for (u32 const key : keys)
            map->Insert(key);
        std::shuffle(keys.begin(), keys.end(), random);
        state.ResumeTiming();
        for (u32 const key : keys)
            map->Erase(key);
        state.PauseTiming();
        map.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void RegisterMap(std::string const& who)
{
    for (i64 const count : {1000, 100000, 1000000}) {
        benchmark::RegisterBenchmark(("Map/Insert/" + who).c_str(), &Insert<Map>)->Arg(count);
        benchmark::RegisterBenchmark(("Map/Find/" + who).c_str(), &Find<Map>)->Arg(count);
        benchmark::RegisterBenchmark(("Map/Iterate/" + who).c_str(), &Iterate<Map>)->Arg(count);
        benchmark::RegisterBenchmark(("Map/Erase/" + who).c_str(), &Erase<Map>)->Arg(count);
    }
}

void AddIntegers(benchmark::State& state)
{
    CWeakType sum(0);
    CWeakType const step(3);
    for (auto _ : state) {
        sum = sum + step;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(AddIntegers)->Name("WeakType/AddIntegers/ours");

void JoinTexts(benchmark::State& state)
{
    CWeakType const left("a text of some twenty characters");
    CWeakType const right("and another one of that length");
    for (auto _ : state)
        benchmark::DoNotOptimize(left + right);
}
BENCHMARK(JoinTexts)->Name("WeakType/JoinTexts/ours");

void JoinStandardTexts(benchmark::State& state)
{
    std::string const left("a text of some twenty characters");
    std::string const right("and another one of that length");
    for (auto _ : state)
        benchmark::DoNotOptimize(left + right);
}
BENCHMARK(JoinStandardTexts)->Name("WeakType/JoinTexts/std::string");

} // namespace

int main(int argumentCount, char** arguments)
{
    Memory::Initialize(0, 0);
    RegisterMap<SOurs>("ours");
    RegisterMap<SStandard<std::map<u32, SValue>>>("std::map");
#if defined(HAS_BOOST)
    RegisterMap<SStandard<boost::container::map<u32, SValue>>>("boost::map");
#endif
#if defined(HAS_ABSL)
    RegisterMap<SStandard<absl::btree_map<u32, SValue>>>("absl::btree_map");
#endif
    benchmark::Initialize(&argumentCount, arguments);
    benchmark::RunSpecifiedBenchmarks();
    Memory::Deinitialize();
}
