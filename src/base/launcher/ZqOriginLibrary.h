#pragma once

#include "ZqLauncherRecord.h"

/// The title's folder in EA Origin's list of what is installed, for the time of a mount. Noted in the record
/// before it is made, so that it can be undone without the drive. One thread; the record outlives this.
class ZqOriginLibrary {
public:
    explicit ZqOriginLibrary(ZqLauncherRecord* record_) : record(record_) {}

    /// Copies the title's folder from the drive `mntPoint` for `image`, a path as the record has it. One that
    /// is there already is the player's, and stays as it is.
    void make(const SxString& image, const SxString& mntPoint);
    /// Takes back what is noted of the image; what fails stays noted, and is raised. The record is to be
    /// saved after it.
    void undo(const SxString& image);
    /// The one folder that the drive brings; raises where it brings none, or several.
    static SxString requireTitle(const SxString& mntPoint, const char* failText);

private:
    ZqLauncherRecord* const record;
};
