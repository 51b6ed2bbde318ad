#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "SxMd5.h"

/// One part of a patch: a patch stream makes the bytes of some items of the new image of the bytes of some
/// items of the old one. An item is a RAW block of 4096 bytes. A value type. Not locked.
///
/// The file `patch.info` has the parts one after the other, with no header of its own. A part is a
/// ZqPatchHeader, then `oldMap`, then `newMap`, all numbers little-endian. The patch streams stand in
/// `patch.data` in the same order, so that of a part begins at the sum of `patchSize` of all parts before.
class ZqPatchInfo {
public:
    /// What a part begins with in the file.
    struct ZqPatchHeader {
        uint32 nOld, nNew; ///< elements of `oldMap` and `newMap`
        uint64 patchSize;
        SxMd5::Digest oldMd5, newMd5, patchMd5;
    };

    SxArray<uint64> oldMap; ///< items of the old image, by their RAW indices, in the order of the input
    SxArray<uint64> newMap; ///< items of the new image, by their RAW indices, in the order of the output
    uint64 patchSize = 0;   ///< bytes of the patch stream
    /// Of the input, of the output and of the patch stream; to be finished before the part is written.
    SxMd5 oldMd5, newMd5, patchMd5;

    ZqPatchInfo() = default;

    /// All parts of a file, in its order, 8 bytes of memory for each item. A count goes no further than what
    /// is left of the file, and the patch streams together have at most 2^63 - 1 bytes; whether there are
    /// such items in the images isn't looked at. Raises "File ... was not found", or "Cannot read patch
    /// parameters" with the cause, which names the part by its number from 0.
    static SxList<ZqPatchInfo> read(const SxString& file);
    /// Replaces the file as a whole, with mode 0600. Raises "Cannot write patch parameters" with the cause.
    static void write(const SxString& file, const SxList<ZqPatchInfo>& parts);

    /// The digests of both must be finished.
    bool operator==(const ZqPatchInfo&) const = default;

private:
    class Reader;
    /// A part without its lists.
    explicit ZqPatchInfo(const ZqPatchHeader& header);
    ZqPatchHeader makeHeader() const;
};
