// A drive over a complete image of 1 GiB, stored in runs of 50 blocks in random order, against plain pread of
// the same number of bytes from a file; and the memory of a drive of 100 GiB.

#include "Folder.h"
#include "Ratio.h"
#include "Runs.h"
#include "VirtualDisk.h"
#include "ZqBlocks.h"

#include <fcntl.h>
#include <fstream>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64 N_BLOCKS = (uint64{1} << 30) / ZqBlocks::SIZE, RUN = 50;

struct ImageFolder : bench::Folder {
    explicit ImageFolder(uint64 nBlocks) {
        const std::vector<uint64> map = bench::mapInRuns(nBlocks, RUN);
        SxFileIO(path + "img.idx", "wb").writeBuffer(map.data(), static_cast<int64>(nBlocks * 8));
        if (nBlocks == N_BLOCKS) {
            bench::writeRandomFile(path + "img.zqf", static_cast<int64>(nBlocks * ZqBlocks::SIZE), 1);
        } else {
            SxFileIO(path + "img.zqf", "wb").truncate(static_cast<int64>(nBlocks * ZqBlocks::SIZE));
        }
        fd = open((path + "img.zqf").ascii(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) std::abort();
    }
    ~ImageFolder() { close(fd); }
    ImageFolder(const ImageFolder&) = delete;
    ImageFolder& operator=(const ImageFolder&) = delete;

    VirtualDisk::Config config(uint64 nBlocks) const {
        return {path, nBlocks * ZqBlocks::SIZE, 4096, nBlocks, true, false, 0};
    }
    void dropFromCache() const {
        fdatasync(fd);
        posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    }

    int fd;
};

const ImageFolder& imageFolder() {
    static const ImageFolder folder(N_BLOCKS);
    return folder;
}

/// The same requests to a drive and to the file.
void readAgainstPread(benchmark::State& state, uint32 size, uint64 nRequests, bool random, bool cold) {
    const ImageFolder& folder = imageFolder();
    VirtualDisk disk(folder.config(N_BLOCKS), [](uint64) {});
    std::vector<uint64> offsets(nRequests);
    std::mt19937_64 engine(2);
    const uint64 nPlaces = N_BLOCKS * ZqBlocks::SIZE / size;
    for (uint64 i = 0; i < nRequests; ++i)
        offsets[i] = (random ? engine() % nPlaces : i % nPlaces) * size;
    std::vector<char> buffer(size);
    const auto prepare = [&] {
        if (cold) folder.dropFromCache();
    };
    const auto plain = [&] {
        for (const uint64 offset : offsets) {
            if (pread(folder.fd, buffer.data(), size, static_cast<off_t>(offset)) != size) std::abort();
        }
    };
    const auto drive = [&] {
        for (const uint64 offset : offsets) {
            int error = 0;
            const auto result = disk.read(offset, size, buffer.data(), 1, false, &error);
            if (result != VirtualDisk::Result::Done) std::abort();
        }
    };
    if (!cold) plain();
    bench::ratio(state, prepare, plain, drive);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(nRequests * size));
}

// Goal: at most 1.1.
void cachedMiBAgainstPread(benchmark::State& state) {
    readAgainstPread(state, MAX_REQUEST, 1024, false, false);
}
BENCHMARK(cachedMiBAgainstPread)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

// Goal: at most 1.2.
void cachedRandomBlockAgainstPread(benchmark::State& state) {
    readAgainstPread(state, ZqBlocks::SIZE, 200'000, true, false);
}
BENCHMARK(cachedRandomBlockAgainstPread)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

// What the file has in another order, from the device.
void coldMiBAgainstPread(benchmark::State& state) {
    readAgainstPread(state, MAX_REQUEST, 256, false, true);
}
BENCHMARK(coldMiBAgainstPread)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

int64 residentKiB(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == key) break;
    }
    int64 value = 0;
    status >> value;
    return value;
}

// Goal: at most 9 bytes a block, also at the peak.
void openDriveOf100GiB(benchmark::State& state) {
    constexpr uint64 N = uint64{100} << 30 >> 12;
    const ImageFolder folder(N);
    int64 before = 0, after = 0, peak = 0;
    for (auto _ : state) {
        std::ofstream("/proc/self/clear_refs") << "5";
        before = residentKiB("VmRSS:");
        const double seconds = bench::secondsOf([&] {
            const VirtualDisk disk(folder.config(N), [](uint64) {});
            after = residentKiB("VmRSS:");
            peak = residentKiB("VmHWM:");
        });
        state.SetIterationTime(seconds);
    }
    state.counters["bytes_a_block"] = static_cast<double>(after - before) * 1024 / N;
    state.counters["peak_bytes_a_block"] = static_cast<double>(peak - before) * 1024 / N;
}
BENCHMARK(openDriveOf100GiB)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
