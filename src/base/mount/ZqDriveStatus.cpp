#include "ZqDriveStatus.h"

#include "SxException.h"
#include "ZqVolume.h"

namespace {
constexpr const char* UNIT = "src/base/ZqMountMgr";
}

void ZqDriveStatus::require(int status, const SxString& words, int line) {
    if (status == 0) return;
    const SxException reason = ZqVolume::getLastException(UNIT, line);
    if (reason.getMessage().isEmpty()) throw SxException(words, UNIT, line);
    throw SxException(reason, words, UNIT, line);
}
