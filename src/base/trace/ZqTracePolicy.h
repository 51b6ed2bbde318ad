#pragma once

#include "SxString.h"

/// Decides whether a run records which blocks it reads. Each trace makes the order of an image better, and
/// who plays an image while it arrives is the one whom a better order serves. But a drive that records has to
/// tell of each read, and a complete image has no other need for that. So a run of one records until there
/// are enough traces of its build, and from then on now and then.
class ZqTracePolicy {
public:
    /// What whoever starts a run says of its trace.
    enum Wish {
        AsNeeded, ///< the policy decides
        Always,
        Never
    };
    /// So many traces of a build are enough.
    static constexpr int64 N_ENOUGH = 5;
    /// Once they are there, one in so many runs records.
    static constexpr int64 EVERY = 10;

    /// A run whose drive isn't up yet.
    struct Run {
        SxString image;        ///< image folder
        SxString build;        ///< `checksums.mnt` of its application's record
        bool isComplete;       ///< all of `img.zqf` was there when the run began
        int64 nUntraced;       ///< see ZqStreamRecord
        Wish wish = AsNeeded;  ///< of whoever starts the run
        int64 nKept = 0;       ///< so many traces of runs stay when the run has recorded; 0: all
        bool mayRecord = true; ///< the machine has what a drive needs that tells of its reads
    };
    enum Reason {
        Wished,  ///< somebody wants it so
        Partial, ///< the image wasn't complete, so the run records
        Few,     ///< it has too few sound traces, so the run records
        Unable,  ///< the machine lacks what recording needs, and a complete image can do without
        Turn,    ///< it has enough, and it is the run's turn to record
        Enough   ///< it has enough, and it isn't
    };
    struct Decision {
        bool records;
        Reason reason;
        /// Sound traces among those that stay, counted up to N_ENOUGH; 0 where nobody had to look.
        int64 nSound = 0;
    };

    /// Doesn't raise: a trace that can't be looked at counts as none. Reads the records of 100 traces at
    /// most, since a start waits for it.
    static Decision decide(const Run& run);
};
