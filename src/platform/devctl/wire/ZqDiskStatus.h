#pragma once

#include "SxString.h"

/// What the service says of a disk.
struct ZqDiskStatus {
    /// Tag of a failure: the image has a disk already.
    static constexpr const char* ALREADY_MOUNTED = "AlreadyMounted";

    SxString image;             ///< canonical path of the image folder
    SxString mountPath;         ///< host path of the mounted volume; empty until it is mounted
    SxString drive;             ///< letter and colon; empty until it has one
    SxString failure;           ///< why it could not be mounted, or a read failed; empty where nothing has
    uint64 deviceId = 0;        ///< the SCSI target id
    uint64 sectorSize = 0;      ///< bytes
    uint64 cursor = 0;          ///< ZqF index: all blocks of `img.zqf` below it are there
    uint64 nIncluded = 0;       ///< blocks of the complete `img.zqf`
    uint64 queueLength = 0;     ///< missing blocks that wait to be popped
    uint64 nReads = 0;          ///< reads that reached the drive
    uint64 nHeld = 0;           ///< reads that are held now
    uint64 nBeyondQA = 0;       ///< reads at or above the QA cursor
    uint64 nStoredBytes = 0;    ///< of answered reads from `img.zqf`
    uint64 nDeliveredBytes = 0; ///< the same of blocks that were delivered on demand
    uint64 nLayeredBytes = 0;   ///< the same of the write layer
    uint64 nZeroBytes = 0;      ///< the same of blocks that the image doesn't include
    uint64 nWaits = 0;          ///< reads that were held so far
    uint64 heldMs = 0;          ///< for how long, all together
    bool ready = false;         ///< whoever mounts it has said that all of its mount is done
    int64 mounterPid = 0;       ///< the process that mounts it, which is waited for while it lives
    bool replaced = false;      ///< the image was removed, or another one stood in its place, a moment ago
    bool removable = false, underflow = false, suspended = false, monitored = false;
    int64 servicePid = 0;
    /// When the disk was made. It tells the disk from the next one of its image, which another client may
    /// make as soon as the image is free: whoever waits for the end of a disk waits for that one alone.
    uint64 madeNs = 0;
    /// The kernel reads the blocks itself, and nobody counts reads or bytes. Known once it is mounted.
    bool isServedByKernel = false;
    /// Since when at least one read is held without a break; 0 for none. By the steady clock, as are the
    /// begin and the end of the last such time that took more than half a second and is over; 0 for none.
    uint64 waitSinceNs = 0, lastWaitFromNs = 0, lastWaitToNs = 0;
    /// Why the service hasn't taken over the drive, which one that was killed has left to the kernel; empty
    /// where it has, and for all other drives. Nothing can be asked of such a drive, and nothing be done with
    /// it but take it away. It isn't ready where it can never be taken over.
    SxString notTaken;
};
