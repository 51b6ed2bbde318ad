#pragma once

#include "ZqImageFigures.h"
#include "ZqNetFigures.h"
#include "ZqRunSeries.h"
#include "ZqRuntimeInfo.h"

/// What came of a run; see ZqRun. Times in milliseconds unless they say otherwise. Not locked.
struct ZqRunResult {
    ZqRuntimeInfo info;       ///< times in seconds, speeds in megabit per second
    bool wasStarted = false;  ///< the application was
    bool isExitKnown = false; ///< `info.exitCode` is that of the application
    int64 startMs = -1;       ///< from the beginning of the run to the application's start
    int64 firstFrameMs = -1;  ///< to its first frame; -1 where that isn't known
    int64 lastWaitMs = -1;    ///< to the last moment at which a read waited for blocks; -1 for never
    int64 mountMs = -1;       ///< until the drive was up; -1 where it was so before, or never
    int64 lengthMs = 0;       ///< to the end of the run, without the time that ending it took
    ZqRunSeries series;       ///< of a run with an application, from the beginning of its download on
    SxString traceFolder;     ///< empty where nothing was traced
    ZqNetFigures link;
    ZqImageFigures image;
    uint64 nMissing = 0;         ///< bytes of `img.zqf` that are still to be fetched
    bool isComplete = false;     ///< the image is, and was found to be right
    SxString mountPath;          ///< where the drive was left; empty where it is gone
    SxString missed;             ///< the process that the record names, where it was never found
    SxString lostLetter;         ///< the drive's, where a runner has taken it for good
    SxString driveFailure;       ///< the first read or write of the drive that failed; empty where none has
    bool lacksTraceRoom = false; ///< it was played without a trace, on a full disk
    bool wasBusy = false;        ///< files of a drive that takes writes were open when it was taken away
    SxString unwritten;          ///< why `runtime.json` couldn't be written; empty where it could

    /// What `runtime.json` has, `exitCode` null where it isn't known, and more.
    SxParserKit::SxSymbol toJson() const;
    /// Of a mere download: whether the image is complete, its size, and what was moved.
    SxParserKit::SxSymbol downloadToJson() const;
    /// Writes `runtime.json` into the image folder, unless no application was started. Where it can't be
    /// written, what came of the run stays as it is, and `unwritten` says why.
    void write(const SxString& folder);

private:
    void appendTransfer(SxParserKit::SxSymbol* root) const;
};
