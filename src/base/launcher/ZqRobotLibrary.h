#pragma once

#include "ZqLauncherRecord.h"

class ZqRCParams;

/// The library folder of a drive in the configuration of the Robot Cache client, for the time of a mount. The
/// file as it was stays beside it under another name: if nobody else changes it meanwhile, it comes back as
/// it was, to the byte; else our folder alone is taken out of the list. One thread; the record outlives this.
class ZqRobotLibrary {
public:
    explicit ZqRobotLibrary(ZqLauncherRecord* record_) : record(record_) {}

    /// Adds the folder of the drive `mntPoint` for `image`, a path as the record has it. One that is in the
    /// list already stays.
    void make(const SxString& image, const SxString& mntPoint);
    /// Takes out the folder that is noted for the image, whatever letter the drive has now. Raises where it
    /// can't, and then it stays noted. The record is to be saved after it.
    void undo(const SxString& image);

private:
    void takeOut(const SxString& image, const SxList<SxString>& ours, bool isUntouched);
    void noteDigests(bool isKnown, const SxString& now, const ZqRCParams& params);

    ZqLauncherRecord* const record;
};
