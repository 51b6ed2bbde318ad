#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqFastPatch.h"
#include "ZqFileCopyTask.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqPatchFiles.h"
#include "ZqPatchSizes.h"
#include "ZqPatchTask.h"
#include "ZqRunningTask.h"
#include "ZqTimers.h"

// The steps of one part.

namespace {

constexpr const char* UNIT = "src/base/patch/ZqFastPatchParts";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 MAX_SLOT = uint64{1} << 40;
using Range = ZqFileCopyTask::Range;

/// The byte of `img.zqf` that an item lies at. A run that goes on has maps and lists from files.
uint64 offsetOf(const SxArray<uint64>& idx, uint64 item) {
    const uint64 n = static_cast<uint64>(idx.getSize());
    const uint64 slot = item < n ? idx(static_cast<int64>(item)) : ZqImage::NO_ENTRY;
    if (slot <= MAX_SLOT) return slot * BLOCK;
    throw SxException("Invalid mapping on " + SxString(item), UNIT, __LINE__);
}

void requireSlots(const SxArray<uint64>& idx, const SxArray<uint64>& items) {
    for (const uint64 item : items)
        offsetOf(idx, item);
}

void removeFile(const SxString& path) {
    if (!SxFSAction::isGone(path)) SxFSAction::rm(path);
}

} // namespace

SxString ZqFastPatch::partFile(uint32 part, const char* what) const {
    return work + "part_" + SxString(uint64{part}) + "_" + what + ".bin";
}

void ZqFastPatch::setDescriptor(Stage stage, uint32 part) {
    progress.stage = stage;
    progress.part = part;
    progress.write(progressFile);
}

void ZqFastPatch::logStep(const Step& step, const char* text, uint32 part) const {
    zqLogMsg("base",
             SxString(step.prefix) + text + SxString(uint64{part} + 1) + " out of " + SxString(parts.size()));
}

/// Whether the step is the one to be done; else it is counted as done.
bool ZqFastPatch::begin(const Step& step, uint32 part, uint64 bytes) {
    if (progress.part == part && progress.stage == step.stage) {
        setDescriptor(step.stage, part);
        return true;
    }
    logStep(step, step.skipText, part);
    addNCurrent(bytes);
    return false;
}

/// Runs a child job, and counts what `nDone` says that it has done.
template<class Task>
void ZqFastPatch::runTask(Task* task, const std::function<uint64()>& nDone, const SxString& failure) {
    ZqRunningTask child(task);
    uint64 last = 0;
    const auto count = [&] {
        const uint64 now = nDone();
        if (now > last) addNCurrent(now - last);
        last = std::max(last, now);
    };
    while (task->isRunning()) {
        if (stopRequested()) {
            task->stop();
            break;
        }
        count();
        SxWait::pass(interval, [&] { return !task->isRunning() || stopRequested(); });
    }
    child.wait();
    if (task->hasException()) throw SxException(task->getException(), failure, UNIT, __LINE__);
    count();
}

void ZqFastPatch::runCopy(ZqFileCopyTask* task, const SxString& failure) {
    runTask(
        task, [task] { return task->getNCurrent(); }, failure);
}

void ZqFastPatch::requireDigest(const SxMd5& expected, const SxMd5& actual, const char* what) const {
    if (expected == actual) return;
    throw SxException(SxString("Invalid ") + what + " checksum. Expected [" + expected.toString() +
                          "] but got [" + actual.toString() + "]",
                      UNIT, __LINE__);
}

void ZqFastPatch::prepareOldData(uint32 part) {
    static constexpr Step STEP{ZqPatchProgress::PrepareOldData,
                               "ZqFastPatch::prepareOldData   : ", "Already prepared old data for part ",
                               "Preparing old data for part "};
    try {
        const ZqPatchInfo& info = parts[part];
        if (!begin(STEP, part, ZqPatchSizes(info).oldBytes)) return;
        const SxTakeTime taken(Timer::PatchTimer::CopyOldData);
        const SxString source = imageDir + ZqImageFiles::ZQF, target = partFile(part, OLD_DATA);
        removeFile(target);
        logStep(STEP, STEP.runText, part);
        requireSlots(oldIdx, info.oldMap);
        ZqFileCopyTask task(source, target, info.oldMap.getSize(), [&](int64 i) {
            return Range{offsetOf(oldIdx, info.oldMap(i)), static_cast<uint64>(i) * BLOCK, BLOCK};
        });
        runCopy(&task, "Failed to copy [" + source + "] to [" + target + "]");
        // What is cut off by a stop is done again by the next run.
        if (stopRequested()) return;
        requireDigest(info.oldMd5, task.getMD5(), "old data");
        SxFSAction::syncDir(work);
        const bool isLast = isLastPart(part);
        setDescriptor(isLast ? ZqPatchProgress::PreparePatchData : ZqPatchProgress::PrepareOldData,
                      isLast ? 0 : part + 1);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to copy out old data.", UNIT, __LINE__);
    }
}

void ZqFastPatch::preparePatchData(uint32 part) {
    static constexpr Step STEP{ZqPatchProgress::PreparePatchData,
                               "ZqFastPatch::preparePatchData : ", "Already prepared patch data for part ",
                               "Preparing patch data for part "};
    try {
        const ZqPatchInfo& info = parts[part];
        if (!begin(STEP, part, info.patchSize)) return;
        const SxTakeTime taken(Timer::PatchTimer::CopyPatchData);
        const SxString source = patchDir + ZqPatchFiles::DATA, target = partFile(part, PATCH_DATA);
        removeFile(target);
        logStep(STEP, STEP.runText, part);
        ZqFileCopyTask task(source, target, {Range{patchOffsets[part], 0, info.patchSize}});
        runCopy(&task, "Failed to copy [" + source + "] to [" + target + "]");
        if (stopRequested()) return;
        requireDigest(info.patchMd5, task.getMD5(), "part patch data");
        SxFSAction::syncDir(work);
        setDescriptor(ZqPatchProgress::ApplyPatchData, part);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to copy out patch part data.", UNIT, __LINE__);
    }
}

void ZqFastPatch::applyPatchData(uint32 part) {
    static constexpr Step STEP{ZqPatchProgress::ApplyPatchData,
                               "ZqFastPatch::applyPatchData   : ", "Already applied patch data for part ",
                               "Applying patch data for part "};
    try {
        const ZqPatchInfo& info = parts[part];
        if (!begin(STEP, part, ZqPatchSizes(info).newBytes)) return;
        const SxString oldFile = partFile(part, OLD_DATA), newFile = partFile(part, NEW_DATA),
                       patchFile = partFile(part, PATCH_DATA);
        // Where the stream is the new data itself, the tool's place is taken by a move, and a run that goes
        // on finds it moved.
        const bool isMoved = patchParams.compression == ZqPatchCompression::REPLACE &&
                             SxFSAction::isGone(patchFile) && !SxFSAction::isGone(newFile);
        if (!isMoved) removeFile(newFile);
        logStep(STEP, STEP.runText, part);
        if (isMoved) {
            addNCurrent(ZqPatchSizes(info).newBytes);
        } else {
            ZqPatchTask task(oldFile, newFile, patchFile, patchParams.compression);
            runTask(
                &task, [&] { return static_cast<uint64>(std::max<int64>(SxFSAction::sizeOf(newFile), 0)); },
                "Failed to apply [" + patchFile + "] on [" + oldFile + "] to generate [" + newFile + "]");
        }
        requireOutput(newFile, info);
        if (stopRequested()) return;
        setDescriptor(ZqPatchProgress::CopyNewData, part);
    } catch (const SxException& e) {
        if (!stopRequested()) takeStreamAgain(part);
        throw SxException(e, "Failed to apply data.", UNIT, __LINE__);
    }
}

/// A stream that has gone bad since it was taken is taken again by the next run.
void ZqFastPatch::takeStreamAgain(uint32 part) {
    const SxString file = partFile(part, PATCH_DATA);
    if (!SxFSAction::isGone(file) && SxMd5::file(file) == parts[part].patchMd5.toString()) return;
    setDescriptor(ZqPatchProgress::PreparePatchData, part);
}

/// A design decision: the output is compared before it goes into the image, and not on its way there: what is
/// wrong could never be undone. It is on the device at the end.
void ZqFastPatch::requireOutput(const SxString& file, const ZqPatchInfo& info) const {
    SxFileIO output(file, "rb");
    SxMd5 md5;
    std::vector<char> bytes(1 << 20);
    while (const int64 n = output.readBuffer(bytes.data(), static_cast<int64>(bytes.size()))) {
        if (stopRequested()) return;
        md5.update(bytes.data(), n);
    }
    md5.finish();
    requireDigest(info.newMd5, md5, "new data");
    output.sync();
    SxFSAction::syncDir(work);
}

void ZqFastPatch::copyNewData(uint32 part) {
    static constexpr Step STEP{ZqPatchProgress::CopyNewData,
                               "ZqFastPatch::copyNewData      : ", "Already copied new data for part ",
                               "Copying new data from part "};
    try {
        const ZqPatchInfo& info = parts[part];
        if (!begin(STEP, part, ZqPatchSizes(info).newBytes)) return;
        const SxTakeTime taken(Timer::PatchTimer::CopyNewData);
        const SxString source = partFile(part, NEW_DATA), target = imageDir + ZqImageFiles::ZQF;
        logStep(STEP, STEP.runText, part);
        requireSlots(newIdx, info.newMap);
        ZqFileCopyTask task(source, target, info.newMap.getSize(), [&](int64 i) {
            return Range{static_cast<uint64>(i) * BLOCK, offsetOf(newIdx, info.newMap(i)), BLOCK};
        });
        runCopy(&task, "Failed to copy [" + source + "] to [" + target + "]");
        if (stopRequested()) return;
        requireDigest(info.newMd5, task.getMD5(), "new data");
        setDescriptor(ZqPatchProgress::CleanupPart, part);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to copy new data.", UNIT, __LINE__);
    }
}

void ZqFastPatch::cleanupPart(uint32 part) {
    static constexpr Step STEP{ZqPatchProgress::CleanupPart,
                               "ZqFastPatch::cleanupPart : ", "Already cleaned data for part ", ""};
    try {
        if (!begin(STEP, part, 0)) return;
        for (const char* what : {OLD_DATA, NEW_DATA, PATCH_DATA})
            removeFile(partFile(part, what));
        SxFSAction::syncDir(work);
        const bool isLast = isLastPart(part);
        setDescriptor(isLast ? ZqPatchProgress::FinalizePatch : ZqPatchProgress::PreparePatchData,
                      isLast ? 0 : part + 1);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to cleanup", UNIT, __LINE__);
    }
}
