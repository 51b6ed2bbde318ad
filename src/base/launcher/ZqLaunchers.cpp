#include "ZqLaunchers.h"

#include "SxFSAction.h"
#include "ZqEpicLibrary.h"
#include "ZqImageLock.h"
#include "ZqLaunchCommand.h"
#include "ZqLauncherFiles.h"
#include "ZqLauncherRecord.h"
#include "ZqLog.h"
#include "ZqOriginLibrary.h"
#include "ZqRegistryChanges.h"
#include "ZqRobotLibrary.h"
#include "ZqVolume.h"

namespace {

constexpr const char* UNIT = "src/base/ZqLaunchers";

using Image = ZqLauncherChanges::Image;

ZqLaunchers::Change describe(const Image& image) {
    ZqLaunchers::Change change;
    change.image = image.path;
    change.isMounted = ZqLaunchers::isMounted(image.path);
    if (image.setsAside) change.setAside.append(ZqLauncherFiles::EPIC_SAVED);
    const auto add = [&](const char* folder, const SxList<SxString>& names) {
        for (const SxString& name : names)
            change.made.append(SxString(folder) + "/" + name);
    };
    add(ZqLauncherFiles::EPIC_MANIFESTS, image.items);
    add(ZqLauncherFiles::EPIC_STORES, image.stores);
    add(ZqLauncherFiles::ORIGIN_CONTENT, image.titles);
    change.libraries = image.libraries;
    for (const ZqRegistry::State& state : image.former)
        change.registry.append({state.key, state.value, state.isThere});
    return change;
}

/// Takes back all of one image, in the order of an unmount.
void undoAll(ZqLauncherRecord* record, const SxString& image) {
    ZqTries tries;
    tries.run([&] { ZqRegistryChanges(record).undo(image); });
    if (record->changes.of(image).hasEpic()) {
        ZqEpicLibrary::closeLauncher();
        tries.run([&] { ZqEpicLibrary(record).undo(image); });
    }
    tries.run([&] { ZqOriginLibrary(record).undo(image); });
    tries.run([&] { ZqRobotLibrary(record).undo(image); });
    record->save();
    tries.raise();
}

/// Brings to its end what belongs to no image: a return of the player's manifests that was cut off, or of
/// such that nobody has noted.
bool undoRest(ZqLauncherRecord* record) {
    ZqEpicLibrary library(record);
    const bool isAside = !SxFSAction::isGone(ZqLauncherFiles::EPIC_SAVED);
    if (!record->changes.hasEpic() && isAside) ZqEpicLibrary::closeLauncher();
    library.bringBack();
    library.removeFolders();
    record->save();
    return isAside && SxFSAction::isGone(ZqLauncherFiles::EPIC_SAVED);
}

} // namespace

SxList<ZqLaunchers::Launcher> ZqLaunchers::getLaunchers() {
    SxList<Launcher> launchers;
    for (const char* word : {ZqLaunchCommand::STEAM, ZqLaunchCommand::EPIC, ZqLaunchCommand::UBISOFT,
                             ZqLaunchCommand::ORIGIN, ZqLaunchCommand::ROBOT_CACHE}) {
        Launcher launcher;
        launcher.word = word;
        try {
            launcher.program = ZqLaunchCommand::programOf(word);
            launcher.isInstalled = SxFSAction::test_f(launcher.program);
            if (!launcher.isInstalled) launcher.fault = "'" + launcher.program + "' isn't there";
        } catch (const SxException& e) {
            if (!e.hasTag(ZqLaunchCommand::NOT_INSTALLED)) launcher.fault = e.what();
        }
        launchers.append(launcher);
    }
    return launchers;
}

SxList<ZqLaunchers::Change> ZqLaunchers::getChanges() {
    SxList<Change> changes;
    const ZqLauncherChanges noted = ZqLauncherRecord::peek();
    bool isAside = false;
    for (const Image& image : noted.images) {
        changes.append(describe(image));
        isAside = isAside || image.setsAside;
    }
    // On its way back, or of nobody that is noted.
    if (!isAside && !SxFSAction::isGone(ZqLauncherFiles::EPIC_SAVED)) {
        Change rest;
        rest.setAside.append(ZqLauncherFiles::EPIC_SAVED);
        changes.append(rest);
    }
    return changes;
}

bool ZqLaunchers::isMounted(const SxString& image) {
    if (image.isEmpty()) return false;
    try {
        ZqDiskStatus disk;
        return ZqVolume::findDisk(image, &disk) || ZqImageLock::isHeld(image, ZqImageLock::Drive);
    } catch (const SxException& e) {
        zqLogMsg("base", "Cannot tell whether '" + image +
                             "' is mounted: " + e.toString(SxException::ShowMessage, ": "));
        return true;
    }
}

ZqLaunchers::Restored ZqLaunchers::restore() {
    Restored restored;
    if (ZqLauncherRecord::peek().isEmpty() && SxFSAction::isGone(ZqLauncherFiles::EPIC_SAVED))
        return restored;
    ZqLauncherRecord record;
    SxList<SxString> left;
    for (const Image& image : record.changes.images)
        (isMounted(image.path) ? restored.mounted : left).append(image.path);
    const auto attempt = [&](const SxString& image, const SxString& what, auto&& undo) {
        try {
            undo();
            if (!image.isEmpty()) restored.images.append(image);
        } catch (const SxException& e) {
            restored.failures.append(SxException(e, "Cannot take back " + what, UNIT, __LINE__));
        }
    };
    for (const SxString& image : left) {
        attempt(image, "all that the mount of '" + image + "' has changed", [&] { undoAll(&record, image); });
    }
    attempt(SxString(), "the Epic manifests that are set aside",
            [&] { restored.broughtBack = undoRest(&record); });
    return restored;
}

void ZqLaunchers::restoreQuietly() {
    try {
        for (const SxException& failure : restore().failures)
            zqLogMsg("base", failure.toString(SxException::ShowMessage, ": "));
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, ": "));
    }
}
