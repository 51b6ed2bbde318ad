#pragma once

#include "ZqFeedStatus.h"
#include "ZqStatsWish.h"
#include "ZqTracePolicy.h"

/// What a run is to do; see ZqRun.
struct ZqRunSettings {
    /// An order is made for a start and what comes soon after it; play that goes on for hours would only make
    /// the trace longer.
    static constexpr int64 TRACE_MS = 600'000;
    static constexpr int64 N_TRACES = 20;

    ZqFeedSettings feed;
    bool startsAtOnce = false; ///< start the application as soon as there is a drive
    bool keepsMounted = false; ///< complete the image after the application's end, and leave the drive
    bool completes = false;    ///< complete the image after the application's end, before that of the drive
    bool isDriveOnly = false;  ///< no application: feed the drive until somebody unmounts it
    SxString mountMode;        ///< how to mount; empty for what `app.json` says
    SxString traceFolder;      ///< where the trace goes; empty for a new folder among the image's traces
    /// Whether a run of an application records one, where `traceFolder` is empty.
    ZqTracePolicy::Wish tracing = ZqTracePolicy::AsNeeded;
    int64 traceMs = TRACE_MS; ///< recording ends after so much play, in milliseconds; 0 for never
    int64 nTraces = N_TRACES; ///< of the traces that runs made here so many stay; 0 for all
    bool noLaunchers = false; ///< start the title itself, and leave the launchers alone
    SxString runner;          ///< what starts Windows programs in Wine's place; see ZqAppRunner
    ZqStatsWish stats;        ///< what the user says of reports to a statistics service
    bool readsOutput = false; ///< somebody takes what the application says, see ZqRun::readOutput()
    SxString firstFrameFile;  ///< a file written with the application's first frame; may be empty
};
