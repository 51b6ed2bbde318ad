#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqBlocks.h"
#include "ZqFastPatch.h"
#include "ZqFileCopyTask.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqOrderRemains.h"
#include "ZqPatchMap.h"
#include "ZqPatchSquash.h"
#include "ZqPatchTraces.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"

#include <optional>

// The end of a patch: the file is compacted, what was true of the old version goes or is carried over, and
// the new records take their places.

namespace {

constexpr const char* UNIT = "src/base/patch/ZqFastPatchFinish";
constexpr const char* PREFIX = "ZqFastPatch::finalizePatch : ";
constexpr uint64 BLOCK = ZqBlocks::SIZE;

void log(const SxString& text) {
    zqLogMsg("base", PREFIX + text);
}

void syncFile(const SxString& path) {
    SxFileIO(path, "rb").sync();
}

uint64 sizeOf(const SxString& path) {
    const int64 size = SxFSAction::sizeOf(path);
    if (size < 0) throw SxException("File " + path + " not found", UNIT, __LINE__);
    return static_cast<uint64>(size);
}

/// Replaces the target as a whole.
void replace(const SxString& from, const SxString& to) {
    const SxString aside = to + ".tmp";
    SxFSAction::cp(from, aside);
    // Whoever could read the image can read it after.
    const std::optional<SxStat> old = SxFSAction::look(to);
    SxOs::get().setPermissions(SxOs::hostPath(aside),
                               old && old->kind == SxStat::File ? old->permissions : 0644);
    SxFSAction::mv(aside, to);
}

} // namespace

void ZqFastPatch::finalizePatch() {
    const SxTakeTime taken(Timer::PatchTimer::FinalizeImage);
    try {
        setDescriptor(ZqPatchProgress::FinalizePatch, 0);
        try {
            squash();
        } catch (const SxException& e) {
            throw SxException(e, "Failed to squash the ZqF image", UNIT, __LINE__);
        }
        // A cut is only for a copy that is complete, and what follows is for a file that was cut.
        if (stopRequested()) return;
        log("Clean RTW layer");
        removeLayer();
        try {
            ZqPatchTraces(imageDir, patchDir, work, oldApp.checksumMnt)
                .map([](const SxString& text) { log(text); }, [this] { return stopRequested(); });
        } catch (const SxException& e) {
            throw SxException(e, "Cannot map traces to patched image", UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Finalization of patch failed.", UNIT, __LINE__);
    }
}

void ZqFastPatch::squash() {
    const SxString zqf = imageDir + ZqImageFiles::ZQF;
    const uint64 nBlocks = sizeOf(zqf) / BLOCK;
    const uint64 nUsed = ZqPatchMap::countUsed(newIdx);
    if (nUsed >= nBlocks) return;
    const SxArray<ZqFileCopyTask::Range> ranges = ZqPatchSquash::plan(&newIdx, nBlocks);
    {
        ZqFileCopyTask task(zqf, zqf, ranges.getSize(), [&](int64 i) { return ranges(i); });
        runCopy(&task, "Failed to squash [" + zqf + "]");
    }
    if (stopRequested()) return;
    try {
        writeNewMap("img.idx.backup");
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write truncated img.idx", UNIT, __LINE__);
    }
    ZqSysEnv::truncateFile(zqf, static_cast<int64>(nUsed * BLOCK));
    syncFile(zqf);
}

void ZqFastPatch::removeLayer() const {
    try {
        for (const char* name : {ZqImageFiles::LAYER_INDEX, ZqImageFiles::LAYER_DATA}) {
            if (!SxFSAction::isGone(imageDir + name)) SxFSAction::rm(imageDir + name);
        }
        SxFSAction::syncDir(imageDir);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot remove RTW data", UNIT, __LINE__);
    }
}

void ZqFastPatch::performLockFinish() {
    try {
        setDescriptor(ZqPatchProgress::PerformLockFinish, 0);
        if (SxFSAction::isGone(imageDir + ZqImageFiles::PATCHING_LOCK)) generateMeta();
        replace(work + ZqImageFiles::APP_JSON, imageDir + ZqImageFiles::APP_JSON);
        replace(patchDir + ZqImageFiles::IMAGE_JSON, imageDir + ZqImageFiles::IMAGE_JSON);
        replace(work + ZqImageFiles::IDX, imageDir + ZqImageFiles::IDX);
        // What was true of the old version's blocks alone: one that stays would fail the next mount or
        // verification.
        ZqOrderRemains::remove(imageDir, {});
        if (!SxFSAction::isGone(imageDir + ZqImageFiles::FILES))
            SxFSAction::rm(imageDir + ZqImageFiles::FILES);
        ZqOrderRemains::renewSyncedSize(imageDir);
        SxFSAction::syncDir(imageDir);
        if (!SxFSAction::isGone(progressFile)) SxFSAction::rm(progressFile);
        SxFSAction::syncDir(imageDir);
        SxFSAction::rm(imageDir + ZqImageFiles::PATCHING_LOCK);
        SxFSAction::syncDir(work);
        SxFSAction::rm_r(work);
        SxFSAction::syncDir(imageDir);
        removePatch();
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqFastPatch::performLockFinish : " + e.toString(SxException::ShowMessage, "\n"));
        throw SxException("Failed to write new image meta data.", UNIT, __LINE__);
    }
}

/// A design decision: the image is the new version by now, whatever keeps the patch from being removed.
void ZqFastPatch::removePatch() const {
    try {
        SxFSAction::rm_r(patchDir);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqFastPatch::performLockFinish : " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqFastPatch::generateMeta() {
    try {
        const SxString zqf = imageDir + ZqImageFiles::ZQF;
        newApp.sizeZqf = sizeOf(zqf);
        newApp.checksumIdx = SxMd5::file(work + ZqImageFiles::IDX);
        newApp.write(work);
        for (const SxString& file : {zqf, work + ZqImageFiles::APP_JSON, work + ZqImageFiles::IDX})
            syncFile(file);
        SxFSAction::syncDir(work);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot generate new image meta file.", UNIT, __LINE__);
    }
    SxFSAction::touch(imageDir + ZqImageFiles::PATCHING_LOCK, 0644);
    SxFSAction::syncDir(work);
}
