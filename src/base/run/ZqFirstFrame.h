#pragma once

#include "SxString.h"

/// When an application shows its first frame, told by a file that it writes then. A file that was there
/// before the run says nothing. Of the run's thread.
class ZqFirstFrame {
public:
    /// `beginNs`: when the run began, by the steady clock. Without a file nothing is told.
    ZqFirstFrame(SxString file_, int64 beginNs_);

    bool isAwaited() const { return !file.isEmpty() && foundMs < 0; }
    /// To be called every now and then.
    void look();
    /// Milliseconds from the beginning of the run; -1 where that isn't known.
    int64 getMs() const { return foundMs; }

private:
    int64 writtenMs() const;

    const SxString file;
    const int64 beginNs;
    const int64 oldMs; ///< when the file was written before the run; -1 for never
    int64 foundMs = -1;
};
