#pragma once

#include "SxArray.h"
#include "ZqFileTable.h"

#include <optional>
#include <vector>

/// What is put in order: the blocks of an image, and what is known of them. A plain value.
struct ZqOrderImage {
    SxString name;              ///< for the texts of failures
    SxString buildId;           ///< `checksums.mnt`
    std::vector<bool> included; ///< by RAW index: whether `img.zqf` holds the block
    SxArray<uint64> front;      ///< RAW indices of the included blocks that a mount reads, in their order
    std::optional<ZqFileTable> files; ///< where the files lie, if that is known

    uint64 getNRaw() const { return included.size(); }
};
