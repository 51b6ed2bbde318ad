#pragma once

#include "SxString.h"

#include <vector>

/// The table `img.files` of an image: which file of the drive lies where. It is for the publisher, whose
/// order of the blocks goes by it; no client fetches it. It speaks of RAW blocks, so it stays right when the
/// order changes, and it belongs to one build of the drive. A plain value; not locked. docs/file-formats.md
/// has the format.
class ZqFileTable {
public:
    /// Blocks of a file that lie in one piece. A file in several pieces has a row for each.
    struct Row {
        uint64 first = 0, count = 0; ///< RAW blocks; at least one
        uint64 size = 0;             ///< bytes of the whole file
        SxString path;               ///< relative to the drive's root; any bytes but NUL

        bool operator==(const Row&) const = default;
    };

    /// Sorts `rows` by their first block. `buildId`: `checksums.mnt` of the image, an MD5 text; `nRaw`:
    /// blocks of the drive. Raises where rows overlap or lie beyond the drive, or a path is none.
    ZqFileTable(const SxString& buildId, uint64 nRaw, std::vector<Row> rows);

    /// Whether the image folder `folder` (with its trailing slash) has a table, whatever it holds.
    static bool exists(const SxString& folder);
    /// Reads the table of an image with that build id and number of RAW blocks. Raises, naming the file,
    /// where it is missing, cut off, altered, of another build, not sorted, overlapping, or beyond the drive.
    static ZqFileTable read(const SxString& folder, const SxString& buildId, uint64 nRaw);

    /// Replaces the table in the folder `folder` (with its trailing slash) as a whole; it is on the device at
    /// the end.
    void write(const SxString& folder) const;

    /// Sorted by their first block. Files without a block of their own aren't there; of several names of one
    /// file the first by its bytes is.
    const std::vector<Row>& getRows() const { return rows; }
    /// Files that have a row.
    uint64 getNFiles() const;

private:
    class Reader;

    ZqFileTable() = default;

    SxString buildId;
    std::vector<Row> rows;
};
