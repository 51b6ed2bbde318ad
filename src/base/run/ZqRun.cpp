#include "ZqRun.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqAppSuspension.h"
#include "ZqApplicationNote.h"
#include "ZqCoreAppGuard.h"
#include "ZqDriveMeans.h"
#include "ZqFirstFrame.h"
#include "ZqFirstWindow.h"
#include "ZqGameOutput.h"
#include "ZqHeldReads.h"
#include "ZqImageFeed.h"
#include "ZqImageLock.h"
#include "ZqNetLink.h"
#include "ZqOutputKeeper.h"
#include "ZqRunDrive.h"
#include "ZqRunNotes.h"
#include "ZqRunRecording.h"
#include "ZqRunSampler.h"
#include "ZqRunStatistics.h"
#include "ZqRunWait.h"
#include "ZqSleepDelay.h"
#include "ZqStartCheck.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqRun";
constexpr int64 LOOK_MS = SxWait::LOOK_MS;
/// From one look at the application to the next, from the moment on at which no read has to wait any longer.
/// The application's end, and an unmount, are still noticed within a quarter of a second.
constexpr int64 CALM_LOOK_MS = 50;

/// The drive may hold reads until it is gone, so the delay ends with the run, whatever becomes of that.
struct EndOfDelay {
    ZqSleepDelay* const delay;
    ~EndOfDelay() {
        if (delay) delay->end();
    }
};

} // namespace

const char* const ZqRun::UNTRUSTED = ZqNetLink::UNTRUSTED;

ZqRun::ZqRun(const Settings& settings_)
    : settings(settings_),
      image(settings_.feed.image),
      waits(std::make_unique<ZqRunWait>()),
      feed(std::make_unique<ZqImageFeed>(settings_.feed)),
      held(std::make_unique<ZqHeldReads>()),
      drive(std::make_unique<ZqRunDrive>(settings, feed.get(), waits.get(), held.get())),
      recording(std::make_unique<ZqRunRecording>(settings)),
      note(std::make_unique<ZqApplicationNote>(image, waits.get())),
      suspension(std::make_unique<ZqAppSuspension>()),
      notes(std::make_unique<ZqRunNotes>(image)),
      output(std::make_shared<ZqGameOutput>(image, settings.readsOutput)),
      statistics(std::make_unique<ZqRunStatistics>(settings, feed.get(), waits.get(), &result)) {
    setThreadName("run");
}

ZqRun::~ZqRun() = default;

void ZqRun::stop() {
    waits->stop();
}

void ZqRun::killApplication() {
    if (ZqCoreAppGuard* known = startedGuard) known->kill();
}

bool ZqRun::hasLostWrites() const {
    return drive->hasLostWrites();
}

ZqFeedStatus ZqRun::getStatus() const {
    ZqFeedStatus status;
    if (phase == Opening) {
        status.waiting = feed->getLinkStatus();
        status.outage = feed->getOutage();
        return status;
    }
    status = feed->getStatus();
    status.holdsReads = held->isOpen();
    if (status.waiting.isEmpty() && searching) {
        status.waiting = "waiting for the process '" + launched->name.makeVisible() + "'";
    }
    if (status.waiting.isEmpty()) status.waiting = waits->getLine();
    return status;
}

ZqStartForecast ZqRun::forecast(double rate) const {
    return feed->forecast(rate);
}

std::optional<double> ZqRun::estimateStart(double rate) const {
    const Phase now = phase;
    if (!isPlay() || now == Opening || now >= Running) return {};
    return feed->estimateStart(rate, settings.startsAtOnce);
}

std::string ZqRun::readOutput() {
    return output->readNext();
}

double ZqRun::estimateRest(double rate) const {
    return phase == Opening ? 0 : feed->estimateRest(rate);
}

std::optional<ZqTracePolicy::Decision> ZqRun::getTraceDecision() const {
    if (phase < Mounting) return {};
    return traceDecision;
}

int64 ZqRun::elapsedMs() const {
    return (SxClock::get().steadyNs() - beginNs) / 1'000'000;
}

void ZqRun::main() {
    beginNs = SxClock::get().steadyNs();
    beginMs = ZqSysEnv::getSysTime();
    firstFrame = std::make_unique<ZqFirstFrame>(settings.firstFrameFile, beginNs);
    firstWindow = std::make_unique<ZqFirstWindow>(beginNs);
    if (!settings.feed.isDownloadOnly) {
        sleepDelay = std::make_unique<ZqSleepDelay>([this] { return isCalm(); });
        sleepDelay->start();
    }
    const EndOfDelay endOfDelay{sleepDelay.get()};
    try {
        run();
    } catch (const SxException& e) {
        result.wasStopped = waits->isStopping() && e.hasTag(SxException::STOPPED);
        // A player who has enough is no failure.
        result.info.startErr = !result.wasStarted && !result.wasStopped;
        result.info.endErr = !result.wasStopped;
        // An image in use is the other one's run.
        if (isPlay() && !result.wasStopped && !e.hasTag(ZqImageLock::HELD)) statistics->openWithoutFeed();
        end();
        // Which of the steps noticed it doesn't matter.
        if (result.wasStopped) throw ZqRunWait::stopped();
        throw;
    }
    end();
    if (result.driveFailure.isEmpty()) return;
    const SxException cause(result.driveFailure, UNIT, __LINE__);
    throw SxException(cause, "A read or write of the drive of '" + image + "' has failed", UNIT, __LINE__)
        .tagged(DRIVE_FAILED);
}

void ZqRun::run() {
    if (isPlay()) statistics->check();
    recording->requireFolder();
    feed->open(waits->test());
    if (isPlay()) statistics->open();
    if (!settings.feed.isDownloadOnly) {
        note->read();
        // One that lives has its drive, and is gone on with whatever another start would need.
        if (!note->getFormer().isAlive()) requireStart();
    }
    const bool wasComplete = feed->isComplete();
    const uint64 nPresent = feed->fileSize();
    feed->start();
    if (!isPlay()) feed->endCursorWay(); // nothing is judged
    result.info.dataAtStart = static_cast<int64>(nPresent);
    phase = Loading;
    if (isPlay()) {
        sampler = std::make_unique<ZqRunSampler>(*feed, beginNs, nPresent);
        sampler->start();
        statistics->noteApps(); // while the first bytes come
    }
    feed->fetchRecords(waits->test());
    if (settings.feed.isDownloadOnly) {
        complete();
        return;
    }
    if (adopt()) return;
    // Nobody may have compared it so far, or an earlier run has found it to be wrong.
    if (wasComplete) awaitCheck();
    mount(wasComplete);
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

/// What would be told of otherwise only once there is enough for a drive.
void ZqRun::requireStart() {
    if (isPlay()) ZqStartCheck::require(settings, feed->getApp());
    const SxString type = ZqDriveMeans().isRoot() ? SxString() : feed->findVolumeType(waits->test());
    ZqStartCheck::requireDrive(feed->getApp(), type, feed->isComplete());
    feed->requireRoom(drive->mode(), isPlay() && !settings.startsAtOnce);
}

bool ZqRun::adopt() {
    const SxProcessGroup& group = note->getFormer();
    if (!drive->findFormer([&] { return settings.isDriveOnly || group.isAlive(); })) {
        if (!settings.isDriveOnly) note->requireNoFormer();
        return false;
    }
    note->adopt();
    drive->takeOver();
    // The run that was killed can have suspended this, too.
    if (group.isSuspended()) group.resume();
    if (settings.isDriveOnly) {
        feedDrive();
        return true;
    }
    phase = Adopted;
    takeFormerRecord();
    output->adopt();
    keepOutput();
    launched = std::make_unique<const ZqAppParams>(feed->getApp());
    guard = std::make_unique<ZqCoreAppGuard>(image, *launched, group);
    feed->applicationStarts(*launched);
    goOnWithWaits();
    startedGuard = guard.get();
    guard->start();
    result.wasStarted = true;
    follow();
    if (settings.keepsMounted || settings.completes) complete();
    return true;
}

void ZqRun::awaitCheck() {
    while (!feed->isVerified()) {
        waits->requireGoing();
        feed->requireAlive();
        SxTime::msleep(LOOK_MS);
    }
}

void ZqRun::awaitBytes() {
    // The record may ask for more than there is.
    const uint64 needed = std::min(feed->getApp().sizeMnt, feed->getApp().sizeZqf);
    while (feed->getStatus().nCurrent < needed) {
        waits->requireGoing();
        feed->requireAlive();
        // Asked here, since it costs a start no time while blocks are still missing.
        feed->requireRanges(waits->test());
        SxTime::msleep(LOOK_MS);
    }
}

void ZqRun::mount(bool wasComplete) {
    awaitBytes();
    // A drive that writes into the file would change what is compared, so the image is completed and compared
    // before that.
    if (drive->mode() == ZqDriveKinds::ReadWrite) awaitCheck();
    recording->decide(feed->getApp().checksumMnt, wasComplete, note->getUntraced());
    recording->awaitRoom(*feed, waits.get());
    feed->requireRanges(waits->test());
    drive->removeLeftovers();
    traceDecision = recording->getDecision();
    phase = Mounting;
    recording->begin();
    try {
        drive->bringUp(recording->getFolder());
    } catch (...) {
        recording->drop();
        throw;
    }
    recording->keep();
    result.mountMs = elapsedMs();
    statistics->traceBegins();
    drive->alignCursor();
}

void ZqRun::feedDrive() {
    phase = Feeding;
    for (bool isUp = true; isUp && !waits->isStopping();) {
        // Others can unmount the drive, and with it goes what it knows of reads and writes that have failed.
        SxTime::msleep(LOOK_MS * 10);
        isUp = drive->isUp();
        if (isUp) drive->watchReads();
    }
    feed->requireAlive();
}

void ZqRun::prepare() {
    for (;;) {
        const ZqFeedStatus status = feed->getStatus();
        if (settings.startsAtOnce || status.nCurrent >= status.nNeeded) {
            result.info.preloadSize = static_cast<int64>(std::min(status.nCurrent, status.nNeeded));
            return;
        }
        waits->requireGoing();
        feed->requireAlive();
        drive->watch();
        SxTime::msleep(LOOK_MS);
    }
}

void ZqRun::startApplication() {
    ZqAppParams app = feed->getApp();
    drive->getLaunch().applyTo(&app);
    launched = std::make_unique<const ZqAppParams>(app);
    const SxString mountPath = drive->require();
    SxWinProcParams process;
    process.path = app.cmd;
    process.args = SxString::join(app.args, " ");
    guard = std::make_unique<ZqCoreAppGuard>(image, *launched, mountPath, process,
                                             ZqAppRunner{settings.runner, mountPath, drive->isWritable()});
    output->begin(beginMs);
    keepOutput();
    guard->setOutput(output->getFd());
    feed->applicationStarts(*launched);
    held->start(beginNs, SxClock::get().steadyNs());
    startedGuard = guard.get();
    guard->start();
    result.startMs = elapsedMs();
    result.wasStarted = true;
    noteApplication();
}

void ZqRun::follow() {
    recording->startPlay(guard->isAdopted());
    while (guard->isRunning()) {
        if (waits->isStopping()) {
            guard->stop();
            break;
        }
        // What has ended the download ends the run after the application, which plays from what is there.
        drive->watch();
        drive->watchReads();
        searching = guard->isSearching();
        noteApplication();
        if (guard->getGroup().isValid()) {
            started = true;
            statistics->applicationRuns();
        }
        firstFrame->look();
        // Those of an application that runs already were there before.
        if (!guard->isAdopted()) firstWindow->follow(guard->getGroup());
        if (recording->limit()) statistics->endJudgement(elapsedMs());
        suspendProcess();
        feed->restoreWindow();
        if (notes->isDue()) {
            // Who goes on with a record counts from its moment on.
            drive->takeHeldReads();
            noteRun();
        }
        SxTime::msleep(feed->isSettled() && !firstFrame->isAwaited() ? CALM_LOOK_MS : LOOK_MS);
    }
    guard->wait();
    drive->endHeldReads();
    statistics->endJudgement(elapsedMs());
    const bool wasSought = searching.exchange(false);
    if (guard->isMissed() || (wasSought && waits->isStopping())) result.missed = launched->name;
    firstFrame->look();
    // Of a command that couldn't be started there is nothing to follow.
    result.wasStarted = guard->getGroup().isValid();
    if (!result.wasStarted) result.startMs = -1;
    if (!waits->isStopping()) guard->requireSuccess();
    // Of one that was ended nobody knows what it would have said.
    result.isExitKnown = !guard->isAdopted() && !waits->isStopping();
    waits->requireGoing();
    // Where the drive has gone, what the application has read since, and its exit code, mean nothing.
    drive->require();
    feed->requireAlive();
}

void ZqRun::noteApplication() {
    note->note(guard->getGroup(), !recording->getFolder().isEmpty());
}

void ZqRun::suspendProcess() {
    const bool isSleepy = sleepDelay->isSleepComing();
    const bool isWanted = isSleepy || (feed->getApp().suspendProc && feed->getStatus().isUnderflow);
    suspension->look(guard.get(), isSleepy, isWanted);
}

/// Whether the machine can sleep: the application is suspended, and nobody waits for blocks of the drive.
bool ZqRun::isCalm() const {
    const Phase now = phase;
    if ((now == Running || now == Adopted) && !suspension->isHalted()) return false;
    return !drive->holdsReads();
}

void ZqRun::complete() {
    phase = Completing;
    awaitCheck();
}

bool ZqRun::isPlay() const {
    return !settings.isDriveOnly && !settings.feed.isDownloadOnly;
}

SxParserKit::SxSymbol ZqRun::toJson() const {
    return settings.feed.isDownloadOnly ? result.downloadToJson() : result.toJson();
}
