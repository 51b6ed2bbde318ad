// A copy of ranges with its digest, synced, against the digest alone of the same bytes from memory. The files
// lie in memory where there is such a place, so that no device is measured. The goal is 1.25 at most for the
// ratio: the copy reaches 0.8 of the digest's speed.

#include "Folder.h"
#include "Ratio.h"
#include "SxMd5.h"
#include "ZqBlocks.h"
#include "ZqFileCopyTask.h"

#include <filesystem>
#include <numeric>

namespace {

constexpr uint64 BLOCK = ZqBlocks::SIZE;

const char* base() {
    return std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::getenv("TMPDIR");
}

enum Shape { Whole, GatheredBlocks, ScatteredBlocks };

/// The places of the blocks on the side where they are scattered.
SxArray<uint64> shuffled(uint64 nBlocks) {
    SxArray<uint64> places(static_cast<int64>(nBlocks));
    std::iota(places.begin(), places.end(), 0);
    std::shuffle(places.begin(), places.end(), std::mt19937_64(1));
    return places;
}

void copyAgainstMd5(benchmark::State& state, Shape shape) {
    const auto mebibytes = state.range(0);
    const int64 size = mebibytes << 20;
    const bench::Folder folder(base());
    const SxString source = folder.path + "source", target = folder.path + "target";
    bench::writeRandomFile(source, size, 1);
    SxArray<char> bytes(size);
    if (SxFileIO(source, "rb").readBuffer(bytes.data(), size) != size) std::abort();
    const uint64 nBlocks = static_cast<uint64>(size) / BLOCK;
    const SxArray<uint64> places = shuffled(nBlocks);
    const int64 nRanges = shape == Whole ? 1 : static_cast<int64>(nBlocks);

    const auto rangeAt = [&](int64 i) -> ZqFileCopyTask::Range {
        if (shape == Whole) return {0, 0, static_cast<uint64>(size)};
        const uint64 place = places(i) * BLOCK, position = static_cast<uint64>(i) * BLOCK;
        if (shape == GatheredBlocks) return {place, position, BLOCK};
        return {position, place, BLOCK};
    };
    bench::ratio(
        state,
        [&] {
            // Blocks go into an image that is there; the other copies make a file.
            if (shape == ScatteredBlocks) {
                if (!SxFSAction::exists(target)) SxFSAction::cp(source, target);
            } else if (SxFSAction::exists(target)) {
                SxFSAction::rm(target);
            }
        },
        [&] {
            SxMd5 md5;
            md5.update(bytes.data(), size, size);
            benchmark::DoNotOptimize(md5);
        },
        [&] {
            ZqFileCopyTask task(source, target, nRanges, rangeAt);
            task.start(6);
            task.wait();
            if (task.hasException() || task.getNCurrent() != static_cast<uint64>(size)) std::abort();
        });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}

void wholeFile(benchmark::State& state) {
    copyAgainstMd5(state, Whole);
}
BENCHMARK(wholeFile)->Arg(16)->Arg(256)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

// What a part of a patch takes out of an image.
void gatheredBlocks(benchmark::State& state) {
    copyAgainstMd5(state, GatheredBlocks);
}
BENCHMARK(gatheredBlocks)->Arg(16)->Arg(256)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

// What a part of a patch puts into an image.
void scatteredBlocks(benchmark::State& state) {
    copyAgainstMd5(state, ScatteredBlocks);
}
BENCHMARK(scatteredBlocks)->Arg(16)->Arg(256)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
