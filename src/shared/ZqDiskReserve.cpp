#include "ZqDiskReserve.h"

#include "SxFSAction.h"

#include <algorithm>
#include <limits>

namespace {
constexpr uint64 PART = 10; ///< a tenth of the free room is left

uint64 freeOn(const SxString& folder) {
    return static_cast<uint64>(SxFSAction::freeSpace(folder));
}
} // namespace

ZqDiskReserve::ZqDiskReserve(const SxString& folder_, uint64 nHeld)
    : folder(folder_),
      size(std::min(MAX, (freeOn(folder_) + nHeld) / PART)) {
}

uint64 ZqDiskReserve::getRoom() const {
    if (folder.isEmpty()) return std::numeric_limits<uint64>::max();
    const uint64 free = freeOn(folder);
    return free > size ? free - size : 0;
}

uint64 ZqDiskReserve::getMissing(uint64 nBytes) const {
    const uint64 room = getRoom();
    return nBytes > room ? nBytes - room : 0;
}
