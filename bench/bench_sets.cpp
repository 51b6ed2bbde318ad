// Sets of 10 million random block indices out of a 100 GiB image: inserts, then look-ups.

#include "Ratio.h"
#include "SxTypes.h"

#include <random>
#include <tsl/robin_set.h>
#include <unordered_set>
#include <vector>

namespace {

constexpr int64 N_KEYS = 10'000'000;
constexpr uint64 N_BLOCKS = 26'214'400;

const std::vector<uint64>& keys() {
    static const std::vector<uint64> all = [] {
        std::mt19937_64 random(1);
        std::vector<uint64> list(N_KEYS);
        for (uint64& key : list)
            key = random() % N_BLOCKS;
        return list;
    }();
    return all;
}

void nothing() {
}

template<class Set>
void fillAndAsk() {
    Set set;
    for (const uint64 key : keys())
        set.insert(key);
    uint64 hits = 0;
    for (const uint64 key : keys())
        hits += set.count(key ^ 1);
    benchmark::DoNotOptimize(hits);
}

void fillAndAskBits() {
    std::vector<bool> set(N_BLOCKS);
    for (const uint64 key : keys())
        set[key] = true;
    uint64 hits = 0;
    for (const uint64 key : keys())
        hits += set[key ^ 1];
    benchmark::DoNotOptimize(hits);
}

void robinSetAgainstUnorderedSet(benchmark::State& state) {
    keys();
    bench::ratio(state, nothing, fillAndAsk<std::unordered_set<uint64>>, fillAndAsk<tsl::robin_set<uint64>>);
}
BENCHMARK(robinSetAgainstUnorderedSet)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void bitSetAgainstUnorderedSet(benchmark::State& state) {
    keys();
    bench::ratio(state, nothing, fillAndAsk<std::unordered_set<uint64>>, fillAndAskBits);
}
BENCHMARK(bitSetAgainstUnorderedSet)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
