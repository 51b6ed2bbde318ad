#pragma once

#include "ZqDriveKinds.h"
#include "ZqOrderBasis.h"

#include <optional>

/// The record `img.json`: what a block image is, apart from its blocks. Two records with the same `guid`
/// belong to the same RAW image. Not locked.
class ZqImageParams {
public:
    int64 version = 2;
    SxString guid = "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX"; ///< identity of the RAW image
    int64 sizeRaw = 0;                                      ///< bytes of the RAW image
    int64 emulatedSectorSize = 4096;                        ///< bytes
    SxString pathPrefix;                                    ///< folder of the file, with its trailing slash
    ZqDriveKinds::DeviceMode deviceMode = ZqDriveKinds::Removable;
    SxString filesystem = "ntfs"; ///< a text of ZqDriveKinds::FileSystem, or "none"
    SxString driverVersion = "3.3.4";
    std::optional<ZqOrderBasis> order; ///< nothing where no trace has given the order
    SxString volume; ///< type of the drive's file system, such as "erofs"; empty where nobody has noted it

    ZqImageParams() = default;
    /// Defaults, then read(). Raises as read() does.
    explicit ZqImageParams(const SxString& pathPrefix);

    /// Fills the record from `pathPrefix` + "img.json"; empty means the field `pathPrefix`. Raises "Failed to
    /// read file ..." with the cause.
    void read(const SxString& pathPrefix = SxString());
    /// The same from the file of that name.
    void readFile(const SxString& file);
    /// The same from a text; failures name it `textName`.
    void readText(const SxString& text, const SxString& textName);
    /// Writes the record likewise, replacing the file as a whole, and makes its folder.
    void write(const SxString& pathPrefix = SxString()) const;

    bool operator==(const ZqImageParams&) const = default;
};
