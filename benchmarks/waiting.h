// What threads that wait cost: how long they take to wake up, and the processor time they take meanwhile.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <thread>
#include <vector>

namespace Waiting {

using Clock = std::chrono::steady_clock;

/// Times from a call to what it causes, one for each iteration of a benchmark with manual time.
class CLatencies {
public:
    explicit CLatencies(benchmark::State& state) : m_state(state) {}
    CLatencies(CLatencies const&) = delete;
    CLatencies& operator=(CLatencies const&) = delete;
    /// Median and 99th percentile become counters of the benchmark.
    ~CLatencies()
    {
        if (m_samples.empty())
            return;
        std::sort(m_samples.begin(), m_samples.end());
        m_state.counters["median_us"] = m_samples[m_samples.size() / 2];
        m_state.counters["p99_us"] = m_samples[m_samples.size() * 99 / 100];
    }

    void Add(Clock::duration taken)
    {
        std::chrono::duration<double> const seconds = taken;
        m_samples.push_back(seconds.count() * 1e6);
        m_state.SetIterationTime(seconds.count());
    }

    /// Lets all threads go to sleep; every time a little longer, so that nothing beats with their timers.
    void Rest() const
    {
        std::this_thread::sleep_for(std::chrono::microseconds(20'000 + 137 * (m_samples.size() % 10)));
    }

private:
    benchmark::State& m_state;
    std::vector<double> m_samples;
};

/// Processor time of the whole process while nothing happens: a counter of the benchmark, which has no other figure.
inline void MeasureIdle(benchmark::State& state)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    double percent = 0;
    for (auto _ : state) {
        std::clock_t const before = std::clock();
        auto const from = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::chrono::duration<double> const taken = Clock::now() - from;
        percent += 100.0 * static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC / taken.count();
        state.SetIterationTime(0);
    }
    state.counters["core_percent"] = percent / static_cast<double>(state.iterations());
}

} // namespace Waiting
