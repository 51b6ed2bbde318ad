#include "VolumeProbe.h"

#include "SxException.h"
#include "SxTime.h"
#include "ZqDriveMeans.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/driver/VolumeProbe";
/// Of the first block, which every file system has its superblock in; the next may not be there yet.
constexpr uint32 SUPERBLOCK_BYTES = 4096;

} // namespace

bool VolumeProbe::readBlocking(uint64 offset, uint32 size, char* to, const std::atomic<bool>& stopped) {
    int error = 0;
    woken = false;
    // As a retry, since a trace holds what others read.
    VirtualDisk::Result result = disk->read(offset, size, to, TOKEN, true, &error);
    while (result == VirtualDisk::Result::Held) {
        while (!woken && !stopped)
            SxTime::msleep(SxWait::LOOK_MS);
        if (stopped) {
            disk->forget(TOKEN);
            return false;
        }
        woken = false;
        result = disk->read(offset, size, to, TOKEN, true, &error);
    }
    return result == VirtualDisk::Result::Done;
}

SxString VolumeProbe::detectType(const std::atomic<bool>& stopped) {
    char bytes[SUPERBLOCK_BYTES] = {};
    const auto n = static_cast<uint32>(std::min<uint64>(SUPERBLOCK_BYTES, disk->getSizeRaw()));
    if (!readBlocking(0, n, bytes, stopped)) {
        throw SxException("The start of the volume can't be read", UNIT, __LINE__);
    }
    const SxString type = ZqDriveMeans::typeOf({bytes, sizeof bytes});
    if (!type.isEmpty()) return type;
    throw SxException("The image holds no file system that can be mounted (EROFS, ext4, squashfs)", UNIT,
                      __LINE__);
}

SxString VolumeProbe::getLabel() {
    char bytes[SUPERBLOCK_BYTES] = {};
    int error = 0;
    if (disk->getSizeRaw() < SUPERBLOCK_BYTES ||
        disk->read(0, SUPERBLOCK_BYTES, bytes, TOKEN, true, &error) != VirtualDisk::Result::Done) {
        disk->forget(TOKEN);
        return {};
    }
    const bool erofs = ZqDriveMeans::typeOf({bytes, sizeof bytes}) == "erofs";
    const char* name = bytes + 1024 + (erofs ? 64 : 120);
    return SxString(std::string(name, ::strnlen(name, 16))).validUtf8();
}
