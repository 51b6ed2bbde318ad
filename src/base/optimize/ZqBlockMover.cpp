#include "ZqBlockMover.h"

#include "SxOs.h"
#include "SxXxh64.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqBlockMover";

void readAt(SxFileIO* file, uint64 block, char* to, uint64 nBlocks) {
    const auto n = static_cast<int64>(nBlocks * ZqBlocks::SIZE);
    file->seek(static_cast<int64>(block * ZqBlocks::SIZE));
    if (file->readBuffer(to, n) != n) {
        throw SxException(
            SxException("The file ends before block " + SxString(block + nBlocks), UNIT, __LINE__),
            SxFileIO::fileReadErr(file->getFilePath()), UNIT, __LINE__);
    }
}

/// Calls `run` for each run of neighbours among `n` items: with its first item and how many it has.
template<class GoesOn, class Run>
void forRuns(size_t n, const GoesOn& goesOn, const Run& run) {
    for (size_t first = 0, end = 1; first < n; first = end++) {
        while (end < n && goesOn(end))
            ++end;
        run(first, end - first);
    }
}

} // namespace

ZqBlockMover::ZqBlockMover(const ZqMovePlan& plan_, SxFileIO* image_, SxFileIO* heads_, StopTest isStopped_,
                           Counter count_)
    : plan(plan_),
      image(image_),
      heads(heads_),
      isStopped(std::move(isStopped_)),
      count(std::move(count_)) {
}

void ZqBlockMover::refuseStop() const {
    if (isStopped()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

uint64 ZqBlockMover::setHeadsAside() {
    const std::vector<ZqMovePlan::Position>& positions = plan.getHeads();
    uint64 hash = 0;
    heads->seek(0);
    for (size_t done = 0; done < positions.size(); done += steps.size()) {
        refuseStop();
        steps.clear();
        for (size_t i = done; i < std::min(positions.size(), done + PIECE); ++i)
            steps.push_back({positions[i], 0});
        read();
        const auto n = static_cast<int64>(steps.size() * ZqBlocks::SIZE);
        hash = SxXxh64::of(buffer.data(), n, hash);
        heads->writeBuffer(buffer.data(), n);
    }
    if (!positions.empty()) heads->sync();
    return hash;
}

uint64 ZqBlockMover::hashHeads() {
    uint64 hash = 0;
    const size_t nHeads = plan.getHeads().size();
    for (size_t done = 0; done < nHeads; done += PIECE) {
        refuseStop();
        const size_t n = std::min(PIECE, nHeads - done);
        buffer.resize(n * ZqBlocks::SIZE);
        readAt(heads, done, buffer.data(), n);
        hash = SxXxh64::of(buffer.data(), static_cast<int64>(buffer.size()), hash);
    }
    return hash;
}

void ZqBlockMover::doBatch(uint64 batch) {
    const std::span<const ZqMovePlan::Position> targets = plan.getBatch(batch);
    // Pieces in the order of the sources, so that each reads runs that are as long as can be.
    std::vector<Step> all;
    all.reserve(targets.size());
    for (const ZqMovePlan::Position to : targets) {
        const ZqMovePlan::Position from = plan.sourceOf(to);
        const std::optional<uint64> slot = plan.headAt(from);
        all.push_back({slot ? HEAD + *slot : from, to});
    }
    std::sort(all.begin(), all.end(), [](const Step& a, const Step& b) { return a.from < b.from; });
    for (size_t done = 0; done < all.size(); done += steps.size()) {
        refuseStop();
        const auto begin = all.begin() + static_cast<std::ptrdiff_t>(done);
        steps.assign(begin, begin + static_cast<std::ptrdiff_t>(std::min(PIECE, all.size() - done)));
        read();
        write();
    }
    if (!all.empty()) image->sync();
}

void ZqBlockMover::read() {
    buffer.resize(steps.size() * ZqBlocks::SIZE);
    const auto goesOn = [&](size_t i) { return steps[i].from == steps[i - 1].from + 1; };
    // A disk that gets all of it asked for at once can choose its own way.
    forRuns(steps.size(), goesOn, [&](size_t first, size_t n) {
        if (steps[first].from >= HEAD) return;
        SxOs::get().adviseSoon(image->getFd(), static_cast<int64>(steps[first].from * ZqBlocks::SIZE),
                               static_cast<int64>(n * ZqBlocks::SIZE));
    });
    forRuns(steps.size(), goesOn, [&](size_t first, size_t n) {
        const bool isHead = steps[first].from >= HEAD;
        readAt(isHead ? heads : image, steps[first].from - (isHead ? HEAD : 0), place(first), n);
    });
}

void ZqBlockMover::write() {
    byTarget.resize(steps.size());
    std::iota(byTarget.begin(), byTarget.end(), 0);
    std::sort(byTarget.begin(), byTarget.end(),
              [&](uint32 a, uint32 b) { return steps[a].to < steps[b].to; });
    const auto goesOn = [&](size_t i) {
        return byTarget[i] == byTarget[i - 1] + 1 && steps[byTarget[i]].to == steps[byTarget[i - 1]].to + 1;
    };
    forRuns(steps.size(), goesOn, [&](size_t first, size_t n) {
        const size_t step = byTarget[first];
        image->seek(static_cast<int64>(uint64{steps[step].to} * ZqBlocks::SIZE));
        image->writeBuffer(place(step), static_cast<int64>(n * ZqBlocks::SIZE));
        count(n * ZqBlocks::SIZE);
    });
    image->startWriteback(0, 0);
}
