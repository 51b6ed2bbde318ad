#pragma once

#include "SxList.h"
#include "ZqDriveKinds.h"
#include "ZqLoadProfilePoint.h"

#include <optional>

/// The record `img.json`: what a block image is, apart from its blocks. Two records with the same `guid`
/// belong to the same RAW image. Not locked.
class ZqImageParams {
public:
    /// What the order of the blocks rests on.
    struct Order {
        uint64 nRuns = 0;     ///< traces that it comes from
        uint64 nSessions = 0; ///< different sessions that these are of
        uint64 nCore = 0;     ///< blocks that the next run will most likely read
        uint64 nTail = 0;     ///< others that a run has read
        uint64 nGroups = 0;   ///< groups of stretches that runs read together
        /// The median of the runs' load profiles; that of app.json is the worst of them.
        SxList<ZqLoadProfilePoint> median;

        bool operator==(const Order&) const = default;
    };

    int64 version = 2;
    SxString guid = "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX"; ///< identity of the RAW image
    int64 sizeRaw = 0;                                      ///< bytes of the RAW image
    int64 emulatedSectorSize = 4096;                        ///< bytes
    SxString pathPrefix;                                    ///< folder of the file, with its trailing slash
    ZqDriveKinds::DeviceMode deviceMode = ZqDriveKinds::Removable;
    SxString filesystem = "ntfs"; ///< a text of ZqDriveKinds::FileSystem, or "none"
    SxString driverVersion = "3.3.4";
    std::optional<Order> order; ///< nothing where no trace has given the order

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
