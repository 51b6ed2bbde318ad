#include "ZqImageOptimize.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqConsumedIndex.h"
#include "ZqImage.h"
#include "ZqImageDefrag.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInPlaceDefrag.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqImageStaging.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqMoveProgress.h"
#include "ZqOptimizeFolder.h"
#include "ZqOrderRemains.h"
#include "ZqPreparations.h"
#include "ZqStreamRecord.h"
#include "ZqSyncedSize.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqImageOptimize";
constexpr int64 POLL_MS = 1000;
constexpr const char* COPY_FAILED = "ZqF Defragmentation Thread crashed";
constexpr const char* IN_PLACE_FAILED = "ZqF Defragmentation Thread failed.";

void log(const SxString& text) {
    zqLogMsg("base", "ZqImageOptimize::main: " + text);
}

} // namespace

ZqImageOptimize::ZqImageOptimize(const SxString& imagePath_, const SxString& indexPath_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      imagePath(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(imagePath_))),
      indexPath(ZqConsumedIndex::realPath(indexPath_)),
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
        const SxPtr<ZqImageLock> lock = takeImage();
        if (isResumed) {
            goOn();
        } else {
            begin();
        }
        begun = !complete && work->state() != ZqOptimizeFolder::Nothing;
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) return;
        ZqJobFailure::report(
            this, "Cannot defragment ZqF file in " + imagePath + " based on index in " + indexName + ": ",
            imagePath, e, UNIT, __LINE__);
    }
}

/// Nobody else uses the image until the lock goes.
SxPtr<ZqImageLock> ZqImageOptimize::takeImage() const {
    if (!isResumed) requireIndex();
    // A folder that was named by mistake stays as it is.
    if (!ZqImageFolder::holdsImage(imagePath)) {
        throw SxException("'" + imagePath + "' holds no image", UNIT, __LINE__);
    }
    return ZqImageLock::takeAnyState(imagePath, ZqImageLock::Shape, ZqImageLock::Exclusive, "image optimize");
}

void ZqImageOptimize::begin() {
    // The one folder is removed at the end, the other one is emptied at the beginning.
    if (ZqImageStaging::liesIn(imagePath, indexPath) || ZqImageStaging::liesIn(indexPath, work->getPath())) {
        throw SxException("'" + indexName + "' is, holds or works on the image '" + imagePath +
                              "'; give another index folder",
                          UNIT, __LINE__);
    }
    work->requireOwn();
    const ZqOptimizeFolder::State state = work->state();
    if (state == ZqOptimizeFolder::Done && !forecastOnly) {
        work->confirm();
        work->remove();
    } else if (state > ZqOptimizeFolder::CopyBegun) {
        const SxException how =
            state == ZqOptimizeFolder::Lost
                ? lost()
                : SxException("go on with: tavrin image optimize IMAGE --resume", UNIT, __LINE__);
        throw SxException(
            how, imagePath + ZqImageFiles::OPTIMIZE_LOCK + " available. Unfinished optimization detected",
            UNIT, __LINE__);
    }
    if (consumes) {
        consumed = indexPath;
        ZqConsumedIndex(indexPath).requireNoImage(indexName);
    }
    requireImage();
    cutDoubtful();
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(imagePath + ZqImageFiles::ZQF));
    try {
        if (size == ZqAppParams(imagePath).sizeZqf) {
            reorderInPlace();
        } else {
            log("Starting Defragmentation using copy mode.");
            copy(takeIndex(), indexName);
        }
    } catch (const SxException&) {
        sweep();
        throw;
    }
    if (!complete) sweep();
}

/// Leaves nothing in the work folder where nothing has begun that could be gone on with.
void ZqImageOptimize::sweep() const {
    try {
        if (work->isLocked()) return;
        if (!SxFSAction::isGone(work->getStaged())) SxFSAction::rm_r(work->getStaged());
        if (work->state() == ZqOptimizeFolder::Nothing) work->remove();
    } catch (const SxException& e) {
        // What it came from is told; the next job removes what is left.
        log(e.toString(SxException::ShowMessage, ": "));
    }
}

/// What a power cut may have taken of a download mustn't be moved to where nobody doubts it any longer.
void ZqImageOptimize::cutDoubtful() const {
    const SxString zqf = imagePath + ZqImageFiles::ZQF;
    const std::function<bool()> stop = [this] { return stopRequested(); };
    if (!SxFSAction::test_f(zqf)) return;
    if (ZqSyncedSize(zqf).hasLoss()) {
        throw SxException(
            "The disk of '" + zqf +
                "' has failed to take bytes of it, so that blocks of it may be wrong; they are fetched "
                "again after the next start of the machine",
            UNIT, __LINE__);
    }
    if (!forecastOnly) ZqSyncedSize(zqf).cutBack(stop);
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

/// The short `img.zqf` of an image that is in parts, or on its way to another version, is no partial one. A
/// record that couldn't be changed later would hold the image up then.
void ZqImageOptimize::requireImage() const {
    ZqImageLock::refuseUnfinished(imagePath);
    ZqStreamRecord().read(imagePath);
    const ZqImage::SplitState storage = ZqImage(imagePath).getSplitState();
    if (storage.split || storage.joining) {
        throw SxException("Image '" + imagePath +
                              "' is in parts; put them together first: tavrin image join IMAGE",
                          UNIT, __LINE__);
    }
    if (!SxFSAction::test_f(imagePath + ZqImageFiles::ZQF)) {
        throw SxException("'" + imagePath + "' holds no img.zqf yet, so there is nothing to be re-ordered",
                          UNIT, __LINE__);
    }
}

/// A design decision: neither mode works in the index folder itself. It may lie on another disk, from where
/// nothing is renamed in one step, may be read-only, or be given to two jobs at a time.
SxString ZqImageOptimize::takeIndex() const {
    const bool isPacked = !SxFSAction::exists(indexPath + ZqImageFiles::IDX);
    const SxString map = indexPath + (isPacked ? ZqImageFiles::IDX_7Z : ZqImageFiles::IDX);
    const uint64 size = static_cast<uint64>(SxFSAction::sizeOf(map)) +
                        (ZqOptimizeFolder::hasHints(indexPath)
                             ? static_cast<uint64>(SxFSAction::sizeOf(indexPath + ZqImageFiles::HINTS))
                             : 0);
    ZqImageFolder::requireSpace(imagePath, size + ZqOptimizeFolder::ROOM_FOR_RECORDS);
    work->make();
    const SxString folder = work->getStaged();
    if (!SxFSAction::isGone(folder)) SxFSAction::rm_r(folder);
    SxFSAction::mkdir_p(folder, 0755);
    ZqOptimizeFolder::copyIndex(indexPath, folder);
    return work->getStaged();
}

void ZqImageOptimize::reorderInPlace() {
    log("Starting Defragmentation using inplace mode");
    // What a copy has left is of no use for a complete image.
    if (!forecastOnly) work->remove();
    ZqImageInPlaceDefrag worker(imagePath, takeIndex());
    worker.setIndexName(indexName);
    worker.setConsumed(consumed);
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
    result.mode = worker->changesBlocks() ? InPlace : None;
    if (!forecastOnly && worker->isComplete() && !stopRequested()) finish();
}

void ZqImageOptimize::copy(const SxString& index, const SxString& name) {
    result.mode = Copy;
    ZqImageDefrag worker(imagePath, index);
    worker.setIndexName(name);
    worker.keepNote(consumed);
    if (nPiece > 0) worker.setPiece(nPiece);
    runWorker(&worker);
    if (worker.hasException()) throw SxException(worker.getException(), COPY_FAILED, UNIT, __LINE__);
    count(worker);
    result.nBeyond = worker.getNBeyond();
    result.nLost = worker.getNLost();
    if (forecastOnly || !worker.isComplete() || stopRequested()) return;
    const uint64 replaces = work->findReplaced();
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(work->file(ZqImageFiles::ZQF)));
    // The copy must be there under its name before anything says that it is complete.
    SxFSAction::syncDir(work->getPath());
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
    if (stopRequested()) worker->stop();
    worker->start(6);
    while (!worker->awaitEnd(0) && !stopRequested()) {
        copyCounters();
        // Its end is told at once, a stop of this job is looked for.
        SxWait::pass(
            POLL_MS, [&] { return worker->awaitEnd(SxWait::LOOK_MS) || stopRequested(); }, 0);
    }
    if (stopRequested()) {
        log("Stopping Defragmentation.");
        worker->stop();
        worker->wait();
        noteWork(*worker);
        return;
    }
    worker->wait();
    if (worker->hasException()) return;
    noteWork(*worker);
    log("Finalizing Defragmentation.");
    copyCounters();
}

/// For the record of the next run.
void ZqImageOptimize::noteWork(const ZqDefragJob& worker) const {
    const bool hasMoved = !worker.hasException() && runtimeInfo->defragStats.bytes > 0;
    if (hasMoved && !forecastOnly) ZqPreparations::add(imagePath, *runtimeInfo);
}

void ZqImageOptimize::goOn() {
    result.isResumed = true;
    work->requireOwn();
    const ZqOptimizeFolder::State state = work->state();
    if (state == ZqOptimizeFolder::Lost) throw lost();
    if (state == ZqOptimizeFolder::CopyBegun) return goOnWithCopy();
    if (state == ZqOptimizeFolder::Nothing) {
        work->remove();
        throw SxException("No optimisation of image '" + imagePath +
                              "' was begun, so there is none to go on with",
                          UNIT, __LINE__);
    }
    work->confirm();
    if (state != ZqOptimizeFolder::Moving) return finish();
    log("Starting Defragmentation using inplace mode");
    ZqImageInPlaceDefrag worker(imagePath);
    runInPlace(&worker);
}

SxException ZqImageOptimize::lost() const {
    return SxException(
        "'" + imagePath + ZqImageFiles::OPTIMIZE_LOCK + "' stands there without the folder '" +
            work->getPath() +
            "': nothing tells how far an optimisation has come, so the image must be fetched or "
            "built anew, unless you know that none was begun and remove the lock",
        UNIT, __LINE__);
}

void ZqImageOptimize::goOnWithCopy() {
    requireImage();
    cutDoubtful();
    const auto size = static_cast<uint64>(SxFSAction::sizeOf(imagePath + ZqImageFiles::ZQF));
    if (size == ZqAppParams(imagePath).sizeZqf) {
        throw SxException("Image '" + imagePath +
                              "' has become complete since its copy was begun; give INDEX again",
                          UNIT, __LINE__);
    }
    log("Starting Defragmentation using copy mode.");
    const ZqOptimizeNote note = work->readNote();
    const SxString map = work->file(ZqImageFiles::IDX);
    if (!SxFSAction::test_f(map) || !(SxMd5::file(map) == note.to.idx)) {
        throw SxException("'" + map +
                              "' isn't the map that the optimisation was begun with; give INDEX again",
                          UNIT, __LINE__);
    }
    consumed = note.index;
    copy(work->getPath(), work->getPath());
}

void ZqImageOptimize::finish() {
    const SxString progress = work->file(ZqOptimizeFolder::PROGRESS);
    if (work->state() == ZqOptimizeFolder::Replacing) {
        ZqMoveProgress howFar = ZqMoveProgress::open(progress);
        howFar.requirePlan(work->digestNote());
        const ZqOptimizeNote note = work->readNote();
        requireNew(note, howFar.get().round);
        // Somebody may have removed it.
        if (!work->isLocked()) work->lock();
        // What was true of the old blocks goes, unless something new replaces it.
        const uint64 replaces = howFar.get().batch;
        ZqOrderRemains::remove(imagePath, {.ahead = (replaces & ZqMoveProgress::ALSO_AHEAD) != 0,
                                           .idxMd5 = (replaces & ZqMoveProgress::ALSO_IDX_MD5) != 0,
                                           .hints = (replaces & ZqMoveProgress::ALSO_HINTS) != 0});
        work->replace(note.mode);
        ZqOrderRemains::renewSyncedSize(imagePath);
        if (!note.index.isEmpty()) {
            result.indexLeft = ZqConsumedIndex(note.index).remove(imagePath);
            if (!result.indexLeft.isEmpty()) log(result.indexLeft);
        }
        // Of what has moved before, nobody has the figures any longer.
        if (result.nTotal == 0) result.mode = note.mode == ZqOptimizeNote::Copy ? Copy : InPlace;
        howFar.set({ZqMoveProgress::Tidy, 0, 0, 0});
    }
    work->remove();
    complete = true;
}

/// A map of the one order beside blocks or records of the other would be taken for an image.
void ZqImageOptimize::requireNew(const ZqOptimizeNote& note, uint64 sizeCopied) const {
    const auto folderOf = [&](const char* name) { return work->has(name) ? work->getPath() : imagePath; };
    const auto refuse = [](const SxString& file, const SxString& what) {
        throw SxException("'" + file + "' isn't " + what, UNIT, __LINE__);
    };
    const SxString map = folderOf(ZqImageFiles::IDX) + ZqImageFiles::IDX;
    if (!(SxMd5::file(map) == note.to.idx)) refuse(map, "the map that the optimisation was begun with");
    const SxString records = folderOf(ZqImageFiles::APP_JSON);
    if (ZqAppParams(records).sizeZqf != note.to.sizeZqf)
        refuse(records + ZqImageFiles::APP_JSON, "the record that the optimisation was begun with");
    const SxString old = imagePath + ZqImageFiles::IDX, digest = SxMd5::file(old);
    if (!(digest == note.from.idx || digest == note.to.idx) || !(ZqImageParams(imagePath).guid == note.guid))
        refuse(old, "a map of the image that the optimisation was begun with");
    const bool isCopy = note.mode == ZqOptimizeNote::Copy;
    const SxString blocks = (isCopy ? folderOf(ZqImageFiles::ZQF) : imagePath) + ZqImageFiles::ZQF;
    const uint64 size = isCopy ? sizeCopied : note.to.sizeZqf;
    if (static_cast<uint64>(SxFSAction::sizeOf(blocks)) != size)
        refuse(blocks, "what the optimisation has left: it hasn't " + SxString(size) + " bytes");
    if (!isCopy && isResumed) ZqImageInPlaceDefrag::requireMoved(imagePath);
}
