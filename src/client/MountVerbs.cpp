#include "App.h"
#include "Verbs.h"

#include <tavrin/SxFileInfo.h>
#include <tavrin/ZqAppParams.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageParams.h>
#include <tavrin/ZqMountMgr.h>
#include <tavrin/ZqVolume.h>

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/client/MountVerbs";
constexpr uint64 BLOCK = 4096;

using SxParserKit::SxSymbol;
namespace Json = SxParserAst;

struct MountOptions {
    SxString image, mode, trace;
    bool failOnMissing = false;
};

struct UmountOptions {
    SxString image;
    bool hard = false;
};

// --- mount

/// How many blocks of the image are there.
uint64 presentBlocks(const SxString& folder, const ZqAppParams& app, const ZqImageParams& params) {
    const int64 size = SxFileInfo(folder + ZqImageFiles::ZQF).getSize();
    const auto sizeRaw = static_cast<uint64>(params.sizeRaw);
    if (size >= static_cast<int64>(app.sizeZqf)) return (sizeRaw + BLOCK - 1) / BLOCK;
    return static_cast<uint64>(size) / BLOCK;
}

void tellMount(const SxString& image, const SxString& verb, Output* out) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) {
        throw SxException("Image '" + image + "' is mounted no more", UNIT, __LINE__);
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

int mount(const MountOptions& options, Output& out) {
    ZqMountMgr manager;
    if (manager.isMounted(options.image)) {
        tellMount(options.image, "Mounted already", &out);
        return ExitSuccess;
    }
    const SxString folder = ZqImageFolder::prefix(options.image);
    const ZqAppParams app(folder);
    const ZqImageParams params(folder);
    const ZqMountMgr::MountMode mode =
        options.mode.isEmpty() ? app.mountMode : ZqMountMgr::stringToMountMode(options.mode);
    manager.setAppParams(app);
    manager.mountImageZQF(mode, params.deviceMode, options.image, static_cast<uint64>(params.sizeRaw),
                          static_cast<uint64>(params.emulatedSectorSize), presentBlocks(folder, app, params),
                          false, options.trace, "monitoring");
    if (options.failOnMissing) manager.failOnUnderflow(options.image);
    if (mode == ZqMountMgr::ReadWrite) {
        out.text("Writes go into img.zqf: its digest and patches made for it will no longer fit");
    }
    tellMount(options.image, "Mounted", &out);
    return ExitSuccess;
}

// --- umount

int umount(const UmountOptions& options, Output& out) {
    ZqMountMgr manager;
    const SxString folder = ZqImageFolder::prefix(options.image);
    if (SxFileInfo(folder + ZqImageFiles::APP_JSON).isFile()) manager.setAppParams(ZqAppParams(folder));
    const bool leftovers = manager.removeLeftovers();
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(options.image, &disk)) {
        out.text(leftovers ? "Removed what a service that was killed had left behind" : "Not mounted");
        return ExitSuccess;
    }
    // A disk that has got no letter yet has nothing to undo elsewhere.
    manager.umountImage(options.image, options.hard || disk.drive.isEmpty());
    if (manager.wasBusy()) {
        out.finding("The drive was in use: it was detached, and files that are still open give I/O errors");
    }
    out.text("Unmounted");
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
    result.append("reads", disk.nReads);
    result.append("beyondQA", disk.nBeyondQA);
    result.append("suspended", disk.suspended);
    result.append("monitored", disk.monitored);
    result.append("failure", disk.failure);
    result.append("servicePid", disk.servicePid);
    return result;
}

void tellStatus(const ZqDiskStatus& disk, Output* out) {
    if (out->getMode().json) return out->object(statusJson(disk));
    SxString state = disk.failure.isEmpty() ? "starting" : "failed: " + disk.failure;
    if (!disk.mountPath.isEmpty()) state = disk.drive + " at " + disk.mountPath;
    out->text(disk.image + ": " + state);
    SxString line = SxString("  ") + std::min(disk.cursor, disk.nIncluded) + " of " + disk.nIncluded +
                    " blocks present, " + disk.nReads + " reads";
    if (disk.nHeld > 0) line += SxString(", ") + disk.nHeld + " held";
    if (disk.underflow) line += SxString(", waits for ") + disk.queueLength + " blocks";
    if (disk.suspended) line += ", suspended";
    if (disk.monitored) line += ", traced";
    out->text(line);
}

int status(const SxString& image, Output& out) {
    if (!image.isEmpty()) {
        ZqDiskStatus disk;
        if (!ZqVolume::findDisk(image, &disk)) {
            throw SxException("Image '" + image + "' is not mounted", UNIT, __LINE__);
        }
        tellStatus(disk, &out);
        return ExitSuccess;
    }
    const SxList<ZqDiskStatus> disks = ZqVolume::getDisks();
    if (disks.isEmpty()) out.text("Nothing is mounted");
    for (const ZqDiskStatus& disk : disks)
        tellStatus(disk, &out);
    return ExitSuccess;
}
} // namespace

void registerMountVerbs(App* app) {
    static MountOptions mountOptions;
    app->verb("mount", "Make a drive of an image", "tavrin mount IMAGE --trace /tmp/trace")
        .argument("IMAGE", &mountOptions.image, "Image folder; what is missing of it is waited for")
        .text("--mode", &mountOptions.mode, "ro|rw|rtw",
              "Read only, written in place, or written into a layer; as app.json says where not given")
        .text("--trace", &mountOptions.trace, "DIR", "Record which blocks are read, in this folder")
        .flag("--fail-on-missing", &mountOptions.failOnMissing, "Let reads of missing blocks fail")
        .action([](Output& out) { return mount(mountOptions, out); });

    static UmountOptions umountOptions;
    app->verb("umount", "Take a drive away", "tavrin umount IMAGE")
        .argument("IMAGE", &umountOptions.image, "Image folder")
        .flag("--hard", &umountOptions.hard, "At once, without undoing what the mount did elsewhere")
        .action([](Output& out) { return umount(umountOptions, out); });

    static SxString statusImage;
    app->verb("status", "Show the drives and what they wait for", "tavrin status --json")
        .optionalArgument("IMAGE", &statusImage, "Image folder; all where not given")
        .action([](Output& out) { return status(statusImage, out); });
}
