#include "ZqRunDrive.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqHeldReads.h"
#include "ZqImageFeed.h"
#include "ZqImagePlay.h"
#include "ZqLaunchCommand.h"
#include "ZqLog.h"
#include "ZqMountJob.h"
#include "ZqMountMgr.h"
#include "ZqRunSettings.h"
#include "ZqRunWait.h"
#include "ZqVolume.h"

namespace {

constexpr const char* UNIT = "src/base/ZqRunDrive";
/// From one look at the drive to the next. A drive that has gone ends its run, and with it the application,
/// within a quarter of a second: what that reads from then on would fail, and what it writes would be lost.
constexpr int64 DRIVE_NS = 200'000'000;
/// How long a read may wait for what no longer comes. What is on its way from the writer to the drive comes
/// within it.
constexpr int64 LOST_READ_NS = 5'000'000'000;

/// So many times a letter is put back; a runner that takes it again and again keeps it.
constexpr int64 MAX_PUT_BACK = 5;

} // namespace

ZqRunDrive::ZqRunDrive(const ZqRunSettings& settings_, ZqImageFeed* feed_, ZqRunWait* waits_,
                       ZqHeldReads* held_)
    : settings(settings_),
      image(settings_.feed.image),
      feed(feed_),
      waits(waits_),
      held(held_) {
}

ZqDriveKinds::MountMode ZqRunDrive::mode() const {
    return settings.mountMode.isEmpty() ? feed->getApp().mountMode
                                        : ZqMountMgr::stringToMountMode(settings.mountMode);
}

bool ZqRunDrive::isWritable() const {
    return mode() != ZqMountMgr::ReadOnly ||
           (!settings.noLaunchers && feed->getApp().access.contains(ZqLaunchCommand::EPIC));
}

bool ZqRunDrive::findFormer(const std::function<bool()>& isUsed) {
    ZqDiskStatus disk;
    bool isThere = false;
    waits->patiently([&] { isThere = ZqVolume::findDisk(image, &disk); });
    if (!isThere) return false;
    if (disk.ready && !disk.notTaken.isEmpty()) {
        throw SxException("The drive service hasn't taken over the drive of '" + image +
                              "': " + disk.notTaken,
                          UNIT, __LINE__);
    }
    if (ZqVolume::isReplaced(image)) {
        throw SxException("The image that is mounted as '" + image +
                              "' was removed, or replaced by another one; unmount it first",
                          UNIT, __LINE__);
    }
    if (!disk.ready) requireUnused();
    if (!disk.ready || !isUsed()) {
        // Its run was killed. Nobody else can have it: this process holds the image.
        zqLogMsg("base", "ZqRun: the drive of '" + image + "' no longer has an application");
        waits->patiently([&] { takeAway(); });
        return false;
    }
    if (ZqVolume::isElsewhere(disk)) {
        throw SxException("The drive of '" + image + "' is mounted by a drive service (process " +
                              disk.servicePid +
                              ") in another mount namespace, where this run can't see it: run it there, or "
                              "unmount it first",
                          UNIT, __LINE__);
    }
    return true;
}

/// Raises where an application lives that plays from a drive which can't be used: this run can't go on with
/// it, and to take its drive away would end it.
void ZqRunDrive::requireUnused() const {
    std::optional<ZqImagePlay> play = ZqImagePlay::find(image);
    if (!play || play->process < 0) return;
    play->run = SxString(); // that is this one
    throw SxException("The drive of '" + image + "' can't be used by this run, and the image " +
                          play->describe() + "; end that first",
                      UNIT, __LINE__);
}

void ZqRunDrive::takeOver() {
    mounted = true;
    feed->driveStarts();
    waits->patiently([&] {
        feed->alignCursor();
        // The run that was killed can have suspended it.
        const ZqMountMgr mounts;
        if (mounts.isSuspended(image)) mounts.resume(image);
        ZqDiskStatus disk;
        if (!ZqVolume::findDisk(image, &disk)) return;
        before = {disk.nWaits, disk.heldMs};
    });
}

void ZqRunDrive::removeLeftovers() {
    waits->patiently([&] {
        if (removeLeft()) lostWrites = true;
    });
}

/// Gives whether what programs had written to a former drive may be lost.
bool ZqRunDrive::removeLeft() const {
    ZqMountMgr mounts;
    mounts.setAppParams(feed->getApp());
    bool written = false;
    mounts.removeLeftovers(image, &written);
    return written;
}

void ZqRunDrive::bringUp(const SxString& traceFolder) {
    mounted = true;
    feed->driveStarts();
    for (;;) {
        ZqMountJob job(*feed, image, mode(), traceFolder, settings.noLaunchers);
        job.start();
        try {
            job.finish(*waits);
            launch = job.getLaunch();
            return;
        } catch (const SxException& e) {
            if (waits->isStopping() || !e.hasTag(ZqVolume::SILENT)) throw;
        }
        // Once the service answers, it may have made the drive that it was asked for.
        waits->patiently([&] { takeAway(); });
    }
}

void ZqRunDrive::alignCursor() {
    waits->patiently([&] { feed->alignCursor(); });
}

void ZqRunDrive::takeAway() {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return;
    ZqMountMgr mounts;
    mounts.setAppParams(feed->getApp());
    if (mounts.umountWithoutLetter(image)) return;
    mounts.umountImage(image, disk.drive.isEmpty());
    if (mounts.wasBusy() && isWritable()) busy = true;
}

bool ZqRunDrive::isUp() {
    bool isThere = false;
    waits->patiently([&] {
        ZqDiskStatus disk;
        isThere = ZqMountMgr().isMounted(image);
        if (isThere && ZqVolume::findDisk(image, &disk)) note(disk);
    });
    return isThere;
}

SxString ZqRunDrive::require() {
    ZqDiskStatus disk;
    bool isThere = false;
    waits->patiently([&] { isThere = ZqVolume::findDisk(image, &disk); });
    if (!isThere) {
        throw SxException("The drive of '" + image + "' has gone", UNIT, __LINE__);
    }
    note(disk);
    return disk.mountPath;
}

/// Keeps what has failed of the drive: with the drive goes who could tell it. It is told at the run's end,
/// and is its failure, though the application may have lived on: what it saved may be wrong.
void ZqRunDrive::note(const ZqDiskStatus& disk) {
    if (!failure.isEmpty() || disk.failure.isEmpty()) {
        // A sync that found no room at first has found it now. What can't be made up for stays in its status.
        if (disk.failure.isEmpty() && disk.madeNs == failedNs) failure = SxString();
        return;
    }
    // A volume that somebody has unmounted isn't a failure of reads.
    if (!ZqVolume::isVisible(disk)) return;
    failure = disk.failure;
    failedNs = disk.madeNs;
    zqLogMsg("base", "ZqRun: the drive of '" + image + "' has failed: " + disk.failure);
}

void ZqRunDrive::watch() {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - watchNs < DRIVE_NS) return;
    watchNs = nowNs;
    // The service serves none whose folder has gone, so what the application reads now would never come.
    if (!SxFSAction::exists(image)) {
        throw SxException("The image in '" + image + "' was removed while it was played", UNIT, __LINE__);
    }
    try {
        if (!settings.runner.isEmpty()) watchLetter();
        const bool isSettled = feed->isSettled();
        if (!isSettled || !wasSettled) lookAtHeldReads();
        wasSettled = isSettled;
        if (ZqMountMgr().isMounted(image)) return;
    } catch (const SxException& e) {
        // A service that can't tell may still serve.
        zqLogMsg("base", SxString("ZqRun: ") + e.what());
        return;
    }
    throw SxException("The drive of '" + image + "' has gone: it was unmounted, or its service was ended",
                      UNIT, __LINE__);
}

void ZqRunDrive::lookAtHeldReads() {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return;
    held->look(disk);
    noteWaits(disk);
}

void ZqRunDrive::noteWaits(const ZqDiskStatus& disk) {
    // Not of another drive of the image.
    if (disk.nWaits < before.n || disk.heldMs < before.ms) return;
    readWaits = {earlier.n + disk.nWaits - before.n, earlier.ms + disk.heldMs - before.ms};
}

void ZqRunDrive::takeHeldReads() {
    try {
        lookAtHeldReads();
    } catch (const SxException& e) {
        // What a silent service hasn't told yet is less than a quarter of a second.
        zqLogMsg("base", SxString("ZqRun: ") + e.what());
    }
}

void ZqRunDrive::endHeldReads() {
    takeHeldReads();
    held->end(SxClock::get().steadyNs());
}

/// A runner may set up all drive letters of its prefix anew. What has been told of ours, as in the registry,
/// needs it.
void ZqRunDrive::watchLetter() {
    ZqDiskStatus disk;
    if (!lostLetter.isEmpty() || !ZqVolume::findDisk(image, &disk) || disk.drive.isEmpty()) return;
    if (!ZqVolume::findDrive(disk).isEmpty()) return;
    if (nPutBack++ < MAX_PUT_BACK && ZqVolume::restoreDrive(disk)) {
        zqLogMsg("base",
                 "ZqRun: the letter " + disk.drive + " of '" + image + "' was taken, and is put back");
        return;
    }
    lostLetter = disk.drive;
    zqLogMsg("base", "ZqRun: the letter " + disk.drive + " of '" + image + "' is lost");
}

/// Whoever waits for such a read stands still for ever, out of reach of its player, so after a while the run
/// ends it, as where the drive has gone. What is fed to a mount goes in the same way, and its readers get an
/// error.
void ZqRunDrive::watchReads() {
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

bool ZqRunDrive::holdsReads() const {
    ZqDiskStatus disk;
    try {
        return ZqVolume::findDisk(image, &disk) && disk.nHeld > 0;
    } catch (const SxException&) {
        return true; // a service that doesn't answer may hold reads, and is asked again
    }
}

void ZqRunDrive::end(bool keep) {
    if (mounted) waits->patiently([&] { endOnce(keep); });
}

void ZqRunDrive::endOnce(bool keep) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) {
        // Its service was killed, or somebody took it away.
        if (removeLeft()) {
            throw SxException("What the application wrote to the drive of '" + image +
                                  "' may be lost as far as it hadn't synced it: the drive's service was "
                                  "killed, or somebody has "
                                  "taken the drive away",
                              UNIT, __LINE__);
        }
        return;
    }
    note(disk);
    traced = disk.monitored;
    noteWaits(disk);
    if (keep) {
        mountPath = disk.mountPath;
    } else {
        takeAway();
    }
}
