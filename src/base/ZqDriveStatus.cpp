#include "ZqDriveStatus.h"

#include "SxException.h"
#include "ZqVolume.h"

namespace {
constexpr const char* UNIT = "src/base/ZqMountMgr";
}

void ZqDriveStatus::require(int status, const SxString& words, int line) {
    if (status == 0) return;
    const SxString reason = ZqVolume::getLastFailure();
    if (reason.isEmpty()) throw SxException(words, UNIT, line);
    throw SxException(SxException(reason, UNIT, line), words, UNIT, line);
}
