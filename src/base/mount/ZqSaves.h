#pragma once

#include "SxString.h"

#include <optional>

class ZqAppParams;

/// What the titles of one application have saved beside their drives: the private side of its redirected
/// folders and files, which outlives the image.
struct ZqSaves {
    SxString path;     ///< of the folder, a host path
    uint64 nBytes = 0; ///< on the disk, with all former copies

    /// Nothing where there is no such folder. Raises where the record's names are no plain ones, and where
    /// the folder can't be read.
    static std::optional<ZqSaves> of(const ZqAppParams& app);
    /// Removes them. Raises where the drive of an image uses them, naming that, and where a mount is about
    /// to.
    void remove(const SxString& guid) const;
    /// Raises where the drive of an image but `image` (a host path without links) uses those of the
    /// application `guid`, or its record can't be read, and so nobody can tell. A mount that has come no
    /// further holds ZqPreparationLock.
    static void requireFree(const SxString& guid, const SxString& image);
};
