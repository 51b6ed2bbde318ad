#include "ZqDriveKinds.h"

#include "SxException.h"

namespace {
// Clients know these failures as the manager's.
constexpr const char* UNIT = "src/base/ZqMountMgr";
} // namespace

SxString ZqDriveKinds::getFSString(FileSystem fs) {
    switch (fs) {
    case NTFS:
        return "ntfs";
    case ExFAT:
        return "exfat";
    case FAT:
        return "fat";
    case UDF:
        return "udf";
    }
    throw SxException("Unknown filesystem", UNIT, __LINE__);
}

SxString ZqDriveKinds::mountModeToString(MountMode mode) {
    switch (mode) {
    case ReadOnly:
        return "ro";
    case ReadWrite:
        return "rw";
    case ReadTWLayer:
        return "rtw";
    }
    throw SxException("Unknown mount mode", UNIT, __LINE__);
}

ZqDriveKinds::MountMode ZqDriveKinds::stringToMountMode(const SxString& text) {
    if (text == "ro") return ReadOnly;
    if (text == "rw") return ReadWrite;
    if (text == "rtw") return ReadTWLayer;
    throw SxException("Invalid 'mountMode' value", UNIT, __LINE__);
}
