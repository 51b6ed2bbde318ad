#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

// Each figure is a ratio of two times taken in turn in the same run, so that it holds on a noisy machine. The
// printed time is ours; the counters are medians, in milliseconds, and of the ratio of each pair.
namespace bench {

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template<class Work>
double secondsOf(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Runs `reference` and `ours` in turn, each after an untimed `prepare`, and reports ours / reference.
template<class Prepare, class Reference, class Ours>
void ratio(benchmark::State& state, Prepare&& prepare, Reference&& reference, Ours&& ours) {
    std::vector<double> ratios, oursMs, referenceMs;
    for (auto _ : state) {
        prepare();
        const double r = secondsOf(reference);
        prepare();
        const double o = secondsOf(ours);
        state.SetIterationTime(o);
        ratios.push_back(o / r);
        oursMs.push_back(o * 1e3);
        referenceMs.push_back(r * 1e3);
    }
    state.counters["ours_ms"] = median(oursMs);
    state.counters["ref_ms"] = median(referenceMs);
    state.counters["ours/ref"] = median(ratios);
}

} // namespace bench
