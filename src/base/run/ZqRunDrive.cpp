#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqImageFeed.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRun.h"
#include "ZqRunTraces.h"
#include "ZqSysEnv.h"
#include "ZqVolume.h"

#include <algorithm>

// The drive of a run: how it comes up, is looked after, and goes.

namespace {

constexpr const char* UNIT = "src/base/ZqRunDrive";
constexpr int64 LOOK_MS = SxWait::LOOK_MS;
/// Room for the records of a mount, in bytes.
constexpr uint64 RECORD_ROOM = 1 << 20;
/// From one look at the drive to the next. A drive that has gone ends its run, and with it the application,
/// within a quarter of a second: what that reads from then on would fail, and what it writes would be lost.
constexpr int64 DRIVE_NS = 200'000'000;
/// How long a read may wait for what no longer comes. What is on its way from the writer to the drive comes
/// within it.
constexpr int64 LOST_READ_NS = 5'000'000'000;

/// A folder for the trace of a run that begins now, which isn't there yet.
SxString newTraceFolder(const SxString& image) {
    SxString stamp = ZqSysEnv::getTimestamp();
    stamp = stamp.substitute(":", "-");
    const SxString base = ZqImageFolder::prefix(image) + ZqImageFiles::TRACES + stamp;
    SxString folder = base;
    for (int i = 2; SxFSAction::exists(folder); ++i)
        folder = base + "-" + i;
    return folder;
}

} // namespace

/// Mounts on a thread of its own, since a mount can't be broken off. But its drive can be taken away: then
/// its reads fail, and it takes itself back.
class ZqRun::MountJob : public SxSystemThread {
public:
    MountJob(const ZqImageFeed& feed_, SxString image_, ZqMountMgr::MountMode mode_, SxString traceFolder_)
        : feed(feed_),
          image(std::move(image_)),
          mode(mode_),
          traceFolder(std::move(traceFolder_)),
          isPartial(!feed_.isComplete()),
          nBlocks(feed_.countBlocks()) {
        setThreadName("mount");
    }
    /// Waits for the end; raises what went wrong, or a stop.
    void finish(const ZqStopTest& stop) {
        while (isRunning()) {
            if (stop() || feed.hasFailed()) {
                breakOff();
            } else if (isPartial && feed.isComplete()) {
                moveCursor();
            }
            SxTime::msleep(LOOK_MS);
        }
        wait();
        if (stop()) throw stopped();
        // It is why the mount has failed, too.
        feed.requireAlive();
        if (hasException()) throw getException();
    }

protected:
    void main() override {
        ZqMountMgr mounts;
        const ZqImageParams& params = feed.getParams();
        mounts.setAppParams(feed.getApp());
        mounts.mountImageZQF({mode, params.deviceMode, image, traceFolder,
                              static_cast<uint64>(params.sizeRaw),
                              static_cast<uint64>(params.emulatedSectorSize), nBlocks},
                             traceFolder.isEmpty() ? SxString() : SxString("monitoring"));
    }

private:
    /// Reads that fail aren't enough: a mount looks for its first file for a minute.
    void breakOff() const {
        try {
            ZqMountMgr().umountImage(image, true);
        } catch (const SxException& e) {
            // The mount takes the same drive away at the same time, and reports what is wrong with the
            // service.
            zqLogMsg("base", SxString("ZqRun: ") + e.what());
        }
    }

    /// The drive is mounted with the cursor of a moment before. What moves the cursor ends with the download,
    /// perhaps before the drive is up, so it is done here from then on.
    void moveCursor() const {
        try {
            feed.alignCursor();
        } catch (const SxException& e) {
            // The drive of the preparation goes at some time; what else is wrong the mount tells.
            zqLogMsg("base", SxString("ZqRun: ") + e.what());
        }
    }

    const ZqImageFeed& feed;
    const SxString image;
    const ZqMountMgr::MountMode mode;
    const SxString traceFolder;
    const bool isPartial; ///< some of the image wasn't there when the mount began
    const uint64 nBlocks; ///< that were there then
};

SxException ZqRun::stopped() {
    return SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
}

void ZqRun::mount() {
    const ZqStopTest stop = [this] { return isStopping(); };
    // The record may ask for more than there is.
    const uint64 needed = std::min(feed->getApp().sizeMnt, feed->getApp().sizeZqf);
    while (feed->getStatus().nCurrent < needed) {
        if (stop()) throw stopped();
        feed->requireAlive();
        // Asked here, since it costs a start no time while blocks are still missing.
        feed->requireRanges(stop);
        SxTime::msleep(LOOK_MS);
    }
    const ZqMountMgr::MountMode mode = mountMode();
    // A drive that writes into the file would change what is compared, so the image is completed and compared
    // before that.
    if (mode == ZqMountMgr::ReadWrite) awaitCheck();
    if (hasOwnTrace()) awaitRoom();
    feed->requireRanges(stop);
    patiently([&] { removeLeftovers(); });
    phase = Mounting;
    mounted = true;
    result.traceFolder = hasOwnTrace() ? newTraceFolder(image) : settings.traceFolder;
    feed->driveStarts();
    ZqRunTraces traces(image);
    if (hasOwnTrace()) traces.begin(result.traceFolder);
    try {
        bringUp(mode);
    } catch (...) {
        if (hasOwnTrace()) traces.drop(result.traceFolder);
        throw;
    }
    if (hasOwnTrace()) traces.add(result.traceFolder, settings.nTraces);
    result.mountMs = elapsedMs();
    patiently([&] { feed->alignCursor(); });
}

ZqMountMgr::MountMode ZqRun::mountMode() const {
    return settings.mountMode.isEmpty() ? feed->getApp().mountMode
                                        : ZqMountMgr::stringToMountMode(settings.mountMode);
}

void ZqRun::bringUp(ZqMountMgr::MountMode mode) {
    for (;;) {
        MountJob job(*feed, image, mode, result.traceFolder);
        job.start();
        try {
            job.finish([this] { return isStopping(); });
            return;
        } catch (const SxException& e) {
            if (isStopping() || !e.hasTag(ZqVolume::SILENT)) throw;
        }
        // Once the service answers, it may have made the drive that it was asked for.
        patiently([&] { takeDriveAway(); });
    }
}

void ZqRun::patiently(const std::function<void()>& calls) {
    for (;;) {
        try {
            calls();
            tellWaiting("");
            return;
        } catch (const SxException& e) {
            if (isStopping() || ZqFailurePolicy::decide(e, true) != ZqFailurePolicy::Wait) throw;
            tellWaiting(ZqFailurePolicy::waitingLine(e));
        }
    }
}

void ZqRun::takeDriveAway() {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return;
    ZqMountMgr mounts;
    mounts.setAppParams(feed->getApp());
    mounts.umountImage(image, disk.drive.isEmpty());
    if (mounts.wasBusy() && mountMode() != ZqMountMgr::ReadOnly) result.wasBusy = true;
}

void ZqRun::removeLeftovers() {
    ZqMountMgr mounts;
    mounts.setAppParams(feed->getApp());
    bool written = false;
    mounts.removeLeftovers(image, &written);
    if (written) lostWrites = true;
}

void ZqRun::tellWaiting(const SxString& line) {
    const SxMutexBlock block(&mutex);
    if (unnoted != line && !line.isEmpty()) zqLogMsg("base", "ZqRun: " + line);
    unnoted = line;
}

/// Whether the trace goes among the image's own.
bool ZqRun::hasOwnTrace() const {
    return settings.traceFolder.isEmpty() && !settings.isUntraced && !result.lacksTraceRoom &&
           !settings.isDriveOnly && !settings.feed.isDownloadOnly;
}

void ZqRun::limitTrace() {
    if (traceEndNs == 0 || SxClock::get().steadyNs() < traceEndNs) return;
    try {
        endTrace();
        traceEndNs = 0;
    } catch (const SxException&) {
        // The service is silent, and is asked again with the next look.
    }
}

void ZqRun::endTrace() const {
    try {
        const ZqMountMgr mounts;
        if (!mounts.isMonitored(image)) return;
        mounts.monitorOff(image);
        zqLogMsg("base", "ZqRun: the trace ends, the drive stays");
    } catch (const SxException& e) {
        if (e.hasTag(ZqVolume::SILENT)) throw;
        // The trace only gets longer than it should.
        zqLogMsg("base", SxString("ZqRun: cannot end the trace: ") + e.what());
    }
}

/// A mount fails where it can't write the record of its trace.
void ZqRun::awaitRoom() {
    while (ZqSysEnv::getFreeDiskSpace(image) < RECORD_ROOM) {
        if (isStopping()) throw stopped();
        // Nothing else needs room, so the player need not wait for what only the publisher can use.
        if (feed->isComplete()) {
            result.lacksTraceRoom = true;
            break;
        }
        feed->requireAlive();
        tellWaiting("waiting for room on the disk of '" + image + "'");
        SxTime::msleep(LOOK_MS);
    }
    tellWaiting("");
}

void ZqRun::feedDrive() {
    phase = Feeding;
    const ZqMountMgr mounts;
    for (bool isUp = true; isUp && !isStopping();) {
        // Others can unmount the drive, and with it goes what it knows of reads and writes that have failed.
        SxTime::msleep(LOOK_MS * 10);
        patiently([&] {
            ZqDiskStatus disk;
            isUp = mounts.isMounted(image);
            if (isUp && ZqVolume::findDisk(image, &disk)) noteDrive(disk);
        });
        if (isUp) watchReads();
    }
    feed->requireAlive();
}

ZqDiskStatus ZqRun::requireDisk() {
    ZqDiskStatus disk;
    bool isUp = false;
    patiently([&] { isUp = ZqVolume::findDisk(image, &disk); });
    if (!isUp) {
        throw SxException("The drive of '" + image + "' has gone", UNIT, __LINE__);
    }
    noteDrive(disk);
    return disk;
}

/// It is told at the run's end, and is its failure, though the application may have lived on: what it saved
/// may be wrong.
void ZqRun::noteDrive(const ZqDiskStatus& disk) {
    if (!result.driveFailure.isEmpty() || disk.failure.isEmpty()) {
        // A sync that found no room at first has found it now. What can't be made up for stays in its status.
        if (disk.failure.isEmpty() && disk.madeNs == failedDriveNs) result.driveFailure = SxString();
        return;
    }
    // A volume that somebody has unmounted isn't a failure of reads.
    if (!ZqVolume::isVisible(disk)) return;
    result.driveFailure = disk.failure;
    failedDriveNs = disk.madeNs;
    zqLogMsg("base", "ZqRun: the drive of '" + image + "' has failed: " + disk.failure);
}

SxException ZqRun::driveFailed() const {
    const SxException cause(result.driveFailure, UNIT, __LINE__);
    return SxException(cause, "A read or write of the drive of '" + image + "' has failed", UNIT, __LINE__)
        .tagged(DRIVE_FAILED);
}

void ZqRun::watchDrive() {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - driveNs < DRIVE_NS) return;
    driveNs = nowNs;
    // The service serves none whose folder has gone, so what the application reads now would never come.
    if (!SxFSAction::exists(image)) {
        throw SxException("The image in '" + image + "' was removed while it was played", UNIT, __LINE__);
    }
    try {
        if (ZqMountMgr().isMounted(image)) return;
    } catch (const SxException& e) {
        // A service that can't tell may still serve.
        zqLogMsg("base", SxString("ZqRun: ") + e.what());
        return;
    }
    throw SxException("The drive of '" + image + "' has gone: it was unmounted, or its service was ended",
                      UNIT, __LINE__);
}

/// Whoever waits for such a read stands still for ever, out of reach of its player, so after a while the run
/// ends it, as where the drive has gone. What is fed to a mount goes in the same way, and its readers get an
/// error.
void ZqRun::watchReads() {
    if (feed->answersReads()) return;
    ZqDiskStatus disk;
    try {
        if (!ZqVolume::findDisk(image, &disk) || disk.nHeld == 0) lostNs = 0;
    } catch (const SxException&) {
        // A service that is silent may have nothing that waits.
        lostNs = 0;
    }
    if (disk.nHeld == 0) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (lostNs == 0) lostNs = nowNs;
    if (nowNs - lostNs < LOST_READ_NS) return;
    try {
        feed->requireAlive();
    } catch (const SxException& e) {
        throw SxException(e,
                          SxString(settings.isDriveOnly ? "The drive is taken away, since reads of it wait"
                                                        : "The application is ended, since it waits") +
                              " for data that no longer come",
                          UNIT, __LINE__);
    }
}

void ZqRun::endDrive(bool keep) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) {
        // Its service was killed, or somebody took it away.
        ZqMountMgr mounts;
        mounts.setAppParams(feed->getApp());
        bool written = false;
        mounts.removeLeftovers(image, &written);
        if (written) {
            throw SxException("What the application wrote to the drive of '" + image +
                                  "' may be lost as far as it hadn't synced it: the drive's service was "
                                  "killed, or somebody has "
                                  "taken the drive away",
                              UNIT, __LINE__);
        }
        return;
    }
    noteDrive(disk);
    if (keep) {
        // The play that the trace is of has ended.
        endTrace();
        result.mountPath = disk.mountPath;
    } else {
        takeDriveAway();
    }
}
