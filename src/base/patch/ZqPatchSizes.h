#pragma once

#include "ZqBlocks.h"
#include "ZqPatchInfo.h"

#include <vector>

/// A part without its lists, which may be long. Sizes are in bytes.
struct ZqPatchSizes {
    uint64 oldBytes = 0, newBytes = 0, patchSize = 0;
    SxMd5 patchMd5;

    explicit ZqPatchSizes(const ZqPatchInfo& part)
        : oldBytes(static_cast<uint64>(part.oldMap.getSize()) * ZqBlocks::SIZE),
          newBytes(static_cast<uint64>(part.newMap.getSize()) * ZqBlocks::SIZE),
          patchSize(part.patchSize),
          patchMd5(part.patchMd5) {}

    template<class List>
    static std::vector<ZqPatchSizes> of(const List& parts) {
        return std::vector<ZqPatchSizes>(parts.begin(), parts.end());
    }
};
