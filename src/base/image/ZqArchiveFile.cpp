#include "ZqArchiveFile.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqArchive.h"

void ZqArchiveFile::removeLeft(const SxString& folder) {
    if (!SxFSAction::isGone(folder + UNPACKED)) SxFSAction::rm_r(folder + UNPACKED);
}

bool ZqArchiveFile::take(const SxString& archive, const SxString& folder, const char* name) {
    removeLeft(folder);
    bool isThere = false;
    try {
        ZqArchive::extract7z(archive, folder + UNPACKED);
        isThere = SxFSAction::test_f(folder + UNPACKED + name);
        if (isThere) SxFSAction::mv(folder + UNPACKED + name, folder + name);
        SxFSAction::syncDir(folder);
    } catch (const SxException&) {
        removeLeft(folder);
        throw;
    }
    removeLeft(folder);
    return isThere;
}
