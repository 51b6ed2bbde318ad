#pragma once

#include "ZqMeans.h"

class ZqAppParams;
struct ZqRunSettings;

/// What would keep a drive from coming up, or an application from being started, found before anything of it
/// is downloaded. What raises does it with a sentence that says what the player can do.
class ZqStartCheck {
public:
    /// Raises where this machine, or this user, can't mount a volume of that type (see ZqDriveMeans; empty
    /// for one that isn't known), or can't redirect what the record wants to be redirected.
    static void requireDrive(const ZqAppParams& app, const SxString& type, bool isComplete);

    /// The machine root, which Wine refuses where it is another user's.
    static ZqMeans getRoot();
    /// Raises where the record names a launcher that hands the command to another process and no process to
    /// follow; where the command can't exist here; where nothing can run a Windows program; and where the
    /// machine root belongs to another user, since Wine refuses it then.
    static void require(const ZqRunSettings& settings, const ZqAppParams& app);
};
