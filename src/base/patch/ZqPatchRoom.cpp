#include "ZqPatchRoom.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchRoom";
/// No disk has more, and sums of a few of these don't overflow.
constexpr uint64 MOST = uint64{1} << 60;

int64 bounded(uint64 bytes) {
    if (bytes > MOST) {
        throw SxException("The patch states sizes that no disk has: " + SxString(bytes) + " bytes", UNIT,
                          __LINE__);
    }
    return static_cast<int64>(bytes);
}

} // namespace

uint64 ZqPatchRoom::need(std::span<const ZqPatchSizes> parts, const ZqPatchProgress& at, bool isReplace,
                         uint64 nOld, uint64 nNew, bool hasMap) {
    ZqPatchRoom room(at.stage, at.part, isReplace);
    for (const ZqPatchSizes& part : parts)
        room.add(part);
    const uint64 map = hasMap ? 0 : nNew * sizeof(uint64);
    const uint64 growth = nNew > nOld ? (nNew - nOld) * ZqBlocks::SIZE : 0;
    return room.peak() + map + growth;
}

void ZqPatchRoom::add(const ZqPatchSizes& part) {
    const uint32 idx = nParts++;
    const int64 old = bounded(part.oldBytes);
    const bool isCopiedOut = stage > 0 || idx < first;
    if (!isCopiedOut) oldToCome = bounded(static_cast<uint64>(oldToCome + old));
    // With its stream and its new data beside the old data that is left.
    if (stage == 0 || idx >= first) {
        const int64 work = bounded(part.patchSize) + (isReplace ? 0 : bounded(part.newBytes));
        highest = std::max(highest, work - given);
        given = bounded(static_cast<uint64>(given + old));
    }
}

uint64 ZqPatchRoom::peak() const {
    return static_cast<uint64>(oldToCome + std::max<int64>(highest, 0));
}
