// The image map of a 100 GiB disk: a file of 200 MiB, in the page cache. It is read with one call straight
// into its array, which on a little-endian machine is the decoded form already.

#include "Folder.h"
#include "Ratio.h"
#include "ReadFile.h"
#include "ZqImage.h"

#include <numeric>
#include <vector>

namespace {

constexpr int64 N = (200 << 20) / 8;

/// An image folder with a random permutation as its map.
struct MapFolder : bench::Folder {
    std::vector<uint64> map = std::vector<uint64>(N);

    MapFolder() {
        std::iota(map.begin(), map.end(), 0);
        std::shuffle(map.begin(), map.end(), std::mt19937_64(1));
        SxFileIO file(path + "img.idx", "wb");
        file.writeBuffer(map.data(), N * 8);
    }
};

// Goal: at most 1.5.
void getMapAgainstReadingTheFile(benchmark::State& state) {
    const MapFolder folder;
    const ZqImage image(folder.path);
    bench::ratio(
        state, bench::nothing, [&] { bench::readFile(folder.path + "img.idx"); },
        [&] { benchmark::DoNotOptimize(image.getMap().data()); });
}
BENCHMARK(getMapAgainstReadingTheFile)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

// Goal: at most 2.
void getReverseMapAgainstScatter(benchmark::State& state) {
    const MapFolder folder;
    const ZqImage image(folder.path);
    const auto scatter = [&] {
        std::vector<uint64> reverse(N, ~uint64{0});
        for (size_t r = 0; r < folder.map.size(); ++r)
            reverse[folder.map[r]] = r;
        benchmark::DoNotOptimize(reverse.data());
    };
    bench::ratio(state, bench::nothing, scatter,
                 [&] { benchmark::DoNotOptimize(image.getReverseMap().data()); });
}
BENCHMARK(getReverseMapAgainstScatter)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
