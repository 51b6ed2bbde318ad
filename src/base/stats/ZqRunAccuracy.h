#pragma once

#include "SxString.h"
#include "SxSymbol.h"

#include <optional>

class ZqCursorWay;

/// How good the order of an image was for one run: whether blocks were there before they were read, and
/// whether what came early was read at all. Bytes are those of whole blocks, and each block counts once.
///
/// A block counts as read where its first access is a read: what a program has written before it needs
/// nothing of `img.zqf`. It was there where the cursor had passed it no later than that, in milliseconds.
/// What came, or was read, after the trace's end can't be judged, so `brought` ends there, too.
struct ZqRunAccuracy {
    bool isJudged = false; ///< the run has left a trace that could be read; else only the reads that waited
                           ///< are known
    int64 judgedMs = 0;    ///< of the run, until the trace ended

    // What the ordered download has brought until then. Beside the two there is what it brought too late.
    uint64 nBrought = 0;     ///< bytes
    uint64 nEarlyUsed = 0;   ///< bytes that were there before they were read
    uint64 nEarlyUnused = 0; ///< bytes that weren't read

    // What was read: that, and this.
    uint64 nRead = 0;        ///< bytes
    uint64 nLate = 0;        ///< bytes that weren't there at their first read
    uint64 nThereBefore = 0; ///< bytes that were there before the run began

    // As the drive counts them; not known where it has gone before the run's end.
    std::optional<uint64> nWaits; ///< reads of the drive that waited
    uint64 waitedMs = 0;          ///< for how long, all together

    double coverage = 0; ///< the share of the included blocks that the trace names, 0 to 1

    struct Question {
        SxString trace;         ///< the run's trace folder
        SxString image;         ///< the image folder, of which the map is read
        uint64 nIncluded;       ///< blocks of the complete `img.zqf`
        uint64 nBefore;         ///< of these the first ones were there before the run began
        const ZqCursorWay* way; ///< of the run, up to the trace's end, by the steady clock in milliseconds
        int64 clockMs;          ///< a trace's times, since 1970 UTC, minus those of that clock
        bool isCutOff;          ///< the trace has ended before the run wanted it to, with its last item
    };
    /// Judges a run by its trace, the map and the cursor's way; `nWaits`, `waitedMs` and `judgedMs` are left
    /// to the caller. Memory goes by the number of blocks that were read. Raises where trace or map can't be
    /// read.
    static ZqRunAccuracy judge(const Question& question);

    SxParserKit::SxSymbol toJson() const;
    /// The same from a record.
    static ZqRunAccuracy fromJson(const SxParserKit::SxSymbol& object);
};
