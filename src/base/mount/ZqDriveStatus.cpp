#include "ZqDriveStatus.h"

#include "SxException.h"
#include "ZqVolume.h"

namespace {

constexpr const char* UNIT = "src/base/ZqMountMgr";

[[noreturn]] void raise(const SxException& reason, const SxString& words, int line) {
    if (reason.getMessage().isEmpty()) throw SxException(words, UNIT, line);
    throw SxException(reason, words, UNIT, line);
}

} // namespace

void ZqDriveStatus::require(int status, const SxString& words, int line) {
    if (status == 0) return;
    raise(ZqVolume::getLastException(UNIT, line), words, line);
}

bool ZqDriveStatus::findDisk(const SxString& image, ZqDiskStatus* disk) {
    try {
        return ZqVolume::findDisk(image, disk);
    } catch (const SxException& e) {
        const SxString reason = e.toString(SxException::ShowMessage, ": ");
        try {
            raise(e.hasTag(ZqVolume::SILENT) ? SxException(ZqVolume::SILENT, reason, UNIT, __LINE__)
                                             : SxException(reason, UNIT, __LINE__),
                  "TAVRIN Driver error", __LINE__);
        } catch (const SxException& bare) {
            throw SxException(bare, "Cannot query mount state for image " + image, UNIT, __LINE__);
        }
    }
}
