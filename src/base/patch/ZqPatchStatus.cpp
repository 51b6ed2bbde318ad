#include "ZqPatchStatus.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFastPatch.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqPatchApply.h"
#include "ZqPatchFiles.h"
#include "ZqPatchLists.h"
#include "ZqPatchRoom.h"
#include "ZqPatchWork.h"
#include "ZqRemoteFile.h"
#include "ZqSysEnv.h"
#include "ZqUrlText.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/patch/ZqPatchStatus";
/// Bytes of the image that are read to see how fast that goes.
constexpr int64 PROBE = 32 << 20;
constexpr uint64 MAX_RECORD = 1 << 20;
} // namespace

ZqPatchStatus::ZqPatchStatus(const SxString& image_, const SxString& patch_,
                             const SxArray<SxString>& headers_, const SxString& scratch_,
                             const ZqNetAccess& access_)
    : image(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image_))),
      patchName(patch_),
      scratch(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(scratch_))),
      headers(headers_),
      access(access_) {
    setThreadName("patch status");
}

SxString ZqPatchStatus::toText(State state) {
    switch (state) {
    case Fetched:
        return "fetched";
    case Begun:
        return "begun";
    case Committing:
        return "committing";
    case None:
        break;
    }
    return "none";
}

void ZqPatchStatus::main() {
    if (!ZqImageFolder::holdsImage(image))
        throw SxException("'" + image + "' holds no image", UNIT, __LINE__);
    const ZqPatchWork work(image);
    result.bytesLayer = ZqPatchApply::layerBytes(image);
    if (ZqFastPatch::isCommitting(image)) {
        result.state = Committing;
    } else if (ZqFastPatch::isBegun(image)) {
        result.state = Begun;
    } else if (work.hasCopy()) {
        result.state = Fetched;
    }
    const SxString patch = findPatch();
    if (!patch.isEmpty()) look(patch);
}

/// The folder of the patch, or of what is known of it; empty for none.
SxString ZqPatchStatus::findPatch() {
    const ZqPatchWork work(image);
    if (!patchName.isEmpty()) {
        const bool isAddress = ZqUrlText::isAddress(patchName);
        result.source = isAddress ? ZqUrlText::of(patchName) : patchName;
        if (isAddress) fetch(patchName);
        return isAddress ? scratch : ZqImageFolder::prefix(patchName);
    }
    if (!work.hasOrigin()) return {};
    const ZqPatchOrigin origin = work.readOrigin();
    result.source = ZqUrlText::isAddress(origin.source) ? ZqUrlText::of(origin.source) : origin.source;
    const SxString patch = origin.isConsumed ? origin.source : work.getCopy();
    // At its very end a patch has gone, and only its note is left.
    return SxFSAction::isGone(patch + ZqPatchFiles::RECORD) ? SxString() : patch;
}

/// What tells of the patch, without its data.
void ZqPatchStatus::fetch(const SxString& url) const {
    // A question doesn't wait for a server that is away, as a download does.
    ZqNetSettings settings;
    settings.access = access;
    settings.nStreamTries = settings.nRangeTries;
    const auto link = SxPtr<ZqNetLink>::create(settings);
    const auto take = [&](const char* name, uint64 size) {
        const uint64 most = size == ZqRemoteFile::UNKNOWN ? MAX_RECORD : size;
        ZqImageFolder::requireSpace(scratch, most);
        ZqRemoteFile(link, ZqRemoteFile::urlIn(url, name), headers, size)
            .fetchTo(
                scratch + name, [this] { return stopRequested(); }, most);
    };
    try {
        take(ZqPatchFiles::RECORD, ZqRemoteFile::UNKNOWN);
        take(ZqPatchFiles::INFO_7Z, ZqPatchParams(scratch).sizeInfo);
        take(ZqImageFiles::APP_JSON, ZqRemoteFile::UNKNOWN);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot look at the patch at '" + ZqUrlText::of(url) + "'", UNIT, __LINE__);
    }
}

void ZqPatchStatus::look(const SxString& patch) {
    const ZqPatchParams params(patch);
    const ZqAppParams from(image);
    result.hasPatch = true;
    result.from = params.fromGUID;
    result.to = params.toGUID;
    result.isFor = params.isFor(from);
    result.isMade = params.isMade(from);
    const std::vector<ZqPatchSizes> parts = ZqPatchLists::readParts(patch, params, scratch);
    result.nParts = parts.size();
    ZqPatchProgress progress;
    const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
    const bool isOfPatch = ZqFastPatch::begunPatch(image) == SxMd5::file(patch + ZqPatchFiles::RECORD);
    if (isOfPatch && !SxFSAction::isGone(file)) progress.read(file);
    result.stage = progress.stage;
    result.part = progress.part;
    const ZqPatchWork work(image);
    const bool isFetched = work.hasCopyOf(SxMd5::file(patch + ZqPatchFiles::RECORD));
    const SxString data = (isFetched ? work.getCopy() : patch) + ZqPatchFiles::DATA;
    const auto there = static_cast<uint64>(std::max<int64>(SxFSAction::sizeOf(data), 0));
    result.bytesDownload = params.sizeData - std::min(there, params.sizeData);
    result.isOther = result.state >= Begun && !isOfPatch;
    if (result.isOther || (result.isMade && result.state < Begun)) {
        result.bytesDownload = 0;
        return;
    }
    uint64 bytesOfWork = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        const bool isToCome = progress.stage < ZqPatchProgress::FinalizePatch &&
                              (progress.stage == ZqPatchProgress::PrepareOldData || i >= progress.part);
        if (!isToCome) continue;
        result.bytesWritten += parts[i].newBytes;
        bytesOfWork += parts[i].oldBytes + parts[i].patchSize + 2 * parts[i].newBytes;
    }
    if (result.state == Committing) return;
    ZqPatchRoom::State state = ZqPatchLists::stateAtStart(image, patch);
    state.at = progress;
    result.bytesExtra = ZqPatchRoom::RECORDS + result.bytesDownload + ZqPatchRoom::need(parts, state);
    const double rate = measureRate();
    if (rate > 0) result.seconds = static_cast<double>(bytesOfWork) / rate;
}

/// Bytes a second at which the image is read and digested, which is what most of the work is.
double ZqPatchStatus::measureRate() const {
    if (SxFSAction::sizeOf(image + ZqImageFiles::ZQF) <= 0) return 0;
    SxFileIO zqf(image + ZqImageFiles::ZQF, "rb");
    std::vector<char> bytes(1 << 20);
    SxMd5 md5;
    const int64 startNs = SxClock::get().steadyNs();
    int64 done = 0;
    while (done < PROBE) {
        const int64 n = zqf.readBuffer(bytes.data(), static_cast<int64>(bytes.size()));
        if (n == 0) break;
        md5.update(bytes.data(), n);
        done += n;
    }
    const double seconds = static_cast<double>(SxClock::get().steadyNs() - startNs) / 1e9;
    return seconds > 0 ? static_cast<double>(done) / seconds : 0;
}
