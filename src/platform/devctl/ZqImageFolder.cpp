#include "ZqImageFolder.h"

#include "SxFSAction.h"
#include "ZqImageFiles.h"

SxString ZqImageFolder::prefix(const SxString& path) {
    return path.endsWith("/") ? path : path + "/";
}

bool ZqImageFolder::holdsImage(const SxString& path) {
    for (const char* name :
         {ZqImageFiles::APP_JSON, ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX, ZqImageFiles::ZQF,
          ZqImageFiles::SPLIT_INFO, ZqImageFiles::STREAM_JSON, ZqImageFiles::LOCK}) {
        if (SxFSAction::exists(prefix(path) + name)) return true;
    }
    return false;
}

bool ZqImageFolder::isFree(const SxString& path) {
    return !SxFSAction::exists(path) || (SxFSAction::test_d(path) && SxFSAction::ls(path).isEmpty());
}
