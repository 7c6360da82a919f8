#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

// The summary that the latency benchmarks share: how long an input took to
// reach the audio callback, against the goal of one buffer period plus 1 ms.
namespace LatencyReport {

// The value below which the share `p` (0 to 1) of `values` lies.
inline double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const std::size_t i = std::min(values.size() - 1, std::size_t(p * double(values.size())));
    return values[i];
}

// Sets the iteration time to the median and the counters notes, lost,
// p50_ms, p99_ms, max_ms, goal_ms and period_ms. `totalMs` must not be empty.
inline void report(benchmark::State& state, const std::vector<double>& totalMs, int lost,
                   double periodMs)
{
    state.SetIterationTime(1e-3 * percentile(totalMs, 0.5));
    state.counters["notes"] = double(totalMs.size());
    state.counters["lost"] = lost;
    state.counters["p50_ms"] = percentile(totalMs, 0.5);
    state.counters["p99_ms"] = percentile(totalMs, 0.99);
    state.counters["max_ms"] = percentile(totalMs, 1.0);
    state.counters["goal_ms"] = periodMs + 1.0;
    state.counters["period_ms"] = periodMs;
}

} // namespace LatencyReport
