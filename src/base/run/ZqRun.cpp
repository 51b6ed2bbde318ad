#include "ZqRun.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessGroup.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqCoreAppGuard.h"
#include "ZqImageFeed.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqSleepDelay.h"
#include "ZqStreamRecord.h"
#include "ZqSysEnv.h"
#include "ZqVolume.h"

#include <algorithm>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqRun";
constexpr int64 LOOK_MS = SxWait::LOOK_MS;
/// From one try to note the application to the next.
constexpr int64 NOTE_NS = 500'000'000;
/// From one try to suspend an application, or to let it go on, that failed to the next. A search for its
/// process in vain holds up the run for a second.
constexpr int64 SUSPEND_NS = 5'000'000'000;
/// From one look for the series to the next.
constexpr int64 SAMPLE_MS = 20;
/// The same from the moment on at which no read has to wait any longer, and between two looks at the
/// application then. The application's end, and an unmount, are still noticed within a quarter of a second.
constexpr int64 CALM_SAMPLE_MS = 200;
constexpr int64 CALM_LOOK_MS = 50;

/// Raises where the application of a former run lives, whose drive has gone, since the service was killed,
/// too: a second one would write the same saves. It isn't ended here, since it may still have something to
/// save elsewhere.
void refuseBeside(const SxString& image, const SxProcessGroup& group) {
    const SxList<SxProcessInfo> members = group.getRunning();
    if (members.isEmpty()) return;
    // Its oldest process, as where a command hands over. By its number a child of it could come first.
    const auto oldest =
        std::min_element(members.begin(), members.end(), [](const SxProcessInfo& a, const SxProcessInfo& b) {
            return std::pair(a.startTime, a.id == a.group ? 0 : a.id) <
                   std::pair(b.startTime, b.id == b.group ? 0 : b.id);
        });
    throw SxException("The application of a former run of '" + image + "' still runs (process " +
                          SxString(oldest->id) +
                          "), and its drive has gone with the drive's service; end it first",
                      UNIT, __LINE__);
}

} // namespace

/// Takes the samples of the run's series until it is ended. It has a thread of its own and asks the feed,
/// never the drive service: a call of the service could hold up the run's end. The drive's cursor follows the
/// file within 10 ms, so the line of the file's size is that of the cursor, too.
class ZqRun::Sampler : public SxSystemThread {
public:
    explicit Sampler(ZqRun* run_) : run(run_) { setThreadName("samples"); }
    void end() {
        isEnding = true;
        wait();
    }

protected:
    void main() override {
        while (!isEnding) {
            run->takeSample();
            SxTime::msleep(run->feed->isSettled() ? CALM_SAMPLE_MS : SAMPLE_MS);
        }
    }

private:
    ZqRun* const run;
    std::atomic<bool> isEnding{false};
};

/// The drive may hold reads until it is gone, so the delay ends with the run, whatever becomes of that.
struct ZqRun::EndOfDelay {
    ZqSleepDelay* const delay;
    ~EndOfDelay() {
        if (delay) delay->end();
    }
};

ZqRun::ZqRun(const Settings& settings_)
    : settings(settings_),
      image(settings_.feed.image),
      feed(std::make_unique<ZqImageFeed>(settings_.feed)) {
    setThreadName("run");
}

ZqRun::~ZqRun() = default;

ZqFeedStatus ZqRun::getStatus() const {
    ZqFeedStatus status;
    if (phase == Opening) {
        status.waiting = feed->getLinkStatus();
        return status;
    }
    status = feed->getStatus();
    if (status.waiting.isEmpty() && searching) {
        status.waiting = "waiting for the process '" + feed->getApp().name.makeVisible() + "'";
    }
    const SxMutexBlock block(&mutex);
    if (status.waiting.isEmpty()) status.waiting = unnoted;
    return status;
}

ZqStartForecast ZqRun::forecast(double speedMbit) const {
    return ZqStartForecast(feed->getApp(), speedMbit, feed->getStatus().nCurrent);
}

int64 ZqRun::elapsedMs() const {
    return (SxClock::get().steadyNs() - beginNs) / 1'000'000;
}

void ZqRun::main() {
    beginNs = SxClock::get().steadyNs();
    beginMs = ZqSysEnv::getSysTime();
    oldFrameMs = frameFileMs();
    if (!settings.isDriveOnly && !settings.feed.isDownloadOnly) {
        sampler = std::make_unique<Sampler>(this);
        sampler->start();
    }
    if (!settings.feed.isDownloadOnly) {
        sleepDelay = std::make_unique<ZqSleepDelay>([this] { return isCalm(); });
        sleepDelay->start();
    }
    const EndOfDelay endOfDelay{sleepDelay.get()};
    try {
        run();
    } catch (const SxException& e) {
        result.info.startErr = !result.wasStarted;
        result.info.endErr = true;
        end();
        // Which of the steps noticed it doesn't matter.
        if (isStopping() && e.hasTag(SxException::STOPPED)) throw stopped();
        throw;
    }
    end();
    if (!result.driveFailure.isEmpty()) throw driveFailed();
}

void ZqRun::run() {
    const ZqStopTest stop = [this] { return isStopping(); };
    const SxFileInfo traces(ZqImageFolder::prefix(image) + SxString(ZqImageFiles::TRACES).left("/"));
    if (hasOwnTrace() && traces.isLink()) {
        throw SxException("The traces of '" + image + "' are a link, and a run writes only into its folder",
                          UNIT, __LINE__);
    }
    feed->open(stop);
    const bool wasComplete = feed->isComplete();
    const uint64 nPresent = feed->fileSize();
    feed->start();
    result.info.dataAtStart = static_cast<int64>(nPresent);
    phase = Loading;
    feed->fetchRecords(stop);
    if (settings.feed.isDownloadOnly) {
        complete();
        return;
    }
    if (adopt()) return;
    // An earlier run may have found the image to be wrong, or have ended before it knew.
    if (wasComplete) awaitCheck();
    mount();
    if (settings.isDriveOnly) {
        feedDrive();
        return;
    }
    phase = Preparing;
    prepare();
    startApplication();
    phase = Running;
    follow();
    if (settings.keepsMounted || settings.completes) complete();
}

bool ZqRun::adopt() {
    ZqStreamRecord record;
    record.read(image);
    const SxProcessGroup group = SxProcessGroup::fromText(record.application);
    ZqDiskStatus disk;
    bool isThere = false;
    patiently([&] { isThere = ZqVolume::findDisk(image, &disk); });
    if (!isThere) {
        if (!settings.isDriveOnly) refuseBeside(image, group);
        return false;
    }
    if (ZqVolume::isReplaced(image)) {
        throw SxException("The image that is mounted as '" + image +
                              "' was removed, or replaced by another one; unmount it first",
                          UNIT, __LINE__);
    }
    if (!disk.ready || (!settings.isDriveOnly && !group.isAlive())) {
        // Its run was killed. Nobody else can have it: this process holds the image.
        zqLogMsg("base", "ZqRun: the drive of '" + image + "' no longer has an application");
        patiently([&] { takeDriveAway(); });
        if (!settings.isDriveOnly) refuseBeside(image, group);
        return false;
    }
    if (ZqVolume::isElsewhere(disk)) {
        throw SxException("The drive of '" + image + "' is mounted by a drive service (process " +
                              disk.servicePid +
                              ") in another mount namespace, where this run can't see it: run it there, or "
                              "unmount it first",
                          UNIT, __LINE__);
    }
    mounted = true;
    feed->driveStarts();
    result.info.nStarts = record.nStarts;
    patiently([&] {
        feed->alignCursor();
        const ZqMountMgr mounts;
        if (mounts.isSuspended(image)) mounts.resume(image);
    });
    // The run that was killed can have suspended both.
    if (group.isSuspended()) group.resume();
    if (settings.isDriveOnly) {
        feedDrive();
        return true;
    }
    phase = Adopted;
    guard = SxPtr<ZqCoreAppGuard>::create(image, feed->getApp(), group);
    feed->applicationStarts();
    guard->start();
    result.wasStarted = true;
    follow();
    if (settings.keepsMounted || settings.completes) complete();
    return true;
}

void ZqRun::awaitCheck() {
    while (!feed->isVerified()) {
        if (isStopping()) throw stopped();
        feed->requireAlive();
        SxTime::msleep(LOOK_MS);
    }
}

void ZqRun::prepare() {
    for (;;) {
        const ZqFeedStatus status = feed->getStatus();
        if (settings.startsAtOnce || status.nCurrent >= status.nNeeded) {
            result.info.preloadSize = static_cast<int64>(std::min(status.nCurrent, status.nNeeded));
            return;
        }
        if (isStopping()) throw stopped();
        feed->requireAlive();
        watchDrive();
        SxTime::msleep(LOOK_MS);
    }
}

void ZqRun::startApplication() {
    const ZqAppParams& app = feed->getApp();
    const ZqDiskStatus disk = requireDisk();
    SxWinProcParams process;
    process.path = app.cmd;
    process.args = SxString::join(app.args, " ");
    guard = SxPtr<ZqCoreAppGuard>::create(image, app, disk.mountPath, process);
    feed->applicationStarts();
    guard->start();
    result.startMs = elapsedMs();
    result.wasStarted = true;
    noteApplication();
}

void ZqRun::noteApplication() {
    if (guard->isAdopted()) return;
    const SxString group = guard->getGroup().toText();
    if (startNoted && group == notedGroup) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (noteNs != 0 && nowNs - noteNs < NOTE_NS) return;
    SxString line;
    try {
        ZqStreamRecord::update(image, [&](ZqStreamRecord* record) {
            if (!startNoted) ++record->nStarts;
            record->application = group;
            result.info.nStarts = record->nStarts;
        });
        startNoted = true;
        notedGroup = group;
    } catch (const SxException& e) {
        noteNs = nowNs;
        line = "the application can't be noted yet: " + e.toString(SxException::ShowMessage, ": ");
    }
    tellWaiting(line);
}

void ZqRun::noteEnd() {
    const SxString group = guard->getGroup().toText();
    // A folder that was removed would come back.
    if (group.isEmpty() || !(startNoted || guard->isAdopted()) || !SxFSAction::exists(image)) return;
    try {
        ZqStreamRecord::update(image, [&](ZqStreamRecord* record) {
            if (record->application == group) record->application = SxString();
        });
    } catch (const SxException& e) {
        zqLogMsg("base", SxString("ZqRun: the application's end can't be noted: ") + e.what());
    }
}

void ZqRun::follow() {
    // A run that was killed may have left its trace running.
    if (settings.traceMs > 0 && (!result.traceFolder.isEmpty() || guard->isAdopted()))
        traceEndNs = SxClock::get().steadyNs() + settings.traceMs * 1'000'000;
    while (guard->isRunning()) {
        if (isStopping()) {
            guard->stop();
            break;
        }
        // What has ended the download ends the run after the application, which plays from what is there.
        watchDrive();
        watchReads();
        searching = guard->isSearching();
        noteApplication();
        lookForFrame();
        limitTrace();
        suspendProcess();
        feed->restoreWindow();
        const bool awaitsFrame = !settings.firstFrameFile.isEmpty() && result.firstFrameMs < 0;
        SxTime::msleep(feed->isSettled() && !awaitsFrame ? CALM_LOOK_MS : LOOK_MS);
    }
    guard->wait();
    searching = false;
    if (guard->isMissed()) result.missed = feed->getApp().name;
    lookForFrame();
    // Of a command that couldn't be started there is nothing to follow.
    result.wasStarted = guard->getGroup().isValid();
    if (!result.wasStarted) result.startMs = -1;
    if (!isStopping()) guard->requireSuccess();
    result.isExitKnown = !guard->isAdopted();
    if (isStopping()) throw stopped();
    // Where the drive has gone, what the application has read since, and its exit code, mean nothing.
    requireDisk();
    feed->requireAlive();
}

void ZqRun::suspendProcess() {
    const bool isSleepy = sleepDelay->isSleepComing();
    const bool isWanted = isSleepy || (feed->getApp().suspendProc && feed->getStatus().isUnderflow);
    // A launcher goes on, also one whose application hasn't come yet: nobody knows yet whom to suspend.
    const bool isThere = guard->hasApplication();
    const int64 nowNs = SxClock::get().steadyNs();
    const bool isDue = suspendNs == 0 || nowNs - suspendNs >= SUSPEND_NS;
    if (isThere && isDue && isWanted != guard->isSuspended()) {
        isWanted ? guard->suspend() : guard->resume();
        suspendNs = isWanted == guard->isSuspended() ? 0 : SxClock::get().steadyNs();
    }
    isHalted = isSleepy && (!isThere || guard->isSuspended());
}

/// Whether the machine can sleep: the application is suspended, and nobody waits for blocks of the drive.
bool ZqRun::isCalm() const {
    const Phase now = phase;
    if ((now == Running || now == Adopted) && !isHalted) return false;
    ZqDiskStatus disk;
    try {
        return !ZqVolume::findDisk(image, &disk) || disk.nHeld == 0;
    } catch (const SxException&) {
        return false; // a service that doesn't answer may hold reads, and is asked again
    }
}

void ZqRun::lookForFrame() {
    if (settings.firstFrameFile.isEmpty() || result.firstFrameMs >= 0) return;
    // A file that was there before the run says nothing.
    if (frameFileMs() != oldFrameMs) result.firstFrameMs = elapsedMs();
}

/// When the file of the first frame was written last; -1 where there is none.
int64 ZqRun::frameFileMs() const {
    SxStat info;
    if (settings.firstFrameFile.isEmpty()) return -1;
    const int error = SxOs::get().stat(SxOs::hostPath(settings.firstFrameFile), &info);
    return error == 0 ? info.modifiedMs : -1;
}

void ZqRun::complete() {
    phase = Completing;
    awaitCheck();
}

void ZqRun::end() {
    if (sampler) {
        sampler->end();
        takeSample();
    }
    phase = Ending;
    fillResult();
    feed->stop();
    result.nMissing = feed->countMissing();
    result.isComplete = feed->isVerified() && result.nMissing == 0;
    try {
        if (guard) {
            guard->stop();
            guard->wait();
            result.info.exitCode = guard->getExitCode();
            result.info.runTime = static_cast<int64>(guard->runTime) / 1000;
            noteEnd();
        }
        const bool keep = settings.keepsMounted && result.wasStarted && feed->isVerified();
        if (mounted) patiently([&] { endDrive(keep); });
    } catch (const SxException& e) {
        writeInfo();
        throw SxException(e, "The run of '" + image + "' could not be ended cleanly", UNIT, __LINE__);
    }
    writeInfo();
}

/// What came of the run stays as it is where its record can't be written.
void ZqRun::writeInfo() {
    if (!result.driveFailure.isEmpty()) result.info.endErr = true;
    // A folder that was removed would come back.
    if (!result.wasStarted || !SxFSAction::exists(image)) return;
    try {
        result.info.write(image);
    } catch (const SxException& e) {
        result.unwritten = e.toString(SxException::ShowMessage, ": ");
        zqLogMsg("base", "ZqRun: " + result.unwritten);
    }
}

void ZqRun::takeSample() {
    // Until then the feed has nothing that could be asked.
    if (phase == Opening) return;
    const ZqFeedStatus status = feed->getStatus();
    // The feed has counted nothing at first, whatever is there.
    const uint64 nThere = std::max(status.nCurrent, static_cast<uint64>(result.info.dataAtStart));
    result.series.add(
        {elapsedMs(), nThere, status.link.nBytes, status.link.nOnDemandBytes, status.isUnderflow});
}

void ZqRun::fillResult() {
    result.lengthMs = elapsedMs();
    const ZqFeedStatus status = feed->getStatus();
    const ZqRuntimeInfo own = result.info;
    ZqRuntimeInfo& info = result.info;
    info = feed->getRuntimeInfo();
    info.preloadSize = own.preloadSize;
    info.dataAtStart = own.dataAtStart;
    info.nStarts = own.nStarts;
    info.startErr = own.startErr;
    info.endErr = own.endErr;
    info.path = image;
    info.guid = feed->getApp().guid;
    info.time0 = beginMs;
    info.timeToStart = std::max<int64>(result.startMs, 0) / 1000;
    info.timeToReady = std::max<int64>(result.firstFrameMs, 0) / 1000;
    info.dataAtEnd = static_cast<int64>(status.nCurrent);
    info.imageSize = static_cast<int64>(status.nTotal);
    info.downloadFromZero = info.dataAtStart == 0;
    info.downloadComplete = status.nTotal > 0 && status.nCurrent >= status.nTotal;
    const ZqImageFeed::Speeds speeds = feed->getSpeeds();
    info.avgSpeed = speeds.mean;
    info.maxSpeed = speeds.greatest;
    info.sigmaSpeed = speeds.sigma;
    info.reqSpeed = static_cast<double>(feed->getApp().getBpS(static_cast<uint64>(info.preloadSize))) /
                    ZqBlocks::PER_MEGABIT;
    info.prefetchSizeMB = info.preloadSize / static_cast<int64>(ZqBlocks::MEGABYTE);
    if (const int64 ns = feed->getLastWaitNs(); ns > 0) result.lastWaitMs = (ns - beginNs) / 1'000'000;
    result.link = status.link;
    result.image = status.image;
}

SxSymbol ZqRun::toJson() const {
    if (settings.feed.isDownloadOnly) {
        SxSymbol root;
        root.setType(SxParserAst::Object);
        root.append("complete", result.isComplete);
        root.append("sizeZqf", result.info.imageSize);
        appendTransfer(&root);
        return root;
    }
    SxSymbol root = result.info.toJson();
    if (!result.isExitKnown) root.getElem("exitCode").setType(SxParserAst::Null);
    root.append("startMs", result.startMs);
    if (result.firstFrameMs >= 0) root.append("firstFrameMs", result.firstFrameMs);
    if (result.lastWaitMs >= 0) root.append("lastWaitMs", result.lastWaitMs);
    root.append("traceFolder", result.traceFolder);
    root.append("driveFailure", result.driveFailure);
    root.append("bytesOnDemand", result.link.nOnDemandBytes);
    appendTransfer(&root);
    return root;
}

void ZqRun::appendTransfer(SxSymbol* root) const {
    root->append("bytesReceived", result.link.nBytes);
    root->append("bytesTwice", result.image.nTwice);
    root->append("requests", result.link.nRequests);
    root->append("retries", result.link.nRetries);
    root->append("packed", result.image.isPacked);
    root->append("missingBytes", result.nMissing);
}
