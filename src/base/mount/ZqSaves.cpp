#include "ZqSaves.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqImageFolder.h"
#include "ZqPreparationLock.h"
#include "ZqRedirection.h"
#include "ZqVolume.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/mount/ZqSaves";

uint64 sizeBelow(const SxString& folder) {
    uint64 nBytes = 0;
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const auto info = SxFSAction::look(entry.getOrig());
        if (!info) continue;
        nBytes += info->kind == SxStat::Dir ? sizeBelow(entry.getOrig())
                                            : static_cast<uint64>(std::max<int64>(info->allocated, 0));
    }
    return nBytes;
}

} // namespace

std::optional<ZqSaves> ZqSaves::of(const ZqAppParams& app) {
    // A record without names to redirect may have any guid, and one that leads elsewhere has saved nothing.
    if (!ZqRedirection::isName(app.guid)) return std::nullopt;
    ZqSaves saves;
    // As people know it, and not by the link of the drive's letter.
    const SxFileInfo folder(ZqRedirection(app).getDirectory());
    saves.path = SxOs::physicalPath(SxOs::hostPath(folder.getPath())) + "/" + folder.getName().str();
    const auto info = SxFSAction::look(saves.path);
    if (!info || info->kind != SxStat::Dir) return std::nullopt;
    saves.nBytes = sizeBelow(saves.path);
    return saves;
}

void ZqSaves::remove(const SxString& guid) const {
    // Mounts that come after the look at the drives need it, too.
    const ZqPreparationLock lock(path);
    requireFree(guid, SxString());
    lock.removeFolder();
}

void ZqSaves::requireFree(const SxString& guid, const SxString& image) {
    for (const ZqDiskStatus& disk : ZqVolume::getDisks()) {
        if (disk.image == image) continue;
        ZqAppParams other;
        try {
            other = ZqAppParams(ZqImageFolder::prefix(disk.image));
        } catch (const SxException& e) {
            throw SxException(e,
                              "Whether the drive of image '" + disk.image +
                                  "' uses the private files of the application can't be told",
                              UNIT, __LINE__);
        }
        if (!(other.guid == guid) || (other.dirmap.isEmpty() && other.filemap.isEmpty())) continue;
        throw SxException("The private files of the application are in use by the drive of image '" +
                              disk.image + "'",
                          UNIT, __LINE__);
    }
}
