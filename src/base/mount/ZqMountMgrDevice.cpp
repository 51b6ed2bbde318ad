#include "SxDeadline.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqDriveStatus.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqVolume.h"
#include "zqdevctl.h"

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";
/// In the root of every mounted file system: as long as it can be seen, the file system is there.
constexpr const char* MARKER = "/gxprefetch.info";
constexpr int64 PASS_MS = 1000;
constexpr int64 LIMIT = 60; ///< passes
/// For so many passes a volume that is mounted may stay unseen.
constexpr int64 BLIND_PASSES = 3;
/// The counter of the passes ends the wait when it is above the limit, so there is one pass more than that.
constexpr int64 MOUNT_PASSES = LIMIT + 1;
constexpr const char* EXPLORER_POLICY = "HKLM/SOFTWARE/Microsoft/Windows/CurrentVersion/Policies/Explorer";
constexpr const char* NO_DRIVES = "NoDrives";

/// Why an image that was given to the service won't come up; empty where it still may.
SxString serviceFailure(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return "The drive service no longer serves the image";
    return disk.failure;
}

/// Why this process doesn't see what the service says is mounted; empty where it does, or nothing is yet.
SxString blindness(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk) || !ZqVolume::isElsewhere(disk)) return {};
    return ZqVolume::elsewhereText(disk.servicePid);
}

/// Tells a disk of the image from the next one; 0 where there is none.
uint64 whenMade(const SxString& image) {
    ZqDiskStatus disk;
    return ZqVolume::findDisk(image, &disk) ? disk.madeNs : 0;
}

/// Whether the disk of that time is no longer the image's; false where the service doesn't say.
bool hasGone(const SxString& image, uint64 madeNs) {
    try {
        return whenMade(image) != madeNs;
    } catch (const SxException&) {
        return false;
    }
}

/// Ends a wait that didn't come to its state: with the service's reason, else as timed out.
[[noreturn]] void raiseWait(const SxString& reason, const char* timeout, int line) {
    throw SxException(reason.isEmpty() ? SxString(timeout) : reason, UNIT, line);
}

bool policyForbids(const char* hive, const char* name, const char* failure) {
    try {
        return ZqRegistry::contains(
            SxString(hive) + "/Software/Policies/Microsoft/Windows/RemovableStorageDevices", name);
    } catch (const SxException& e) {
        zqLogMsg("base", failure + SxString(e.what()));
        return false;
    }
}

} // namespace

bool ZqMountMgr::isRemovableRestricted() {
    static constexpr const char* ALL = "Deny_All";
    static constexpr const char* DISKS = "{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}";
    return policyForbids("HKLM", ALL,
                         "Cannot check registry for general removable device restriction on machine: ") ||
           policyForbids("HKLM", DISKS,
                         "Cannot check registry for removable device restriction on machine: ") ||
           policyForbids("HKCU", ALL,
                         "Cannot check registry for general removable device restriction for user: ") ||
           policyForbids("HKCU", DISKS, "Cannot check registry for removable device restriction for user: ");
}

void ZqMountMgr::hideDrive(const SxString& mountPoint, bool hide) {
    const int64 letter = mountPoint.toUpper().ascii()[0] - 'A';
    if (letter < 0 || letter > 'Z' - 'A') {
        throw SxException("'" + mountPoint + "' is no drive", UNIT, __LINE__);
    }
    const int64 bit = int64{1} << letter;
    int64 hidden = 0;
    if (ZqRegistry::isVal(EXPLORER_POLICY, NO_DRIVES)) {
        hidden = ZqRegistry::getVal(EXPLORER_POLICY, NO_DRIVES).toInt64();
    } else {
        ZqRegistry::setVal(EXPLORER_POLICY, NO_DRIVES, ZqRegistry::RegDword, "0");
    }
    if (((hidden & bit) != 0) == hide) return;
    ZqRegistry::setVal(EXPLORER_POLICY, NO_DRIVES, ZqRegistry::RegDword, SxString(hidden ^ bit));
}

SxString ZqMountMgr::queryDriveLabel(const SxString& mountPoint) {
    return ZqVolume::getLabel(mountPoint);
}

void ZqMountMgr::setDriveLabel(const SxString& mountPoint, const SxString& label) {
    ZqVolume::setLabel(mountPoint, label);
}

// NOLINTNEXTLINE(readability-function-size): the parameters of a mount, each of which every caller decides
SxString ZqMountMgr::mountImage(MountMode mode, DeviceMode deviceMode, const SxString& image,
                                const SxString& traceFolder, bool hostFlag, bool awaitFileSystem,
                                bool spareFlag, uint64 sizeRaw, uint64 sectorSize, uint64 cursor) {
    const ZqImageParams params(ZqImageFolder::prefix(image));
    if (!isDriverVersionAllowed(params.driverVersion)) {
        const SxString words = SxString("Cannot mount TAVRIN Image: Driver version ") + DRIVER_VERSION +
                               " too small. Requires " + params.driverVersion;
        zqLogMsg("base", words);
        throw SxException(words, UNIT, __LINE__);
    }
    bool removable = deviceMode == Removable;
    if (removable && isRemovableRestricted()) {
        zqLogMsg("base", "Detected restrictions for removable devices -> switching to non-removable mode");
        removable = false;
    }
    ZqVolume::requireView();
    if (!traceFolder.isEmpty()) SxFSAction::mkdir_p(traceFolder, 0777);
    ZqDriveStatus::require(zqDriveMountImage(image.utf16().data(), traceFolder.utf16().data(),
                                             mode == ReadOnly, mode == ReadTWLayer, removable, hostFlag,
                                             awaitFileSystem, spareFlag, sizeRaw, sectorSize, cursor),
                           "TAVRIN Driver error: Mount Image failed", __LINE__);
    try {
        awaitMntPoint(image);
    } catch (const SxException& e) {
        umountAfterFailure(image);
        throw SxException(e, "Cannot determine mount point", UNIT, __LINE__);
    }
    if (awaitFileSystem) {
        try {
            awaitFiles(image);
        } catch (const SxException& e) {
            umountAfterFailure(image);
            throw SxException(e, "Filesystem not accessible", UNIT, __LINE__);
        }
    }
    if (appParams && !appParams->registry.isEmpty()) {
        try {
            ZqRegistry::createRegEntriesAsAdmin(appParams->registry, mntPoint);
        } catch (const SxException& e) {
            zqLogMsg("base", e.what());
            umountAfterFailure(image);
            throw SxException(e, "ZqMountMgr::mountImage : Modification of registry failed.", UNIT, __LINE__);
        }
    }
    return mntPoint;
}

void ZqMountMgr::awaitMntPoint(const SxString& image) {
    mntPoint = SxString();
    SxString failure, reason;
    const auto found = [&] {
        failure = SxString();
        try {
            mntPoint = queryMntPoint(image);
        } catch (const SxException& e) {
            failure = e.what();
        }
        if (mntPoint.isEmpty()) reason = serviceFailure(image);
        return !mntPoint.isEmpty() || !reason.isEmpty();
    };
    const auto logPass = [&](int64 i) {
        if (failure.isEmpty()) return;
        zqLogMsg("base",
                 "Waiting for drive to become ready: " + SxString(i + 1) + "/" + LIMIT + " : " + failure);
    };
    SxWait::passes(MOUNT_PASSES, PASS_MS, found, logPass);
    if (mntPoint.isEmpty()) raiseWait(reason, "Timeout while waiting for mount point", __LINE__);
}

void ZqMountMgr::awaitFiles(const SxString& image) const {
    SxString reason;
    bool found = false;
    int64 nPasses = 0;
    const auto decided = [&] {
        found = SxFSAction::test_f(mntPoint + MARKER);
        if (!found) reason = serviceFailure(image);
        // A mount may take a moment to come through to this namespace.
        if (!found && reason.isEmpty() && nPasses >= BLIND_PASSES) reason = blindness(image);
        return found || !reason.isEmpty();
    };
    SxWait::passes(MOUNT_PASSES, PASS_MS, decided, [&](int64 i) { nPasses = i + 1; });
    if (!found) raiseWait(reason, "Timeout while waiting for filesystem", __LINE__);
}

void ZqMountMgr::umountAfterFailure(const SxString& image) {
    // The failure that led here is the one to be told of; a failure of the unmount must not replace it.
    try {
        umountImage(image, false);
    } catch (const SxException& e) {
        zqLogMsg("base", e.what());
    }
}

void ZqMountMgr::ejectImage(const SxString& image) {
    ZqDriveStatus::require(zqDriveEjectImage(image.utf16().data()), "Failed to hard eject image " + image,
                           __LINE__);
    busy = busy || ZqVolume::wasBusy();
}

bool ZqMountMgr::umountImage(const SxString& image, bool hardEject) {
    busy = false;
    uint64 madeNs = 0;
    bool isReleasing = false;
    try {
        if (!isMounted(image)) return true;
        if (ZqVolume::isForeign()) {
            // A service of another version takes nothing but this.
            if (!hardEject) removeRegistryEntries();
            ejectImage(image);
            return true;
        }
        madeNs = whenMade(image);
        guardLogging(false);
        failOnUnderflow(image);
        if (isSuspended(image)) resume(image);
        if (hardEject) {
            ejectImage(image);
            return true;
        }
        if (isMonitored(image)) monitorOff(image);
        const bool removable = isRemovable(image);
        try {
            mntPoint = queryMntPoint(image);
        } catch (const SxException& e) {
            throw SxException(e, "Failed to query mount point for image " + image, UNIT, __LINE__);
        }
        removeRegistryEntries();
        isReleasing = true;
        const uint64 targetId = releaseVolume(image, removable);
        awaitEnd(image, targetId, madeNs);
        mntPoint = SxString();
        return true;
    } catch (const SxException& e) {
        // Another client has taken it away. What is mounted there now, if anything, is somebody else's and
        // isn't ejected. Where our own disk had gone before we began to release it, the other client's
        // unmount was faster, and that is no failure.
        if (madeNs != 0 && hasGone(image, madeNs)) {
            mntPoint = SxString();
            if (!isReleasing) return true;
            throw SxException(e, "Cannot umount image " + image, UNIT, __LINE__);
        }
        zqLogMsg("base", "Image " + image + " is ejected, since its unmount failed: " + e.what());
        ejectImage(image);
        throw SxException(e, "Cannot umount image " + image, UNIT, __LINE__);
    }
}

bool ZqMountMgr::umountWithoutLetter(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk) || disk.drive.isEmpty()) return false;
    if (!ZqVolume::findDrive(disk).isEmpty()) return false;
    removeRegistryEntries();
    return umountImage(image, true);
}

bool ZqMountMgr::removeLeftovers(const SxString& image, bool* written) const {
    if (!ZqVolume::removeLeftovers(image, written)) return false;
    removeRegistryEntries();
    return true;
}

void ZqMountMgr::removeRegistryEntries() const {
    if (!appParams) return;
    if (appParams->registry.isEmpty()) {
        zqLogMsg("base", "No Registry modifications to revert...");
        return;
    }
    try {
        ZqRegistry::removeRegEntriesAsAdmin(appParams->registry);
    } catch (const SxException& e) {
        zqLogMsg("base", e.what());
    }
}

uint64 ZqMountMgr::releaseVolume(const SxString& image, bool removable) {
    ZqVolumeIdentity identity;
    if (!ZqVolume::queryIdentity(mntPoint, &identity)) {
        zqLogMsg("base", "ERROR: Could not open ZqDD device (" + mntPoint + ") for umount.");
        throw SxException("Cannot open device handle for \\\\.\\" + mntPoint, UNIT, __LINE__);
    }
    try {
        ZqVolume::dismount(mntPoint, &busy);
    } catch (const SxException& e) {
        zqLogMsg("base", "ERROR: IOCTL cannot dismount volume: " + SxString(e.what()));
        throw SxException(e, "Cannot dismount volume for " + mntPoint, UNIT, __LINE__);
    }
    if (busy) {
        zqLogMsg("base", "A program still used " + mntPoint + " and was cut off from image " + image);
    }
    if (!removable) {
        ejectImage(image);
        return identity.targetId;
    }
    try {
        ZqVolume::ejectMedia(mntPoint);
    } catch (const SxException& e) {
        zqLogMsg("base", "ERROR: IOCTL cannot eject media: " + SxString(e.what()));
        throw SxException(e, "Cannot eject media for mount point" + mntPoint, UNIT, __LINE__);
    }
    return identity.targetId;
}

void ZqMountMgr::awaitEnd(const SxString& image, uint64 targetId, uint64 madeNs) const {
    const auto gone = [&] {
        // Another client may mount the image as soon as it is free. That disk must be neither waited for nor
        // ejected when the time is over.
        const uint64 nowNs = whenMade(image);
        if (nowNs != 0 && nowNs != madeNs) return true;
        // The letter may be another image's by now.
        ZqVolumeIdentity identity;
        const bool isOurs = ZqVolume::queryIdentity(mntPoint, &identity) && identity.targetId == targetId;
        return !(isOurs && SxFSAction::test_f(mntPoint + MARKER)) && !isMounted(image);
    };
    // The limit counts from the last progress: a slow disk may take any time for what programs have written.
    SxDeadline deadline(LIMIT * PASS_MS);
    while (deadline.getLeftMs() > 0) {
        deadline.note(ZqVolume::getProgress(image));
        if (SxWait::pass(PASS_MS, gone)) return;
    }
    throw SxException("Timeout while waiting for dismounting logical drive", UNIT, __LINE__);
}
