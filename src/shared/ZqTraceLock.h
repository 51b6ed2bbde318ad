#pragma once

#include "SxString.h"

/// The right to write the two files of a trace, for one at a time across processes: a lock on the file
/// `trace.lock` in its folder, which is there only as long as somebody writes. What a killed writer leaves of
/// it holds nobody up.
class ZqTraceLock {
public:
    /// Makes the folder `path` (with its trailing slash) where it is missing. Raises, without waiting, where
    /// somebody else writes there. File systems without locks keep nobody apart.
    explicit ZqTraceLock(const SxString& path);
    ~ZqTraceLock();
    ZqTraceLock(const ZqTraceLock&) = delete;
    ZqTraceLock& operator=(const ZqTraceLock&) = delete;

    /// Whether somebody writes the trace in the folder `path` now. Raises where that can't be told.
    static bool isHeld(const SxString& path);
    /// Whether somebody holds the first byte of `file`. Raises where that can't be told.
    static bool isLocked(const SxString& file);

private:
    std::string host; ///< path of the lock file
    int fd = -1;
};
