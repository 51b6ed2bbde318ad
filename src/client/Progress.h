#pragma once

#include "Output.h"

/// The progress of one job on standard error: on a terminal one line that is drawn again and again, else a
/// plain line every few seconds; nothing with --quiet. Works the rate out from its own clock. Main thread
/// only.
class Progress {
public:
    Progress(const OutputMode& mode, const SxString& label);

    void setLabel(const SxString& text) { label = text; }
    /// Nothing comes for now: neither rate nor time to the end is shown, and the rate begins anew.
    void setStalled(bool on);
    /// Shows that `nCurrent` of `nTotal` bytes are done; a total of 0 isn't known yet.
    void update(uint64 nCurrent, uint64 nTotal);
    /// Takes the drawn line away.
    void finish();

    /// The progress line in at most `width` columns. What doesn't fit is left out: first the bar, then the
    /// rate, amounts, the time that is left, and percent; last the end of `label`, whose control characters
    /// are escaped. `rate` is in bytes per second.
    static SxString formatLine(const SxString& label, uint64 nCurrent, uint64 nTotal, double rate,
                               int64 width);

private:
    enum Style { Silent, Plain, Drawn };

    void measure(uint64 nCurrent, int64 nowNs);

    SxString label;
    Style style;
    bool drawn = false;
    int64 startNs, lastNs, lastLineNs;
    uint64 lastCurrent = 0;
    bool measured = false, stalled = false;
    double rate = 0;
};
