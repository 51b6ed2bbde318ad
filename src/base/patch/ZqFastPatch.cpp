#include "ZqFastPatch.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqArchiveFile.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqImageParams.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqPatchFiles.h"
#include "ZqPatchMap.h"
#include "ZqPatchRoom.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqFastPatch";
constexpr uint64 ITEM = sizeof(uint64);

void log(const char* stage, const SxString& text) {
    zqLogMsg("base", SxString("ZqFastPatch::") + stage + " : " + text);
}

uint64 fileSize(const SxString& path) {
    const int64 size = SxFSAction::sizeOf(path);
    return size > 0 ? static_cast<uint64>(size) : 0;
}

void unpack(const SxString& archive, const SxString& folder, const char* file) {
    if (ZqArchiveFile::take(archive, folder, file)) return;
    throw SxException("'" + archive + "' doesn't hold " + file, UNIT, __LINE__);
}

} // namespace

ZqFastPatch::ZqFastPatch(const SxString& imageDir_, const SxString& patchDir_, int interval_)
    : imageDir(ZqSysEnv::unifySlashes(imageDir_ + "/")),
      patchDir(ZqSysEnv::unifySlashes(patchDir_ + "/")),
      interval(interval_),
      startTime(static_cast<uint64>(ZqSysEnv::getSysTime())),
      progressFile(imageDir + ZqImageFiles::PATCH_PROGRESS),
      work(imageDir + WORK) {
    setThreadName("patch");
}

void ZqFastPatch::main() {
    log("main", "Starting");
    const SxTakeTime taken(Timer::PatchTimer::TotalPatchTime);
    runtimeInfo->patchStats.begin(ZqSysEnv::getSysTime());
    // A design decision: the statistics end in seconds on every way out, since their reader takes them so.
    const auto end = [&] {
        runtimeInfo->patchStats.end(ZqSysEnv::getSysTime(), runtimeInfo->patchStats.bytes);
    };
    try {
        runAll();
    } catch (const SxException& e) {
        end();
        // What fails because of a stop isn't told.
        if (stopRequested()) return;
        ZqJobFailure::report(this, "ZqFastPatch::main : ", imageDir, e, UNIT, __LINE__);
        throw SxException(e, "Patch failed", UNIT, __LINE__);
    }
    end();
}

/// What the library raises otherwise, as for a lack of memory, is a failure like others.
void ZqFastPatch::runAll() {
    try {
        run();
    } catch (const SxException&) {
        throw;
    } catch (const std::exception& e) {
        throw SxException(e.what(), UNIT, __LINE__);
    }
}

void ZqFastPatch::run() {
    if (isCommitting(imageDir)) {
        performLockFinish();
        setNTotal(1);
        setNCurrent(1);
        return;
    }
    parseMeta();
    if (stopRequested()) return;
    openDescriptor();
    if (!stopRequested()) {
        uint64 total = 1;
        for (const ZqPatchSizes& part : ZqPatchSizes::of(parts))
            total += part.oldBytes + part.patchSize + 2 * part.newBytes;
        setNTotal(total);
        const uint64 need = roomNeeded();
        log("main", "Check for Diskspace: maximal " + SxString(need) + " bytes required.");
        checkFreeSpace(need);
    }
    if (!stopRequested()) generateMap();
    runParts();
    if (!stopRequested()) finalizePatch();
    if (!stopRequested()) performLockFinish();
    if (stopRequested()) return;
    log("main", "All content patched");
    setNCurrent(getNTotal());
}

void ZqFastPatch::runParts() {
    const auto n = static_cast<uint32>(parts.size());
    // All old data leaves the image before any new data comes: that goes into slots that a later part may
    // read.
    for (uint32 part = 0; part < n && !stopRequested(); ++part)
        prepareOldData(part);
    oldIdx = {};
    runtimeInfo->patchStats.bytes = static_cast<int64>(fileSize(patchDir + ZqPatchFiles::DATA));
    for (uint32 part = 0; part < n && !stopRequested(); ++part) {
        const uint64 needed = patchOffsets[part + 1];
        while (fileSize(patchDir + ZqPatchFiles::DATA) < needed && !stopRequested())
            SxTime::msleep(interval);
        using Operation = void (ZqFastPatch::*)(uint32);
        for (const Operation operation : {&ZqFastPatch::preparePatchData, &ZqFastPatch::applyPatchData,
                                          &ZqFastPatch::copyNewData, &ZqFastPatch::cleanupPart}) {
            if (!stopRequested()) (this->*operation)(part);
        }
    }
}

void ZqFastPatch::openDescriptor() {
    if (!SxFSAction::isGone(progressFile)) {
        progress.read(progressFile);
        // Every step would be taken as done.
        if (progress.part > 0 && progress.part >= parts.size()) {
            throw SxException("'" + progressFile + "' tells of part " + SxString(uint64{progress.part}) +
                                  ", but the patch has " + SxString(static_cast<uint64>(parts.size())),
                              UNIT, __LINE__);
        }
        return;
    }
    SxMd5 id;
    const std::string text = (patchParams.fromGUID + patchParams.toGUID).str();
    id.update(text.data(), static_cast<int64>(text.size()), static_cast<int64>(text.size()));
    // A map that a power cut has brought back may be of an order that the image no longer has.
    for (const char* name : {ZqImageFiles::IDX, ZqImageFiles::IDX_7Z})
        if (!SxFSAction::isGone(work + name)) SxFSAction::rm(work + name);
    SxFSAction::syncDir(work);
    progress = ZqPatchProgress();
    progress.patchId = id;
    progress.write(progressFile);
}

void ZqFastPatch::addNCurrent(uint64 n) {
    updateProgress();
    ZqTaskMon::addNCurrent(n);
}

void ZqFastPatch::updateProgress() {
    const uint64 elapsed = static_cast<uint64>(ZqSysEnv::getSysTime()) - startTime;
    if (elapsed > 0) setSpeed(getNCurrent() * 1000 / elapsed);
}

void ZqFastPatch::checkFreeSpace(const uint64& bytes) {
    const uint64 free = ZqSysEnv::getFreeDiskSpace(imageDir);
    if (free >= bytes) return;
    throw SxException("Not enough free disk space to perform patch. Additional " + SxString(bytes - free) +
                          " bytes required.",
                      UNIT, __LINE__);
}

/// A design decision: what is still to come at its highest, the image's growth included, and not the plain
/// sum of all parts, which would lock out a run that goes on with little room left.
uint64 ZqFastPatch::roomNeeded() const {
    ZqPatchRoom::State state;
    state.at = progress;
    state.isReplace = patchParams.compression == ZqPatchCompression::REPLACE;
    state.sizeIdx = newApp.sizeIdx;
    state.hasMap = fileSize(work + ZqImageFiles::IDX) == newApp.sizeIdx;
    state.growth = growth(state.hasMap);
    const bool isOld = progress.stage == ZqPatchProgress::PrepareOldData;
    for (const char* what : {OLD_DATA, PATCH_DATA, NEW_DATA})
        if (isOld == (what == OLD_DATA)) state.partFiles += fileSize(partFile(progress.part, what));
    return ZqPatchRoom::need(ZqPatchSizes::of(parts), state);
}

/// Bytes that `img.zqf` still grows by: the slots that new data gets begin with the free ones within it.
uint64 ZqFastPatch::growth(bool hasMap) const {
    const uint64 nBlocks = fileSize(imageDir + ZqImageFiles::ZQF) / ZqBlocks::SIZE;
    uint64 end = 0;
    if (hasMap) {
        for (const uint64 slot : ZqImage::readEntries(work + ZqImageFiles::IDX))
            if (slot != ZqImage::NO_ENTRY) end = std::max(end, slot + 1);
    } else {
        for (const uint64 item : ZqImage::readEntries(work + ZqPatchFiles::MAP))
            end += item != ZqImage::NO_ENTRY;
        for (const ZqPatchInfo& part : parts)
            end += static_cast<uint64>(part.newMap.getSize());
    }
    return end > nBlocks ? (end - nBlocks) * ZqBlocks::SIZE : 0;
}

void ZqFastPatch::parseMeta() {
    const SxTakeTime taken(Timer::PatchTimer::ParseMeta);
    try {
        if (!stopRequested()) {
            patchParams.read(patchDir);
            oldApp.read(imageDir);
            if (!patchParams.isFor(oldApp))
                throw SxException("The provided patch is not for current version", UNIT, __LINE__);
            // The records are put in place at the end, when nothing can be taken back.
            newApp = patchParams.readNew(patchDir);
            const ZqImageParams readable(patchDir);
            requirePatch();
        }
        SxFSAction::mkdir_p(work, 0777);
        if (!stopRequested()) {
            extract(ZqPatchFiles::MAP_7Z, ZqPatchFiles::MAP, patchParams.sizeMap, patchParams.hashMap);
            // The map of the traces is read there.
            const SxString copy = patchDir + ZqPatchFiles::MAP;
            if (SxFSAction::sizeOf(copy) != SxFSAction::sizeOf(work + ZqPatchFiles::MAP)) {
                if (!SxFSAction::isGone(copy)) SxFSAction::rm(copy);
                SxFSAction::cp(work + ZqPatchFiles::MAP, copy);
            }
        }
        if (!stopRequested())
            extract(ZqPatchFiles::INFO_7Z, ZqPatchFiles::INFO, patchParams.sizeInfo, patchParams.hashInfo);
        if (stopRequested()) return;
        try {
            SxList<ZqPatchInfo> read = ZqPatchInfo::read(work + ZqPatchFiles::INFO);
            parts.assign(std::make_move_iterator(read.begin()), std::make_move_iterator(read.end()));
            patchOffsets = {0};
            for (const ZqPatchInfo& part : parts)
                patchOffsets.push_back(patchOffsets.back() + part.patchSize);
        } catch (const SxException& e) {
            throw SxException(e, "Failed to read " + work + ZqPatchFiles::INFO, UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Failed to parse meta data", UNIT, __LINE__);
    }
}

/// The work folder belongs to one patch, of which it keeps the record.
void ZqFastPatch::requirePatch() {
    const SxString record = patchDir + ZqPatchFiles::RECORD;
    const SxString digest = SxMd5::file(record);
    if (begunPatch(imageDir) == digest) return;
    refuseOther(imageDir, digest);
    // What another patch has left was made of an image that is still what it was.
    takeBack(imageDir);
    SxFSAction::mkdir_p(work, 0777);
    SxFileIO::writeAtomic(work + ZqPatchFiles::RECORD, SxFileIO::readUtf8(record));
}

SxString ZqFastPatch::begunPatch(const SxString& image) {
    const SxString kept = image + WORK + ZqPatchFiles::RECORD;
    return SxFSAction::isGone(kept) ? SxString() : SxMd5::file(kept);
}

void ZqFastPatch::refuseOther(const SxString& image, const SxString& digest) {
    const SxString begun = begunPatch(image);
    if (isUntouched(image) || begun == digest) return;
    throw SxException(begun.isEmpty()
                          ? "'" + image + WORK +
                                "' doesn't hold what the patch that was begun needs: the image must be "
                                "fetched or built anew"
                          : "The image is on its way to another version: go on with the patch to '" +
                                ZqPatchParams(image + WORK).toGUID + "', whose patch.json has the digest " +
                                begun,
                      UNIT, __LINE__);
}

void ZqFastPatch::takeBack(const SxString& image) {
    if (!isUntouched(image)) return;
    const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
    if (!SxFSAction::isGone(file)) SxFSAction::rm(file);
    SxFSAction::syncDir(image);
    if (!SxFSAction::isGone(image + WORK)) SxFSAction::rm_r(image + WORK);
    SxFSAction::syncDir(image);
}

bool ZqFastPatch::isBegun(const SxString& image) {
    return !SxFSAction::isGone(image + ZqImageFiles::PATCH_PROGRESS) || isCommitting(image);
}

bool ZqFastPatch::isCommitting(const SxString& image) {
    return !SxFSAction::isGone(image + ZqImageFiles::PATCHING_LOCK);
}

bool ZqFastPatch::isUntouched(const SxString& image) {
    if (isCommitting(image)) return false;
    const SxString file = image + ZqImageFiles::PATCH_PROGRESS;
    if (SxFSAction::isGone(file)) return true;
    ZqPatchProgress begun;
    begun.read(file);
    return begun.stage == ZqPatchProgress::PrepareOldData ||
           (begun.part == 0 && begun.stage < ZqPatchProgress::CopyNewData);
}

/// Takes `file` out of an archive, unless it is there already.
void ZqFastPatch::extract(const char* archive, const char* file, uint64 size, const SxString& md5) const {
    const SxString path = SxFileInfo(patchDir + archive).getAbsPath();
    if (fileSize(patchDir + archive) != size) {
        throw SxException("The provided '" + path + "' file size is invalid", UNIT, __LINE__);
    }
    if (fileSize(work + file) > 0) return;
    if (!(SxMd5::file(patchDir + archive) == md5)) {
        throw SxException("The provided " + path + " MD5 sum is invalid.", UNIT, __LINE__);
    }
    unpack(patchDir + archive, work, file);
    log("parseMeta", SxString(archive) + " extracted.");
}

void ZqFastPatch::generateMap() {
    const SxTakeTime taken(Timer::PatchTimer::GenNewMap);
    const uint64 nOld = oldApp.sizeIdx / ITEM, nNew = newApp.sizeIdx / ITEM;
    try {
        for (const SxString& folder : {imageDir, work}) {
            if (SxFSAction::isGone(folder + ZqImageFiles::IDX) &&
                !SxFSAction::isGone(folder + ZqImageFiles::IDX_7Z))
                unpack(folder + ZqImageFiles::IDX_7Z, folder, ZqImageFiles::IDX);
        }
        if (fileSize(work + ZqImageFiles::IDX) == nNew * ITEM) {
            readMaps();
        } else {
            log("generateMap", "Parsing mappings");
            const auto read = [](const SxString& file, uint64 n, const SxString& wrong, const char* failure) {
                try {
                    SxArray<uint64> entries = ZqImage::readEntries(file);
                    if (static_cast<uint64>(entries.getSize()) == n) return entries;
                    throw SxException(wrong.isEmpty()
                                          ? "Invalid number of old idx items read: Is " +
                                                SxString(entries.getSize()) + " should be " + SxString(n)
                                          : wrong,
                                      UNIT, __LINE__);
                } catch (const SxException& e) {
                    throw SxException(e, failure, UNIT, __LINE__);
                }
            };
            oldIdx = read(imageDir + ZqImageFiles::IDX, nOld, "", "Failed to read img.idx of old image");
            requireOldMap();
            const SxArray<uint64> map =
                read(work + ZqPatchFiles::MAP, nOld, "Invalid number of map items read",
                     "Failed to read map.idx patch map data");
            if (stopRequested()) return;
            const uint64 nBlocks = fileSize(imageDir + ZqImageFiles::ZQF) / ZqBlocks::SIZE;
            newIdx =
                ZqPatchMap::generate(oldIdx, nBlocks, map, nNew, parts, [this] { return stopRequested(); });
            if (stopRequested()) return;
            writeNewMap("img.idx.new");
        }
        if (nNew < nOld) setNTotal(getNTotal() + ZqPatchMap::countBeyond(newIdx, nNew) * ZqBlocks::SIZE);
    } catch (const SxException& e) {
        throw SxException(e, "Could not generate block mapping", UNIT, __LINE__);
    }
}

/// One that was unpacked from an archive may be that of a former version.
void ZqFastPatch::requireOldMap() const {
    const SxString file = imageDir + ZqImageFiles::IDX;
    if (oldApp.checksumIdx.isEmpty() || SxMd5::file(file) == oldApp.checksumIdx) return;
    throw SxException("'" + file + "' hasn't the digest that its app.json says", UNIT, __LINE__);
}

void ZqFastPatch::readMaps() {
    log("generateMap", "Reading already generated img.idx");
    try {
        oldIdx = ZqImage::readEntries(imageDir + ZqImageFiles::IDX);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read old img.idx", UNIT, __LINE__);
    }
    try {
        newIdx = ZqImage::readEntries(work + ZqImageFiles::IDX);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read already generated img.idx", UNIT, __LINE__);
    }
}

/// Under another name at first, since its size alone says that it is whole.
void ZqFastPatch::writeNewMap(const SxString& name) const {
    const SxString file = work + ZqImageFiles::IDX;
    try {
        SxFileIO out(work + name, "wb", 0600);
        out.writeBuffer(newIdx.data(), newIdx.getSize() * static_cast<int64>(ITEM));
        out.sync();
        out.close();
        SxFSAction::mv(work + name, file);
        SxFSAction::syncDir(work);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot write final idx into " + file, UNIT, __LINE__);
    }
}
