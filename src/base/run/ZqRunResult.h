#pragma once

#include "ZqRunRecord.h"
#include "ZqRunSeries.h"

#include <functional>
#include <vector>

/// What came of a run, see ZqRun: its record, and what only the one who ran it needs. Not locked.
struct ZqRunResult : ZqRunRecord {
    /// In milliseconds from the run's beginning.
    struct Wait {
        int64 fromMs, toMs;
    };

    ZqRunSeries series;          ///< of a run with an application, from the beginning of its download on
    std::vector<Wait> heldReads; ///< the waits of the application, in order of time
    bool isTakenOver = false;    ///< it has gone on with a run that was killed, and has the figures of that
    bool isComplete = false;     ///< the image is, and was found to be right
    SxString mountPath;          ///< where the drive was left; empty where it is gone
    SxString missed;             ///< the process that the record names, where it was never found
    bool lacksTraceRoom = false; ///< it was played without a trace, on a full disk
    bool wasBusy = false;        ///< files of a drive that takes writes were open when it was taken away
    SxString outputFile;         ///< what the application has said; empty where that went nowhere
    SxList<SxString> lastLines;  ///< the last of it, where the application has failed soon after its start
    SxString unwritten;          ///< why a record couldn't be written; empty where all could
    SxString unsent;             ///< why a report couldn't be sent; empty where all was

    /// Of a mere download: whether the image is complete, its size, and what was moved.
    SxParserKit::SxSymbol downloadToJson() const;
    /// Writes the record of the run into the image folder, and `runtime.json`, unless no application was
    /// started. Where they can't be written, what came of the run stays as it is, and `unwritten` says why.
    void writeFiles(const SxString& folder);
    /// Writes the record once more, where that could be done before.
    void rewriteRecord();

private:
    void attempt(const std::function<void()>& write);
};
