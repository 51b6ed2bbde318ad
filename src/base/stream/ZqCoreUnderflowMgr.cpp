#include "ZqCoreUnderflowMgr.h"

#include "SxClock.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageProgress.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqRangeSource.h"
#include "ZqSysEnv.h"
#include "ZqVolume.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";
constexpr const char* MAIN = "ZqCoreUnderflowMgr::main: ";
/// So long after a fetch the drive is looked at each millisecond: who has got a block mostly asks for the
/// next one at once, and 10 ms are a fifth of what a request takes on a fast link.
constexpr int64 BUSY_MS = 100;
/// An instant underflow may last so long at least, in seconds. One that lasts longer, and longer than the
/// underflow delay, is left to the turns, which take the window away.
constexpr int64 INSTANT_S = 5;
constexpr const char* INSTANT = "ZqCoreUnderflowMgr::checkInstantUnderflow: ";
constexpr int64 DELAY_PASSES = 10; ///< a second's
constexpr int64 DELAY_PASS_MS = 100;
constexpr int64 SEARCH_MS = 1000;  ///< from one look at the foreground to the next
constexpr int64 PROCESS_MS = 100;  ///< for the search for the application's process
constexpr int LOOKS_A_PROCESS = 5; ///< one asks after every process of the machine
constexpr int64 MINIMIZE_MS = 500; ///< for the desktop to minimise a window
/// A turn with an underflow: what can't be had now is tried again, and its line logged, so often.
constexpr int64 UNDERFLOW_MS = 1000;
/// About a second's: with a line for each try the log would be full of it.
constexpr int64 REFUSALS_A_LINE = 100;
constexpr int64 ROW_MS = 60000;
constexpr uint64 MIN_RATE = 4096;    ///< bytes a second, below which an ETA means nothing
constexpr double LEAST_SPEED = 1000; ///< bytes a second
constexpr int64 MAX_BATCH = 25;

double bytesPerSecond(double megabitPerSecond) {
    return megabitPerSecond * ZqBlocks::PER_MEGABIT;
}

void updateMean(int64* mean, int64 n, int64 value) {
    if (n > 0) *mean = ((n - 1) * *mean + value) / n;
}

bool isIconic(ZqDesktop::Handle window) {
    return window != 0 && ZqDesktop::get().isIconic(window);
}

/// Both run on the caller's thread: they only tell the desktop what is wanted. That doesn't wait for the
/// application, which may hang; a thread for each call would only outlive its window.
void minimizeWindow(ZqDesktop::Handle window) {
    if (window != 0) ZqDesktop::get().forceMinimise(window);
}

void maximizeWindow(ZqDesktop::Handle window) {
    if (window == 0) return;
    ZqDesktop::get().show(window);
    ZqDesktop::get().activate(window);
}

/// Takes the duration of one more underflow into the statistics, which count it already.
void addDuration(ZqRuntimeInfo* info, int64 ms) {
    info->maxUnderflowTime = std::max(info->maxUnderflowTime, ms);
    updateMean(&info->avgUnderflowTime, info->nUnderflows, ms);
}

/// A window as log lines name it.
SxString describe(const SxString& deed, ZqDesktop::Handle window) {
    const SxString title = window != 0 ? ZqDesktop::get().getTitle(window) : SxString();
    return deed + " [" + title + "] [" + window + "]";
}

/// The process that a command starts.
SxString processOf(const SxString& cmd) {
    SxString name;
    for (const SxString& part : ZqSysEnv::unifySlashes(cmd).tokenize('/'))
        name = part;
    return name;
}

} // namespace

ZqCoreUnderflowMgr::ZqCoreUnderflowMgr(const SxString& path_, const SxPtr<ZqCoreAppGuard>&,
                                       const SxPtr<ZqImageProgress>& progress, const ZqAppParams& params,
                                       Callback callback_, void* callbackData_)
    : path(path_),
      imageProgress(progress),
      appParams(params),
      callback(callback_),
      callbackData(callbackData_) {
    setThreadName("underflow mgr");
}

ZqCoreUnderflowMgr::~ZqCoreUnderflowMgr() {
    endFetches();
    if (!asyncCallback) return;
    if (asyncCallback->isRunning()) zqLogMsg("base", "ERROR : Callback not released.");
    asyncCallback->wait();
}

void ZqCoreUnderflowMgr::start(Priority priority) {
    // Here and not in main(), so that a stop right after the start isn't lost.
    if (!isRunning()) {
        stopFlag = false;
        if (const SxPtr<ZqRangeSource> source = getSource().ranges) source->cancel(false);
    }
    SxSystemThread::start(priority);
}

void ZqCoreUnderflowMgr::stop() {
    stopFlag = true;
    if (const SxPtr<ZqRangeSource> source = getSource().ranges) source->cancel(true);
}

void ZqCoreUnderflowMgr::restart() {
    minimizedFlag = underflowFlag = false;
    isRestarted = true;
    stop();
    wait();
    isRestarted = false;
    appWindow = 0;
    minimizedFlag = underflowFlag = takenAway = entered = false;
    start(6);
}

uint64 ZqCoreUnderflowMgr::getUnderflowETA() const {
    const uint64 nCurrent = nDownloaded(), wanted = resumeIdx;
    if (!imageProgress || wanted < nCurrent) return 0;
    const double speed = std::max(bytesPerSecond(imageProgress->getCurrentSpeed()), LEAST_SPEED);
    return (wanted - nCurrent) / static_cast<uint64>(speed);
}

uint64 ZqCoreUnderflowMgr::nDownloaded() const {
    return imageProgress ? imageProgress->getNCurrent() : 0;
}

ZqRuntimeInfo ZqCoreUnderflowMgr::getRuntimeInfo() const {
    const int64 nowMs = SxClock::get().steadyMs();
    const SxMutexBlock lock(&infoMutex);
    ZqRuntimeInfo info = runtimeInfo;
    if (openMs != NEVER) addDuration(&info, nowMs - openMs);
    return info;
}

bool ZqCoreUnderflowMgr::bearsSilence(const SxException& why, bool isTold) const {
    if (stopRequested() || !why.hasTag(ZqVolume::SILENT)) return false;
    if (!isTold) zqLogMsg("base", MAIN + why.toString(SxException::ShowMessage, ": "));
    SxTime::msleep(pollMs);
    return true;
}

bool ZqCoreUnderflowMgr::isDriveThere() const {
    return patiently([this] { return mountMgr.isMounted(path); });
}

bool ZqCoreUnderflowMgr::isReadHeld() const {
    return patiently([this] { return mountMgr.askUnderflow(path); });
}

bool ZqCoreUnderflowMgr::isReadWaiting() {
    const bool isWaiting = isReadHeld();
    if (isWaiting) lastWaitNs = SxClock::get().steadyNs();
    return isWaiting;
}

void ZqCoreUnderflowMgr::countUnderflow(int64 size, int64 sinceMs) {
    const SxMutexBlock lock(&infoMutex);
    if (openMs != NEVER) return;
    openMs = sinceMs;
    ++runtimeInfo.nUnderflows;
    runtimeInfo.maxUnderflowSize = std::max(runtimeInfo.maxUnderflowSize, size);
    updateMean(&runtimeInfo.avgUnderflowSize, runtimeInfo.nUnderflows, size);
}

void ZqCoreUnderflowMgr::timeUnderflow() {
    const int64 nowMs = SxClock::get().steadyMs();
    const SxMutexBlock lock(&infoMutex);
    if (openMs != NEVER) addDuration(&runtimeInfo, nowMs - openMs);
    openMs = NEVER;
}

bool ZqCoreUnderflowMgr::isCountOpen() const {
    const SxMutexBlock lock(&infoMutex);
    return openMs != NEVER;
}

// Windows.

void ZqCoreUnderflowMgr::minimizeApp() {
    try {
        const ZqDesktop::Handle window = appWindow;
        zqLogMsg("base", "ZqCoreUnderflowMgr::minimizeApp: " + describe("Minimizing", window));
        minimizeWindow(window);
        minimizedFlag = true;
        SxWait::pass(MINIMIZE_MS,
                     [&] { return window == 0 || stopRequested() || ZqDesktop::get().isIconic(window); });
    } catch (const SxException& e) {
        throw SxException(e, "App minimization failed", UNIT, __LINE__);
    }
}

void ZqCoreUnderflowMgr::maximizeApp() {
    try {
        const ZqDesktop::Handle window = appWindow;
        zqLogMsg("base", "ZqCoreUnderflowMgr::maximizeApp: " + describe("Restore", window));
        maximizeWindow(window);
        minimizedFlag = takenAway = false;
    } catch (const SxException& e) {
        throw SxException(e, "App minimization failed", UNIT, __LINE__);
    }
}

void ZqCoreUnderflowMgr::findAppWindow(int64 delaySeconds) {
    try {
        const auto isStopped = [this] {
            if (!stopRequested()) checkInstantUnderflow();
            return stopRequested();
        };
        const auto isDelayOver = [&] {
            // The delay ends with the drive: what was handed to this one isn't on the next, though its
            // stretches count as delivered.
            driveGone = driveGone || !isDriveThere();
            // An underflow that lasts is left to the turns: they fetch, and here nothing is fetched until the
            // delay is over.
            return driveGone || isStopped() || instantMs != 0;
        };
        bool isOver = false;
        for (int64 second = 0; second < delaySeconds && !isOver; ++second)
            isOver = SxWait::passes(DELAY_PASSES, DELAY_PASS_MS, isDelayOver, [](int64) {});
        if (stopRequested() || driveGone) return;
        appWindow = 0;
        if (!windowSearch) return;
        checkInstantUnderflow();
        // What the player looks at wins over any search.
        ZqDesktop& desktop = ZqDesktop::get();
        appWindow = desktop.getForeground();
        if (appWindow != 0) return;
        if (!appParams.window.isEmpty()) {
            appWindow = desktop.findByTitle(appParams.window);
            return;
        }
        const SxString name = appParams.name.isEmpty() ? processOf(appParams.cmd) : appParams.name;
        int pid = -1, nLooks = 0;
        SxWait::pass(PROCESS_MS, [&] {
            if (isStopped()) return true;
            if (nLooks++ % LOOKS_A_PROCESS == 0) pid = ZqSysEnv::getProcessID(name, 0);
            return pid != -1;
        });
        if (pid == -1) return;
        const SxList<ZqDesktop::Handle> windows = desktop.getWindowsOfProcess(pid);
        if (!windows.isEmpty()) appWindow = *windows.begin();
    } catch (const SxException& e) {
        throw SxException(e, "Search for target window handle failed", UNIT, __LINE__);
    }
}

void ZqCoreUnderflowMgr::checkInstantUnderflow() {
    if (instantMs != 0) return;
    bool unresolved = isReadHeld();
    if (unresolved) unresolved = !onDemand();
    if (stopRequested()) return;
    underflowFlag = unresolved;
    if (!unresolved) return;

    const int64 t0 = SxClock::get().steadyMs();
    const uint64 rate = imageProgress ? static_cast<uint64>(bytesPerSecond(imageProgress->getAvgSpeed())) : 0;
    const uint64 nCurrent = nDownloaded();
    uint64 size = 0, eta = 0;
    if (resumeIdx > nCurrent && rate > MIN_RATE) {
        size = resumeIdx - nCurrent;
        eta = (size + rate - 1) / rate;
    }
    zqLogMsg("base", SxString(INSTANT) + "Critical instant underflow. ETA : " + eta);
    countUnderflow(static_cast<int64>(size), t0);
    for (int64 nRefused = 0; !stopRequested() && isReadWaiting();) {
        if (windowSearch) minimizeGhost();
        // Where there is nothing to fetch from it isn't tried: the log would be full of that.
        if (canFetch() && onDemand()) continue;
        if (windowSearch &&
            SxClock::get().steadyMs() - t0 > std::max(appParams.underflowDelay, INSTANT_S) * 1000) {
            // No desktop here is sure to put a ghost in the place of an application that hangs. So it is left
            // to the turns, which take the window itself away.
            instantMs = t0;
            return;
        }
        if (nRefused++ % REFUSALS_A_LINE == 0) {
            zqLogMsg("base", SxString(INSTANT) + "Cannot resolve by on-demand request");
        }
        SxTime::msleep(pollMs);
    }
    timeUnderflow();
    underflowFlag = false;
    if (!stopRequested()) zqLogMsg("base", SxString(INSTANT) + " Underflow resolved");
}

void ZqCoreUnderflowMgr::minimizeGhost() {
    ZqDesktop& desktop = ZqDesktop::get();
    const ZqDesktop::Handle ghost = desktop.findByClass(ZqDesktop::GHOST);
    if (ghost == 0 || desktop.isIconic(ghost)) return;
    zqLogMsg("base", SxString(INSTANT) + "Minimizing Ghost Window [" + ghost + "] named [" +
                         desktop.getTitle(ghost) + "]");
    desktop.postMinimise(ghost);
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
        resumeDrive();
    } catch (const SxException& e) {
        zqLogMsg("base", MAIN + e.toString(3, "\n"));
    }
    // An underflow ends with a stop, and with the drive. After a failure, or a restart, the read may still be
    // held.
    if (!hasFailed) {
        entered = false;
        underflowFlag = false;
        if (!isRestarted) timeUnderflow();
    }
    endFetches();
    report();
    refFile = SxFileIO();
    statFile = SxFileIO();
}

void ZqCoreUnderflowMgr::watchUnderflows() {
    Watch watch;
    setUp();
    watch.windowMs = SxClock::get().steadyMs();
    if (entered) {
        watch.resolved = false;
    } else {
        awaitFirstUnderflow();
        if (!stopRequested()) findAppWindow(appParams.underflowDelay);
    }
    while (!stopRequested() && !driveGone && isDriveThere())
        turn(&watch);
}

void ZqCoreUnderflowMgr::setUp() {
    // A window that was taken away must be known until it is back, and an underflow that is open until it is
    // over.
    if (!entered && !takenAway) {
        appWindow = 0;
        minimizedFlag = false;
    }
    if (!entered && !isCountOpen()) underflowFlag = false;
    instantMs = 0;
    driveGone = false;
    deliveredMs.removeAll();
    wants.removeAll();
    edgeWaits.clear();
    batchTimes.resize(MAX_BATCH, true);
    const SxString reference = path + "/imgRef.zqf";
    if (SxFSAction::exists(reference)) {
        try {
            refFile.open(reference, "rb", 0600);
        } catch (const SxException&) {
            zqLogMsg("base", MAIN + ("Cannot open " + reference) + ". Validation cancelled");
        }
    }
    openStatistics();
}

void ZqCoreUnderflowMgr::openStatistics() {
    const SxString file = path + "/onDemand.dat";
    // Made afresh by each process, in the place of a link or a second name that stands there. The job goes on
    // where it can't be written.
    try {
        if (statStart != NEVER) {
            statFile.open(file, "ab", 0600);
            return;
        }
        statFile.create(file, 0600);
        statFile.write(SxString::sprintf("#%10s %20s %20s %20s %20s\n", "minutes", "nOnDemandFetches",
                                         "nOnDemandBytes", "nOnDemandRate", "nOnDemandQueue"));
        statStart = SxClock::get().steadyMs();
        lastStatRow = NEVER;
    } catch (const SxException&) {
        statFile = SxFileIO();
        zqLogMsg("base", MAIN + ("Cannot create " + file) + ".");
    }
}

void ZqCoreUnderflowMgr::awaitFirstUnderflow() {
    while (!stopRequested()) {
        if (isReadWaiting()) {
            checkInstantUnderflow();
            return;
        }
        // An underflow that was open when the last job ended is over.
        timeUnderflow();
        underflowFlag = false;
        SxTime::msleep(pollMs);
    }
}

void ZqCoreUnderflowMgr::turn(Watch* watch) {
    bool underflow = isReadWaiting();
    if (underflow) {
        watch->resolved = false;
    } else if (!isMinimized()) {
        const bool isNoted = instantMs != 0;
        lookAtWindow(watch);
        // The search has met an underflow that lasts, which the next turn takes over.
        if (!isNoted && instantMs != 0) return;
    }
    // Asked before anything is fetched: a pass would find nothing to fetch then, and wait.
    if (underflow && hasDownloadPassed()) {
        underflow = false;
    } else if (underflow && canFetch()) {
        underflow = !onDemand();
        if (stopRequested()) return;
        // An underflow that was counted has more to be undone than a turn's own.
        if (!entered) watch->resolved = !underflow;
    }
    if (!underflow) {
        leaveUnderflow(watch);
    } else if (!isMinimized()) {
        underflow = enterUnderflow();
    }
    if (lastStatRow == NEVER || SxClock::get().steadyMs() - lastStatRow > ROW_MS) writeRow(watch);
    underflowFlag = underflow;
    if (!underflow) {
        pause();
        return;
    }
    // Other reads may be served meanwhile.
    bool isServing = canFetch();
    SxWait::pass(UNDERFLOW_MS, [&] {
        if (stopRequested() || !isReadHeld() || hasDownloadPassed()) return true;
        isServing = isServing && runPassBetween();
        return false;
    });
}

void ZqCoreUnderflowMgr::lookAtWindow(Watch* watch) {
    // The player may have minimised it.
    if (isIconic(appWindow)) {
        minimizedFlag = true;
        return;
    }
    const int64 now = SxClock::get().steadyMs();
    if (now - watch->windowMs <= SEARCH_MS) return;
    watch->windowMs = now;
    if (!windowSearch) return;
    // While nothing has the foreground, a window that was found stays the application's.
    const ZqDesktop::Handle foreground = ZqDesktop::get().getForeground();
    if (foreground != 0 && foreground != appWindow) findAppWindow(0);
}

bool ZqCoreUnderflowMgr::enterUnderflow() {
    zqLogMsg("base", SxString(MAIN) + "Underflow for block " + (resumeIdx >> 12) +
                         " detected. ETA : " + getUnderflowETA());
    if (appParams.suspendDrive) {
        // A call whose answer didn't come may have suspended it all the same.
        driveSuspended = true;
        patiently([this] { mountMgr.suspend(path); });
    }
    if (!isReadHeld()) {
        resumeDrive();
        return false;
    }
    minimizedFlag = true;
    entered = true;
    countUnderflow(static_cast<int64>(resumeIdx) - static_cast<int64>(nDownloaded()),
                   SxClock::get().steadyMs());
    instantMs = 0;
    // Where there is no window nothing is minimised, and the log doesn't say so.
    if (appWindow != 0 && !isIconic(appWindow)) {
        underflowFlag = true;
        takenAway = true;
        ++nTakenAway;
        minimizeApp();
        zqLogMsg("base", SxString(MAIN) + "Minimized");
    }
    return true;
}

void ZqCoreUnderflowMgr::leaveUnderflow(Watch* watch) {
    const bool wasMinimized = isMinimized();
    if (!watch->resolved && (wasMinimized || entered)) {
        zqLogMsg("base", SxString(MAIN) + "Underflow resolved.");
        watch->resolved = true;
    }
    resumeDrive();
    timeUnderflow();
    entered = false;
    instantMs = 0;
    if (wasMinimized && !isIconic(appWindow)) minimizedFlag = takenAway = false;
}

void ZqCoreUnderflowMgr::pause() const {
    SxTime::msleep(fetchedMs != 0 && SxClock::get().steadyMs() - fetchedMs < BUSY_MS ? 1 : pollMs);
}

bool ZqCoreUnderflowMgr::hasDownloadPassed() const {
    return isMinimized() && appParams.suspendDrive && nDownloaded() > resumeIdx &&
           patiently([this] { return mountMgr.isSuspended(path); });
}

void ZqCoreUnderflowMgr::resumeDrive() {
    if (!driveSuspended) return;
    patiently([this] { mountMgr.resume(path); });
    driveSuspended = false;
}

void ZqCoreUnderflowMgr::writeRow(Watch* watch) {
    const int64 nFetches = runtimeInfo.nOnDemandFetches;
    lastStatRow = SxClock::get().steadyMs();
    using Number = unsigned long long;
    const SxString row = SxString::sprintf(
        " %10llu %20llu %20llu %20llu %20llu\n", static_cast<Number>((lastStatRow - statStart) / ROW_MS),
        static_cast<Number>(nFetches), static_cast<Number>(runtimeInfo.sumOnDemandSize),
        static_cast<Number>((nFetches - watch->nRowFetches + 59) / 60),
        static_cast<Number>(runtimeInfo.avgOnDemandQueue));
    watch->nRowFetches = nFetches;
    if (!statFile.isOpen()) return;
    try {
        statFile.write(row);
    } catch (const SxException& e) {
        // A full disk must not keep the job from watching.
        zqLogMsg("base", MAIN + e.toString(SxException::ShowMessage, ": "));
        statFile = SxFileIO();
    }
}

void ZqCoreUnderflowMgr::report() const {
    for (int64 i = 0; i < batchTimes.getSize(); ++i) {
        const ZqAvg& times = batchTimes(i);
        if (times.getN() == 0) continue;
        zqLogMsg("base", SxString(i + 1) + " range requests (N = " + times.getN() + " ) took on avg " +
                             times.getAverage() + " ms (MAX: " + times.getMax() + " ms)");
    }
    zqLogMsg("base", SxString("Total ") + requestIndices.getN() + " requests.");
    const double size = appParams.sizeZqf > 0 ? static_cast<double>(appParams.sizeZqf) : 1;
    zqLogMsg("base", SxString("Avg request index: ") + requestIndices.getAverage() / size);
    zqLogMsg("base", SxString("Min request index: ") + requestIndices.getMin() / size);
    zqLogMsg("base", SxString("Max request index: ") + requestIndices.getMax() / size);
}
