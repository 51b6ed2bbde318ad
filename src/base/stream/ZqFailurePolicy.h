#pragma once

#include "SxException.h"

/// What becomes of a job of a run or a fed mount that has failed: the one place that decides it, from the
/// failure's tags and whether a drive is up. Without a drive a failure is told at once. With one, somebody
/// plays from what is there. Then whatever a server, a proxy or a page to log in to does is waited for, and
/// so is a disk that takes no bytes. A file that isn't there, has changed, or comes wrong is asked for anew,
/// with nothing kept of what the server has said of it, after a look at `app.json`. Only a newer version,
/// told by `app.json`, and local causes end the download; the application goes on even then, and the run ends
/// with that failure after it. Safe from any thread.
class ZqFailurePolicy {
public:
    /// Tags of failures, beside those of ZqNetLink and ZqVolume.
    static constexpr const char* OTHER_VERSION = "OtherVersion"; ///< `app.json` on the server is another's
    static constexpr const char* OTHER_ORDER = "OtherOrder"; ///< but of the same version, in another order
    static constexpr const char* DISK = "FileWriteError";    ///< the image's disk takes no bytes

    enum Verdict {
        Wait,    ///< the same again after a while
        Restart, ///< the same, with nothing kept of what the server has said of its files
        End      ///< the download ends
    };
    static Verdict decide(const SxException& why, bool hasDrive);
    /// What is waited for after such a failure, as a line such as "waiting for the server: it answers 403".
    static SxString waitingLine(const SxException& why);
};
