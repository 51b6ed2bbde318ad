#include "ZqImageOptimize.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqImage.h"
#include "ZqImageDefrag.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInPlaceDefrag.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqMoveProgress.h"
#include "ZqOptimizeFolder.h"
#include "ZqOrderRemains.h"
#include "ZqSyncedSize.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqImageOptimize";
constexpr int64 POLL_MS = 1000;
constexpr uint64 ROOM_FOR_RECORDS = 1 << 20;
constexpr const char* INDEX_FILES[] = {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON,
                                       ZqImageFiles::IDX_MD5, ZqImageFiles::IDX_7Z, ZqImageFiles::IDX};
constexpr const char* COPY_FAILED = "ZqF Defragmentation Thread crashed";
constexpr const char* IN_PLACE_FAILED = "ZqF Defragmentation Thread failed.";

/// Where the path leads, for a folder that is removed at the end.
SxString realFolder(const SxString& path) {
    std::string real;
    const bool isThere = SxOs::get().canonical(SxOs::hostPath(path), &real) == 0;
    return ZqSysEnv::unifySlashes(
        ZqImageFolder::prefix(isThere ? SxString(real) : SxFileInfo(path).getAbsPath()));
}

/// What in an index folder tells that it is an image that is used or published, too; empty for none.
SxString findImageMark(const SxString& index) {
    for (const SxString name : {ZqImageFiles::LOCK, ZqImageFiles::LAYER_INDEX, ZqImageFiles::TRACES,
                                ZqImageFiles::PACKED, ZqImageFiles::STREAM_JSON}) {
        if (!SxFSAction::isGone(index + name)) return name;
    }
    return {};
}

void log(const SxString& text) {
    zqLogMsg("base", "ZqImageOptimize::main: " + text);
}

} // namespace

ZqImageOptimize::ZqImageOptimize(const SxString& imagePath_, const SxString& indexPath_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      imagePath(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(imagePath_))),
      indexPath(realFolder(indexPath_)),
      isResumed(false),
      indexName(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(indexPath_))),
      work(SxPtr<ZqOptimizeFolder>::create(imagePath)) {
    setThreadName("image optimize");
}

ZqImageOptimize::ZqImageOptimize(const SxString& imagePath_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      imagePath(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(imagePath_))),
      indexPath(imagePath + ZqImageFiles::OPTIMIZE_WORK),
      isResumed(true),
      indexName(indexPath),
      work(SxPtr<ZqOptimizeFolder>::create(imagePath)) {
    setThreadName("image optimize");
}

void ZqImageOptimize::main() {
    try {
        if (isResumed) {
            goOn();
        } else {
            begin();
        }
    } catch (const SxException& e) {
        ZqJobFailure::report(
            this, "Cannot defragment ZqF file in " + imagePath + " based on index in " + indexName + ": ",
            imagePath, e, UNIT, __LINE__);
    }
}

void ZqImageOptimize::begin() {
    requireIndex();
    const auto lock =
        ZqImageLock::takeAnyState(imagePath, ZqImageLock::Shape, ZqImageLock::Exclusive, "image optimize");
    // The one folder is removed at the end, the other one is emptied at the beginning.
    if (ZqImageStaging::liesIn(imagePath, indexPath) || ZqImageStaging::liesIn(indexPath, work->getPath())) {
        throw SxException("'" + indexName + "' is, holds or works on the image '" + imagePath +
                              "'; give another index folder",
                          UNIT, __LINE__);
    }
    work->requireOwn();
    if (work->isDone()) work->remove();
    if (work->isLocked() || work->lacksLock()) {
        throw SxException(SxException("go on with: tavrin image optimize IMAGE --resume", UNIT, __LINE__),
                          imagePath + ZqImageFiles::OPTIMIZE_LOCK +
                              " available. Unfinished optimization detected",
                          UNIT, __LINE__);
    }
    requireWhole();
    requireConsumable();
    cutDoubtful();
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(imagePath + ZqImageFiles::ZQF));
    try {
        if (size == ZqAppParams(imagePath).sizeZqf) {
            reorderInPlace();
        } else {
            log("Starting Defragmentation using copy mode.");
            copy(takeIndex(), consumes && !forecastOnly);
        }
    } catch (const SxException&) {
        sweep();
        throw;
    }
    if (!complete) sweep();
}

/// Leaves nothing in the work folder where nothing has begun that could be gone on with.
void ZqImageOptimize::sweep() const {
    if (work->isLocked()) return;
    const SxString forecast = work->file(ZqOptimizeFolder::FORECAST);
    if (!SxFSAction::isGone(forecast)) SxFSAction::rm_r(forecast);
    if (!work->has(ZqOptimizeFolder::NOTE)) work->remove();
}

/// What a power cut may have taken of a download mustn't be moved to where nobody doubts it any longer.
void ZqImageOptimize::cutDoubtful() const {
    const SxString zqf = imagePath + ZqImageFiles::ZQF;
    const std::function<bool()> stop = [this] { return stopRequested(); };
    if (!forecastOnly && SxFSAction::test_f(zqf)) ZqSyncedSize(zqf).cutBack(stop);
}

/// Who consumes an order by mistake must not lose an image.
void ZqImageOptimize::requireConsumable() const {
    const SxString mark = consumes ? findImageMark(indexPath) : SxString();
    if (mark.isEmpty()) return;
    throw SxException("'" + indexName + "' holds an image ('" + mark +
                          "'), and isn't consumed; take the order without that",
                      UNIT, __LINE__);
}

void ZqImageOptimize::requireIndex() const {
    const auto require = [&](const SxString& name) {
        if (!SxFSAction::exists(indexPath + name)) {
            throw SxException(indexName + name + " not found", UNIT, __LINE__);
        }
    };
    if (!SxFSAction::test_d(indexPath)) throw SxException(indexName + " not found", UNIT, __LINE__);
    if (!SxFSAction::exists(indexPath + ZqImageFiles::IDX_7Z)) require(ZqImageFiles::IDX);
    require(ZqImageFiles::IMAGE_JSON);
    require(ZqImageFiles::APP_JSON);
}

/// The short `img.zqf` of an image that is in parts, or on its way to another version, is no partial one.
void ZqImageOptimize::requireWhole() const {
    ZqImageLock::refuseUnfinished(imagePath);
    const ZqImage::SplitState storage = ZqImage(imagePath).getSplitState();
    if (!storage.split && !storage.joining) return;
    throw SxException("Image '" + imagePath +
                          "' is in parts; put them together first: tavrin image join IMAGE",
                      UNIT, __LINE__);
}

SxString ZqImageOptimize::takeIndex() const {
    if (consumes && !forecastOnly) return indexPath;
    const bool isPacked = !SxFSAction::exists(indexPath + ZqImageFiles::IDX);
    const SxString map = indexPath + (isPacked ? ZqImageFiles::IDX_7Z : ZqImageFiles::IDX);
    ZqImageFolder::requireSpace(imagePath, static_cast<uint64>(SxFSAction::sizeOf(map)) + ROOM_FOR_RECORDS);
    work->make();
    const SxString folder = work->getPath() + (forecastOnly ? ZqOptimizeFolder::FORECAST : "");
    if (forecastOnly) {
        SxFSAction::mkdir_p(folder, 0755);
    } else {
        work->removeRecords();
    }
    ZqOptimizeFolder::copyIndex(indexPath, folder);
    return folder;
}

void ZqImageOptimize::reorderInPlace() {
    log("Starting Defragmentation using inplace mode");
    if (consumes && !SxFSAction::isGone(indexPath + ZqImageFiles::ZQF)) {
        throw SxException("'" + indexName +
                              "' holds an image ('img.zqf'), and isn't consumed; take the order "
                              "without that",
                          UNIT, __LINE__);
    }
    // What a copy has left is of no use for a complete image.
    if (!forecastOnly) work->remove();
    ZqImageInPlaceDefrag worker(imagePath, takeIndex());
    worker.setIndexName(indexName);
    if (consumes) worker.setConsumed(indexPath);
    if (nHeads > 0) worker.setLimits({nHeads, nSteps});
    runInPlace(&worker);
}

void ZqImageOptimize::runInPlace(ZqImageInPlaceDefrag* worker) {
    runWorker(worker);
    if (worker->hasException()) {
        log("ZqF Defragmentation Thread failed.");
        throw SxException(worker->getException(), IN_PLACE_FAILED, UNIT, __LINE__);
    }
    count(*worker);
    result.mode = result.nMoved > 0 ? InPlace : None;
    if (!forecastOnly && worker->isComplete() && !stopRequested()) finish();
}

void ZqImageOptimize::copy(const SxString& index, bool isConsumed) {
    result.mode = Copy;
    // A complete copy that was on its way out of the index folder goes back: it is compared once more there.
    if (isConsumed && work->has(ZqImageFiles::ZQF) && SxFSAction::isGone(index + ZqImageFiles::ZQF)) {
        SxFSAction::mv(work->file(ZqImageFiles::ZQF), index + ZqImageFiles::ZQF);
    }
    ZqImageDefrag worker(imagePath, index);
    worker.setIndexName(isResumed ? index : indexName);
    worker.keepNote(isConsumed ? index : SxString());
    runWorker(&worker);
    if (worker.hasException()) throw SxException(worker.getException(), COPY_FAILED, UNIT, __LINE__);
    count(worker);
    result.nBeyond = worker.getNBeyond();
    result.nLost = worker.getNLost();
    if (forecastOnly || !worker.isComplete() || stopRequested()) return;
    if (isConsumed) {
        ZqOptimizeFolder::copyIndex(index, work->getPath());
        SxFSAction::mv(index + ZqImageFiles::ZQF, work->file(ZqImageFiles::ZQF));
    }
    const uint64 replaces = (work->has(ZqImageFiles::AHEAD) ? ZqMoveProgress::ALSO_AHEAD : 0) |
                            (work->has(ZqImageFiles::IDX_MD5) ? ZqMoveProgress::ALSO_IDX_MD5 : 0);
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(work->file(ZqImageFiles::ZQF)));
    ZqMoveProgress::create(work->file(ZqOptimizeFolder::PROGRESS), work->digestNote(),
                           {ZqMoveProgress::Swap, size, replaces, 0});
    work->lock();
    finish();
}

void ZqImageOptimize::count(const ZqDefragJob& worker) {
    result.nTotal = worker.getNIncluded();
    result.nMoved = worker.getNMoved();
    result.nKept = worker.getNKept();
    result.bytes = worker.getBytes();
    result.bytesExtra = worker.getBytesExtra();
    result.forecastSeconds = worker.getForecastSeconds();
}

void ZqImageOptimize::runWorker(ZqDefragJob* worker) {
    const auto copyCounters = [&] {
        setNTotal(worker->getNTotal());
        setNCurrent(worker->getICurrent());
        setSpeed(worker->getBpS());
    };
    worker->runtimeInfo = runtimeInfo;
    if (forecastOnly) worker->setForecastOnly();
    worker->start(6);
    while (worker->isRunning() && !worker->hasException() && !stopRequested()) {
        copyCounters();
        SxWait::pass(POLL_MS, [&] { return !worker->isRunning() || stopRequested(); });
    }
    if (stopRequested()) {
        log("Stopping Defragmentation.");
        worker->stop();
        worker->wait();
        return;
    }
    worker->wait();
    if (worker->hasException()) return;
    log("Finalizing Defragmentation.");
    copyCounters();
}

void ZqImageOptimize::goOn() {
    const auto lock =
        ZqImageLock::takeAnyState(imagePath, ZqImageLock::Shape, ZqImageLock::Exclusive, "image optimize");
    result.isResumed = true;
    work->requireOwn();
    if (work->lacksLock()) work->lock();
    if (!work->isLocked()) return goOnWithCopy();
    if (work->isDone()) return finish();
    if (work->isEmpty()) {
        throw SxException(
            "'" + imagePath + ZqImageFiles::OPTIMIZE_LOCK + "' stands there without the folder '" +
                work->getPath() +
                "': nothing tells how far an optimisation has come, so the image must be fetched or built "
                "anew, unless you know that none was begun and remove the lock",
            UNIT, __LINE__);
    }
    ZqMoveProgress howFar = ZqMoveProgress::open(work->file(ZqOptimizeFolder::PROGRESS));
    // Who was killed while it noted that has left it in memory alone, perhaps, and all that follows relies on
    // it. Written once more, since a sync alone doesn't write what a failed one has left.
    howFar.set(howFar.get());
    if (howFar.get().phase > ZqMoveProgress::Batches) return finish();
    log("Starting Defragmentation using inplace mode");
    ZqImageInPlaceDefrag worker(imagePath);
    runInPlace(&worker);
}

void ZqImageOptimize::goOnWithCopy() {
    requireWhole();
    cutDoubtful();
    const bool isCopy = work->has(ZqOptimizeFolder::NOTE) && work->readNote().mode == ZqOptimizeNote::Copy;
    if (!isCopy) {
        // One that was cut off before it changed anything.
        work->remove();
        throw SxException("No optimisation of image '" + imagePath +
                              "' was begun, so there is none to go on with",
                          UNIT, __LINE__);
    }
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(imagePath + ZqImageFiles::ZQF));
    if (size == ZqAppParams(imagePath).sizeZqf) {
        throw SxException("Image '" + imagePath +
                              "' has become complete since its copy was begun; give INDEX again",
                          UNIT, __LINE__);
    }
    log("Starting Defragmentation using copy mode.");
    const ZqOptimizeNote note = work->readNote();
    const SxString index = note.index.isEmpty() ? work->getPath() : note.index;
    const SxString map = index + ZqImageFiles::IDX;
    // The name comes from a file: nothing is written into a folder that somebody uses as an image.
    if (!SxFSAction::test_f(map) || !(SxMd5::file(map) == note.to.idx) || !findImageMark(index).isEmpty()) {
        throw SxException("'" + map +
                              "' isn't the map that the optimisation was begun with; give INDEX again",
                          UNIT, __LINE__);
    }
    copy(index, !note.index.isEmpty());
}

void ZqImageOptimize::finish() {
    if (!work->isDone()) {
        ZqMoveProgress howFar = ZqMoveProgress::open(work->file(ZqOptimizeFolder::PROGRESS));
        if (howFar.get().phase != ZqMoveProgress::Tidy) {
            howFar.requirePlan(work->digestNote());
            const ZqOptimizeNote note = work->readNote();
            requireNew(note, howFar.get());
            if (howFar.get().phase == ZqMoveProgress::Swap) {
                // What was true of the old blocks goes, unless the copy has replaced it.
                const uint64 replaces = howFar.get().batch;
                ZqOrderRemains::remove(imagePath, (replaces & ZqMoveProgress::ALSO_AHEAD) == 0,
                                       (replaces & ZqMoveProgress::ALSO_IDX_MD5) == 0);
            }
            work->replace();
            ZqOrderRemains::renewSyncedSize(imagePath);
            if (!note.index.isEmpty()) removeIndex(note);
            howFar.set({ZqMoveProgress::Tidy, 0, 0, 0});
        }
    }
    work->remove();
    complete = true;
}

/// A map of the one order beside blocks or records of the other would be taken for an image.
void ZqImageOptimize::requireNew(const ZqOptimizeNote& note, const ZqMoveProgress::State& state) const {
    const auto folderOf = [&](const char* name) { return work->has(name) ? work->getPath() : imagePath; };
    const SxString map = folderOf(ZqImageFiles::IDX) + ZqImageFiles::IDX;
    if (!(SxMd5::file(map) == note.to.idx)) {
        throw SxException("'" + map + "' isn't the map that the optimisation was begun with", UNIT, __LINE__);
    }
    const SxString records = folderOf(ZqImageFiles::APP_JSON);
    if (ZqAppParams(records).sizeZqf != note.to.sizeZqf) {
        throw SxException("'" + records + ZqImageFiles::APP_JSON +
                              "' isn't the record that the optimisation was begun with",
                          UNIT, __LINE__);
    }
    if (state.phase != ZqMoveProgress::Swap) return;
    const SxString blocks = folderOf(ZqImageFiles::ZQF) + ZqImageFiles::ZQF;
    if (static_cast<uint64>(SxFSAction::sizeOf(blocks)) == state.round) return;
    throw SxException("'" + blocks + "' isn't the copy that the optimisation has made: it hasn't " +
                          SxString(state.round) + " bytes",
                      UNIT, __LINE__);
}

void ZqImageOptimize::removeIndex(const ZqOptimizeNote& note) {
    const SxString& index = note.index;
    try {
        if (SxFSAction::isGone(index)) return;
        // No more goes than what an index folder of that order holds. The map goes last, since who has to go
        // on knows the folder by it.
        const SxString map = index + ZqImageFiles::IDX;
        const bool isImage =
            !findImageMark(index).isEmpty() || !SxFSAction::isGone(index + ZqImageFiles::ZQF);
        if (!isImage && index.endsWith("/") && SxFSAction::test_f(map) && SxMd5::file(map) == note.to.idx) {
            for (const char* name : INDEX_FILES) {
                if (SxFSAction::test_f(index + name)) SxFSAction::rm(index + name);
                SxFSAction::syncDir(index);
            }
        }
        if (SxFSAction::ls(index).isEmpty()) {
            SxFSAction::rm_r(index);
            // It stays gone, whatever comes: else the same command would be refused for half an index folder.
            SxFSAction::syncDir(SxFileInfo(index).getPath());
            return;
        }
        result.indexLeft = "The index folder '" + index + "' stays, since it holds other files";
    } catch (const SxException& e) {
        // The image is what it should be; it must not be held up by that.
        result.indexLeft = "The index folder '" + index + "' can't be removed: " + e.what();
    }
    log(result.indexLeft);
}
