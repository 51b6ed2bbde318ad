#pragma once

#include "SxArray.h"
#include "ZqFileTable.h"
#include "ZqImageInfo.h"

#include <optional>

/// The files of an image's drive, which are found in the drive's own file system: an EROFS or ext4 as
/// ZqImageBuild makes them. The image doesn't change. No lock is taken: whoever calls holds the image's,
/// shared.
class ZqDriveFiles {
public:
    struct Found {
        std::optional<ZqFileTable> table;
        SxString why; ///< why there is none, as a clause; empty where there is one
    };

    /// Works the table out of the complete image in the folder `image`. There is none for a partial image, a
    /// squashfs, which packs several files into a block, packed content, another file system, or a damaged
    /// one. Raises where the records or the map can't be read.
    static Found find(const SxString& image);
    /// The same for who has read them already: `map` is the image's.
    static Found find(const SxString& image, const ZqImageInfo& info, const SxArray<uint64>& map);
    /// Why find() would give none for the image, as far as the drive's first block tells; empty where it
    /// would give one. Reads little.
    static SxString whyNot(const SxString& image, const ZqImageInfo& info);
    /// The type of the drive's file system ("erofs", "ext4" or "squashfs"), by `img.json`, or else by the
    /// drive's first block, as far as that is there; empty where neither tells. Raises nothing.
    static SxString volumeOf(const SxString& image, const ZqImageInfo& info);
};
