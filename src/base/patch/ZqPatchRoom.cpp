#include "ZqPatchRoom.h"

#include "SxException.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchRoom";
/// No disk has more, and sums of a few of these don't overflow.
constexpr uint64 MOST = uint64{1} << 60;

int64 bounded(uint64 bytes) {
    if (bytes <= MOST) return static_cast<int64>(bytes);
    throw SxException("The patch states sizes that no disk has: " + SxString(bytes) + " bytes", UNIT,
                      __LINE__);
}

int64 sum(int64 a, int64 b) {
    return bounded(static_cast<uint64>(a + b));
}

/// Of the parts that are still to come.
int64 peakOfParts(std::span<const ZqPatchSizes> parts, const ZqPatchRoom::State& state) {
    const uint32 stage = state.at.stage;
    if (stage >= ZqPatchProgress::FinalizePatch) return 0;
    int64 oldToCome = 0; // bytes that are still copied out
    int64 given = 0;     // bytes that parts before have given back
    int64 highest = 0;   // what a part takes beyond that
    // Before that all old data has yet to leave the image, or the rest of it.
    const size_t first = stage == ZqPatchProgress::PrepareOldData ? 0 : state.at.part;
    for (size_t i = first; i < parts.size(); ++i) {
        const ZqPatchSizes& part = parts[i];
        const bool isCurrent = i == state.at.part;
        const int64 there = isCurrent ? bounded(state.partFiles) : 0;
        int64 files = sum(bounded(part.patchSize), state.isReplace ? 0 : bounded(part.newBytes));
        if (stage == ZqPatchProgress::PrepareOldData) {
            if (i >= state.at.part)
                oldToCome = sum(oldToCome, std::max<int64>(bounded(part.oldBytes) - there, 0));
        } else if (isCurrent) {
            files = stage >= ZqPatchProgress::CopyNewData ? 0 : std::max<int64>(files - there, 0);
        }
        highest = std::max(highest, files - given);
        given = sum(given, bounded(part.oldBytes));
        if (stage != ZqPatchProgress::PrepareOldData) given = sum(given, there);
    }
    return sum(oldToCome, std::max<int64>(highest, 0));
}

} // namespace

uint64 ZqPatchRoom::need(std::span<const ZqPatchSizes> parts, const State& state) {
    const int64 map = bounded(state.sizeIdx);
    // At the end the new map is written once more, when it is squashed and when it takes its place.
    const int64 work = std::max(peakOfParts(parts, state), map);
    return static_cast<uint64>(sum(sum(work, bounded(state.growth)), state.hasMap ? 0 : map));
}
