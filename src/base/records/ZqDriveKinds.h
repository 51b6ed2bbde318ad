#pragma once

#include "SxString.h"

/// The kinds of drives and file systems that the records of an image name, and the texts that stand for them
/// there. A unit of its own, so that what only reads records doesn't link the control library of the drive
/// service.
class ZqDriveKinds {
public:
    /// How a drive is mounted; the texts are those of `mountMode` in app.json.
    enum MountMode : int {
        ReadOnly = 0,   ///< "ro"
        ReadWrite = 1,  ///< "rw"
        ReadTWLayer = 2 ///< "rtw": writes go into a layer beside the image
    };
    /// What kind of disk is shown; the texts are those of `deviceMode` in img.json.
    enum DeviceMode : int {
        Removable = 0,   ///< "removable"
        NonRemovable = 1 ///< "non-removable"
    };
    /// The texts are those of `filesystem` in img.json.
    enum FileSystem : int { NTFS = 0, ExFAT = 1, FAT = 2, UDF = 3 };

    /// "ntfs", "exfat", "fat" or "udf"; raises on any other value.
    static SxString getFSString(FileSystem fs);
    /// "ro", "rw" or "rtw"; raises on any other value.
    static SxString mountModeToString(MountMode mode);
    /// Raises "Invalid 'mountMode' value" on any other text.
    static MountMode stringToMountMode(const SxString& text);
};
