#include "ZqRobotLibrary.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "ZqLauncherFiles.h"
#include "ZqRCParams.h"

#include <algorithm>

namespace {

using Image = ZqLauncherChanges::Image;

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
    if (SxOs::get().link(SxOs::hostPath(configFile()), SxOs::hostPath(formerFile())) == 0) return;
    SxFSAction::cp(configFile(), formerFile());
    ZqLauncherFiles::become(formerFile(), configFile());
}

} // namespace

void ZqRobotLibrary::make(const SxString& image, const SxString& mntPoint) {
    const SxString library = mntPoint + "/TAVRIN-protected/RobotCacheLibrary";
    ZqRCParams params("", "");
    if (params.libraries.contains(library)) return;
    params.libraries.append(library);
    ZqLauncherChanges& changes = record->changes;
    const bool isFirst = isLast(image);
    // The former file is that of before only as long as nobody else writes between.
    const bool isKnown = isFirst || SxMd5::file(configFile()) == changes.librariesDigest;
    changes.of(image).library = library;
    changes.librariesDigest = isKnown ? SxMd5::get(params.toText()) : SxString();
    record->save();
    if (isFirst) keepFormer();
    params.write("", "");
}

bool ZqRobotLibrary::isLast(const SxString& image) const {
    return std::none_of(
        record->changes.images.begin(), record->changes.images.end(),
        [&](const Image& other) { return !(other.path == image) && !other.library.isEmpty(); });
}

void ZqRobotLibrary::undo(const SxString& image) {
    ZqLauncherChanges& changes = record->changes;
    const SxString library = changes.of(image).library;
    if (library.isEmpty()) return;
    // A client that was removed has taken the file with it.
    if (SxFSAction::look(configFile())) takeOut(image);
    changes.of(image).library = SxString();
}

void ZqRobotLibrary::takeOut(const SxString& image) {
    ZqLauncherChanges& changes = record->changes;
    ZqLauncherFiles::requireNoLink(configFile());
    SxFileIO::tidyAfterWriters(configFile());
    const bool isUntouched = SxMd5::file(configFile()) == changes.librariesDigest;
    if (isLast(image) && isUntouched && SxFSAction::look(formerFile())) {
        ZqLauncherFiles::requireNoLink(formerFile());
        ZqLauncherFiles::move(formerFile(), configFile());
        return;
    }
    ZqRCParams params("", "");
    const SxString& library = changes.of(image).library;
    if (params.libraries.contains(library)) {
        params.libraries.removeElement(library);
        params.write("", "");
        changes.librariesDigest = isUntouched ? SxMd5::get(params.toText()) : SxString();
    }
    if (isLast(image)) ZqLauncherFiles::remove(formerFile());
}
