// The operations of ZqMountMgr on launchers: what a mount sets up for them, and its unmount takes back.

#include "SxException.h"
#include "ZqAppParams.h"
#include "ZqEpicLibrary.h"
#include "ZqLaunchCommand.h"
#include "ZqLaunchValues.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqOriginLibrary.h"
#include "ZqRobotLibrary.h"

#include <functional>

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";

/// One launcher that `access` can name, in the order in which they are set up.
struct Step {
    const char* word;
    const char* failText;
    std::function<void()> setUp;
};

} // namespace

ZqLaunchValues ZqMountMgr::getLaunch() const {
    return appParams ? ZqLaunchValues::of(*appParams) : ZqLaunchValues();
}

void ZqMountMgr::requireDrive() const {
    if (mntPoint.isEmpty()) throw SxException("Tavrin drive not mounted", UNIT, __LINE__);
}

void ZqMountMgr::setUpLaunchers(const SxList<SxString>& access) {
    const Step steps[] = {
        {ZqLaunchCommand::STEAM, "Updating Steam library failed",
         [&] { ZqLaunchCommand::setSteam(&*appParams); }},
        {ZqLaunchCommand::EPIC, "Updating Epic Game library failed", [&] { setUpEpic(); }},
        {ZqLaunchCommand::UBISOFT, "Updating Uplay command failed",
         [&] { ZqLaunchCommand::setUbisoft(&*appParams); }},
        {ZqLaunchCommand::ORIGIN, "Updating EA Game library failed", [&] { writeEALibEntries(); }},
        {ZqLaunchCommand::ROBOT_CACHE, "Updating RC Game library failed", [&] { setUpRobotCache(); }}};
    for (const Step& step : steps) {
        if (!access.contains(step.word)) continue;
        try {
            step.setUp();
            // Also where a step changes none of them: a former mount may have had another launcher.
            getLaunch().write(mntImage);
        } catch (const SxException& e) {
            zqLogMsg("base", e.what());
            throw SxException(e, step.failText, UNIT, __LINE__);
        }
    }
}

void ZqMountMgr::setUpEpic() {
    closeEpicGamesLauncher();
    genEpicLibrary();
    ZqLaunchCommand::setEpic(&*appParams, *epicParams);
}

void ZqMountMgr::setUpRobotCache() {
    zqLogMsg("base", "Prepare ROBOT Cache library modifications");
    {
        ZqLauncherRecord record;
        ZqRobotLibrary(&record).make(ZqLauncherRecord::pathOf(mntImage), mntPoint);
    }
    ZqLaunchCommand::setRobotCache(&*appParams);
}

void ZqMountMgr::revertLaunchers() const {
    if (!appParams) return;
    const auto attempt = [](auto&& revert) {
        try {
            revert();
        } catch (const SxException& e) {
            zqLogMsg("base", e.what());
        }
    };
    ZqLauncherChanges::Image noted;
    attempt([&] {
        const ZqLauncherChanges changes = ZqLauncherRecord::peek();
        if (const auto* found = changes.find(ZqLauncherRecord::pathOf(mntImage))) noted = *found;
    });
    if (noted.hasEpic()) {
        attempt([&] {
            closeEpicGamesLauncher();
            guardOff(mntImage);
        });
        attempt([&] { cleanEpicLibrary(); });
    }
    if (!noted.titles.isEmpty()) {
        attempt([&] { guardOff(mntImage); });
        attempt([&] { delEALibEntries(); });
    }
    if (noted.libraries.isEmpty()) return;
    attempt([&] {
        ZqLauncherRecord::undo([&](ZqLauncherRecord* record) {
            ZqRobotLibrary(record).undo(ZqLauncherRecord::pathOf(mntImage));
        });
    });
}

void ZqMountMgr::closeEpicGamesLauncher() const {
    ZqEpicLibrary::closeLauncher();
}

void ZqMountMgr::genEpicLibrary() {
    requireDrive();
    ZqLauncherRecord record;
    epicParams = SxPtr<ZqEpicParams>::create(
        ZqEpicLibrary(&record).make(ZqLauncherRecord::pathOf(mntImage), mntPoint));
}

void ZqMountMgr::cleanEpicLibrary() const {
    requireDrive();
    ZqTries tries;
    // Whatever the drive has by now, what was made for it is known.
    tries.run([&] { ZqEpicLibrary::requireEntries(mntPoint); });
    tries.run([&] {
        ZqLauncherRecord::undo([&](ZqLauncherRecord* record) {
            ZqEpicLibrary(record).undo(ZqLauncherRecord::pathOf(mntImage));
        });
    });
    tries.raise();
}

void ZqMountMgr::writeEALibEntries() const {
    requireDrive();
    ZqLauncherRecord record;
    ZqOriginLibrary(&record).make(ZqLauncherRecord::pathOf(mntImage), mntPoint);
}

void ZqMountMgr::delEALibEntries() const {
    constexpr const char* FAIL_TEXT = "Cannot delete EA Origin library entry file";
    requireDrive();
    ZqTries tries;
    tries.run([&] { ZqOriginLibrary::requireTitle(mntPoint, FAIL_TEXT); });
    tries.run([&] {
        try {
            ZqLauncherRecord::undo([&](ZqLauncherRecord* record) {
                ZqOriginLibrary(record).undo(ZqLauncherRecord::pathOf(mntImage));
            });
        } catch (const SxException& e) {
            throw SxException(e, FAIL_TEXT, UNIT, __LINE__);
        }
    });
    tries.raise();
}
