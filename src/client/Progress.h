#pragma once

#include "Output.h"

/// The progress of one job on standard error: on a terminal one line that is drawn again and again, else a
/// plain line every few seconds; nothing with --quiet. Works the rate out from its own clock. Main thread
/// only.
class Progress {
public:
    Progress(const OutputMode& mode, const SxString& label);

    void setLabel(const SxString& text) { label = text; }
    /// How fast it goes, in bytes a second, and how many seconds are left, in place of what this works out; 0
    /// where that isn't known, and then not shown. `packed`: the bytes of the rate are packed ones, and those
    /// of update() are not.
    void setPace(double rate_, double seconds_, bool packed);
    /// From now on it works that out by itself, as it does at first.
    void measure() { isPaced = isPacked = false; }
    /// Shows that `nCurrent` of `nTotal` bytes are done; a total of 0 isn't known yet.
    void update(uint64 nCurrent, uint64 nTotal);
    /// Takes the drawn line away.
    void finish();

    /// The progress line in at most `width` columns. What doesn't fit is left out: first the bar, then the
    /// rate, amounts, the time that is left, and percent; last the end of `label`, whose control characters
    /// are escaped. `rate` has its unit, and `seconds` is 0 where it isn't known.
    static SxString formatLine(const SxString& label, uint64 nCurrent, uint64 nTotal, const SxString& rate,
                               double seconds, int64 width);

private:
    enum Style { Silent, Plain, Drawn };

    void measureRate(uint64 nCurrent, int64 nowNs);
    SxString speedText() const;

    SxString label;
    Style style;
    bool drawn = false;
    int64 startNs, lastNs, lastLineNs;
    uint64 lastCurrent = 0;
    bool measured = false, isPaced = false, isPacked = false;
    double rate = 0, seconds = 0;
};
