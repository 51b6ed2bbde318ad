#include "ZqDriveStatus.h"

#include "SxException.h"
#include "ZqVolume.h"

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";

/// What failed, with the reason where one is known.
SxException chained(const SxException& reason, const SxString& words, int line) {
    return reason.getMessage().isEmpty() ? SxException(words, UNIT, line)
                                         : SxException(reason, words, UNIT, line);
}

} // namespace

void ZqDriveStatus::require(int status, const SxString& words, int line) {
    if (status == 0) return;
    throw chained(ZqVolume::getLastException(UNIT, line), words, line);
}

bool ZqDriveStatus::findDisk(const SxString& image, ZqDiskStatus* disk) {
    try {
        return ZqVolume::findDisk(image, disk);
    } catch (const SxException& e) {
        const SxString reason = e.toString(SxException::ShowMessage, ": ");
        const SxException cause = e.hasTag(ZqVolume::SILENT)
                                      ? SxException(ZqVolume::SILENT, reason, UNIT, __LINE__)
                                      : SxException(reason, UNIT, __LINE__);
        throw SxException(chained(cause, "TAVRIN Driver error", __LINE__),
                          "Cannot query mount state for image " + image, UNIT, __LINE__);
    }
}
