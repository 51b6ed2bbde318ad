#include "ZqOrderRemains.h"

#include "SxFSAction.h"
#include "ZqArchiveFile.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"

void ZqOrderRemains::remove(const SxString& image, bool alsoAhead, bool alsoIdxMd5) {
    // What a kill has left of a map that was unpacked.
    ZqArchiveFile::removeLeft(image);
    for (const char* name : {ZqImageFiles::REFERENCE, ZqImageFiles::PACKED, ZqImageFiles::IDX_PACKED}) {
        if (!SxFSAction::isGone(image + name)) SxFSAction::rm(image + name);
    }
    if (alsoIdxMd5 && !SxFSAction::isGone(image + ZqImageFiles::IDX_MD5))
        SxFSAction::rm(image + ZqImageFiles::IDX_MD5);
    if (alsoAhead) ZqStretchStore::remove(image);
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
