#pragma once

#include "ZqFileLock.h"

/// The right to write the two files of a trace, for one at a time across processes: a lock on the file
/// `trace.lock` in its folder, which is there only as long as somebody writes.
class ZqTraceLock {
public:
    /// Makes the folder `path` (with its trailing slash) where it is missing. Raises, without waiting, where
    /// somebody else writes there.
    explicit ZqTraceLock(const SxString& path);

    /// Whether somebody writes the trace in the folder `path` now. Raises where that can't be told.
    static bool isHeld(const SxString& path);

private:
    ZqFileLock lock;
};
