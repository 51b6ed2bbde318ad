#include "ZqOriginLibrary.h"

#include "SxFSAction.h"
#include "ZqLauncherFiles.h"

namespace {

constexpr const char* UNIT = "src/base/ZqOriginLibrary";

using Files = ZqLauncherFiles;
using Image = ZqLauncherChanges::Image;

SxString titleFolder(const SxString& name) {
    return SxString(Files::ORIGIN_CONTENT) + "/" + name;
}

} // namespace

SxString ZqOriginLibrary::requireTitle(const SxString& mntPoint, const char* failText) {
    const SxString source = mntPoint + "/TAVRIN-protected/app/Origin/LocalContent";
    if (!SxFSAction::test_d(source)) {
        throw SxException("EA Origin library entry directory " + source + " not found", UNIT, __LINE__);
    }
    try {
        const SxList<SxDir> folders = SxFSAction::getDirs(source);
        if (folders.getSize() != 1) {
            throw SxException(SxString("Expected one EA store directory, found ") + folders.getSize(), UNIT,
                              __LINE__);
        }
        Files::requirePlain(folders.first().getName(), "The store folder of the title", true);
        return folders.first().getAbsPath();
    } catch (const SxException& e) {
        throw SxException(e, failText, UNIT, __LINE__);
    }
}

void ZqOriginLibrary::make(const SxString& image, const SxString& mntPoint) {
    constexpr const char* FAIL_TEXT = "Cannot write EA Origin library entry file";
    const SxString source = requireTitle(mntPoint, FAIL_TEXT), name = SxFileInfo(source).getName();
    try {
        Files::requireNoLink(titleFolder(name));
        const bool isShared = record->changes.isOthers(image, &Image::titles, name);
        const bool isThere = !SxFSAction::isGone(titleFolder(name));
        if (isThere && !isShared) return;
        SxList<SxString>& titles = record->changes.of(image).titles;
        if (!titles.contains(name)) titles.append(name);
        record->save();
        if (!isThere) Files::copyFolder(source, titleFolder(name));
    } catch (const SxException& e) {
        throw SxException(e, FAIL_TEXT, UNIT, __LINE__);
    }
}

void ZqOriginLibrary::undo(const SxString& image) {
    ZqTries tries;
    record->removeMade(image, &Image::titles, titleFolder, &tries);
    tries.raise();
}
