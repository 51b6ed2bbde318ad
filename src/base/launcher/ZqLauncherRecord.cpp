#include "ZqLauncherRecord.h"

#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqLauncherFiles.h"

namespace {

constexpr const char* UNIT = "src/base/ZqLauncherRecord";
constexpr const char* LOCK = "C:/ProgramData/TAVRIN/launchers.lock";
/// Holds what the player's registry had, which is for its user alone.
constexpr int PERMISSION = 0600;

/// All that a path goes through, since the folders may be new, too.
void syncFoldersAbove(const SxString& path) {
    SxString folder = SxFileInfo(path).getPath();
    for (SxString above = SxFileInfo(folder).getPath(); above != folder;
         above = SxFileInfo(folder).getPath()) {
        SxFSAction::syncDir(above);
        folder = above;
    }
}

} // namespace

ZqLauncherRecord::ZqLauncherRecord()
    : lock(LOCK, "Another mount or unmount changes what launchers know at the moment",
           SxString("Cannot lock '") + ZqLauncherRecord::FILE + "'", LOCK_MS) {
    changes = saved = peek();
}

ZqLauncherRecord::~ZqLauncherRecord() = default;

void ZqLauncherRecord::save() {
    changes.tidy();
    if (changes == saved) return;
    try {
        if (changes.isEmpty()) {
            SxFSAction::rm(FILE);
            SxFSAction::syncDir(SxFileInfo(FILE).getPath());
        } else {
            SxFileIO::writeAtomic(FILE, changes.toText(), PERMISSION);
            if (saved.isEmpty()) syncFoldersAbove(FILE);
        }
    } catch (const SxException& e) {
        throw SxException(e, SxString("Failed to write file ") + FILE, UNIT, __LINE__);
    }
    saved = changes;
}

ZqLauncherChanges ZqLauncherRecord::peek() {
    ZqLauncherChanges changes;
    try {
        if (SxFSAction::look(FILE)) changes.readText(SxFileIO::readUtf8(FILE), FILE);
    } catch (const SxException& e) {
        throw SxException(e, SxString("Failed to read file ") + FILE, UNIT, __LINE__);
    }
    return changes;
}

SxString ZqLauncherRecord::pathOf(const SxString& image) {
    std::string path;
    if (SxOs::get().canonical(SxOs::hostPath(image), &path) == 0) return SxString(path);
    return SxFileInfo(image).getAbsPath();
}

void ZqLauncherRecord::removeMade(const SxString& image, SxList<SxString> ZqLauncherChanges::Image::*list,
                                  SxString (*placeOf)(const SxString& name), ZqTries* tries) {
    ZqLauncherChanges::Image& own = changes.of(image);
    SxList<SxString> left;
    for (const SxString& name : own.*list) {
        if (changes.isOthers(image, list, name)) continue;
        if (!tries->run([&] { ZqLauncherFiles::remove(placeOf(name)); })) left.append(name);
    }
    own.*list = left;
}

void ZqLauncherRecord::undo(const std::function<void(ZqLauncherRecord* record)>& undo) {
    ZqLauncherRecord record;
    ZqTries tries;
    tries.run([&] { undo(&record); });
    record.save();
    tries.raise();
}
