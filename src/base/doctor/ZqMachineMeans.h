#pragma once

#include "SxList.h"
#include "ZqMeans.h"

/// What drives, and the titles on them, need of this machine and its user, each with what to do where it is
/// missing. A start looks at the same, as far as it is needed then. Safe from any thread.
class ZqMachineMeans {
public:
    /// Looks at everything; `folder`: where images lie, or will. Waits for a display as long as that takes to
    /// answer. Raises nothing.
    static SxList<ZqMeans> look(const SxString& folder);

    /// The room on the disk of a folder, which need not exist yet, for `nBytes` more beside what a download
    /// leaves to others; 0 where it isn't known how much is to come.
    static ZqMeans getRoom(const SxString& folder, uint64 nBytes);
};
