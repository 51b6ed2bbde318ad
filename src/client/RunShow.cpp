#include "RunShow.h"
#include "App.h"
#include "Forecast.h"
#include "Progress.h"
#include "RunTexts.h"

#include <tavrin/SxClock.h>
#include <tavrin/SxTime.h>
#include <tavrin/ZqShownEta.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <unistd.h>

namespace {

constexpr int64 LOOK_MS = 100;
/// From one look at the job's end to the next. Each wakes the machine, for as long as somebody plays, and the
/// end of a run needn't be seen sooner.
constexpr int64 END_LOOK_MS = 50;
constexpr unsigned LAST_WORDS_S = 2;
constexpr double BYTES_PER_MBIT = 125'000;

/// Something that the end of the run needs hangs. The game must not stay.
[[noreturn]] void endAtOnce(ZqRun* job, const SxString& image, bool hasDrive) {
    job->killApplication();
    // A terminal that stands still takes no text.
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(LAST_WORDS_S);
    Output::failure(
        "Ended at once, since the end took too long; " +
        (hasDrive ? "`tavrin umount " + image.makeVisible() + "` takes away a drive that is still there"
                  : SxString("what has come of the image is kept")));
    ::_exit(ExitFailure);
}

std::optional<double> untilStart(const ZqRun& job, const ZqFeedStatus& status, ZqShownEta* estimate) {
    if (!status.waiting.isEmpty()) {
        estimate->forget();
        return {};
    }
    const double now = static_cast<double>(SxClock::get().steadyNs()) * 1e-9;
    return estimate->look(now, status.linkRate, [&](double rate) { return job.estimateStart(rate); });
}

/// How much of the image is there, with the link's own rate, which may be of packed bytes: what was fetched
/// on demand is there, though the ordered download hasn't come to it.
void showProgress(const ZqRun& job, const ZqFeedStatus& status, Progress* progress) {
    if (status.isChecking) {
        progress->measure();
        progress->update(status.nChecked, status.nTotal);
        return;
    }
    const bool isComing = status.nCurrent < status.nTotal && status.waiting.isEmpty();
    progress->setPace(isComing ? status.linkRate : 0, isComing ? job.estimateRest(status.linkRate) : 0,
                      status.image.isPacked);
    progress->update(std::min(status.nCurrent + status.image.nStored, status.nTotal), status.nTotal);
}

} // namespace

RunSignals::RunSignals(ZqRun* job, const SxString& image, bool hasDrive)
    : PatientSignals([=] { endAtOnce(job, image, hasDrive); }) {
}

void followRun(ZqRun* job, const RunSignals& signals, const SxString& image, bool startsAtOnce, Output& out,
               const RunLook& look) {
    Progress progress(out.getMode(), "");
    ZqShownEta estimate;
    job->start();
    bool toldLoss = false, toldCarried = false;
    while (!SxWait::pass(
        LOOK_MS, [&] { return !job->isRunning(); }, END_LOOK_MS)) {
        if (signals.isAsked()) job->stop();
        const ZqFeedStatus status = job->getStatus();
        progress.setLabel(
            statusText(job->getPhase(), status, untilStart(*job, status, &estimate), startsAtOnce));
        showProgress(*job, status, &progress);
        if (!toldCarried && !status.carried.isEmpty()) {
            toldCarried = true;
            progress.finish();
            out.text(status.carried);
        }
        look(status, estimate, &progress);
        if (toldLoss || !job->hasLostWrites()) continue;
        toldLoss = true;
        progress.finish();
        Output::failure(lostWritesText(image));
    }
    // A run can be over before anybody has looked.
    look(job->getStatus(), estimate, &progress);
    progress.finish();
    job->wait();
    if (!toldLoss && job->hasLostWrites()) Output::failure(lostWritesText(image));
    // Told here where it isn't what has ended the run.
    const SxString failure = job->getResult().driveFailure;
    if (!failure.isEmpty() && job->hasException() && !job->getException().hasTag(ZqRun::DRIVE_FAILED))
        Output::failure("A read or write of the drive of '" + image + "' has failed: " + failure);
}

void ForecastLine::look(const ZqRun& job, const ZqFeedStatus& status, const ZqShownEta& estimate,
                        Progress* progress) {
    const ZqRun::Phase phase = job.getPhase();
    const bool isAhead = phase > ZqRun::Opening && phase < ZqRun::Running;
    if (told || status.nCurrent >= status.nTotal || !estimate.isKnown()) return;
    if (!isAhead && !(startsAtOnce && phase == ZqRun::Running)) return;
    told = true;
    progress->finish();
    const ZqStartForecast forecast = job.forecast(estimate.getRate());
    out->text(SxString::sprintf("The link brings %.1f Mbit/s: ", estimate.getRate() / BYTES_PER_MBIT) +
              safeStartText(forecast));
    if (forecast.untilSafe > 0) out->text("  " + earlyStartText(forecast));
    out->flush();
}

void TraceLine::look(const ZqRun& job, Progress* progress) {
    if (told) return;
    const std::optional<ZqTracePolicy::Decision> decision = job.getTraceDecision();
    if (!decision) return;
    told = true;
    const SxString line = traceText(*decision);
    if (line.isEmpty()) return;
    progress->finish();
    out->text(line);
    out->flush();
}
