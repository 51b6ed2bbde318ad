#include "ZqOrderRemains.h"

#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"

void ZqOrderRemains::remove(const SxString& image, bool alsoAhead) {
    for (const char* name :
         {ZqImageFiles::REFERENCE, ZqImageFiles::PACKED, ZqImageFiles::IDX_PACKED, ZqImageFiles::IDX_MD5}) {
        if (!SxFSAction::isGone(image + name)) SxFSAction::rm(image + name);
    }
    if (alsoAhead) ZqStretchStore::remove(image);
    SxFSAction::syncDir(image);
    ZqStreamRecord old;
    old.read(image);
    if (old.verified.isEmpty()) return;
    ZqStreamRecord::update(image, [](ZqStreamRecord* record) { record->verified = SxString(); });
}

void ZqOrderRemains::renewSyncedSize(const SxString& image) {
    const SxString zqf = image + ZqImageFiles::ZQF;
    ZqSyncedSize(zqf).noteComplete(static_cast<uint64>(SxFSAction::sizeOf(zqf)));
}
