// The operations of ZqMountMgr that make a drive of an image, and those on what its user sees of it.

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqAppParams.h"
#include "ZqDriveStatus.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqLaunchers.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRegistryChanges.h"
#include "ZqVolume.h"
#include "zqdevctl.h"

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";
/// For so many passes a volume that is mounted may stay unseen.
constexpr int64 BLIND_PASSES = 3;
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
    return mountImage({mode, deviceMode, image, traceFolder, sizeRaw, sectorSize, cursor, hostFlag,
                       awaitFileSystem, spareFlag});
}

SxString ZqMountMgr::mountImage(const MountRequest& request) {
    const SxString& image = request.image;
    const ZqImageParams params(ZqImageFolder::prefix(image));
    if (!isDriverVersionAllowed(params.driverVersion)) {
        const SxString words = SxString("Cannot mount TAVRIN Image: Driver version ") + DRIVER_VERSION +
                               " too small. Requires " + params.driverVersion;
        zqLogMsg("base", words);
        throw SxException(words, UNIT, __LINE__);
    }
    bool removable = request.deviceMode == Removable;
    if (removable && isRemovableRestricted()) {
        zqLogMsg("base", "Detected restrictions for removable devices -> switching to non-removable mode");
        removable = false;
    }
    ZqLaunchers::restoreQuietly();
    ZqVolume::requireView();
    if (!request.traceFolder.isEmpty()) SxFSAction::mkdir_p(request.traceFolder, 0777);
    ZqDriveStatus::require(zqDriveMountImage(image.utf16().data(), request.traceFolder.utf16().data(),
                                             request.mode == ReadOnly, request.mode == ReadTWLayer, removable,
                                             request.hostFlag, request.awaitFileSystem, request.spareFlag,
                                             request.sizeRaw, request.sectorSize, request.cursor),
                           "TAVRIN Driver error: Mount Image failed", __LINE__);
    try {
        awaitMntPoint(image);
    } catch (const SxException& e) {
        umountAfterFailure(image);
        throw SxException(e, "Cannot determine mount point", UNIT, __LINE__);
    }
    if (request.awaitFileSystem) {
        try {
            awaitFiles(image);
        } catch (const SxException& e) {
            umountAfterFailure(image);
            throw SxException(e, "Filesystem not accessible", UNIT, __LINE__);
        }
    }
    if (appParams && !appParams->registry.isEmpty()) {
        try {
            ZqLauncherRecord record;
            ZqRegistryChanges(&record).make(ZqLauncherRecord::pathOf(image), appParams->registry, mntPoint);
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
    mntImage = image;
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
    SxWait::passes(LIMIT + 1, PASS_MS, found, logPass);
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
    SxWait::passes(LIMIT + 1, PASS_MS, decided, [&](int64 i) { nPasses = i + 1; });
    if (!found) raiseWait(reason, "Timeout while waiting for filesystem", __LINE__);
}
