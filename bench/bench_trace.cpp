// A trace of 10 million accesses to a 100 GiB image: a file of 160 MB, in the page cache. Items are 24 bytes.

#include "Folder.h"
#include "Memory.h"
#include "Ratio.h"
#include "ReadFile.h"
#include "ZqTrace.h"

#include <functional>
#include <tsl/robin_set.h>

namespace {

constexpr int64 N = 10'000'000;
constexpr uint64 N_BLOCKS = 26'214'400;
constexpr uint64 FLAG = uint64{1} << 63;

/// A trace folder with runs of neighbouring blocks at random places, each block shifted up by `shift` bits.
struct TraceFolder : bench::Folder {
    explicit TraceFolder(int shift = 0) {
        std::mt19937_64 random(1);
        SxArray<uint64> fields(2 * N);
        uint64 block = 0;
        for (int64 i = 0; i < N; ++i) {
            block = i % 16 == 0 ? random() % N_BLOCKS : (block + 1) % N_BLOCKS;
            fields(2 * i) = block << shift | (i % 10 == 0 ? FLAG : 0);
            fields(2 * i + 1) = 133'000'000'000'000'000 + static_cast<uint64>(i) * 500;
        }
        SxFileIO(path + "img.trc", "wb").write(fields);
    }
};

/// Times `ours` against reading the file, and tells its memory as a share of all items.
void againstReading(benchmark::State& state, const TraceFolder& folder, const std::function<void()>& ours) {
    bench::ratio(
        state, bench::nothing, [&] { bench::readFile(folder.path + "img.trc"); }, ours);
    const double peak = bench::peakMemoryOf(ours);
    state.counters["speed/reading"] = 1 / state.counters["ours/ref"];
    state.counters["peak_MB"] = peak / 1e6;
    state.counters["peak/items"] = peak / static_cast<double>(N * sizeof(ZqTraceItem));
}

// Goals: a speed of at least 0.3 of reading, and memory of at most 2 times the items.
void getItemsAgainstReadingTheFile(benchmark::State& state) {
    const TraceFolder folder;
    againstReading(state, folder,
                   [&] { benchmark::DoNotOptimize(ZqTrace::getItems(folder.path, false, true, true)); });
}
BENCHMARK(getItemsAgainstReadingTheFile)->Iterations(11)->UseManualTime()->Unit(benchmark::kMillisecond);

void readItemsAgainstReadingTheFile(benchmark::State& state) {
    const TraceFolder folder;
    againstReading(state, folder, [&] {
        SxFileIO file(folder.path + "img.trc", "rb");
        benchmark::DoNotOptimize(ZqTrace::readItems(&file));
    });
}
BENCHMARK(readItemsAgainstReadingTheFile)->Iterations(11)->UseManualTime()->Unit(benchmark::kMillisecond);

// Block indices of a real image, and ones 30 bits further up, which are hashed.
void uniqueItemsAgainstReadingTheFile(benchmark::State& state) {
    const TraceFolder folder(static_cast<int>(state.range(0)));
    againstReading(state, folder,
                   [&] { benchmark::DoNotOptimize(ZqTrace::getItems(folder.path, true, true, true)); });
}
BENCHMARK(uniqueItemsAgainstReadingTheFile)
    ->Arg(0)
    ->Arg(30)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// The items, and a hash set of their blocks.
void uniqueByHashing(const SxString& path) {
    const auto all = ZqTrace::getItems(path, false, true, true);
    tsl::robin_set<uint64> seen;
    SxArray<ZqTraceItem> items;
    for (const ZqTraceItem& item : *all) {
        if (seen.insert(item.block).second) items.append(item);
    }
    benchmark::DoNotOptimize(items.data());
}

void uniqueItemsAgainstHashing(benchmark::State& state) {
    const TraceFolder folder;
    bench::ratio(
        state, bench::nothing, [&] { uniqueByHashing(folder.path); },
        [&] { benchmark::DoNotOptimize(ZqTrace::getItems(folder.path, true, true, true)); });
}
BENCHMARK(uniqueItemsAgainstHashing)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
