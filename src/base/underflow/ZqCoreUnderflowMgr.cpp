#include "ZqCoreUnderflowMgr.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqAppWindow.h"
#include "ZqImageProgress.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqOnDemandFetcher.h"
#include "ZqOnDemandTable.h"
#include "ZqUnderflowDrive.h"
#include "ZqUnderflowFigures.h"
#include "ZqVolume.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";
constexpr const char* MAIN = "ZqCoreUnderflowMgr::main: ";
/// An instant underflow may last so long at least, in seconds. One that lasts longer, and longer than the
/// underflow delay, is left to the turns, which take the window away.
constexpr int64 INSTANT_S = 5;
constexpr const char* INSTANT = "ZqCoreUnderflowMgr::checkInstantUnderflow: ";
constexpr int64 DELAY_PASSES = 10; ///< a second's
constexpr int64 DELAY_PASS_MS = 100;
/// A turn with an underflow: what can't be had now is tried again, and its line logged, so often.
constexpr int64 UNDERFLOW_MS = 1000;
/// About a second's: with a line for each try the log would be full of it.
constexpr int64 REFUSALS_A_LINE = 100;
constexpr uint64 MIN_RATE = 4096;    ///< bytes a second, below which an ETA means nothing
constexpr double LEAST_SPEED = 1000; ///< bytes a second

double bytesPerSecond(double megabitPerSecond) {
    return megabitPerSecond * ZqBlocks::PER_MEGABIT;
}

} // namespace

ZqCoreUnderflowMgr::ZqCoreUnderflowMgr(const SxString& path_, const SxPtr<ZqCoreAppGuard>&,
                                       const SxPtr<ZqImageProgress>& progress, const ZqAppParams& params,
                                       Callback callback, void* callbackData)
    : path(path_),
      imageProgress(progress),
      appParams(params),
      figures(std::make_unique<ZqUnderflowFigures>(&runtimeInfo)),
      table(std::make_unique<ZqOnDemandTable>()),
      source(std::make_unique<ZqOnDemandSource>(callback, callbackData)),
      drive(std::make_unique<ZqUnderflowDrive>(path, appParams.sizeZqf, stopFlag)),
      window(std::make_unique<ZqAppWindow>(appParams)),
      fetcher(std::make_unique<ZqOnDemandFetcher>(drive.get(), figures.get(), source.get(), progress,
                                                  appParams.sizeZqf, stopFlag)) {
    setThreadName("underflow mgr");
}

ZqCoreUnderflowMgr::~ZqCoreUnderflowMgr() = default;

void ZqCoreUnderflowMgr::start(Priority priority) {
    // Here and not in main(), so that a stop right after the start isn't lost.
    if (!isRunning()) {
        stopFlag = false;
        source->cancel(false);
    }
    SxSystemThread::start(priority);
}

void ZqCoreUnderflowMgr::stop() {
    stopFlag = true;
    source->cancel(true);
}

void ZqCoreUnderflowMgr::restart() {
    window->countRestored();
    underflowFlag = false;
    isRestarted = true;
    stop();
    wait();
    isRestarted = false;
    window->reset();
    underflowFlag = entered = false;
    start(6);
}

// Settings and queries.

void ZqCoreUnderflowMgr::setApplication(const SxString& cmd, const SxString& name) {
    window->setApplication(cmd, name);
}

void ZqCoreUnderflowMgr::setWindowSearch(bool on) {
    window->setSearch(on);
}

void ZqCoreUnderflowMgr::setEdgeCall(std::function<void()> call) {
    fetcher->setEdgeCall(std::move(call));
}

void ZqCoreUnderflowMgr::setHints(const SxPtr<const ZqOrderHints>& hints) {
    fetcher->setHints(hints);
}

void ZqCoreUnderflowMgr::setRangeSource(const SxPtr<ZqRangeSource>& ranges) {
    source->setRanges(ranges);
}

void ZqCoreUnderflowMgr::setDownloadParams(const SxString& url, const SxList<SxString>& headers) {
    try {
        source->setAddress(url, headers);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot set ondemand download params", UNIT, __LINE__);
    }
}

bool ZqCoreUnderflowMgr::isMinimized() const {
    return window->isMinimized();
}

int64 ZqCoreUnderflowMgr::getNTakenAway() const {
    return window->getNTakenAway();
}

uint64 ZqCoreUnderflowMgr::getUnderflowResumeIdx() const {
    return fetcher->getResumeIdx();
}

uint64 ZqCoreUnderflowMgr::getUnderflowETA() const {
    const uint64 nCurrent = nDownloaded(), wanted = getUnderflowResumeIdx();
    if (!imageProgress || wanted < nCurrent) return 0;
    const double speed = std::max(bytesPerSecond(imageProgress->getCurrentSpeed()), LEAST_SPEED);
    return (wanted - nCurrent) / static_cast<uint64>(speed);
}

ZqRuntimeInfo ZqCoreUnderflowMgr::getRuntimeInfo() const {
    return figures->get();
}

uint64 ZqCoreUnderflowMgr::nDownloaded() const {
    return imageProgress ? imageProgress->getNCurrent() : 0;
}

// The window.

void ZqCoreUnderflowMgr::minimizeApp() {
    window->minimize(stopFlag);
}

void ZqCoreUnderflowMgr::maximizeApp() {
    window->restore();
}

void ZqCoreUnderflowMgr::restoreWindow() {
    if (!isUnderflow()) window->restoreTaken();
}

void ZqCoreUnderflowMgr::findAppWindow(int64 delaySeconds) {
    try {
        passDelay(delaySeconds);
        if (stopRequested() || driveGone) return;
        window->find([this] {
            if (!stopRequested()) checkInstantUnderflow();
            return stopRequested();
        });
    } catch (const SxException& e) {
        throw SxException(e, "Search for target window handle failed", UNIT, __LINE__);
    }
}

void ZqCoreUnderflowMgr::passDelay(int64 seconds) {
    const auto isDelayOver = [this] {
        // The delay ends with the drive: what was handed to this one isn't on the next, though its stretches
        // count as delivered.
        driveGone = driveGone || !drive->isThere();
        if (driveGone || stopRequested()) return true;
        checkInstantUnderflow();
        // An underflow that lasts is left to the turns: they fetch, and here nothing is fetched until the
        // delay is over.
        return stopRequested() || instantMs != 0;
    };
    bool isOver = false;
    for (int64 second = 0; second < seconds && !isOver; ++second)
        isOver = SxWait::passes(DELAY_PASSES, DELAY_PASS_MS, isDelayOver, [](int64) {});
}

// On demand.

bool ZqCoreUnderflowMgr::onDemand() {
    try {
        while (isReadWaiting()) {
            if (stopRequested() || !runPass()) return false;
        }
        fetcher->settle();
        return true;
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        return false;
    }
}

bool ZqCoreUnderflowMgr::runPassBetween() {
    try {
        runPass();
        return true;
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        return false;
    }
}

bool ZqCoreUnderflowMgr::runPass() {
    const ZqOnDemandFetcher::Outcome pass = fetcher->runPass();
    if (!pass.isPossible) return false;
    const bool isIdle = pass.nDelivered == 0;
    if (pass.hasFailed || (isIdle && (entered || (!pass.isWanted && isMinimized())))) {
        fetcher->leaveToDownload();
        return false;
    }
    // A pass that has found nothing to fetch must not begin anew at once.
    if (isIdle && !pass.isUnderWay) SxTime::msleep(SxWait::LOOK_MS);
    return true;
}

uint64 ZqCoreUnderflowMgr::popOnDemandZqFByteIdx() {
    return drive->popHeld();
}

SxArray<uint64> ZqCoreUnderflowMgr::popOnDemandZqFByteIndices(uint64 count) {
    return drive->popHeld(count);
}

bool ZqCoreUnderflowMgr::isReadWaiting() {
    const bool isWaiting = drive->isReadHeld();
    if (isWaiting) lastWaitNs = SxClock::get().steadyNs();
    return isWaiting;
}

void ZqCoreUnderflowMgr::checkInstantUnderflow() {
    if (instantMs != 0) return;
    bool unresolved = drive->isReadHeld();
    if (unresolved) unresolved = !onDemand();
    if (stopRequested()) return;
    underflowFlag = unresolved;
    if (!unresolved) return;

    const int64 t0 = SxClock::get().steadyMs();
    const uint64 rate = imageProgress ? static_cast<uint64>(bytesPerSecond(imageProgress->getAvgSpeed())) : 0;
    const uint64 nCurrent = nDownloaded(), wanted = getUnderflowResumeIdx();
    uint64 size = 0, eta = 0;
    if (wanted > nCurrent && rate > MIN_RATE) {
        size = wanted - nCurrent;
        eta = (size + rate - 1) / rate;
    }
    zqLogMsg("base", SxString(INSTANT) + "Critical instant underflow. ETA : " + eta);
    figures->begin(static_cast<int64>(size), t0);
    if (!awaitInstant(t0)) {
        // No desktop here is sure to put a ghost in the place of an application that hangs. So it is left to
        // the turns, which take the window itself away.
        instantMs = t0;
        return;
    }
    figures->end();
    underflowFlag = false;
    if (!stopRequested()) zqLogMsg("base", SxString(INSTANT) + " Underflow resolved");
}

bool ZqCoreUnderflowMgr::awaitInstant(int64 beginMs) {
    const int64 limitMs = std::max(appParams.underflowDelay, INSTANT_S) * 1000;
    for (int64 nRefused = 0; !stopRequested() && isReadWaiting();) {
        if (window->isSearched()) ZqAppWindow::minimizeGhost(INSTANT);
        // Where there is nothing to fetch from it isn't tried: the log would be full of that.
        if (source->canFetch() && onDemand()) continue;
        if (window->isSearched() && SxClock::get().steadyMs() - beginMs > limitMs) return false;
        if (nRefused++ % REFUSALS_A_LINE == 0) {
            zqLogMsg("base", SxString(INSTANT) + "Cannot resolve by on-demand request");
        }
        SxTime::msleep(ZqUnderflowDrive::POLL_MS);
    }
    return true;
}

// The job.

void ZqCoreUnderflowMgr::main() {
    bool hasFailed = false;
    try {
        watchUnderflows();
    } catch (const SxException& e) {
        // A service that is silent at the stop is no failure of the job.
        hasFailed = !stopRequested() || !e.hasTag(ZqVolume::SILENT);
        if (hasFailed) ZqJobFailure::report(this, MAIN, path, e, UNIT, __LINE__);
    }
    try {
        // Nobody else knows that it is suspended; what is missing stays held.
        drive->resume();
    } catch (const SxException& e) {
        zqLogMsg("base", MAIN + e.toString(3, "\n"));
    }
    // An underflow ends with a stop, and with the drive. After a failure, or a restart, the read may still be
    // held.
    if (!hasFailed) {
        entered = false;
        underflowFlag = false;
        if (!isRestarted) figures->end();
    }
    fetcher->end();
    figures->logTotals(appParams.sizeZqf);
    table->close();
}

void ZqCoreUnderflowMgr::watchUnderflows() {
    setUp();
    if (!entered) {
        awaitFirstUnderflow();
        if (!stopRequested()) findAppWindow(appParams.underflowDelay);
    }
    while (!stopRequested() && !driveGone && drive->isThere())
        turn();
}

void ZqCoreUnderflowMgr::setUp() {
    // A window that was taken away must be known until it is back, and an underflow that is open until it is
    // over.
    window->begin(entered);
    resolved = !entered;
    if (!entered && !figures->isOpen()) underflowFlag = false;
    instantMs = 0;
    driveGone = false;
    fetcher->begin(path);
    table->open(path);
}

void ZqCoreUnderflowMgr::awaitFirstUnderflow() {
    while (!stopRequested()) {
        if (isReadWaiting()) {
            checkInstantUnderflow();
            return;
        }
        // An underflow that was open when the last job ended is over.
        figures->end();
        underflowFlag = false;
        SxTime::msleep(ZqUnderflowDrive::POLL_MS);
    }
}

void ZqCoreUnderflowMgr::turn() {
    bool underflow = isReadWaiting();
    if (underflow) {
        resolved = false;
    } else if (!isMinimized()) {
        const bool isNoted = instantMs != 0;
        if (window->isSearchDue()) findAppWindow(0);
        // The search has met an underflow that lasts, which the next turn takes over.
        if (!isNoted && instantMs != 0) return;
    }
    // Asked before anything is fetched: a pass would find nothing to fetch then, and wait.
    if (underflow && hasDownloadPassed()) {
        underflow = false;
    } else if (underflow && source->canFetch()) {
        underflow = !onDemand();
        if (stopRequested()) return;
        // An underflow that was counted has more to be undone than a turn's own.
        if (!entered) resolved = !underflow;
    }
    if (!underflow) {
        leaveUnderflow();
    } else if (!isMinimized()) {
        underflow = enterUnderflow();
    }
    table->update(runtimeInfo);
    underflowFlag = underflow;
    if (!underflow) {
        fetcher->pause();
        return;
    }
    bool isServing = source->canFetch();
    SxWait::pass(UNDERFLOW_MS, [&] {
        if (stopRequested() || !drive->isReadHeld() || hasDownloadPassed()) return true;
        isServing = isServing && runPassBetween();
        return false;
    });
}

bool ZqCoreUnderflowMgr::enterUnderflow() {
    zqLogMsg("base", SxString(MAIN) + "Underflow for block " + getUnderflowResumeIdx() / ZqBlocks::SIZE +
                         " detected. ETA : " + getUnderflowETA());
    if (appParams.suspendDrive) drive->suspend();
    if (!drive->isReadHeld()) {
        drive->resume();
        return false;
    }
    window->countMinimized();
    entered = true;
    figures->begin(static_cast<int64>(getUnderflowResumeIdx()) - static_cast<int64>(nDownloaded()),
                   SxClock::get().steadyMs());
    instantMs = 0;
    // Where there is no window nothing is minimised, and the log doesn't say so.
    if (window->isInTheWay()) {
        // Before the window goes, since its owner brings it back where there is no underflow.
        underflowFlag = true;
        window->takeAway(stopFlag);
        zqLogMsg("base", SxString(MAIN) + "Minimized");
    }
    return true;
}

void ZqCoreUnderflowMgr::leaveUnderflow() {
    if (!resolved && (isMinimized() || entered)) {
        zqLogMsg("base", SxString(MAIN) + "Underflow resolved.");
        resolved = true;
    }
    // It is resumed as soon as no underflow is left, whichever way that went, and at the job's end.
    drive->resume();
    figures->end();
    entered = false;
    instantMs = 0;
    window->noteBack();
}

bool ZqCoreUnderflowMgr::hasDownloadPassed() const {
    return isMinimized() && appParams.suspendDrive && nDownloaded() > getUnderflowResumeIdx() &&
           drive->isSuspended();
}
