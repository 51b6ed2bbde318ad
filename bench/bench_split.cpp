// A ZqF file of 1 GiB cut into parts and joined again, against a synced copy of it. All in the page cache.

#include "Folder.h"
#include "Ratio.h"
#include "ZqImage.h"

namespace {

constexpr int64 SIZE = 1 << 30;

/// Splits, joins, or copies, one pair for each iteration. Goal: cp/ours at least 0.9.
void splitOrJoin(benchmark::State& state, bool timeSplit) {
    const auto partSize = static_cast<uint64>(state.range(0));
    const bench::Folder folder;
    const SxString zqf = folder.path + "img.zqf", copy = folder.path + "copy";
    bench::writeRandomFile(zqf, SIZE, 1);
    const ZqImage image(folder.path);
    const auto settle = [&] {
        bench::shell("rm -f '" + copy + "' && sync && cat '" + folder.path + "'img.zqf* > /dev/null");
    };
    std::vector<double> ratios, fairRatios, ours, copies, removals;
    for (auto _ : state) {
        settle();
        const double copying =
            bench::secondsOf([&] { bench::shell("cp '" + zqf + "' '" + copy + "' && sync '" + copy + "'"); });
        // What we do beyond a copy is to remove what was copied; on a device that is told of each freed
        // block, that takes as long as writing.
        const double removing = bench::secondsOf([&] { bench::shell("rm '" + copy + "'"); });
        settle();
        const double splitting = bench::secondsOf([&] { image.split(partSize, false); });
        settle();
        const double joining = bench::secondsOf([&] { image.join(); });
        const double ourTime = timeSplit ? splitting : joining;
        state.SetIterationTime(ourTime);
        ours.push_back(ourTime * 1e3);
        copies.push_back(copying * 1e3);
        removals.push_back(removing * 1e3);
        ratios.push_back(copying / ourTime);
        fairRatios.push_back((copying + removing) / ourTime);
    }
    state.counters["ours_ms"] = bench::median(ours);
    state.counters["cp_ms"] = bench::median(copies);
    state.counters["rm_ms"] = bench::median(removals);
    state.counters["cp/ours"] = bench::median(ratios);
    state.counters["(cp+rm)/ours"] = bench::median(fairRatios);
}

void split(benchmark::State& state) {
    splitOrJoin(state, true);
}
void join(benchmark::State& state) {
    splitOrJoin(state, false);
}
BENCHMARK(split)
    ->Arg(1'000'000)
    ->Arg(100'000'000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(join)
    ->Arg(1'000'000)
    ->Arg(100'000'000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
