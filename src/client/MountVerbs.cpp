#include "App.h"
#include "Job.h"
#include "RunTexts.h"
#include "RunVerbs.h"
#include "Verbs.h"

#include <tavrin/SxFileInfo.h>
#include <tavrin/SxOs.h>
#include <tavrin/SxProcessInfo.h>
#include <tavrin/SxTime.h>
#include <tavrin/ZqAppParams.h>
#include <tavrin/ZqBlocks.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageLock.h>
#include <tavrin/ZqImageParams.h>
#include <tavrin/ZqImagePlay.h>
#include <tavrin/ZqLaunchCommand.h>
#include <tavrin/ZqLaunchers.h>
#include <tavrin/ZqLog.h>
#include <tavrin/ZqMountMgr.h>
#include <tavrin/ZqSyncedSize.h>
#include <tavrin/ZqVolume.h>

#include <algorithm>
#include <optional>

namespace {
constexpr const char* UNIT = "src/client/MountVerbs";
/// How long another client may take to mount the same image.
constexpr int64 MOUNT_MS = 60'000;

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

struct MountOptions {
    SxString image, mode, trace, url;
    NetOptions net;
    bool failOnMissing = false, noLaunchers = false;
};

struct UmountOptions {
    SxString image;
    bool hard = false, force = false;
};

// --- mount

/// How many blocks of the image are there whole. Nobody writes to it, so none is held back as in a download.
uint64 presentBlocks(const SxString& folder, const ZqAppParams& app, const ZqImageParams& params) {
    // A file that is missing is told of by the mount.
    const SxFileInfo zqf(folder + ZqImageFiles::ZQF);
    const uint64 size = zqf.isFile() ? static_cast<uint64>(zqf.getSize()) : 0;
    // What a power cut may have taken counts as missing, as if it had never been fetched.
    const uint64 believed = ZqSyncedSize(folder + ZqImageFiles::ZQF).believed(size);
    const auto sizeRaw = static_cast<uint64>(params.sizeRaw);
    if (believed >= app.sizeZqf) return (sizeRaw + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
    return believed / ZqBlocks::SIZE;
}

void tellMount(const SxString& image, const SxString& verb, Output* out) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) {
        throw SxException("Image '" + image + "' is no longer mounted", UNIT, __LINE__);
    }
    if (out->getMode().json) {
        SxSymbol result;
        result.setType(Json::Object);
        result.append("image", disk.image);
        result.append("drive", disk.drive);
        result.append("mountPath", disk.mountPath);
        out->object(result);
    }
    out->text(verb + " as " + disk.drive + " at " + disk.mountPath);
}

/// How long the service may take to notice that somebody has unmounted a drive, and to take down the rest.
constexpr int64 NOTICE_MS = 3000;

[[noreturn]] void refuseFailed(const SxString& image, const ZqDiskStatus& disk) {
    throw SxException("The drive of image '" + image + "' (" + disk.drive + ") has failed: " + disk.failure +
                          "; take it away, with: tavrin umount " + image + ", and mount it again",
                      UNIT, __LINE__);
}

/// Whether the drive that the service tells of is there. One that somebody has unmounted goes within moments,
/// and the image isn't mounted then. One that has failed otherwise, or lives where this process can't see it,
/// is refused.
bool requireSound(const SxString& image, ZqDiskStatus disk) {
    const auto isSound = [&] { return disk.failure.isEmpty() && ZqVolume::isVisible(disk); };
    if (isSound()) return true;
    const bool isElsewhere = disk.failure.isEmpty() && ZqVolume::isElsewhere(disk);
    if (!isElsewhere) {
        if (SxWait::pass(NOTICE_MS, [&] { return !ZqVolume::findDisk(image, &disk); })) return false;
        if (isSound()) return true;
        if (!disk.failure.isEmpty()) refuseFailed(image, disk);
        throw SxException("The volume of image '" + image + "' (" + disk.drive +
                              ") isn't there: somebody has unmounted it; take away what is left, with: "
                              "tavrin umount " +
                              image + ", and mount it again",
                          UNIT, __LINE__);
    }
    throw SxException("Image '" + image + "' is mounted as " + disk.drive + " by a drive service (process " +
                          disk.servicePid +
                          ") in another mount namespace, where this process can't see it: "
                          "use it there, or take it away, with: tavrin umount " +
                          image,
                      UNIT, __LINE__);
}

void requireNoStop(const StopSignals& signals) {
    if (signals.isAsked()) throw SxException(SxException::STOPPED, "stopped", UNIT, __LINE__);
}

/// Raises where the drive is one that somebody plays from: what the application reads and writes after an
/// unmount fails.
void requireUnplayed(const SxString& image) {
    // Of a drive that the kernel serves nobody may know, where its service was killed.
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk) && ZqVolume::getLeftovers().isEmpty()) return;
    const SxString how = "take the drive away all the same, with: tavrin umount " + image + " --force";
    std::optional<ZqImagePlay> play;
    try {
        play = ZqImagePlay::find(image);
    } catch (const SxException& e) {
        throw SxException(e, "Whether image '" + image + "' is played can't be told; " + how, UNIT, __LINE__);
    }
    if (!play) return;
    throw SxException("Image '" + image + "' " + play->describe() + "; end that first, or " + how, UNIT,
                      __LINE__);
}

/// Takes away what a mount that was cut off has left. A mount that is under way is waited for. Gives whether
/// the image is mounted. Raises on a stop, and where somebody plays from what would go.
bool isMountedWhole(ZqMountMgr* manager, const SxString& image, const StopSignals& signals) {
    ZqDiskStatus disk;
    bool found = false;
    // A process that has ended and waits for its parent mounts nothing.
    const auto isMounting = [&] {
        SxProcessInfo mounter;
        return SxProcessInfo::get(disk.mounterPid, &mounter) && mounter.isRunning();
    };
    const auto isDecided = [&] {
        found = ZqVolume::findDisk(image, &disk);
        return !found || disk.ready || !disk.failure.isEmpty() || !isMounting() || signals.isAsked();
    };
    const bool isKnown = SxWait::pass(MOUNT_MS, isDecided);
    requireNoStop(signals);
    if (!isKnown) {
        throw SxException("Image '" + image + "' is being mounted by process " + disk.mounterPid, UNIT,
                          __LINE__);
    }
    if (found && disk.ready && !disk.notTaken.isEmpty()) {
        throw SxException("Image '" + image + "' is mounted as " + disk.drive +
                              ", and the drive service hasn't taken that drive over: " + disk.notTaken,
                          UNIT, __LINE__);
    }
    if (found && disk.ready && ZqVolume::isReplaced(image)) {
        throw SxException("Image '" + image + "' stands in the place of one that is still mounted as " +
                              disk.drive + "; take that away first, with: tavrin umount " + image,
                          UNIT, __LINE__);
    }
    if (found && disk.ready) return requireSound(image, disk);
    if (!found) return false;
    requireUnplayed(image);
    manager->umountImage(image, disk.drive.isEmpty());
    return false;
}

/// Whether this process is making the drive of the image, or has made it.
bool isOwnDrive(const SxString& image) {
    ZqDiskStatus disk;
    return ZqVolume::findDisk(image, &disk) && disk.mounterPid == SxOs::processId();
}

/// Takes away the drive that this process is making: its reads fail then, and its mount takes itself back.
void breakOff(const SxString& image) {
    try {
        if (isOwnDrive(image)) ZqMountMgr().umountImage(image, true);
    } catch (const SxException& e) {
        // The mount takes the same drive away at the same time, and tells what is wrong with the service.
        zqLogMsg("client", "mount : " + SxString(e.what()));
    }
}

/// Does one mount on a thread of its own, since it can't be broken off. A stop takes back what it has made,
/// and raises.
void mountUntilStopped(ZqMountMgr* manager, const ZqMountMgr::MountRequest& request,
                       const StopSignals& signals) {
    requireNoStop(signals);
    FunctionJob job([&](ZqTaskMon*) { manager->mountImageZQF(request, "monitoring"); });
    job.start();
    while (job.isRunning()) {
        if (signals.isAsked()) breakOff(request.image);
        SxTime::msleep(SxWait::LOOK_MS);
    }
    job.wait();
    if (!signals.isAsked()) {
        if (job.hasException()) throw job.getException();
        return;
    }
    if (!job.hasException()) manager->umountImage(request.image, false);
    requireNoStop(signals);
}

/// False where another client mounts the image at the same time.
bool mountOrYield(ZqMountMgr* manager, ZqMountMgr::MountMode mode, const ZqAppParams& app,
                  const ZqImageParams& params, const MountOptions& options, const StopSignals& signals) {
    try {
        ZqMountMgr::MountRequest request{mode,
                                         params.deviceMode,
                                         options.image,
                                         options.trace,
                                         static_cast<uint64>(params.sizeRaw),
                                         static_cast<uint64>(params.emulatedSectorSize),
                                         presentBlocks(ZqImageFolder::prefix(options.image), app, params)};
        request.noLaunchers = options.noLaunchers;
        mountUntilStopped(manager, request, signals);
        return true;
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        ZqDiskStatus disk;
        const bool othersDisk =
            ZqVolume::findDisk(options.image, &disk) && disk.mounterPid != SxOs::processId();
        if (!othersDisk && !e.hasTag(ZqVolume::ALREADY_MOUNTED)) raiseHinted(e);
        return false;
    }
}

int mount(const MountOptions& options, Output& out) {
    if (!options.url.isEmpty()) {
        if (options.failOnMissing) {
            throw SxException("With --url missing blocks are fetched, so --fail-on-missing can't be given",
                              UNIT, __LINE__);
        }
        return mountFed(
            {options.image, options.url, options.net, options.mode, options.trace, options.noLaunchers}, out,
            [&] { tellMount(options.image, "Mounted", &out); });
    }
    if (const char* given = options.net.findGiven()) {
        throw SxException(SxString(given) + " goes with --url", UNIT, __LINE__);
    }
    StopSignals signals;
    ZqMountMgr manager;
    if (isMountedWhole(&manager, options.image, signals)) {
        if (!options.mode.isEmpty() || !options.trace.isEmpty() || options.failOnMissing ||
            options.noLaunchers) {
            out.finding("The options have no effect on a drive that is there already");
        }
        tellMount(options.image, "Mounted already", &out);
        return ExitSuccess;
    }
    const SxString folder = ZqImageFolder::prefix(options.image);
    // In the middle of a replacement the records aren't there.
    ZqImageLock::finishReplacement(options.image);
    const ZqAppParams app(folder);
    const ZqImageParams params(folder);
    const ZqMountMgr::MountMode mode =
        options.mode.isEmpty() ? app.mountMode : ZqMountMgr::stringToMountMode(options.mode);
    manager.setAppParams(app);
    // The mount would take away the note of lost writes.
    bool lostWrites = false;
    manager.removeLeftovers(options.image, &lostWrites);
    if (lostWrites) Output::failure(lostWritesText(options.image));
    while (!mountOrYield(&manager, mode, app, params, options, signals)) {
        if (!isMountedWhole(&manager, options.image, signals)) continue;
        tellMount(options.image, "Mounted already", &out);
        return ExitSuccess;
    }
    if (options.failOnMissing) {
        try {
            manager.failOnUnderflow(options.image);
        } catch (const SxException&) {
            manager.umountImage(options.image, false);
            throw;
        }
    }
    signals.finish();
    const bool isLayered = !options.noLaunchers && app.access.contains(ZqLaunchCommand::EPIC);
    if (mode == ZqMountMgr::ReadWrite && !isLayered) {
        out.text("Writes go into img.zqf: its digest and patches made for it will no longer fit");
    }
    tellMount(options.image, "Mounted", &out);
    return ExitSuccess;
}

// --- umount

/// Gives the manager the record of the image, to undo what it says; a drive goes without it, too.
void readApp(const SxString& image, ZqMountMgr* manager, Output* out) {
    const SxString folder = ZqImageFolder::prefix(image);
    if (!SxFileInfo(folder + ZqImageFiles::APP_JSON).exists()) return;
    try {
        manager->setAppParams(ZqAppParams(folder));
    } catch (const SxException& e) {
        out->finding(SxString("What a mount has changed is taken back without the record: ") + e.what());
    }
}

/// Takes back what mounts that ended without an unmount have changed. Gives whether there was anything.
bool restoreLaunchers(Output* out) {
    try {
        const ZqLaunchers::Restored restored = ZqLaunchers::restore();
        for (const SxString& image : restored.images)
            out->text("Took back what the mount of '" + image.makeVisible() + "' had changed");
        for (const SxException& failure : restored.failures)
            out->finding(failure.toString(SxException::ShowMessage, ": "));
        return !restored.images.isEmpty();
    } catch (const SxException& e) {
        out->finding("What former mounts have changed can't be taken back: " +
                     e.toString(SxException::ShowMessage, ": "));
        return false;
    }
}

constexpr const char* LEFTOVERS = "Removed what a service that was killed had left behind";

/// Gives whether there was anything. Raises where that may be less than programs have written.
bool removeLeftovers(const ZqMountMgr* manager, const SxString& image) {
    bool written = false;
    const bool found = manager->removeLeftovers(image, &written);
    if (!written) return found;
    throw SxException(
        "The drive of '" + image +
            "' is gone, since its service was killed or somebody has taken it away; what was left "
            "behind is removed. What programs wrote to it may be lost as far as they hadn't synced it",
        UNIT, __LINE__);
}

int umount(const UmountOptions& options, Output& out) {
    if (!options.force && !options.hard) requireUnplayed(options.image);
    ZqMountMgr manager;
    readApp(options.image, &manager, &out);
    // At once where it is to be hard.
    const bool restored = !options.hard && restoreLaunchers(&out);
    const bool leftovers = removeLeftovers(&manager, options.image);
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(options.image, &disk)) {
        if (leftovers || !restored) out.text(leftovers ? LEFTOVERS : "Not mounted");
        return ExitSuccess;
    }
    const bool wasElsewhere = ZqVolume::isElsewhere(disk);
    if (!options.hard && manager.umountWithoutLetter(options.image)) {
        out.finding("The drive letter " + disk.drive + " had been changed or removed; it is left as it is");
    } else {
        // A disk that has got no letter yet has nothing to undo elsewhere.
        manager.umountImage(options.image, options.hard || disk.drive.isEmpty());
    }
    if (wasElsewhere) {
        out.finding(
            SxString("The drive was in another mount namespace, that of the drive service (process ") +
            disk.servicePid + ")");
    }
    if (manager.wasBusy()) {
        out.finding(
            disk.isServedByKernel
                ? "The drive was in use: it was detached. Files that are still open can be read on, and the "
                  "image can't be changed until they are closed"
                : "The drive was in use: it was detached, and files that are still open give I/O "
                  "errors; what is still written to them is lost");
    }
    // An image whose service is killed meanwhile counts as not mounted. What else a hard unmount leaves is
    // for the next command.
    const bool isSwept = !options.hard && removeLeftovers(&manager, options.image);
    out.text(isSwept ? LEFTOVERS : "Unmounted");
    return ExitSuccess;
}

// --- status

SxSymbol statusJson(const ZqDiskStatus& disk) {
    SxSymbol result;
    result.setType(Json::Object);
    result.append("image", disk.image);
    result.append("mountPath", disk.mountPath);
    result.append("drive", disk.drive);
    result.append("cursor", disk.cursor);
    result.append("included", disk.nIncluded);
    result.append("underflow", disk.underflow);
    result.append("queueLength", disk.queueLength);
    result.append("held", disk.nHeld);
    // Nobody counts what the kernel reads by itself.
    const auto append = [&](const char* key, uint64 count) {
        if (disk.isServedByKernel) {
            result.append(key, Json::Null);
        } else {
            result.append(key, count);
        }
    };
    append("reads", disk.nReads);
    append("beyondQA", disk.nBeyondQA);
    append("bytesFromFile", disk.nStoredBytes);
    append("bytesDelivered", disk.nDeliveredBytes);
    append("bytesFromLayer", disk.nLayeredBytes);
    append("bytesAsZeros", disk.nZeroBytes);
    result.append("waits", disk.nWaits);
    result.append("heldMs", disk.heldMs);
    result.append("suspended", disk.suspended);
    result.append("monitored", disk.monitored);
    result.append("replaced", disk.replaced);
    result.append("failure", disk.failure);
    result.append("servicePid", disk.servicePid);
    result.append("elsewhere", ZqVolume::isElsewhere(disk));
    result.append("notTaken", disk.notTaken);
    result.append("served", disk.isServedByKernel ? "kernel" : "service");
    return result;
}

void tellStatus(const ZqDiskStatus& disk, Output* out) {
    SxString state = disk.failure.isEmpty() ? "starting" : "failed: " + disk.failure;
    if (!disk.mountPath.isEmpty()) state = disk.drive + " at " + disk.mountPath;
    out->text(disk.image + ": " + state);
    if (!disk.notTaken.isEmpty()) {
        out->text("  served by the kernel; not taken over by the drive service: " + disk.notTaken);
        if (!disk.ready) out->text("  to remove it: tavrin umount " + disk.image);
        return;
    }
    SxString line = SxString("  ") + std::min(disk.cursor, disk.nIncluded) + " of " + disk.nIncluded +
                    " blocks present, ";
    line += disk.isServedByKernel ? SxString("served by the kernel") : SxString(disk.nReads) + " reads";
    if (disk.nHeld > 0) line += SxString(", ") + disk.nHeld + " held";
    if (disk.underflow) line += SxString(", waits for ") + disk.queueLength + " blocks";
    if (disk.suspended) line += ", suspended";
    if (disk.monitored) line += ", traced";
    if (disk.replaced) line += ", the image was removed or replaced since";
    out->text(line);
    if (ZqVolume::isElsewhere(disk)) {
        out->text(SxString("  in another mount namespace, that of the drive service (process ") +
                  disk.servicePid + "): this process can't see it");
    }
    if (!disk.mountPath.isEmpty() && !disk.failure.isEmpty()) out->text("  failed: " + disk.failure);
}

/// How long an answer about drives may take, in seconds.
constexpr int STATUS_S = 3;

int status(const SxString& image, Output& out) {
    ZqVolume::setPatience(STATUS_S);
    for (const SxString& left : ZqVolume::getLeftovers()) {
        out.finding("A drive service that was killed has left behind what it had mounted of '" + left +
                    "'; to remove it: tavrin umount " + left);
    }
    for (const SxString& drive : ZqVolume::getLeftDrives()) {
        out.finding("The letter " + drive +
                    " is of a drive service that was killed, or whose machine lost its power; the next mount "
                    "removes it");
    }
    for (const SxString& other : ZqVolume::getServedElsewhere()) {
        out.finding("Image '" + other +
                    "' is mounted in another mount namespace, where the kernel serves its drive; it can be "
                    "seen and taken away there");
    }
    if (!image.isEmpty()) {
        ZqDiskStatus disk;
        if (!ZqVolume::findDisk(image, &disk)) {
            throw SxException("Image '" + image + "' is not mounted", UNIT, __LINE__);
        }
        if (out.getMode().json) out.object(statusJson(disk));
        tellStatus(disk, &out);
        return ExitSuccess;
    }
    const SxList<ZqDiskStatus> disks = ZqVolume::getDisks();
    if (disks.isEmpty()) out.text("Nothing is mounted");
    for (const ZqDiskStatus& disk : disks) {
        if (out.getMode().json) out.listing(statusJson(disk).toJson().str() + "\n");
        tellStatus(disk, &out);
    }
    return ExitSuccess;
}
} // namespace

void registerMountVerbs(App* app) {
    static MountOptions mountOptions;
    app->verb("mount", "Make a drive of an image", "tavrin mount IMAGE --trace /tmp/trace")
        .argument("IMAGE", &mountOptions.image, "Image folder; what is missing of it is waited for")
        .choice("--mode", &mountOptions.mode, {"ro", "rw", "rtw"},
                "Read only, written in place, or written into a layer; as app.json says where not given")
        .text("--trace", &mountOptions.trace, "DIR", "Record which blocks are read, in this folder")
        .text("--url", &mountOptions.url, "FOLDER_URL",
              "Fetch what is missing from there, and stay until the drive is unmounted")
        .network(&mountOptions.net, "Send this line with each request")
        .flag("--no-launchers", &mountOptions.noLaunchers,
              "Leave the launchers of this machine alone, whatever app.json says")
        .flag("--fail-on-missing", &mountOptions.failOnMissing, "Let reads of missing blocks fail")
        .action([](Output& out) { return mount(mountOptions, out); });

    static UmountOptions umountOptions;
    app->verb("umount", "Take a drive away", "tavrin umount IMAGE")
        .argument("IMAGE", &umountOptions.image, "Image folder")
        .flag("--force", &umountOptions.force, "Also while an application of the image runs")
        .flag("--hard", &umountOptions.hard, "At once, without undoing what the mount did elsewhere")
        .action([](Output& out) { return umount(umountOptions, out); });

    static SxString statusImage;
    app->verb("status", "Show the drives and what they wait for", "tavrin status --json")
        .optionalArgument("IMAGE", &statusImage, "Image folder; all where not given")
        .action([](Output& out) { return status(statusImage, out); });
}
