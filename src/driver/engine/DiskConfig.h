#pragma once

#include "SxString.h"

/// What a virtual disk is made from.
struct DiskConfig {
    SxString folder;                    ///< of the image, a host path with its trailing slash
    uint64 sizeRaw = 0, sectorSize = 0; ///< bytes
    uint64 cursor = 0;                  ///< blocks present at the start of `img.zqf`
    bool readOnly = true;
    bool writeLayer = false; ///< all writes go into the layer (mode "rtw")
    uint64 cacheSize = 0;    ///< bytes of delivered blocks kept in memory

    /// Whether blocks are written into `img.zqf` (mode "rw").
    bool writesInPlace() const { return !readOnly && !writeLayer; }
};
