#include "ZqImageInPlaceDefrag.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "ZqBlockGather.h"
#include "ZqBlockProbe.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqMoveProgress.h"
#include "ZqMoveRounds.h"
#include "ZqOrderRemains.h"
#include "ZqReorderInputs.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqImageInPlaceDefrag";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
/// The percentage when all blocks are in their places: what then comes has none.
constexpr double MOVED = 50;
/// One for the blocks, one for how far the job has come.
constexpr uint64 SYNCS_A_BATCH = 2;
/// Positions without a block are filled with zeros in pieces of so many.
constexpr uint64 ZEROS = 256;

/// Takes the room of `n` bytes from the disk. A file system that can't say so beforehand says so later.
void reserve(SxFileIO* file, uint64 offset, uint64 n) {
    if (n == 0) return;
    const int result =
        SxOs::get().preallocate(file->getFd(), static_cast<int64>(offset), static_cast<int64>(n));
    if (result >= 0 || result == -EOPNOTSUPP) return;
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                      SxFileIO::fileWriteErr(file->getFilePath()), UNIT, __LINE__);
}

void requireMap(const SxString& folder, const SxString& digest) {
    const SxString file = folder + ZqImageFiles::IDX;
    if (SxMd5::file(file) == digest) return;
    throw SxException("'" + file +
                          "' isn't the map that the optimisation was begun with: without that it can't go "
                          "on, and the image "
                          "must be fetched or built anew",
                      UNIT, __LINE__);
}

} // namespace

ZqImageInPlaceDefrag::ZqImageInPlaceDefrag(const SxString& image, const SxString& index)
    : ZqDefragJob(image, index),
      work(imagePath),
      isResumed(false) {
    setThreadName("defrag in place");
}

ZqImageInPlaceDefrag::ZqImageInPlaceDefrag(const SxString& image)
    : ZqDefragJob(image, ZqImageFolder::prefix(image) + ZqImageFiles::OPTIMIZE_WORK),
      work(imagePath),
      isResumed(true) {
    setThreadName("defrag in place");
}

void ZqImageInPlaceDefrag::reorder() {
    if (isResumed && work.state() > ZqOptimizeFolder::Moving) return;
    Source source = isResumed ? goOn() : begin();
    if (isForecastOnly()) return forecast(std::move(source));
    move(work.readNote(), std::move(source));
}

ZqImageInPlaceDefrag::Source ZqImageInPlaceDefrag::begin() {
    ZqReorderInputs inputs(imagePath, indexPath, indexName);
    inputs.check(true, isForecastOnly());
    Source source = inputs.makeSource();
    const auto sizeOld = static_cast<uint64>(SxFSAction::sizeOf(imagePath + ZqImageFiles::ZQF));
    setTotal(sizeOld);
    if (sizeOld != inputs.getOldApp().sizeZqf) {
        throw SxException("In-place defragmentation not available for partially downloaded ZqF file.", UNIT,
                          __LINE__);
    }
    requireBlocks(source, sizeOld);
    const uint64 sizeNew = inputs.getNewApp().sizeZqf;
    uint64 nOut = 0; // blocks out of place
    for (uint64 to = 0; to < source.size(); ++to)
        nOut += source[to] != ZqMovePlan::NONE && source[to] != to;
    const uint64 nHeads = std::min<uint64>(limits.nHeads, nOut);
    const uint64 nMapBytes = source.size() * sizeof(uint64);
    bytesExtra = nHeads * BLOCK + nMapBytes + std::max(sizeOld, sizeNew) - sizeOld;
    const uint64 nCopied = isStaged() ? nMapBytes : 0;
    ZqImageFolder::requireSpace(imagePath, bytesExtra - nCopied + ZqOptimizeFolder::ROOM_FOR_RECORDS);
    // Nothing is begun in vain where it can't be written into.
    SxFileIO(imagePath + ZqImageFiles::ZQF, "r+b", 0600);
    if (isForecastOnly()) return source;
    refuseStop();
    const ZqOptimizeNote note{ZqOptimizeNote::InPlace,
                              inputs.getGuid(),
                              {inputs.getOldDigest(), sizeOld},
                              {inputs.getNewDigest(), sizeNew},
                              consumed,
                              limits,
                              {}};
    try {
        makeWorkFolder(note, nHeads);
    } catch (const SxException&) {
        // Nothing of the image has changed yet.
        if (!work.isLocked()) work.remove();
        throw;
    }
    return source;
}

void ZqImageInPlaceDefrag::countBlocks(const ZqMovePlan& plan, uint64 sizeOld, uint64 sizeNew) {
    nMoved = plan.getNMoved();
    nKept = plan.getNKept();
    nIncluded = nMoved + nKept;
    uint64 nCleared = 0;
    for (ZqMovePlan::Position to = 0; to < std::min(sizeOld, sizeNew) / BLOCK; ++to)
        nCleared += plan.sourceOf(to) == ZqMovePlan::NONE;
    forecastBytes = (nMoved + nCleared) * BLOCK;
    changed = forecastBytes > 0 || sizeOld != sizeNew;
}

void ZqImageInPlaceDefrag::forecast(Source source) {
    SxFileIO zqf(imagePath + ZqImageFiles::ZQF, "rb");
    Source first;
    for (uint64 to = 0; to < source.size() && first.size() < ZqBlockGather::PIECE; ++to)
        if (source[to] != ZqMovePlan::NONE && source[to] != to) first.push_back(source[to]);
    const double rate = ZqBlockGather::measureRate(&zqf, first, indexPath);
    ZqMovePlan plan(std::move(source), limits);
    countBlocks(plan, static_cast<uint64>(zqf.getSize()), ZqAppParams(indexPath).sizeZqf);
    uint64 nHeads = 0, nSyncs = 0;
    while (plan.nextRound()) {
        nHeads += plan.getHeads().size();
        nSyncs += SYNCS_A_BATCH * (plan.getNBatches() + 1);
    }
    if (rate == 0) return;
    forecastSeconds = static_cast<double>(forecastBytes + nHeads * BLOCK) / rate +
                      static_cast<double>(nSyncs) * ZqBlockGather::measureSync(indexPath);
}

void ZqImageInPlaceDefrag::requireBlocks(const Source& source, uint64 sizeOld) const {
    const SxString zqf = imagePath + ZqImageFiles::ZQF;
    if (sizeOld % BLOCK != 0) {
        throw SxException("'" + zqf + "' has " + SxString(sizeOld) + " bytes, which aren't whole blocks",
                          UNIT, __LINE__);
    }
    for (const ZqMovePlan::Position from : source) {
        if (from == ZqMovePlan::NONE || from < sizeOld / BLOCK) continue;
        throw SxException("'" + imagePath + ZqImageFiles::IDX + "' names ZqF block " +
                              SxString(uint64{from}) + ", beyond the end of '" + zqf + "'",
                          UNIT, __LINE__);
    }
}

void ZqImageInPlaceDefrag::makeWorkFolder(const ZqOptimizeNote& note, uint64 nHeads) const {
    if (isStaged()) {
        work.takeStaged(false);
    } else {
        copyIndex(note.to.idx);
    }
    SxFileIO heads;
    heads.create(work.file(ZqOptimizeFolder::HEADS));
    reserve(&heads, 0, nHeads * BLOCK);
    heads.sync();
    work.writeNote(note);
    ZqMoveProgress::create(work.file(ZqOptimizeFolder::PROGRESS), work.digestNote(), {});
    work.lock();
}

void ZqImageInPlaceDefrag::copyIndex(const SxString& digest) const {
    work.remove();
    work.make();
    ZqOptimizeFolder::copyIndex(indexPath, work.getPath());
    ZqReorderInputs copied(imagePath, work.getPath(), indexName);
    copied.check(false);
    if (copied.getNewDigest() == digest) return;
    throw SxException("'" + indexName + ZqImageFiles::IDX + "' changed while it was read", UNIT, __LINE__);
}

ZqImageInPlaceDefrag::Source ZqImageInPlaceDefrag::goOn() const {
    const ZqOptimizeNote note = work.readNote();
    ZqMoveProgress::open(work.file(ZqOptimizeFolder::PROGRESS)).requirePlan(work.digestNote());
    requireMap(imagePath, note.from.idx);
    requireMap(work.getPath(), note.to.idx);
    ZqReorderInputs inputs(imagePath, work.getPath(), work.getPath());
    inputs.check(false);
    if (!(inputs.getGuid() == note.guid) || inputs.getNewApp().sizeZqf != note.to.sizeZqf) {
        throw SxException("'" + work.file(ZqOptimizeFolder::NOTE) +
                              "' tells of other records than those beside it",
                          UNIT, __LINE__);
    }
    const SxString zqf = imagePath + ZqImageFiles::ZQF;
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(zqf));
    if (size != note.from.sizeZqf && size != note.to.sizeZqf) {
        throw SxException("'" + zqf + "' has " + SxString(size) + " bytes, not the " +
                              SxString(note.from.sizeZqf) + " that it had when the optimisation was begun",
                          UNIT, __LINE__);
    }
    return inputs.makeSource();
}

void ZqImageInPlaceDefrag::move(const ZqOptimizeNote& note, Source source) {
    setTotal(note.from.sizeZqf);
    // Somebody may have removed it.
    if (!work.isLocked()) work.lock();
    // The digest of the old map stays as long as that, which a run that goes on looks at.
    ZqOrderRemains::remove(imagePath, {.idxMd5 = true});
    SxFileIO zqf(imagePath + ZqImageFiles::ZQF, "r+b", 0600);
    const auto size = static_cast<uint64>(zqf.getSize());
    if (size < note.to.sizeZqf) {
        reserve(&zqf, size, note.to.sizeZqf - size);
        zqf.truncate(static_cast<int64>(note.to.sizeZqf));
        zqf.sync();
    }
    ZqMovePlan plan(std::move(source), note.limits);
    countBlocks(plan, note.from.sizeZqf, note.to.sizeZqf);
    ZqMoveProgress howFar = ZqMoveProgress::open(work.file(ZqOptimizeFolder::PROGRESS));
    SxFileIO heads(work.file(ZqOptimizeFolder::HEADS), "r+b");
    advance(nKept * BLOCK);
    ZqMoveRounds(
        &plan, &zqf, &heads, &howFar, [this] { return isStopRequested(); },
        [this](uint64 bytes) { advance(bytes); }, [this](uint64 bytes) { addWritten(bytes); })
        .run();
    clearUnused(plan, note, &zqf);
    if (zqf.getSize() > static_cast<int64>(note.to.sizeZqf)) {
        zqf.truncate(static_cast<int64>(note.to.sizeZqf));
    }
    zqf.sync();
    const uint64 probe = ZqBlockProbe::of(&zqf, movedAmong(plan));
    zqf.close();
    ZqOrderRemains::renewSyncedSize(imagePath);
    const uint64 replaces = work.findReplaced();
    howFar.set({ZqMoveProgress::Records, 0, replaces, 0, probe});
}

/// Some positions whose blocks have moved, from all over the file.
ZqImageInPlaceDefrag::Source ZqImageInPlaceDefrag::movedAmong(const ZqMovePlan& plan) {
    constexpr uint64 MOST = 256;
    const uint64 each = plan.getNMoved() / MOST + 1;
    Source some;
    uint64 nMoved = 0;
    for (ZqMovePlan::Position to = 0; nMoved < plan.getNMoved(); ++to) {
        if (!plan.isMoved(to)) continue;
        if (nMoved++ % each == 0) some.push_back(to);
    }
    return some;
}

void ZqImageInPlaceDefrag::requireMoved(const SxString& image) {
    const ZqOptimizeFolder work(image);
    // Once the old map has gone, nothing tells what has moved.
    if (!work.has(ZqImageFiles::IDX) || !(SxMd5::file(image + ZqImageFiles::IDX) == work.readNote().from.idx))
        return;
    const ZqReorderInputs inputs(image, work.getPath(), work.getPath());
    ZqMovePlan plan(inputs.makeSource(work.readNote().to.sizeZqf), {});
    SxFileIO zqf(image + ZqImageFiles::ZQF, "rb");
    if (ZqBlockProbe::of(&zqf, movedAmong(plan)) ==
        ZqMoveProgress::open(work.file(ZqOptimizeFolder::PROGRESS)).get().probe) {
        return;
    }
    // The old records are there as long as the new ones haven't taken their places.
    const bool isWhole = work.has(ZqImageFiles::IMAGE_JSON) && work.has(ZqImageFiles::APP_JSON);
    throw SxException("'" + image + ZqImageFiles::ZQF + "' isn't the file of which blocks have moved: " +
                          (isWhole ? "if it was brought back as it was before, remove optimize.lock and "
                                     "optimize.work beside it"
                                   : "the image must be fetched or built anew"),
                      UNIT, __LINE__);
}

void ZqImageInPlaceDefrag::advance(uint64 bytes) {
    inPlace += bytes;
    const auto nBlocks = static_cast<double>(std::max<uint64>(nKept + nMoved, 1));
    setCurrent(inPlace, static_cast<double>(inPlace) / BLOCK * MOVED / nBlocks);
}

void ZqImageInPlaceDefrag::clearUnused(const ZqMovePlan& plan, const ZqOptimizeNote& note, SxFileIO* zqf) {
    const std::vector<char> zeros(ZEROS * BLOCK, 0);
    // What the file has grown by is zeros where no block came.
    const uint64 n = std::min(note.from.sizeZqf, note.to.sizeZqf) / BLOCK;
    for (uint64 first = 0; first < n;) {
        refuseStop();
        uint64 end = first;
        while (end < n && end - first < ZEROS &&
               plan.sourceOf(static_cast<ZqMovePlan::Position>(end)) == ZqMovePlan::NONE) {
            ++end;
        }
        if (end > first) {
            zqf->seek(static_cast<int64>(first * BLOCK));
            zqf->writeBuffer(zeros.data(), static_cast<int64>((end - first) * BLOCK));
            addWritten((end - first) * BLOCK);
        }
        first = std::max(end, first + 1);
    }
}
