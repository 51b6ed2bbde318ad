#pragma once

#include "Job.h"
#include "Output.h"

#include <tavrin/ZqRun.h>

#include <functional>

class Progress;
class ZqShownEta;

/// Called again and again while a run goes on, and at its end.
using RunLook =
    std::function<void(const ZqFeedStatus& status, const ZqShownEta& estimate, Progress* progress)>;

/// What the signals that ask for an end do to a run, and to all that a verb writes after it. The first one
/// stops the run; others change nothing, unless one comes so late that something must hang: then the
/// application is killed, and the program ends at once, with exit code 1. It has to end before the job does.
class RunSignals : public PatientSignals {
public:
    RunSignals(ZqRun* job, const SxString& image, bool hasDrive = true);
};

/// Starts a run and shows it until it has ended. `startsAtOnce`: the start waits for the drive alone.
void followRun(ZqRun* job, const RunSignals& signals, const SxString& image, bool startsAtOnce, Output& out,
               const RunLook& look);

/// Tells once, when the speed of the download is known and the start is still to come, or was one at once,
/// what the load profile says of it.
class ForecastLine {
public:
    ForecastLine(bool startsAtOnce_, Output* out_) : startsAtOnce(startsAtOnce_), out(out_) {}

    void look(const ZqRun& job, const ZqFeedStatus& status, const ZqShownEta& estimate, Progress* progress);

private:
    const bool startsAtOnce;
    Output* const out;
    bool told = false;
};

/// Tells once, as soon as that is decided, whether the run records a trace.
class TraceLine {
public:
    explicit TraceLine(Output* out_) : out(out_) {}

    void look(const ZqRun& job, Progress* progress);

private:
    Output* const out;
    bool told = false;
};
