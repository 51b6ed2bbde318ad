#include "ZqMountMgr.h"

#include "SxException.h"
#include "SxList.h"
#include "ZqAppParams.h"
#include "ZqDriveStatus.h"
#include "ZqLog.h"
#include "ZqVolume.h"
#include "zqdevctl.h"

#include <algorithm>
#include <array>

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";

using Version = std::array<int64, 3>;

/// The first numbers of a version, absent ones as 0; false where they aren't numbers.
bool readVersion(const SxString& text, Version* numbers) {
    int64 nRead = 0;
    for (const SxString& part : text.tokenize('.', true)) {
        if (nRead == static_cast<int64>(numbers->size())) break;
        if (!part.isInt64()) return false;
        (*numbers)[static_cast<size_t>(nRead++)] = part.toInt64();
    }
    return nRead > 0;
}

SxString driveOf(const ZqDiskStatus& disk) {
    SxString drive = ZqVolume::findDrive(disk);
    if (!drive.isEmpty()) return drive;
    throw SxException("Cannot query mount point. Drive was not identified", UNIT, __LINE__);
}

} // namespace

void ZqMountMgr::setAppParams(const ZqAppParams& params) {
    appParams = SxPtr<ZqAppParams>::create(params);
}

bool ZqMountMgr::drivePing() {
    ZqFlag flag = 0;
    try {
        ZqDriveStatus::require(zqDrivePing(&flag), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        zqLogMsg("base", "Unable to contact ZqDD: " + SxString(e.what()));
        return false;
    }
    return flag != 0;
}

bool ZqMountMgr::guardPing() {
    ZqFlag flag = 0;
    try {
        ZqDriveStatus::require(zqGuardPing(&flag), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        zqLogMsg("base", e.what());
        return false;
    }
    return flag != 0;
}

SxString ZqMountMgr::getVersion(VersionCall call) {
    char buffer[10] = {};
    uint64 size = sizeof buffer;
    try {
        ZqDriveStatus::require(call(buffer, &size), ZqDriveStatus::DRIVER_ERROR, __LINE__);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot get TAVRIN driver version", UNIT, __LINE__);
    }
    return SxString(std::string(buffer, std::find(buffer, buffer + sizeof buffer, '\0')));
}

SxString ZqMountMgr::getDriveVersion() {
    return getVersion(zqDriveGetVersion);
}

SxString ZqMountMgr::getGuardVersion() {
    return getVersion(zqGuardGetVersion);
}

bool ZqMountMgr::isDriverVersionAllowed(const SxString& version) {
    if (version == DRIVER_VERSION) return true;
    Version wanted{}, own{};
    return readVersion(version, &wanted) && readVersion(DRIVER_VERSION, &own) && wanted <= own;
}

bool ZqMountMgr::isMounted(const SxString& image) const {
    ZqDiskStatus disk;
    return ZqDriveStatus::findDisk(image, &disk);
}

SxString ZqMountMgr::queryMntPoint(const SxString& image) const {
    ZqDiskStatus disk;
    return ZqDriveStatus::findDisk(image, &disk) ? driveOf(disk) : SxString();
}

SxString ZqMountMgr::queryMountPoint(const SxString& image) const {
    try {
        return queryMntPoint(image);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot query mount point", UNIT, __LINE__);
    }
}

SxString ZqMountMgr::getMntPoint(const SxString& image) const {
    ZqDiskStatus disk;
    if (!ZqDriveStatus::findDisk(image, &disk)) return SxString();
    if (!mntPoint.isEmpty()) return mntPoint;
    try {
        return driveOf(disk);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot query mount point.", UNIT, __LINE__);
    }
}

int64 ZqMountMgr::getDevId(const SxString& image) const {
    try {
        const SxString drive = getMntPoint(image);
        return drive.isEmpty() ? -1 : drive.toUpper().ascii()[0] - 'A';
    } catch (const SxException& e) {
        zqLogMsg("base", "Cannot obtain device id.");
        zqLogMsg("base", e.what());
        return -1;
    }
}
