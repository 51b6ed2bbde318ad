#pragma once

#include "SxFileIO.h"
#include "ZqRuntimeInfo.h"

/// The text file `onDemand.dat` of an image: a row of fetches, bytes, rate and queue each minute. Whether it
/// can be written or not, nothing is raised: the job goes on, and the log tells once. On one thread. The
/// clock is the steady one: a jump of the system's would add rows, or leave some out.
class ZqOnDemandTable {
public:
    /// Opens the file in the image folder `path`. The first time in an object's life it is made afresh, in
    /// the place of a link or a second name that stands there; then it goes on.
    void open(const SxString& path);
    /// Writes a row of `info` where more than a minute has passed since the last.
    void update(const ZqRuntimeInfo& info);
    void close() { file = SxFileIO(); }

private:
    static constexpr int64 NEVER = -1;

    SxFileIO file;
    int64 startMs = NEVER, rowMs = NEVER; ///< of the table, and of the last row
    int64 nRowFetches = 0;                ///< at the last row since open()
};
