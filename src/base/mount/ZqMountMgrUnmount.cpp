// The operations of ZqMountMgr that take a drive away.

#include "SxDeadline.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqDriveStatus.h"
#include "ZqLaunchers.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRegistryChanges.h"
#include "ZqVolume.h"
#include "zqdevctl.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";

/// Whether the disk of that time is no longer the image's; false where the service doesn't say.
bool hasGone(const SxString& image, uint64 madeNs) {
    try {
        ZqDiskStatus disk;
        return !ZqVolume::findDisk(image, &disk) || disk.madeNs != madeNs;
    } catch (const SxException&) {
        return false;
    }
}

} // namespace

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
        ZqDiskStatus disk;
        if (!ZqDriveStatus::findDisk(image, &disk)) return true;
        if (!disk.notTaken.isEmpty()) {
            // Nothing else can be done with it, and what its mount changed is undone by its record.
            isReleasing = true;
            ejectImage(image);
            if (!hardEject) ZqLaunchers::restoreQuietly();
            return true;
        }
        if (ZqVolume::isForeign()) {
            // A service of another version takes nothing but this.
            mntImage = image;
            if (!hardEject) removeRegistryEntries();
            ejectImage(image);
            return true;
        }
        madeNs = disk.madeNs;
        guardLogging(false);
        failOnUnderflow(image);
        if (disk.suspended) resume(image);
        if (hardEject) {
            ejectImage(image);
            return true;
        }
        if (disk.monitored) monitorOff(image);
        try {
            mntPoint = queryMntPoint(image);
        } catch (const SxException& e) {
            throw SxException(e, "Failed to query mount point for image " + image, UNIT, __LINE__);
        }
        mntImage = image;
        // Another client's unmount was faster.
        if (mntPoint.isEmpty()) return true;
        removeRegistryEntries();
        revertLaunchers();
        isReleasing = true;
        const uint64 targetId = releaseVolume(image, disk.removable);
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
    mntImage = image;
    removeRegistryEntries();
    umountImage(image, true);
    ZqLaunchers::restoreQuietly();
    return true;
}

bool ZqMountMgr::removeLeftovers(const SxString& image, bool* written) const {
    const bool found = ZqVolume::removeLeftovers(image, written);
    ZqLaunchers::restoreQuietly();
    return found;
}

void ZqMountMgr::removeRegistryEntries() const {
    if (!appParams) return;
    if (appParams->registry.isEmpty()) zqLogMsg("base", "No Registry modifications to revert...");
    try {
        const SxString path = ZqLauncherRecord::pathOf(mntImage);
        if (!ZqLauncherRecord::peek().find(path)) return;
        ZqLauncherRecord::undo([&](ZqLauncherRecord* record) { ZqRegistryChanges(record).undo(path); });
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
        zqLogMsg("base", "A program still used " + mntPoint + " of image " + image + ", which was detached");
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
        ZqDiskStatus disk;
        const bool isThere = ZqVolume::findDisk(image, &disk);
        if (isThere && disk.madeNs != madeNs) return true;
        // The letter may be another image's by now.
        ZqVolumeIdentity identity;
        const bool isOurs = ZqVolume::queryIdentity(mntPoint, &identity) && identity.targetId == targetId;
        if (isThere || !isOurs || !SxFSAction::test_f(mntPoint + MARKER)) return !isThere;
        // So may both be, letter and number.
        const SxList<ZqDiskStatus> disks = ZqVolume::getDisks();
        return std::any_of(disks.begin(), disks.end(),
                           [&](const ZqDiskStatus& other) { return other.drive == mntPoint; });
    };
    // The limit counts from the last progress: a slow disk may take any time for what programs have written.
    SxDeadline deadline(LIMIT * PASS_MS);
    while (deadline.getLeftMs() > 0) {
        deadline.note(ZqVolume::getProgress(image));
        if (SxWait::pass(PASS_MS, gone)) return;
    }
    throw SxException("Timeout while waiting for dismounting logical drive", UNIT, __LINE__);
}
