#pragma once

#include "Output.h"

#include <tavrin/ZqRun.h>

#include <optional>

// What a run says, apart from its failures.

/// What stands in front of the numbers of the progress line.
/// `untilStart`: seconds, where that is known; with `isBound` at most so many.
SxString statusText(ZqRun::Phase phase, const ZqFeedStatus& status, std::optional<double> untilStart,
                    bool isBound);
/// Whether the run records a trace, a line; empty where that is as always.
SxString traceText(const ZqTracePolicy::Decision& decision);
/// How often and how long the application waited, such as "2, the longest 1.50 s, 2.10 s in all".
SxString waitsText(const ZqRunRecord::Waits& waits);
/// The figures of a run whose application was started.
void tellFigures(const ZqRun::Result& result, Output* out);
/// How to get what is missing of the image.
void tellMissing(const ZqRun& job, const SxString& image, Output* out);
/// A sentence on what may have been lost with an earlier drive of the image.
SxString lostWritesText(const SxString& image);
