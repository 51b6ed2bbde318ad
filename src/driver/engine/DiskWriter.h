#pragma once

#include "BlockMap.h"
#include "DiskConfig.h"
#include "DiskReader.h"
#include "DriveFailure.h"
#include "StoredFile.h"
#include "SxMutex.h"
#include "WriteLayer.h"

/// Writes and discards blocks of a disk that isn't read-only: in place in `img.zqf` where the drive does that
/// and the block has a place there, else in the write layer. Safe from any thread; waits for no missing
/// block.
class DiskWriter {
public:
    /// Why a write can't be done now.
    struct Obstacle {
        bool isMissing = false;     ///< a block
        DiskReader::Fault shortage; ///< or `img.zqf` came short

        bool isAny() const { return isMissing || shortage.error != 0; }
    };
    /// Where blocks go; all must outlive the writer. `reader` gives the rest of a block of which a part is
    /// written.
    struct Targets {
        const BlockMap& map;
        StoredFile& zqf;
        WriteLayer& layer;
        DiskReader& reader;
    };

    /// Failures of files go to `failure_`.
    DiskWriter(const DiskConfig& config, const Targets& to_, DriveFailure* failure_);

    /// Whether the first or the last block is missing, and only a part of it written.
    bool isEdgeMissing(uint64 offset, uint32 size) const;
    /// Whether a write of `size` bytes at RAW byte `offset` leaves something of a block as it is.
    bool isPartWritten(RawIdx rawIdx, uint64 offset, uint64 size) const;
    /// Gives 0 or an errno value. Where a block can't be had of which a part is written, only some of it is
    /// done.
    int write(uint64 offset, uint32 size, const char* buffer, Obstacle* obstacle);
    /// Makes `n` blocks read as zeros; gives 0 or an errno value.
    int discard(RawIdx first, uint64 n);

private:
    int writePart(RawIdx rawIdx, uint64 from, uint64 n, const char* data, Obstacle* obstacle);
    int writeBlocks(RawIdx first, uint64 n, const char* data);
    int writeInPlace(RawIdx first, uint64 n, const char* data);
    int discardInLayer(RawIdx first, uint64 n);
    int refuseReplaced();
    bool isInPlace(RawIdx rawIdx) const;
    uint64 validBytes(RawIdx rawIdx) const;

    const uint64 sizeRaw; ///< bytes
    const bool writesInPlace;
    const Targets to;
    DriveFailure* const failure;
    SxMutex partialWrites; ///< held over reading, changing and writing a block of which a part is written
};
