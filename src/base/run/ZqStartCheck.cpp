#include "ZqStartCheck.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessInfo.h"
#include "ZqAppCommand.h"
#include "ZqLaunchCommand.h"
#include "ZqLaunchValues.h"
#include "ZqMachineRoot.h"
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

void requireOwnRoot() {
    const SxString root = ZqMachineRoot::get();
    const auto info = SxFSAction::look(root + "/");
    if (!info || info->owner == SxProcessInfo::ownUser()) return;
    const SxString name = ZqSysEnv::getUserName(info->owner);
    throw SxException("The Wine prefix '" + root + "' belongs to " + name +
                          ", and Wine refuses it to everybody else: play as " + name +
                          ", or with another prefix (WINEPREFIX)",
                      UNIT, __LINE__);
}

} // namespace

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
    if (windowsProgram.isEmpty()) return;
    ZqAppCommand::requireMeans(windowsProgram, settings.runner);
    requireOwnRoot();
}
