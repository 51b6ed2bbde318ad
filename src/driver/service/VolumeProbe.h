#pragma once

#include "VirtualDisk.h"

/// Looks into the first block of a disk, for the service itself: what file system is on it, and its label.
/// One detectType() at a time, and none beside getLabel(); wake() is for any thread.
class VolumeProbe {
public:
    /// Token of the reads that this process does itself; no request has that address.
    static constexpr uint64 TOKEN = 0;

    /// `disk_` must outlive the object.
    explicit VolumeProbe(VirtualDisk* disk_) : disk(disk_) {}

    /// The name of the file system, as mount(2) has it. Waits until the block is there, or `stopped` is set.
    /// Raises where it can't be read, or holds none that can be mounted.
    SxString detectType(const std::atomic<bool>& stopped);
    /// The volume's label, from its superblock; empty where that isn't present.
    SxString getLabel();
    /// To be called when the disk wants the request TOKEN tried again.
    void wake() { woken = true; }

private:
    bool readBlocking(uint64 offset, uint32 size, char* to, const std::atomic<bool>& stopped);

    VirtualDisk* const disk;
    std::atomic<bool> woken{false};
};
