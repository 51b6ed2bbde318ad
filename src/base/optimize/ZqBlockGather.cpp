#include "ZqBlockGather.h"

#include "SxClock.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <numeric>

namespace {
constexpr const char* UNIT = "src/base/optimize/ZqBlockGather";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr const char* SCRATCH = "scratch";
} // namespace

void ZqBlockGather::read(std::span<const ZqMovePlan::Position> positions, char* to) {
    byPlace.resize(positions.size());
    std::iota(byPlace.begin(), byPlace.end(), 0);
    const auto place = [&](size_t i) { return positions[byPlace[i]]; };
    std::sort(byPlace.begin(), byPlace.end(),
              [&](uint32 a, uint32 b) { return positions[a] < positions[b]; });
    // The disk is asked for all of it, and then each run is read.
    for (const bool isAsked : {true, false}) {
        for (size_t i = 0, end = 1; i < byPlace.size(); i = end++) {
            while (end < byPlace.size() && place(end) == place(end - 1) + 1 &&
                   byPlace[end] == byPlace[end - 1] + 1) {
                ++end;
            }
            const auto offset = static_cast<int64>(place(i) * BLOCK),
                       n = static_cast<int64>((end - i) * BLOCK);
            if (isAsked) {
                SxOs::get().adviseSoon(file->getFd(), offset, n);
                continue;
            }
            file->seek(offset);
            if (file->readBuffer(to + byPlace[i] * BLOCK, n) == n) continue;
            throw SxException(
                SxException("The file ends before block " + SxString(place(i) + (end - i)), UNIT, __LINE__),
                SxFileIO::fileReadErr(file->getFilePath()), UNIT, __LINE__);
        }
    }
}

namespace {

/// Seconds that it takes to write `n` bytes to a new file in `folder`, synced; it is removed again.
double timeWrite(const SxString& folder, const std::function<void(std::vector<char>* bytes)>& fill,
                 size_t n) {
    const SxString scratch = folder + SCRATCH;
    std::vector<char> bytes(n);
    SxFileIO target;
    target.create(scratch);
    const int64 startNs = SxClock::get().steadyNs();
    try {
        fill(&bytes);
        target.writeBuffer(bytes.data(), static_cast<int64>(n));
        target.sync();
    } catch (const SxException&) {
        SxFSAction::rm(scratch);
        throw;
    }
    const int64 ns = std::max<int64>(SxClock::get().steadyNs() - startNs, 1);
    SxFSAction::rm(scratch);
    return static_cast<double>(ns) / 1e9;
}

} // namespace

double ZqBlockGather::measureRate(SxFileIO* file, std::span<const ZqMovePlan::Position> positions,
                                  const SxString& folder) {
    const auto piece = positions.first(std::min<size_t>(positions.size(), PIECE));
    if (piece.empty()) return 0;
    const size_t n = piece.size() * BLOCK;
    return static_cast<double>(n) /
           timeWrite(
               folder, [&](auto* bytes) { ZqBlockGather(file).read(piece, bytes->data()); }, n);
}

double ZqBlockGather::measureSync(const SxString& folder) {
    return timeWrite(
        folder, [](auto*) {}, BLOCK);
}
