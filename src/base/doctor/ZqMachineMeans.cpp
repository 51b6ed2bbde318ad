#include "ZqMachineMeans.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqDesktop.h"
#include "ZqDiskReserve.h"
#include "ZqDriveMeans.h"
#include "ZqDuckDb.h"
#include "ZqFactFiles.h"
#include "ZqPatchTask.h"
#include "ZqReadable.h"
#include "ZqServiceClient.h"
#include "ZqSleepWatch.h"
#include "ZqStartCheck.h"
#include "ZqSysEnv.h"
#include "ZqWine.h"

#include <cstdlib>

namespace {

/// The first kernel that serves complete EROFS images by itself.
constexpr int64 DIRECT_MAJOR = 6, DIRECT_MINOR = 12;

ZqMeans optional(const char* name, bool isThere, const SxString& there, const SxString& missing,
                 const SxString& remedy) {
    return {name, isThere, false, isThere ? there : missing, isThere ? SxString() : remedy};
}

ZqMeans getKernel() {
    const std::string version = ZqFactFiles("/").line("proc/sys/kernel/osrelease");
    char* end = nullptr;
    const int64 major = std::strtol(version.c_str(), &end, 10);
    const int64 minor = *end == '.' ? std::strtol(end + 1, nullptr, 10) : 0;
    const bool isNew = major > DIRECT_MAJOR || (major == DIRECT_MAJOR && minor >= DIRECT_MINOR);
    const SxString shown = "Linux " + SxString(version).makeVisible();
    return optional("kernel", isNew, shown + " can serve complete EROFS images by itself",
                    shown + " can't serve complete EROFS images by itself, so drives are slower",
                    "use Linux 6.12 or later");
}

void addDrive(SxList<ZqMeans>* all) {
    const ZqDriveMeans means;
    *all << means.getRights() << means.getFuse();
    // What most images have is needed, and of a user what is left to him.
    for (const char* type : {"erofs", "ext4", "squashfs"}) {
        ZqMeans volume = means.getVolume(type);
        volume.isNeeded = SxString(type) == (means.isRoot() ? "erofs" : "ext4");
        *all << volume;
    }
    if (!means.isRoot()) {
        *all << means.getFusermount();
        return;
    }
    ZqMeans loop = means.getLoop();
    loop.isNeeded = false;
    *all << loop;
}

ZqMeans getService() {
    const SxString program = ZqServiceClient::program();
    if (ZqSysEnv::isProgram(program))
        return {"service", true, true, "The drive service is '" + program + "'", {}};
    return {"service", false, true, "There is no drive service '" + program + "'",
            "install the package tavrin again"};
}

void addTitles(SxList<ZqMeans>* all) {
    *all << optional("wine", ZqWine::isInstalled(), "Wine is there, for Windows programs",
                     "There is no wine, so Windows programs can't be started",
                     "install Wine, or name another program for that with --runner");
    ZqMeans root = ZqStartCheck::getRoot();
    root.isNeeded = false; // by Windows programs alone
    *all << root;
    *all << optional("display", ZqDesktop::get().getScreenSize().width > 0,
                     "The display answers, so the window of a title that waits for data can be minimised",
                     "No X11 display answers, so the window of a title that waits for data stays as it is",
                     "play in a desktop session that sets DISPLAY");
    ZqSleepWatch sleep;
    sleep.isSleepComing();
    *all << optional("logind", sleep.isHolding(),
                     "logind holds up the machine's sleep until waiting reads are answered",
                     "logind doesn't answer, so a machine whose title waits for data can't go to sleep",
                     "run systemd-logind where the machine goes to sleep");
}

} // namespace

SxList<ZqMeans> ZqMachineMeans::look(const SxString& folder) {
    SxList<ZqMeans> all = {getKernel()};
    addDrive(&all);
    all << getService() << getRoom(folder, 0);
    addTitles(&all);
    all << ZqMeans::tried({"patches", true, false, "Patches can be applied", {}},
                          {"patches", false, false, "Patches can't be applied",
                           "install the package tavrin again, or run 'make build' in its sources"},
                          ZqPatchTask::requireTool);
    all << ZqMeans::tried({"fleet", true, false, "Figures of a fleet can be made", {}},
                          {"fleet", false, false, "Figures of a fleet (stats collect) can't be made",
                           "run 'make build' in the sources, which fetches it"},
                          ZqDuckDb::requireLibrary);
    return all;
}

ZqMeans ZqMachineMeans::getRoom(const SxString& folder, uint64 nBytes) {
    const SxString remedy = "make room there, or choose a folder on another disk";
    try {
        const ZqDiskReserve reserve(folder, 0);
        const uint64 nMissing = reserve.getMissing(nBytes);
        const SxString disk = "the disk of '" + folder.makeVisible() + "'";
        if (nMissing > 0) {
            return {"room", false, true,
                    "An image of " + ZqReadable::megabytes(nBytes) + " needs " +
                        ZqReadable::megabytes(nMissing) + " more on " + disk + ", where " +
                        ZqReadable::megabytes(reserve.getSize()) + " are left to others",
                    remedy};
        }
        const uint64 nFree = reserve.getRoom();
        if (nFree > 0)
            return {"room", true, true, ZqReadable::megabytes(nFree) + " can be downloaded to " + disk, {}};
        return {"room", false, true, "There is no room on " + disk, remedy};
    } catch (const SxException& e) {
        return {"room", false, true, e.toString(SxException::ShowMessage, ": "), remedy};
    }
}
