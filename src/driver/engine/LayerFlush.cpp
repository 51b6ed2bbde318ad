#include "LayerFlush.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/driver/LayerFlush";
constexpr uint64 BLOCKS_AT_ONCE = 1 << 16;

} // namespace

LayerFlush::LayerFlush(BlockMap* map_, const LayerSlots& slots_, const Target& target_,
                       std::atomic<uint64>* nLookedAt_)
    : map(map_),
      slots(slots_),
      target(target_),
      nLookedAt(nLookedAt_) {
}

/// Visits each block that has a slot, or was discarded, in RAW order.
template<class Visit>
void LayerFlush::forEachBlock(Visit&& visit) {
    SxArray<uint64> homes;
    for (RawIdx first; first.value < map->nRaw(); first = first + BLOCKS_AT_ONCE) {
        const uint64 n = std::min(BLOCKS_AT_ONCE, map->nRaw() - first.value);
        bool isRead = false;
        for (uint64 i = 0; i < n; ++i) {
            const RawIdx rawIdx = first + i;
            ++*nLookedAt;
            const BlockMap::Place place = map->get(rawIdx);
            if (place.isStored()) continue;
            if (!isRead) map->readStored(first, n, &homes);
            isRead = true;
            const BlockMap::Place home(homes(static_cast<int64>(i)));
            if (place.isNothing() && home.isNothing()) continue;
            const auto begin = static_cast<uint64>(home.isStored() ? home.zqfIdx().byte() : 0);
            const uint64 size = std::min(ZqBlocks::SIZE, target.sizeRaw - rawIdx.value * ZqBlocks::SIZE);
            const bool hasRoom =
                home.isStored() && home.zqfIdx().value < target.nBlocks && begin + size <= target.nBytes;
            visit(Move{rawIdx, place.isSlot() ? place.slot() : LayerRecord::ZEROS, home, size, hasRoom});
        }
    }
}

uint64 LayerFlush::copyOut() {
    uint64 nMoved = 0;
    char block[ZqBlocks::SIZE];
    forEachBlock([&](const Move& move) {
        if (!move.moves) return;
        if (move.slot == LayerRecord::ZEROS) {
            std::memset(block, 0, sizeof block);
        } else {
            slots.read(move.slot, move.size, block);
        }
        const auto at = static_cast<uint64>(move.home.zqfIdx().byte());
        if (const int error = target.zqf->writeAt(block, move.size, at)) {
            target.zqf->raise("Cannot write", error, UNIT, __LINE__);
        }
        ++nMoved;
    });
    const int error = nMoved > 0 ? target.zqf->sync() : 0;
    if (error) target.zqf->raise("Cannot bring to the disk", error, UNIT, __LINE__);
    return nMoved;
}

void LayerFlush::listStaying(const std::function<void(const LayerRecord& record)>& append) {
    forEachBlock([&](const Move& move) {
        if (!move.moves) append({move.rawIdx, move.slot});
    });
}

LayerFlush::Left LayerFlush::switchOver() {
    Left left;
    forEachBlock([&](const Move& move) {
        if (move.moves) map->set(move.rawIdx, move.home);
        if (move.slot == LayerRecord::ZEROS) return;
        if (move.moves) {
            left.freed.push_back(move.slot);
        } else {
            left.end = std::max(left.end, move.slot + 1);
        }
    });
    return left;
}
