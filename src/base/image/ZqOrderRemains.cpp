#include "ZqOrderRemains.h"

#include "SxFSAction.h"
#include "ZqArchiveFile.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"

#include <utility>

void ZqOrderRemains::remove(const SxString& image, const Kept& kept) {
    // What a kill has left of a map that was unpacked.
    ZqArchiveFile::removeLeft(image);
    const std::pair<const char*, bool> files[] = {{ZqImageFiles::REFERENCE, false},
                                                  {ZqImageFiles::PACKED, false},
                                                  {ZqImageFiles::IDX_PACKED, false},
                                                  {ZqImageFiles::IDX_MD5, kept.idxMd5},
                                                  {ZqImageFiles::HINTS, kept.hints}};
    for (const auto& [name, isKept] : files) {
        if (!isKept && !SxFSAction::isGone(image + name)) SxFSAction::rm(image + name);
    }
    if (!kept.ahead) ZqStretchStore::remove(image);
    SxFSAction::syncDir(image);
    ZqStreamRecord old;
    try {
        old.read(image);
    } catch (const SxException& e) {
        // Who believes the record reads it, too, and is told then. The blocks must not wait for that.
        zqLogMsg("base", "ZqOrderRemains: " + e.toString(SxException::ShowMessage, ": "));
        return;
    }
    if (old.verified.isEmpty()) return;
    ZqStreamRecord::update(image, [](ZqStreamRecord* record) { record->verified = SxString(); });
}

void ZqOrderRemains::renewSyncedSize(const SxString& image) {
    const SxString zqf = image + ZqImageFiles::ZQF;
    ZqSyncedSize(zqf).noteComplete(static_cast<uint64>(SxFSAction::sizeOf(zqf)));
}
