#pragma once

#include "SxMd5.h"

/// How far a patch has come, the file `patch.progress` of an image folder, so that another process can go on
/// after a kill or a power cut. A value type. Not locked.
///
/// File: 40 bytes, little-endian: 16 bytes `patchId`, 32 bits `stage`, 32 bits `part`, 16 zeros.
class ZqPatchProgress {
public:
    /// The operation that is under way, or comes next. Each but the last two is done for one part after the
    /// other.
    enum Stage : uint32 {
        PrepareOldData = 0,
        PreparePatchData = 1,
        ApplyPatchData = 2,
        CopyNewData = 3,
        CleanupPart = 4,
        FinalizePatch = 5,
        PerformLockFinish = 6
    };

    /// Of the patch: over the text `fromGUID` followed by `toGUID` of its patch.json. Zeros in a new object.
    SxMd5 patchId{SxMd5::Digest()};
    uint32 stage = PrepareOldData; ///< a Stage
    uint32 part = 0;               ///< index of the part, from 0; 0 in the last two stages

    /// Fills the object from the file. Where it fails the object stays as it was. Raises "Reading of patch
    /// progress failed." with the cause: the file isn't there, hasn't 40 bytes, or states what no patch comes
    /// to. Whether it belongs to a patch, and that has such a part, isn't looked at.
    void read(const SxString& file);
    /// Replaces the file as a whole, by way of `file` + ".tmp", with mode 0600. It is on the device at the
    /// end; after a cut the old file or the new one stands there. One writer at a time. Raises "Failed to
    /// write patch progress file." with the cause.
    void write(const SxString& file) const;

    bool operator==(const ZqPatchProgress&) const = default;
};
