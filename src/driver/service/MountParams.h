#pragma once

#include "SxString.h"
#include "ZqDriveWire.h"

/// What a disk is made from.
struct MountParams {
    SxString image;       ///< canonical path of the image folder
    SxString traceFolder; ///< host path; empty for no trace
    bool readOnly = true, writeLayer = false, removable = false;
    bool hostFlag = false, awaitFileSystem = false, spareFlag = false; ///< kept as they came
    uint64 sizeRaw = 0, sectorSize = 0;                                ///< bytes
    uint64 cursor = 0;                                                 ///< blocks

    /// Whether programs write into `img.zqf` (mode "rw").
    bool writesInPlace() const { return !readOnly && !writeLayer; }

    void write(ZqDriveWire::Writer* out) const;
    /// What is missing reads as zero or empty, as the reader has it.
    static MountParams read(ZqDriveWire::Reader* in);
};
