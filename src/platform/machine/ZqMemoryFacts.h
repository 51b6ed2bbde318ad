#pragma once

#include "SxString.h"

#include <vector>

/// The machine's memory.
struct ZqMemoryFacts {
    int64 totalMiB = -1;    ///< what the system can use, mebibytes; -1 where it isn't known
    int64 freeMiB = -1;     ///< what programs can still get without swapping
    int64 loadPercent = -1; ///< what part of the total isn't free
    std::vector<SxString> faults;

    /// Reads `proc/meminfo` below `root`. Never raises: what can't be told stays as it is, and `faults` says
    /// why. Safe from any thread.
    static ZqMemoryFacts read(const SxString& root = "/");
};
