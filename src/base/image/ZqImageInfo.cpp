#include "ZqImageInfo.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqOrderHints.h"
#include "ZqSeekTable.h"

namespace {

constexpr const char* UNIT = "src/base/ZqImageInfo";

ZqImageInfo::State findState(const SxString& prefix, bool allThere) {
    if (!SxFSAction::isGone(prefix + ZqImageFiles::OPTIMIZE_LOCK)) return ZqImageInfo::Optimizing;
    if (SxFSAction::exists(prefix + ZqImageFiles::PATCH_PROGRESS) ||
        SxFSAction::exists(prefix + ZqImageFiles::PATCHING_LOCK)) {
        return ZqImageInfo::Patching;
    }
    return allThere ? ZqImageInfo::Complete : ZqImageInfo::Partial;
}

/// 0 where there is none.
int64 sizeOfFile(const SxString& file) {
    const SxFileInfo info(file);
    return info.isFile() ? info.getSize() : 0;
}

} // namespace

bool ZqImageInfo::holdsPart(const SxString& path) {
    const SxString prefix = ZqImageFolder::prefix(path);
    for (const char* name : {ZqImageFiles::APP_JSON, ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX}) {
        if (!SxFSAction::test_f(prefix + name)) return false;
    }
    return sizeOfFile(prefix + ZqImageFiles::ZQF) > 0;
}

bool ZqImageInfo::isComplete(const SxString& path) {
    if (!holdsPart(path)) return false;
    const SxString prefix = ZqImageFolder::prefix(path);
    const ZqAppParams app(prefix);
    return sizeOfFile(prefix + ZqImageFiles::ZQF) >= static_cast<int64>(app.sizeZqf);
}

ZqImageInfo::ZqImageInfo(const SxString& path) {
    const SxString prefix = ZqImageFolder::prefix(path);
    const auto lock = ZqImageLock::takeAnyState(path, ZqImageLock::Shape, ZqImageLock::Shared, "image info");
    app = ZqAppParams(prefix);
    image = ZqImageParams(prefix);
    sizeZqf = static_cast<uint64>(sizeOfFile(prefix + ZqImageFiles::ZQF));
    const SxString idx = prefix + ZqImageFiles::IDX;
    const int64 sizeIdx = sizeOfFile(idx);
    if (app.sizeIdx > 0 && static_cast<uint64>(sizeIdx) > app.sizeIdx) {
        throw SxException("File '" + idx + "' has " + sizeIdx + " bytes, app.json says " + app.sizeIdx, UNIT,
                          __LINE__);
    }
    countBlocks(ZqImage(prefix).getMap());
    if (const auto hints =
            ZqOrderHints::read(prefix, app.checksumIdx, ZqSeekTable::countFrames(sizeComplete))) {
        hasHints = true;
        nHintGroups = hints->groups.size();
        nHotStretches = hints->countHot();
    }
    storage = ZqImage(prefix).getSplitState();
    state = findState(prefix, !storage.split && sizeZqf >= sizeComplete);
}

void ZqImageInfo::countBlocks(const SxArray<uint64>& map) {
    nRaw = static_cast<uint64>(map.getSize());
    const uint64 nBlocks = sizeZqf / ZqBlocks::SIZE;
    uint64 expected = ZqImage::NO_ENTRY, greatest = 0;
    for (const uint64 zqfIdx : map) {
        if (zqfIdx == ZqImage::NO_ENTRY) continue;
        ++nIncluded;
        if (zqfIdx < nBlocks) ++nPresent;
        if (zqfIdx != expected) ++nRuns;
        expected = zqfIdx + 1;
        greatest = std::max(greatest, zqfIdx);
    }
    sizeComplete = app.sizeZqf;
    if (sizeComplete == 0 && nIncluded > 0) sizeComplete = (greatest + 1) * ZqBlocks::SIZE;
}

void ZqImageInfo::requireComplete(const SxString& path) const {
    if (storage.split || storage.joining) {
        throw SxException("The image '" + path + "' is split; join it first", UNIT, __LINE__);
    }
    if (sizeZqf < sizeComplete) {
        throw SxException(SxString("The image '") + path + "' isn't complete: img.zqf has " + sizeZqf +
                              " of " + sizeComplete + " bytes",
                          UNIT, __LINE__);
    }
}

SxString ZqImageInfo::stateToString(State state) {
    switch (state) {
    case Complete:
        return "complete";
    case Partial:
        return "partial";
    case Optimizing:
        return "optimizing";
    case Patching:
        return "patching";
    }
    return SxString();
}
