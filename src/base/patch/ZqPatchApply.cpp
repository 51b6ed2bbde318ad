#include "ZqPatchApply.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqConsumedIndex.h"
#include "ZqFastPatch.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqOptimizeFolder.h"
#include "ZqPatchDownload.h"
#include "ZqPatchFiles.h"
#include "ZqPatchLists.h"
#include "ZqPatchRoom.h"
#include "ZqPatchRoomBack.h"
#include "ZqPatchSizes.h"
#include "ZqPatchTask.h"
#include "ZqPatchWork.h"
#include "ZqPreparations.h"
#include "ZqRunningTask.h"
#include "ZqStreamRecord.h"
#include "ZqSyncedSize.h"
#include "ZqSysEnv.h"
#include "ZqUrlText.h"

#include <algorithm>
#include <optional>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchApply";
constexpr const char* JOB = "patch apply";
/// Between two looks at whether a part has arrived: a small patch is through in a few of these.
constexpr int ARRIVAL_MS = 20;

/// The folder is removed as a whole at the end.
void requireOnlyPatch(const SxString& folder) {
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const SxString name = entry.getName();
        const auto isThat = [&](const char* known) { return name == known; };
        const bool isKnown = name == ZqPatchFiles::MAP ||
                             std::any_of(std::begin(ZqPatchFiles::ALL), std::end(ZqPatchFiles::ALL), isThat);
        // What a link leads to would be left, and the link taken for it.
        const std::optional<SxStat> info = SxFSAction::look(folder + name);
        if (isKnown && info && info->kind == SxStat::File) continue;
        throw SxException(
            "'" + folder + name +
                "' is no plain file of a patch, and would be removed with it: take it out of the "
                "folder, or leave out --consume",
            UNIT, __LINE__);
    }
}

} // namespace

ZqPatchApply::ZqPatchApply(const SxString& image_, const Options& options_)
    : runtimeInfo(SxPtr<ZqRuntimeInfo>::create()),
      image(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image_))),
      options(options_),
      work(SxPtr<ZqPatchWork>::create(image)) {
    setThreadName(JOB);
}

ZqPatchApply::~ZqPatchApply() = default;

void ZqPatchApply::main() {
    try {
        run();
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) return;
        // ZqFastPatch has told of its own.
        if (isTold) return keepFailure(e);
        ZqJobFailure::report(this, "Cannot patch image " + image + ": ", image, e, UNIT, __LINE__);
    }
}

void ZqPatchApply::run() {
    if (!ZqImageFolder::holdsImage(image) || !SxFSAction::isGone(image + ZqPatchFiles::RECORD))
        throw SxException("'" + image + "' holds no image", UNIT, __LINE__);
    const auto lock = ZqImageLock::takeAnyState(image, ZqImageLock::Shape, ZqImageLock::Exclusive, JOB);
    ZqImageLock::refuseOptimisation(image);
    const bool wasBegun = ZqFastPatch::isBegun(image);
    result.isResumed = wasBegun;
    result.bytesLayer = layerBytes(image);
    const bool hadCopy = work->hasCopy();
    try {
        const SxString patch = takePatch();
        if (!result.isAlreadyNew) apply(patch);
    } catch (const SxException& e) {
        // A stop is gone on from, as soon as there is something to go on with; and what an earlier run has
        // begun doesn't go because of a mistyped name.
        const bool isStop = e.hasTag(SxException::STOPPED);
        try {
            if (isApplying ? !isStop : !wasBegun) takeBack(hadCopy);
            noteEnd();
        } catch (const SxException& also) {
            // The first failure is the one to be told.
            zqLogMsg("base", "ZqPatchApply : " + also.toString(SxException::ShowMessage, ": "));
        }
        throw;
    }
    noteEnd();
    if (result.isAlreadyNew || isThrough) tidyUp();
}

/// After a failure that has changed nothing the image is what it was, and can be played.
void ZqPatchApply::takeBack(bool hadCopy) const {
    if (!ZqFastPatch::isUntouched(image)) return;
    ZqFastPatch::takeBack(image);
    work->removeStaged();
    // What was downloaded goes on.
    const bool isFetched = download && SxFSAction::sizeOf(work->getCopy() + ZqPatchFiles::DATA) > 0;
    if (!hadCopy && !isFetched) work->remove();
}

void ZqPatchApply::noteEnd() {
    begun = ZqFastPatch::isBegun(image);
    const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
    if (SxFSAction::isGone(file)) return;
    ZqPatchProgress progress;
    progress.read(file);
    result.stage = progress.stage;
    result.part = progress.part;
}

/// What a kill may have left after the commit, too.
void ZqPatchApply::tidyUp() {
    if (!SxFSAction::isGone(image + ZqFastPatch::WORK)) SxFSAction::rm_r(image + ZqFastPatch::WORK);
    try {
        if (!consumed.isEmpty() && !SxFSAction::isGone(consumed)) SxFSAction::rm_r(consumed);
    } catch (const SxException& e) {
        // The image is through without that.
        result.patchLeft =
            "The patch '" + consumed + "' stays: " + e.toString(SxException::ShowMessage, ": ");
    }
    // One that was fetched may be the next.
    if (!result.isAlreadyNew || !work->hasCopy() || work->hasCopyOf(digest)) work->remove();
    SxFSAction::syncDir(image);
    if (!result.isAlreadyNew) result.stage = ZqPatchProgress::PerformLockFinish;
    complete = true;
}

uint64 ZqPatchApply::layerBytes(const SxString& image) {
    if (!ZqImageFolder::hasWrittenLayer(image)) return 0;
    uint64 bytes = 0;
    for (const char* name : {ZqImageFiles::LAYER_INDEX, ZqImageFiles::LAYER_DATA})
        bytes += static_cast<uint64>(std::max<int64>(SxFSAction::sizeOf(image + name), 0));
    return bytes;
}

/// Once it is begun the image is no version at all, and ZqFastPatch knows how to go on.
void ZqPatchApply::refuseImage() const {
    const SxString zqf = image + ZqImageFiles::ZQF;
    const std::optional<SxStat> file = SxFSAction::look(zqf);
    if (file && (file->kind != SxStat::File || file->nNames != 1)) {
        throw SxException("'" + zqf +
                              "' is a link or has a second name, and would be changed there, too: put a copy "
                              "in its place",
                          UNIT, __LINE__);
    }
    if (result.isResumed) return;
    // Also where somebody has removed its lock.
    if (ZqOptimizeFolder(image).state() > ZqOptimizeFolder::CopyBegun) {
        throw SxException(
            "Image '" + image +
                "' is in the middle of an optimisation; go on with: tavrin image optimize IMAGE "
                "--resume",
            UNIT, __LINE__);
    }
    const ZqImage::SplitState storage = ZqImage(image).getSplitState();
    if (storage.split || storage.joining) {
        throw SxException("Image '" + image +
                              "' is in parts; put them together first: tavrin image join IMAGE",
                          UNIT, __LINE__);
    }
    if (SxFSAction::sizeOf(zqf) != static_cast<int64>(ZqAppParams(image).sizeZqf)) {
        throw SxException("Image '" + image +
                              "' isn't complete; download the rest of it first: tavrin fetch IMAGE",
                          UNIT, __LINE__);
    }
    if (ZqSyncedSize(zqf).hasLoss()) {
        throw SxException("The disk of '" + zqf +
                              "' has failed to take bytes of it, so that blocks of it may be wrong; they are "
                              "fetched again after the next start of the machine",
                          UNIT, __LINE__);
    }
    ZqStreamRecord record;
    record.read(image);
    if (record.isWritten) {
        throw SxException("A drive has written into '" + zqf +
                              "', so no patch fits it: the image must be fetched or built anew",
                          UNIT, __LINE__);
    }
}

SxString ZqPatchApply::takePatch() {
    refuseImage();
    if (!options.patch.isEmpty()) {
        if (ZqUrlText::isAddress(options.patch)) return takeAddress(options.patch, {});
        return takeFolder(ZqConsumedIndex::realPath(options.patch), options.isConsumed);
    }
    if (!work->hasOrigin()) {
        throw SxException(
            result.isResumed ? "'" + work->getPath() + "' doesn't say which patch was begun: give PATCH again"
                             : "No patch of image '" + image + "' was begun, so there is none to go on with",
            UNIT, __LINE__);
    }
    const ZqPatchOrigin origin = work->readOrigin();
    wanted.toGUID = origin.toGUID;
    wanted.toMnt = origin.toMnt;
    // The end was cut off when the patch had gone already.
    result.isAlreadyNew = !result.isResumed && wanted.isMade(ZqAppParams(image));
    if (result.isAlreadyNew) {
        digest = origin.digest;
        if (origin.isConsumed && !SxFSAction::isGone(origin.source)) consumed = origin.source;
        return {};
    }
    if (ZqUrlText::isAddress(origin.source)) return takeAddress(origin.source, origin.digest);
    const bool isOwn = !origin.isConsumed && work->hasCopyOf(origin.digest);
    return takeFolder(isOwn ? work->getCopy() : origin.source, origin.isConsumed);
}

/// Whether there is something to do, by the record of the patch, whose digest is `digest`.
bool ZqPatchApply::isWanted(const ZqPatchParams& params) {
    wanted = params;
    result.from = params.fromGUID;
    result.to = params.toGUID;
    ZqFastPatch::refuseOther(image, digest);
    if (result.isResumed && !(ZqFastPatch::begunPatch(image) == digest)) {
        // The image is what it was, as if no patch had been begun.
        ZqFastPatch::takeBack(image);
        result.isResumed = false;
        refuseImage();
    }
    if (result.isResumed) return true;
    const ZqAppParams app(image);
    result.isAlreadyNew = params.isMade(app);
    if (!result.isAlreadyNew && !params.isFor(app))
        throw SxException("The provided patch is not for current version", UNIT, __LINE__);
    if (!result.isAlreadyNew) ZqPatchTask::requireTool();
    return !result.isAlreadyNew;
}

SxString ZqPatchApply::takeFolder(const SxString& folder, bool isConsumed) {
    if (!SxFSAction::test_d(folder))
        throw SxException("The patch folder '" + folder + "' isn't there", UNIT, __LINE__);
    const bool isOwn = folder == work->getCopy();
    if (!isOwn) ZqImageStaging::refuseOverlap(folder, image);
    if (isConsumed) {
        requireOnlyPatch(folder);
        consumed = folder;
    }
    digest = SxMd5::file(folder + ZqPatchFiles::RECORD);
    const ZqPatchParams params(folder);
    if (!isWanted(params)) return {};
    if (!isOwn) work->writeOrigin({folder, isConsumed, digest, params.toGUID, params.toMnt});
    // Also where there is a copy, which may be the reason why somebody gives the patch again.
    if (!isOwn && !isConsumed) work->takeFolder(folder);
    SxString patch = isConsumed ? folder : work->getCopy();
    const SxString data = patch + ZqPatchFiles::DATA;
    if (SxFSAction::sizeOf(data) != static_cast<int64>(params.sizeData)) {
        // ZqFastPatch would wait for the rest, which nobody brings.
        throw SxException("'" + data + "' hasn't the size that its patch.json says" +
                              (isOwn ? ": give PATCH again" : ""),
                          UNIT, __LINE__);
    }
    if (!result.isResumed) requireWhole(patch, params);
    return patch;
}

/// `noted`: the digest of the patch that was begun, or fetched before, from there; or empty.
SxString ZqPatchApply::takeAddress(const SxString& source, const SxString& noted) {
    const ZqStopTest stop = [this] { return isStopped(); };
    download = SxPtr<ZqPatchDownload>::create(*work, source, options.headers, options.access);
    const SxString own = work->getCopy() + ZqPatchFiles::RECORD;
    SxString record;
    if (!noted.isEmpty() && work->hasCopyOf(noted)) {
        record = SxFileIO::readUtf8(own);
    } else {
        try {
            record = download->fetchRecord(stop);
        } catch (const SxException& e) {
            const bool isKept =
                work->hasCopy() && work->hasOrigin() &&
                ZqImageFolder::prefix(work->readOrigin().source) == ZqImageFolder::prefix(source);
            if (!ZqNetLink::isAway(e) || !isKept) throw;
            zqLogMsg("base", "ZqPatchApply : goes on with what was fetched: " +
                                 e.toString(SxException::ShowMessage, ": "));
            record = SxFileIO::readUtf8(own);
        }
    }
    digest = SxMd5::get(record);
    if (!isWanted(download->readRecord(record))) return {};
    if (ZqFastPatch::isCommitting(image) && work->hasCopyOf(digest)) return work->getCopy();
    work->writeOrigin({source, false, digest, wanted.toGUID, wanted.toMnt});
    download->fetchLists(stop);
    parts = download->getParts();
    if (!result.isResumed) requireRoom(work->getCopy(), download->getMissing());
    return work->getCopy();
}

/// A local patch is there as a whole, or is no patch.
void ZqPatchApply::requireWhole(const SxString& patch, const ZqPatchParams& params) {
    parts = ZqPatchLists::readParts(patch, params, work->getPath());
    const SxString file = patch + ZqPatchFiles::DATA;
    setNTotal(params.sizeData);
    SxFileIO data(file, "rb");
    const SxString md5 = SxMd5::file(&data, [this](int64 n) {
        addNCurrent(static_cast<uint64>(n));
        return !isStopped();
    });
    if (isStopped()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    if (!(md5 == params.hashData))
        throw SxException("'" + file + "' hasn't the digest that its patch.json says", UNIT, __LINE__);
    requireRoom(patch, 0);
}

void ZqPatchApply::requireRoom(const SxString& patch, uint64 nToCome) {
    result.bytesExtra =
        ZqPatchRoom::RECORDS + nToCome + ZqPatchRoom::need(parts, ZqPatchLists::stateAtStart(image, patch));
    ZqImageFolder::requireSpace(image, result.bytesExtra);
}

void ZqPatchApply::apply(const SxString& patch) {
    isApplying = true;
    const SxString progressFile = image + ZqImageFiles::PATCH_PROGRESS,
                   info = image + ZqFastPatch::WORK + ZqPatchFiles::INFO;
    if (parts.empty() && !SxFSAction::isGone(info)) parts = ZqPatchSizes::of(ZqPatchInfo::read(info));
    result.nParts = parts.size();
    ZqPatchProgress start;
    if (!SxFSAction::isGone(progressFile)) start.read(progressFile);
    std::optional<ZqPatchRoomBack> roomBack;
    std::optional<ZqRunningTask<ZqPatchDownload>> fetching;
    if (download && !ZqFastPatch::isCommitting(image)) {
        roomBack.emplace(patch + ZqPatchFiles::DATA, progressFile, parts);
        fetching.emplace(download.getPtr());
    }
    ZqFastPatch fast(image, patch, download ? std::min(interval, ARRIVAL_MS) : interval);
    fast.runtimeInfo = runtimeInfo;
    {
        ZqRunningTask child(&fast);
        while (fast.isRunning()) {
            if (isStopped() || (fetching && download->hasException())) fast.stop();
            if (roomBack) roomBack->look();
            // What arrives counts, too.
            setNTotal(fast.getNTotal() + (fetching ? download->getNTotal() : 0));
            setNCurrent(fast.getNCurrent() + (fetching ? download->getNCurrent() : 0));
            setSpeed(fast.getSpeed());
            SxWait::pass(interval, [&] { return !fast.isRunning() || isStopped(); });
        }
        child.wait();
    }
    if (download) result.bytesDownload = download->getNFetched();
    // A job that was stopped may have been through already.
    isThrough = !fast.hasException() && !ZqFastPatch::isBegun(image) &&
                (!fast.stopRequested() || wanted.isMade(ZqAppParams(image)));
    count(start);
    if (isThrough || !ZqFastPatch::isUntouched(image)) ZqPreparations::add(image, *runtimeInfo);
    isTold = fast.hasException();
    if (fetching) finishDownload(fast);
    if (isTold) throw fast.getException();
}

/// Whatever is still under way is needed no longer, or by the next run.
void ZqPatchApply::finishDownload(const ZqFastPatch& fast) {
    const bool hasFailed = download->hasException() && !isStopped();
    download->stop();
    download->wait();
    if (fast.hasException()) {
        try {
            ZqPatchProgress at;
            const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
            if (!SxFSAction::isGone(file)) at.read(file);
            if (at.stage == ZqPatchProgress::PreparePatchData && at.part < parts.size())
                download->cutWrong(at.part);
        } catch (const SxException& e) {
            zqLogMsg("base", "ZqPatchApply : " + e.toString(SxException::ShowMessage, ": "));
        }
    } else if (hasFailed && !isThrough) {
        throw download->getException();
    }
}

/// The new blocks that this run has put into the image.
void ZqPatchApply::count(const ZqPatchProgress& start) {
    const auto nDone = [&](const ZqPatchProgress& at) {
        if (at.stage >= ZqPatchProgress::FinalizePatch) return parts.size();
        if (at.stage == ZqPatchProgress::PrepareOldData) return size_t{0};
        return at.part + size_t{at.stage == ZqPatchProgress::CleanupPart};
    };
    const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
    ZqPatchProgress end;
    if (isThrough) end.stage = ZqPatchProgress::PerformLockFinish;
    if (!SxFSAction::isGone(file)) end.read(file);
    for (size_t part = nDone(start); part < std::min(nDone(end), parts.size()); ++part)
        result.bytesWritten += parts[part].newBytes;
}
