#include "ZqRobotLibrary.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "ZqLauncherFiles.h"
#include "ZqRCParams.h"

namespace {

SxString configFile() {
    return ZqRCParams::pathOf("", "");
}

/// The file as it was before the first mount that changed it.
SxString formerFile() {
    return configFile() + ".tavrin-former";
}

/// Gives the file a second name, which the next write of it leaves alone; on file systems without second
/// names a copy.
void keepFormer() {
    ZqLauncherFiles::remove(formerFile());
    if (SxOs::get().link(SxOs::hostPath(configFile()), SxOs::hostPath(formerFile())) < 0) {
        SxFSAction::cp(configFile(), formerFile());
        if (const auto own = SxFSAction::look(configFile())) SxFSAction::takeAfter(formerFile(), *own);
    }
    // Before the file is written: the new one could survive a cut, and the second name of the former not.
    SxFSAction::syncDir(SxFileInfo(formerFile()).getPath());
}

} // namespace

void ZqRobotLibrary::make(const SxString& image, const SxString& mntPoint) {
    const SxString library = mntPoint + "/TAVRIN-protected/RobotCacheLibrary";
    ZqRCParams params("", "");
    if (params.libraries.contains(library)) return;
    params.libraries.append(library);
    ZqLauncherChanges& changes = record->changes;
    // The former file is that of before only as long as nobody else writes between.
    const bool isFirst = !changes.hasLibraries();
    const SxString now = SxMd5::file(configFile());
    const bool isKnown = isFirst || changes.librariesDigests.contains(now);
    changes.of(image).libraries.append(library);
    noteDigests(isKnown, now, params);
    record->save();
    if (isFirst) keepFormer();
    params.write("", "");
}

void ZqRobotLibrary::undo(const SxString& image) {
    ZqLauncherChanges& changes = record->changes;
    const SxList<SxString> ours = changes.of(image).libraries;
    if (ours.isEmpty()) return;
    ZqLauncherFiles::requireNoLink(configFile());
    ZqLauncherFiles::requireNoLink(formerFile());
    SxFileIO::tidyAfterWriters(configFile());
    // A client that was removed has taken the file with it.
    const bool isThere = SxFSAction::look(configFile()).has_value();
    const bool isUntouched = isThere && changes.librariesDigests.contains(SxMd5::file(configFile()));
    changes.of(image).libraries.removeAll();
    const bool isLast = !changes.hasLibraries();
    try {
        if (isLast && isUntouched && SxFSAction::look(formerFile())) {
            ZqLauncherFiles::move(formerFile(), configFile());
        } else if (isThere) {
            takeOut(image, ours, isUntouched);
        }
        if (isLast) ZqLauncherFiles::remove(formerFile());
    } catch (const SxException&) {
        changes.of(image).libraries = ours;
        throw;
    }
}

void ZqRobotLibrary::takeOut(const SxString& image, const SxList<SxString>& ours, bool isUntouched) {
    ZqRCParams params("", "");
    bool hasOurs = false;
    for (const SxString& library : ours) {
        hasOurs = hasOurs || params.libraries.contains(library);
        params.libraries.removeElement(library);
    }
    if (!hasOurs) return;
    // Noted before it is written, or a cut would let our own change pass for somebody else's.
    record->changes.of(image).libraries = ours;
    noteDigests(isUntouched, SxMd5::file(configFile()), params);
    record->save();
    params.write("", "");
    record->changes.of(image).libraries.removeAll();
}

/// Notes how the file is now and will be, where it is as it was written here.
void ZqRobotLibrary::noteDigests(bool isKnown, const SxString& now, const ZqRCParams& params) {
    SxList<SxString>& digests = record->changes.librariesDigests;
    digests.removeAll();
    if (isKnown) digests << now << SxMd5::get(params.toText());
}
