#pragma once

#include "SxString.h"

#include <vector>

/// The machine's drives: each file system once that lies on a device, a network, or in memory.
struct ZqDriveFacts {
    struct Drive {
        /// Of the device, "/dev/sda1"; of a network its source without login and without folders that may
        /// name a person. A mount point isn't told, since it may name one, too.
        SxString name;
        SxString fileSystem; ///< "ext4"
        int type = 0;        ///< 2 removable, 3 fixed, 4 network, 5 optical, 6 memory
        uint64 size = 0;     ///< bytes; 0 where asking might wait without end
        uint64 free = 0;     ///< bytes that a user may still write
    };
    std::vector<Drive> drives; ///< in the order in which they were mounted
    std::vector<SxString> faults;

    /// Reads `proc/self/mountinfo` and, for kinds of devices, `sys` below `root`; asks the file systems for
    /// their sizes, but for those of networks and FUSE, and those that lie below such. Drives of the drive
    /// service aren't among them. Never raises; `faults` says what can't be told. Safe from any thread.
    static ZqDriveFacts read(const SxString& root = "/");
    /// The name, as in the list of drives, of the file system that holds `path`, or will; empty where it
    /// can't be told, or is on no drive of the list. Never raises. Safe from any thread.
    static SxString nameOf(const SxString& path, const SxString& root = "/");
};
