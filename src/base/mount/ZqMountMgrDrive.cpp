// The operations of ZqMountMgr that ask and tell the disk of a mounted image.

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqDriveStatus.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqStreamRecord.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceParams.h"
#include "ZqVolume.h"
#include "zqdevctl.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";
constexpr const char* BARE_LOWER = "TAVRIN Driver error";
/// In an image folder, the folder of its traces.
constexpr const char* TRACES = "traces/";
/// With GUARD_PASS_MS a minute, as for the other waits.
constexpr int64 GUARD_PASSES = 600;
constexpr int64 GUARD_PASS_MS = 100;

/// Raises `words` in the place of a bare failure: the service's reason, where there is one, then stands
/// directly below the words of the operation.
[[noreturn]] void raiseInstead(const SxException& bare, const SxString& words, int line) {
    if (const SxException* reason = bare.getCause()) throw SxException(*reason, words, UNIT, line);
    throw SxException(words, UNIT, line);
}

/// Makes a call of the service; a failure is raised as `words`, above the bare one.
template<class Call>
void demand(const SxString& words, Call&& call) {
    try {
        ZqDriveStatus::require(call(), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        throw SxException(e, words, UNIT, __LINE__);
    }
}

/// The same with `words` in the place of the bare failure.
template<class Call>
void demandAlone(const SxString& words, Call&& call) {
    try {
        ZqDriveStatus::require(call(), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        raiseInstead(e, words, __LINE__);
    }
}

/// What the service says of an image's disk in one look; nothing of all where the image isn't mounted.
ZqDiskStatus stateOf(const SxString& image) {
    ZqDiskStatus disk;
    return ZqDriveStatus::findDisk(image, &disk) ? disk : ZqDiskStatus();
}

/// Makes calls whose failure is raised as one text, that of the cause included.
template<class Calls>
auto flattened(const SxString& words, Calls&& calls) {
    try {
        return calls();
    } catch (const SxException& e) {
        const SxString text = words + ": TAVRIN Driver error: " + e.what();
        if (e.hasTag(ZqVolume::SILENT)) throw SxException(ZqVolume::SILENT, text, UNIT, __LINE__);
        throw SxException(text, UNIT, __LINE__);
    }
}

SxArray<uint64> zeros(int64 count) {
    SxArray<uint64> result(count);
    result.set(0);
    return result;
}

/// Repeats a call of the guard until its flag is set.
void awaitGuard(ZqStatus (*call)(unsigned char, ZqFlag*), unsigned char devId, const char* timeout) {
    const auto done = [&] {
        ZqFlag flag = 0;
        ZqDriveStatus::require(call(devId, &flag), ZqDriveStatus::DRIVER_ERROR, __LINE__);
        return flag != 0;
    };
    if (SxWait::passes(GUARD_PASSES, GUARD_PASS_MS, done, [](int64) {})) return;
    zqLogMsg("base", timeout);
    throw SxException(timeout, UNIT, __LINE__);
}

[[noreturn]] void refuseTraceFolder(const SxString& folder, const SxString& why) {
    throw SxException("Folder '" + folder + "' " + why + " and isn't emptied for a trace", UNIT, __LINE__);
}

std::string realPath(const SxString& path) {
    std::string result;
    const int error = SxOs::get().canonical(SxOs::hostPath(path), &result);
    if (error == 0) return result;
    throw SxException(SxException(SxOs::errorText(error), UNIT, __LINE__), "Cannot look at '" + path + "'",
                      UNIT, __LINE__);
}

/// Raises unless the folder, which is there, may be emptied: it has to be empty, or to hold a trace
/// (`img.trc` or `trace.json`). It is no image folder, and none lies above it, but for the image's own
/// `traces/`, nor directly in it. A mistyped path would cost an image, or a folder of documents.
void requireTraceFolder(const SxString& image, const SxString& folder) {
    const std::string real = realPath(folder);
    std::string kept;
    const bool found = SxOs::get().canonical(SxOs::hostPath(image), &kept) == 0;
    if (found && (kept + "/").starts_with(real + "/")) refuseTraceFolder(folder, "holds the image");
    if (!SxFSAction::test_d(folder)) {
        throw SxException("'" + folder + "' is no folder and isn't replaced by a trace", UNIT, __LINE__);
    }
    std::string above = real;
    while (above.size() > 1) {
        // An image keeps its own traces in a folder of its own.
        const bool isOwnTrace = real.starts_with(above + "/" + TRACES);
        if (ZqImageFolder::holdsImage(SxString(above)) && !isOwnTrace) {
            refuseTraceFolder(folder, above == real ? SxString("holds an image")
                                                    : "lies in the image folder '" + SxString(above) + "'");
        }
        above.resize(above.rfind('/'));
    }
    const SxList<SxFileInfo> content = SxFSAction::ls(folder);
    bool isTrace = content.isEmpty();
    for (const SxFileInfo& info : content) {
        if (info.getName() == ZqTraceFiles::ITEMS || info.getName() == ZqTraceFiles::RECORD) isTrace = true;
        if (info.isDir() && ZqImageFolder::holdsImage(info.getOrig())) {
            refuseTraceFolder(folder, "holds the image folder '" + info.getName() + "'");
        }
    }
    if (ZqTraceLock::isHeld(ZqImageFolder::prefix(folder)))
        refuseTraceFolder(folder, "is written by another command at the moment");
    if (!isTrace) refuseTraceFolder(folder, "holds something else than a trace");
}

} // namespace

bool ZqMountMgr::isRemovable(const SxString& image) const {
    ZqFlag flag = 0;
    ZqDriveStatus::require(zqDriveIsRemovable(image.utf16().data(), &flag),
                           "Cannot determine removable state: TAVRIN Driver error", __LINE__);
    return flag != 0;
}

bool ZqMountMgr::isSuspended(const SxString& image) const {
    return stateOf(image).suspended;
}

bool ZqMountMgr::isUnderflow(const SxString& image) const {
    return stateOf(image).underflow;
}

bool ZqMountMgr::isMonitored(const SxString& image) const {
    return stateOf(image).monitored;
}

bool ZqMountMgr::retrieveTraceEvent(const SxString& image) const {
    if (!isMounted(image)) return false;
    ZqFlag flag = 0;
    demand("Cannot query trace event on image " + image,
           [&] { return zqDriveHasTraceEvent(image.utf16().data(), &flag); });
    return flag != 0;
}

uint64 ZqMountMgr::getCursor(const SxString& image) const {
    return stateOf(image).cursor;
}

void ZqMountMgr::setCursor(const SxString& image, uint64 zqfIdx) const {
    if (!isMounted(image)) return;
    demand("Cannot set disk cursor for image " + image + " to idx " + zqfIdx,
           [&] { return zqDriveSetCursor(image.utf16().data(), zqfIdx); });
}

void ZqMountMgr::setQACursor(const SxString& image, uint64 zqfIdx) const {
    if (!isMounted(image)) return;
    demand("Cannot set disk QA cursor for image " + image + " to idx " + zqfIdx,
           [&] { return zqDriveSetQACursor(image.utf16().data(), zqfIdx); });
}

uint64 ZqMountMgr::getSectorSize(const SxString& image) const {
    return stateOf(image).sectorSize;
}

void ZqMountMgr::suspend(const SxString& image) const {
    if (!isMounted(image)) return;
    demandAlone("Cannot suspend disk for image " + image,
                [&] { return zqDriveSuspend(image.utf16().data()); });
}

void ZqMountMgr::resume(const SxString& image) const {
    if (!isMounted(image)) return;
    demandAlone("Cannot resume disk for image " + image, [&] { return zqDriveResume(image.utf16().data()); });
}

void ZqMountMgr::failOnUnderflow(const SxString& image) const {
    if (!isMounted(image)) return;
    demand("Cannot set underflow mode to fail on image " + image,
           [&] { return zqDriveSetFailOnUnderflow(image.utf16().data()); });
}

void ZqMountMgr::flushTW(const SxString& image) const {
    if (!isMounted(image)) return;
    // The kernel takes no writes.
    ZqDiskStatus disk;
    const bool isServed = !ZqVolume::findDisk(image, &disk) || !disk.isServedByKernel;
    if (isServed) ZqStreamRecord::noteWrites(image);
    demand("Cannot flush TW layer to image " + image,
           [&] { return zqDriveFlushTWToImage(image.utf16().data()); });
}

void ZqMountMgr::clearTraceFolder(const SxString& image, const SxString& traceFolder) {
    if (SxFSAction::exists(traceFolder)) {
        requireTraceFolder(image, traceFolder);
        SxFSAction::rm_r(traceFolder);
    }
    SxFSAction::mkdir_p(traceFolder, 0777);
}

/// Before a former trace is removed for one that can't be.
void ZqMountMgr::requireSight(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk) || !disk.isServedByKernel) return;
    const SxString text = "The kernel serves the drive, so its reads can't be traced";
    zqLogMsg("base", "Image " + image + ": " + text);
    throw SxException(text, UNIT, __LINE__);
}

void ZqMountMgr::monitorOn(const SxString& image, const SxString& traceFolder, const SxString& traceMethod,
                           uint64 time0) const {
    try {
        if (isMonitored(image)) return;
        requireSight(image);
        ZqTraceParams trace;
        trace.method = ZqTraceParams::stringToMethod(traceMethod);
        try {
            clearTraceFolder(image, traceFolder);
        } catch (const SxException& e) {
            throw SxException(e, "Cannot delete trace folder " + traceFolder, UNIT, __LINE__);
        }
        if (time0 > 0) trace.time0 = static_cast<int64>(time0);
        if (appParams) {
            trace.guid = appParams->guid;
            trace.checksumMnt = appParams->checksumMnt;
            trace.checksumIdx = appParams->checksumIdx;
        }
        trace.write(ZqImageFolder::prefix(traceFolder));
        ZqDriveStatus::require(zqDriveMonitorOn(image.utf16().data(), traceFolder.utf16().data()), BARE_LOWER,
                               __LINE__);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot enable monitoring for " + image + " with trc path " + traceFolder, UNIT,
                          __LINE__);
    }
}

void ZqMountMgr::monitorOff(const SxString& image) const {
    if (!isMonitored(image)) return;
    demand("Cannot disable monitoring on image " + image,
           [&] { return zqDriveMonitorOff(image.utf16().data()); });
}

uint64 ZqMountMgr::getUnderflowQueueLen(const SxString& image) const {
    return stateOf(image).queueLength;
}

uint64 ZqMountMgr::popUnderflowZqFBlock(const SxString& image) const {
    if (!isMounted(image)) return 0;
    return flattened("Cannot retrieve Underflow block", [&] {
        uint64 zqfIdx = 0;
        ZqDriveStatus::require(zqDrivePopUnderflowZqFBlock(image.utf16().data(), &zqfIdx), BARE_LOWER,
                               __LINE__);
        return zqfIdx;
    });
}

SxArray<uint64> ZqMountMgr::popUnderflowZqFBlocks(const SxString& image, uint64 count) const {
    const bool mounted = isMounted(image);
    return flattened("Cannot retrieve Underflow block", [&] {
        SxArray<uint64> zqfIdxs = zeros(static_cast<int64>(count));
        if (!mounted) return zqfIdxs;
        uint64 nStored = count;
        ZqDriveStatus::require(zqDrivePopUnderflowZqFBlocks(image.utf16().data(), zqfIdxs.data(), &nStored),
                               BARE_LOWER, __LINE__);
        zqfIdxs.resize(static_cast<int64>(std::min(nStored, count)), true);
        return zqfIdxs;
    });
}

SxArray<uint64> ZqMountMgr::getRequestData(const SxString& image) const {
    SxArray<uint64> result = zeros(2);
    if (!isMounted(image)) return result;
    return flattened("Cannot get request info", [&] {
        ZqDriveStatus::require(zqDriveGetRequestData(image.utf16().data(), &result(0), &result(1)),
                               BARE_LOWER, __LINE__);
        return result;
    });
}

void ZqMountMgr::sendBlockToUFLayer(const SxString& image, const SxArray<char>& data, uint64 zqfIdx) const {
    demand("Cannot send data to underflow layer for image " + image + " for zqf idx " + zqfIdx, [&] {
        return zqDriveResolveUnderflow(image.utf16().data(), zqfIdx, data.data(),
                                       static_cast<uint64>(data.getSize()));
    });
}

unsigned char ZqMountMgr::guardId(const SxString& image) const {
    const int64 devId = getDevId(image);
    if (devId < 0) {
        throw SxException(SxException("Image " + image + " has no drive", UNIT, __LINE__),
                          ZqDriveStatus::DRIVER_ERROR, UNIT, __LINE__);
    }
    return static_cast<unsigned char>(devId);
}

void ZqMountMgr::guardOn(const SxString& image) const {
    try {
        awaitGuard(zqGuardOn, guardId(image), "Guard activation time out");
    } catch (const SxException& e) {
        raiseInstead(e, "Failed to activate guard on " + image, __LINE__);
    }
}

void ZqMountMgr::guardOff(const SxString& image) const {
    try {
        awaitGuard(zqGuardOff, guardId(image), "Guard deactivation time out");
    } catch (const SxException& e) {
        raiseInstead(e, "Failed to deactivate guard on " + image, __LINE__);
    }
}

void ZqMountMgr::setImageType(const SxString& image, ZqImageType type) const {
    demandAlone("Failed to set image type on " + image + " to " + static_cast<int>(type),
                [&] { return zqGuardSetImageType(guardId(image), type); });
}

void ZqMountMgr::reparse(const SxString& image, const SxString& names, const SxString& directory) const {
    demandAlone("Failed to reparse on " + image + " names " + names + " to directory " + directory, [&] {
        return zqGuardSetReparse(guardId(image), names.utf16().data(), directory.utf16().data());
    });
}

void ZqMountMgr::guardLogging(bool on) {
    demandAlone(on ? "Failed to enable guard logging" : "Failed to disable guard logging",
                [&] { return zqGuardSetLogging(on ? 1 : 0); });
}

void ZqMountMgr::setCacheSize(int64 bytes) {
    try {
        if (bytes > MAX_CACHE) throw SxException("Specified Cache size larger than 2GB", UNIT, __LINE__);
        const int size = static_cast<int>(std::max<int64>(bytes, 0));
        ZqDriveStatus::require(zqDriveSetCacheSize(size), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot set disk cache size to " + SxString(bytes), UNIT, __LINE__);
    }
}

void ZqMountMgr::storeDisks() {
    demand("Cannot store disks states", [] { return zqDriveStoreDisks(); });
}

void ZqMountMgr::loadDisks() {
    demandAlone("Cannot load disk states", [] { return zqDriveLoadDisks(); });
}

void ZqMountMgr::reset() {
    demand("Cannot reset TAVRIN driver", [] { return zqDriveReset(); });
}
