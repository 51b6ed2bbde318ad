// What a mount of a complete image of 100 GiB takes so that the kernel can serve it: the metadata of its
// EROFS, a folder of 2000 files, made anew for the order in which the blocks are stored. The blocks
// themselves are a hole.

#include "ErofsMetadata.h"
#include "Folder.h"
#include "LargeErofs.h"
#include "Memory.h"
#include "Ratio.h"
#include "Runs.h"
#include "StoredReader.h"
#include "VirtualDisk.h"

namespace {

constexpr uint64 N_RAW = (uint64{100} << 30) / ZqBlocks::SIZE, N_FILES = 2000;

/// The image, stored in runs of `nRun` blocks in random order.
struct LargeImage : bench::Folder {
    LargeImage(const bench::LargeErofs& erofs, uint64 nRun) {
        const std::vector<uint64> map = bench::mapInRuns(N_RAW, nRun);
        SxFileIO(path + "img.idx", "wb").writeBuffer(map.data(), static_cast<int64>(N_RAW * 8));
        SxFileIO zqf(path + "img.zqf", "wb");
        zqf.truncate(static_cast<int64>(N_RAW * ZqBlocks::SIZE));
        for (uint64 at = 0; at < erofs.getBytes().size(); at += ZqBlocks::SIZE) {
            zqf.seek(static_cast<int64>(map[at / ZqBlocks::SIZE] * ZqBlocks::SIZE));
            zqf.writeBuffer(erofs.getBytes().data() + at, ZqBlocks::SIZE);
        }
    }
};

/// Goals for the time: 1 s in runs of 50 blocks, 6 s for single blocks. `more_MB` is what it needs at its
/// highest beside the map that a drive has anyway; it may be `metadata_MB` and 64 MB.
void convert100GiB(benchmark::State& state) {
    const bench::LargeErofs erofs(N_RAW, N_FILES);
    const LargeImage image(erofs, static_cast<uint64>(state.range(0)));
    const VirtualDisk disk({image.path, N_RAW * ZqBlocks::SIZE, 4096, N_RAW, true, false, 0}, [](uint64) {});
    std::vector<double> seconds;
    uint64 nBytes = 0, nChunks = 0;
    double memory = 0;
    for (auto _ : state) {
        SxFileIO out(image.path + "metadata", "wb");
        const double grown = bench::peakMemoryOf([&] {
            seconds.push_back(bench::secondsOf([&] {
                StoredReader reader(disk.getMap(), disk.getStored());
                ErofsMetadata metadata(&reader, disk.getMap(), N_RAW);
                metadata.write([&](const std::string& bytes) {
                    out.writeBuffer(bytes.data(), static_cast<int64>(bytes.size()));
                });
                if (metadata.getNFileBlocks() != erofs.countFileBlocks())
                    throw std::runtime_error("the metadata have other files");
                nBytes = metadata.getSize();
                nChunks = metadata.getNChunks();
            }));
        });
        state.SetIterationTime(seconds.back());
        memory = std::max(memory, grown);
    }
    state.counters["median_s"] = bench::median(seconds);
    state.counters["metadata_MB"] = static_cast<double>(nBytes) / 1e6;
    state.counters["blocks/chunk"] =
        static_cast<double>(erofs.countFileBlocks()) / static_cast<double>(nChunks);
    state.counters["more_MB"] = memory / 1e6;
}
BENCHMARK(convert100GiB)
    ->ArgName("run")
    ->Arg(50)
    ->Arg(1)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
