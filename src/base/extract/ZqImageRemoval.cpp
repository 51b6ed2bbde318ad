#include "ZqImageRemoval.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessInfo.h"
#include "ZqAppParams.h"
#include "ZqExtractNote.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImagePlay.h"
#include "ZqLaunchers.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqSysEnv.h"
#include "ZqVolume.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace {

constexpr const char* UNIT = "src/base/extract/ZqImageRemoval";
constexpr const char* JOB = "remove";

[[noreturn]] void refuse(const SxString& image, const SxString& why, int line) {
    throw SxException("'" + image.makeVisible() + "' " + why + "; nothing is removed", UNIT, line);
}

/// Without the slashes and dots at its end, through which a link would be followed.
SxString plainEnd(const SxString& path) {
    std::string_view rest = path.str();
    while (rest.size() > 1 && (rest.ends_with('/') || rest.ends_with("/.")))
        rest.remove_suffix(1);
    return SxString(std::string(rest));
}

/// The root folder, too.
bool holdsHome(const SxString& folder) {
    const char* home = std::getenv("HOME");
    const std::string own = home && *home == '/' ? SxOs::physicalPath(home) : "/";
    return folder == "/" || (own + "/").starts_with(folder.str() + "/");
}

} // namespace

ZqImageRemoval::ZqImageRemoval(const SxString& image_) {
    const SxString given = plainEnd(ZqSysEnv::unifySlashes(image_));
    const auto info = SxFSAction::look(given);
    if (!info) refuse(given, "isn't there", __LINE__);
    if (info->kind == SxStat::Link) refuse(given, "is a link; name the image folder itself", __LINE__);
    if (info->kind != SxStat::Dir) refuse(given, "is no folder", __LINE__);
    image = SxOs::physicalPath(SxOs::hostPath(SxFileInfo(given).getAbsPath()));
    if (holdsHome(image)) refuse(given, "is the home folder, or holds it", __LINE__);
    if (info->owner != SxProcessInfo::ownUser()) {
        const SxString name = ZqSysEnv::getUserName(info->owner);
        refuse(given, "belongs to the user " + name + ", who alone may remove it", __LINE__);
    }
    requireImage();
    ZqExtractNote::refuse(image);
    requireUnused();
    content = std::make_unique<const ZqImageContent>(image);
}

/// Others have files with such names, too; above all `app.json`, as a template for builds.
void ZqImageRemoval::requireImage() {
    const SxString prefix = ZqImageFolder::prefix(image);
    const auto has = [&](const char* name) { return !SxFSAction::isGone(prefix + name); };
    const bool hasBlocks = has(ZqImageFiles::ZQF) || has(ZqImageFiles::IDX) || has(ZqImageFiles::SPLIT_INFO);
    // What is left of one after a removal that was cut off, or before its record has come.
    const bool isRest = has(ZqImageFiles::LOCK) || has(ZqImageFiles::STREAM_JSON);
    if (has(ZqImageFiles::APP_JSON) && (hasBlocks || isRest || has(ZqImageFiles::IMAGE_JSON))) {
        try {
            const ZqAppParams app(prefix);
            guid = app.guid;
            saves = ZqSaves::of(app);
            return;
        } catch (const SxException& e) {
            fault = e.toString(SxException::ShowMessage, ": ");
        }
    }
    if (!(fault.isEmpty() && isRest) && !(hasBlocks && has(ZqImageFiles::LOCK)))
        refuse(image, "holds no image", __LINE__);
}

void ZqImageRemoval::requireUnused() const {
    std::optional<ZqImagePlay> play;
    try {
        play = ZqImagePlay::find(image);
    } catch (const SxException& e) {
        // A damaged image is to go, too. A run's lock and its drive keep one that is played all the same.
        zqLogMsg("base", SxString("ZqImageRemoval: ") + e.what());
    }
    if (play) refuse(image, play->describe() + "; end that first", __LINE__);
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return;
    refuse(image,
           "is mounted" + (disk.drive.isEmpty() ? SxString() : " as " + disk.drive) +
               "; take the drive away first, with: tavrin umount " + image.makeVisible(),
           __LINE__);
}

/// What a service that was killed, and mounts without an unmount, have left.
void ZqImageRemoval::takeBack() const {
    bool isWritten = false;
    ZqMountMgr().removeLeftovers(image, &isWritten);
    const ZqLaunchers::Restored restored = ZqLaunchers::restore();
    for (const ZqLaunchers::Change& change : ZqLaunchers::getChanges()) {
        if (!(change.image == image) || restored.failures.isEmpty()) continue;
        throw SxException(restored.failures.first(),
                          "What the mount of '" + image +
                              "' has changed can't be taken back; nothing is removed",
                          UNIT, __LINE__);
    }
}

ZqImageRemoval::Folder ZqImageRemoval::remove(bool isWithSaves) {
    if (isWithSaves && !fault.isEmpty()) {
        throw SxException("What the application of '" + image +
                              "' has saved can't be told, since its record can't be used (" + fault +
                              "); leave --saves away; nothing is removed",
                          UNIT, __LINE__);
    }
    requireUnused();
    ZqImageLock::finishReplacement(image);
    const auto growth = ZqImageLock::takeAnyState(image, ZqImageLock::Growth, ZqImageLock::Exclusive, JOB);
    takeBack();
    const auto drive = ZqImageLock::takeAnyState(image, ZqImageLock::Drive, ZqImageLock::Exclusive, JOB);
    const auto shape = ZqImageLock::takeAnyState(image, ZqImageLock::Shape, ZqImageLock::Exclusive, JOB);
    // The record, which names them, goes with the image.
    if (isWithSaves && saves) saves->remove(guid);
    // What has come since the look is removed, too.
    content = std::make_unique<const ZqImageContent>(image);
    content->remove();
    const int removed = SxOs::get().removeDir(image.str());
    if (removed < 0 && removed != -ENOTEMPTY && removed != -EEXIST && removed != -EBUSY) {
        throw SxException(SxException(SxOs::errorText(removed), UNIT, __LINE__),
                          "The image is removed, but its empty folder '" + image + "' can't be", UNIT,
                          __LINE__);
    }
    if (removed < 0) return removed == -EBUSY ? InPlace : Filled;
    SxFSAction::syncDir(SxFileInfo(image).getPath());
    return Gone;
}
