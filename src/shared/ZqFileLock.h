#pragma once

#include "SxString.h"

/// A file that its maker has locked, and that is there only as long as it is: for one holder at a time across
/// processes. What a killed holder leaves of it holds nobody up.
class ZqFileLock {
public:
    /// Makes the file and the folder that it lies in. Raises `heldText` where somebody else holds it still
    /// after `waitMs` milliseconds, and `failText` with the cause where it can't be had. File systems without
    /// locks keep nobody apart.
    ZqFileLock(const SxString& file, const SxString& heldText, const SxString& failText, int64 waitMs = 0);
    ~ZqFileLock();
    ZqFileLock(const ZqFileLock&) = delete;
    ZqFileLock& operator=(const ZqFileLock&) = delete;

    /// Whether somebody holds the byte at `offset` of `file`, the first one of such a lock. Raises where that
    /// can't be told.
    static bool isLocked(const SxString& file, int64 offset = 0);

private:
    bool take(const SxString& failText);

    std::string host; ///< path of the lock file
    int fd = -1;
};
