#include "ZqStartCheck.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessInfo.h"
#include "ZqAppCommand.h"
#include "ZqCoreAppGuard.h"
#include "ZqDriveMeans.h"
#include "ZqLaunchCommand.h"
#include "ZqLaunchValues.h"
#include "ZqMachineRoot.h"
#include "ZqRedirection.h"
#include "ZqRunSettings.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqStartCheck";

/// A launcher that runs already takes the command over, and the process of the command ends at once.
void requireName(const SxString& image, const ZqAppParams& app, const SxString& name) {
    for (const char* word :
         {ZqLaunchCommand::STEAM, ZqLaunchCommand::UBISOFT, ZqLaunchCommand::ROBOT_CACHE}) {
        if (!app.access.contains(word) || !name.isEmpty()) continue;
        throw SxException("The title in '" + image + "' starts through the launcher '" + word +
                              "', and its app.json names no process that tells when it ends (\"name\" in "
                              "\"app\"); it can be mounted, or played without its launcher "
                              "(--no-launchers)",
                          UNIT, __LINE__);
    }
}

} // namespace

void ZqStartCheck::requireDrive(const ZqAppParams& app, const SxString& type, bool isComplete) {
    const ZqDriveMeans means;
    // The kernel serves some complete images by itself.
    SxList<ZqMeans> all = means.forVolume(type, isComplete);
    if (!ZqRedirection(app).isEmpty()) all << means.getRedirection();
    ZqDriveMeans::require(all);
}

ZqMeans ZqStartCheck::getRoot() {
    const SxString root = ZqMachineRoot::get();
    const auto info = SxFSAction::look(root + "/");
    if (!info) return {"prefix", true, true, "The Wine prefix '" + root + "' is made when it is needed", {}};
    if (info->owner == SxProcessInfo::ownUser())
        return {"prefix", true, true, "The Wine prefix '" + root + "' is this user's", {}};
    const SxString name = ZqSysEnv::getUserName(info->owner);
    return {"prefix", false, true,
            "The Wine prefix '" + root + "' belongs to " + name + ", and Wine refuses it to everybody else",
            "play as " + name + ", or with another prefix (WINEPREFIX)"};
}

void ZqStartCheck::require(const ZqRunSettings& settings, const ZqAppParams& app) {
    const ZqLaunchValues values = ZqLaunchValues::originalOf(settings.feed.image, app);
    SxString windowsProgram = ZqAppCommand::isWindowsProgram(values.cmd) ? values.cmd : SxString();
    if (!settings.noLaunchers) {
        requireName(settings.feed.image, app, values.name);
        for (const char* word : {ZqLaunchCommand::STEAM, ZqLaunchCommand::EPIC, ZqLaunchCommand::UBISOFT,
                                 ZqLaunchCommand::ROBOT_CACHE}) {
            if (app.access.contains(word)) windowsProgram = word;
        }
    }
    // A launcher's program is looked for by the mount, which sets the launcher up.
    const bool isOwn = windowsProgram.isEmpty() || windowsProgram == values.cmd;
    if (isOwn) ZqAppCommand::requirePossible(values.cmd, ZqCoreAppGuard::DRIVE_MARK);
    if (windowsProgram.isEmpty()) return;
    ZqAppCommand::requireMeans(windowsProgram, settings.runner);
    ZqDriveMeans::require({getRoot()});
}
