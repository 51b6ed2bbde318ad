#pragma once

#include "SxString.h"

#include <vector>

/// The machine's processors.
struct ZqProcessorFacts {
    /// What sits in one socket.
    struct Processor {
        SxString name = "Unknown";
        int64 nCores = 0; ///< cores and not threads, as far as they are in use
    };
    std::vector<Processor> processors; ///< in the order of their first logical processors
    std::vector<SxString> faults;

    /// Reads `proc/cpuinfo` and the topology in `sys/devices/system/cpu` below `root`; one of them is enough.
    /// Where neither tells of sockets, all cores are one processor's. Never raises; `faults` says what can't
    /// be told. Safe from any thread.
    static ZqProcessorFacts read(const SxString& root = "/");
};
