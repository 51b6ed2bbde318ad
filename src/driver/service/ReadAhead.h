#pragma once

#include "SxMutex.h"
#include "SxString.h"
#include "VirtualDisk.h"

/// The kernel's read-ahead on the volume of a disk. While blocks are missing, and while a trace is recorded,
/// it is low: it would touch blocks that nobody asked for; none at all would cost most of the throughput.
class ReadAhead {
public:
    explicit ReadAhead(const VirtualDisk& disk_) : disk(disk_) {}

    /// Whether it is to be high now. Safe from any thread, as isHigh().
    bool isWanted() const { return disk.isComplete() && !disk.getTrace()->isOn(); }
    /// KiB, as a helper takes it.
    static const char* valueOf(bool isHigh);
    /// The volume is there, with this setting of the kernel (empty without one), and what that is at.
    void begin(const SxString& setting_, bool isHigh);
    bool isHigh() const;
    /// Sets it where that is due, unless it was tried often enough: the setting may be gone, or wait for a
    /// device that is stuck. A drive without it is slower, and right. Gives why it can't be set; empty where
    /// it is, or nothing was tried. For one thread, so that two settings never cross.
    SxString adjust();

private:
    bool take(bool isHigh, SxString* setting_);

    const VirtualDisk& disk;
    bool isDueHigh = false; ///< what was tried last
    int nTries = 0;         ///< of that
    int64 triedNs = 0;      ///< time of the last one
    mutable SxMutex mutex;
    SxString setting SX_GUARDED_BY(mutex);
    bool isSetHigh SX_GUARDED_BY(mutex) = false;
};
