#pragma once

#include "ZqRangeReader.h"
#include "ZqRemoteImage.h"

/// A stretch on its way.
struct ZqRemoteImage::Fetch {
    uint64 stretchIdx = 0;
    bool isPacked = false;
    uint64 size = 0; ///< bytes of the wire
    std::unique_ptr<ZqRangeReader> reader;
};
