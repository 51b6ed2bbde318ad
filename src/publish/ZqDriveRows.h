#pragma once

#include "ZqDriveWalk.h"
#include "ZqFileTable.h"

/// The rows of a table of files for the files of a walk.
namespace ZqDriveRows {
/// Of several names the file gets its first; it gets no row where it has no block.
inline void append(const ZqDriveWalk::File& file, std::vector<ZqFileTable::Row>* rows) {
    for (const ZqDriveWalk::Extent& extent : file.extents)
        rows->push_back({extent.first, extent.count, file.size, file.paths.front()});
}
} // namespace ZqDriveRows
