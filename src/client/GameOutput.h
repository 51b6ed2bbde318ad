#pragma once

#include "Output.h"

class Progress;
class ZqRun;
struct ZqRunResult;

/// What the application of a run says, on standard error: all of it with --verbose, as it comes; otherwise
/// the last lines, where it has failed soon after its start; nothing with --quiet. Main thread only.
class GameOutput {
public:
    explicit GameOutput(const OutputMode& mode_) : mode(mode_) {}

    /// Whether all of it is shown.
    bool isShown() const { return mode.verbose && !mode.quiet; }
    /// Shows what has come since the last call.
    void look(ZqRun* job, Progress* progress) const;
    /// Shows the last lines.
    void tellLast(const ZqRunResult& result) const;

private:
    const OutputMode mode;
};
