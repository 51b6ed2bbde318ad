#include "ZqPatchApply.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqFastPatch.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImage.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqPatchDownload.h"
#include "ZqPatchFiles.h"
#include "ZqPatchLists.h"
#include "ZqPatchRoom.h"
#include "ZqPatchRoomBack.h"
#include "ZqPatchSizes.h"
#include "ZqPatchWork.h"
#include "ZqRunningTask.h"
#include "ZqStreamRecord.h"
#include "ZqSysEnv.h"
#include "ZqUrlText.h"

#include <algorithm>
#include <optional>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchApply";
constexpr const char* JOB = "patch apply";
/// Between two looks at whether a part has arrived: a small patch is through in a few of these.
constexpr int ARRIVAL_MS = 20;
/// Of records and notes, beside what is counted.
constexpr uint64 ROOM_FOR_RECORDS = 1 << 20;

/// With all links resolved, and its trailing slash.
SxString realPath(const SxString& folder) {
    std::string real;
    const int result = SxOs::get().canonical(SxOs::hostPath(folder), &real);
    if (result == 0) return ZqImageFolder::prefix(SxString(real));
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                      "Cannot find the patch folder '" + folder + "'", UNIT, __LINE__);
}

/// The folder is removed as a whole at the end.
void requireOnlyPatch(const SxString& folder) {
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const SxString name = entry.getName();
        const auto isThat = [&](const char* known) { return name == known; };
        if (name == ZqPatchFiles::MAP ||
            std::any_of(std::begin(ZqPatchFiles::ALL), std::end(ZqPatchFiles::ALL), isThat))
            continue;
        throw SxException("'" + folder + name +
                              "' is no file of a patch, so the folder isn't removed: leave out " +
                              "--consume",
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
    if (!ZqImageFolder::holdsImage(image))
        throw SxException("'" + image + "' holds no image", UNIT, __LINE__);
    const auto lock = ZqImageLock::takeAnyState(image, ZqImageLock::Shape, ZqImageLock::Exclusive, JOB);
    ZqImageLock::refuseOptimisation(image);
    result.isResumed = ZqFastPatch::isBegun(image);
    result.bytesLayer = layerBytes(image);
    const bool hadCopy = work->hasCopy();
    try {
        const SxString patch = takePatch();
        if (!result.isAlreadyNew) apply(patch);
    } catch (const SxException& e) {
        if (!e.hasTag(SxException::STOPPED)) takeBack(hadCopy);
        noteEnd();
        throw;
    }
    noteEnd();
    if (!isStopped() && !begun) tidyUp();
}

/// After a failure that has changed nothing the image is what it was, and can be played.
void ZqPatchApply::takeBack(bool hadCopy) const {
    if (!ZqFastPatch::isUntouched(image)) return;
    ZqFastPatch::takeBack(image);
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
    for (const SxString& folder : {image + ZqFastPatch::WORK, consumed})
        if (!folder.isEmpty() && !SxFSAction::isGone(folder)) SxFSAction::rm_r(folder);
    work->remove();
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
        if (ZqUrlText::isAddress(options.patch)) return takeAddress(options.patch, false);
        return takeFolder(realPath(options.patch), options.isConsumed);
    }
    if (!work->hasOrigin()) {
        throw SxException(
            result.isResumed ? "'" + work->getPath() + "' doesn't say which patch was begun: give PATCH again"
                             : "No patch of image '" + image + "' was begun, so there is none to go on with",
            UNIT, __LINE__);
    }
    const ZqPatchOrigin origin = work->readOrigin();
    if (ZqUrlText::isAddress(origin.source)) return takeAddress(origin.source, true);
    const bool isOwn = !origin.isConsumed && work->hasCopyOf(origin.digest);
    return takeFolder(isOwn ? work->getCopy() : origin.source, origin.isConsumed);
}

/// Whether there is something to do, by the record of the patch.
bool ZqPatchApply::isWanted(const ZqPatchParams& params, const SxString& digest) {
    result.from = params.fromGUID;
    result.to = params.toGUID;
    ZqFastPatch::refuseOther(image, digest);
    if (result.isResumed) return true;
    const ZqAppParams app(image);
    result.isAlreadyNew = params.isMade(app);
    if (!result.isAlreadyNew && !params.isFor(app))
        throw SxException("The provided patch is not for current version", UNIT, __LINE__);
    return !result.isAlreadyNew;
}

SxString ZqPatchApply::takeFolder(const SxString& folder, bool isConsumed) {
    const bool isOwn = folder == work->getCopy();
    if (!isOwn) ZqImageStaging::refuseOverlap(folder, image);
    if (isConsumed) {
        requireOnlyPatch(folder);
        consumed = folder;
    }
    const SxString digest = SxMd5::file(folder + ZqPatchFiles::RECORD);
    const ZqPatchParams params(folder);
    if (!isWanted(params, digest)) return {};
    SxString patch = folder;
    if (!isConsumed && !isOwn) {
        // One that was downloaded may have given room back, so it isn't exchanged for one that is whole.
        if (!work->hasCopyOf(digest) || !result.isResumed) work->takeFolder(folder);
        patch = work->getCopy();
    }
    if (!isOwn) work->writeOrigin({folder, isConsumed, digest});
    if (!result.isResumed) requireWhole(patch, params);
    return patch;
}

SxString ZqPatchApply::takeAddress(const SxString& source, bool isNoted) {
    const ZqStopTest stop = [this] { return isStopped(); };
    download = SxPtr<ZqPatchDownload>::create(*work, source, options.headers);
    SxString record;
    try {
        // Where the patch was begun, or fetched before, what the server sends later is compared with that.
        if (!isNoted) record = download->fetchRecord(stop);
    } catch (const SxException& e) {
        const bool isKept = work->hasCopy() && work->hasOrigin() && work->readOrigin().source == source;
        if (!ZqNetLink::isAway(e) || !isKept) throw;
        zqLogMsg("base", "ZqPatchApply : goes on with what was fetched: " +
                             e.toString(SxException::ShowMessage, ": "));
    }
    if (record.isEmpty()) record = SxFileIO::readUtf8(work->getCopy() + ZqPatchFiles::RECORD);
    const SxString digest = SxMd5::get(record);
    ZqFastPatch::refuseOther(image, digest);
    if (ZqFastPatch::isCommitting(image)) return work->getCopy();
    if (!isWanted(download->readRecord(record), digest)) return {};
    download->fetchLists(stop);
    work->writeOrigin({source, false, digest});
    parts = download->getParts();
    if (!result.isResumed) requireRoom(work->getCopy(), download->getMissing());
    return work->getCopy();
}

/// A local patch is there as a whole, or is no patch.
void ZqPatchApply::requireWhole(const SxString& patch, const ZqPatchParams& params) {
    parts = ZqPatchLists::readParts(patch, params, work->getPath());
    const SxString file = patch + ZqPatchFiles::DATA;
    if (static_cast<uint64>(SxFSAction::sizeOf(file)) != params.sizeData) {
        throw SxException("'" + file + "' hasn't the size that its patch.json says", UNIT, __LINE__);
    }
    setNTotal(params.sizeData);
    SxFileIO data(file, "rb");
    const SxString digest = SxMd5::file(&data, [this](int64 n) {
        addNCurrent(static_cast<uint64>(n));
        return !isStopped();
    });
    if (isStopped()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    if (!(digest == params.hashData))
        throw SxException("'" + file + "' hasn't the digest that its patch.json says", UNIT, __LINE__);
    requireRoom(patch, 0);
}

void ZqPatchApply::requireRoom(const SxString& patch, uint64 nToCome) {
    const ZqAppParams from(image), to(patch);
    const bool isReplace = ZqPatchParams(patch).compression == ZqPatchCompression::REPLACE;
    result.bytesExtra = ROOM_FOR_RECORDS + nToCome +
                        ZqPatchRoom::need(parts, ZqPatchProgress(), isReplace, from.sizeIdx / sizeof(uint64),
                                          to.sizeIdx / sizeof(uint64), false);
    ZqImageFolder::requireSpace(image, result.bytesExtra);
}

void ZqPatchApply::apply(const SxString& patch) {
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
            setNTotal(fast.getNTotal());
            setNCurrent(fast.getNCurrent());
            setSpeed(fast.getSpeed());
            SxWait::pass(interval, [&] { return !fast.isRunning() || isStopped(); });
        }
        child.wait();
    }
    if (download) result.bytesDownload = download->getNFetched();
    count(start);
    if (fetching) {
        if (download->hasException() && !isStopped()) throw download->getException();
        if (isStopped() || fast.hasException()) download->stop();
        fetching->wait();
    }
    isTold = fast.hasException();
    if (isTold) throw fast.getException();
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
    end.stage = ZqPatchProgress::PerformLockFinish;
    if (!SxFSAction::isGone(file)) end.read(file);
    for (size_t part = nDone(start); part < std::min(nDone(end), parts.size()); ++part)
        result.bytesWritten += parts[part].newBytes;
}
