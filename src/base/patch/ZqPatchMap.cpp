#include "ZqPatchMap.h"

#include "SxException.h"
#include "ZqImage.h"

#include <algorithm>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchMap";
constexpr uint64 NONE = ZqImage::NO_ENTRY;
/// Items between two looks at a stop.
constexpr uint64 LOOK = 1 << 20;

uint64 sizeOf(const SxArray<uint64>& table) {
    return static_cast<uint64>(table.getSize());
}

uint64& at(SxArray<uint64>* table, uint64 item) {
    return (*table)(static_cast<int64>(item));
}

uint64 at(const SxArray<uint64>& table, uint64 item) {
    return table(static_cast<int64>(item));
}

/// Builds the new map.
class Builder {
public:
    Builder(const SxArray<uint64>& oldIdx_, uint64 nBlocks_, uint64 nNew)
        : oldIdx(oldIdx_),
          nBlocks(nBlocks_),
          newIdx(static_cast<int64>(nNew)),
          taken(sizeOf(oldIdx_)) {
        newIdx.set(NONE);
    }

    /// The new item takes over the slot of the old one.
    void keep(uint64 oldItem, uint64 newItem) {
        const uint64 slot = slotOf(oldItem);
        if (taken[slot]) refuse("slot " + SxString(slot) + " is given to two new items");
        taken[slot] = true;
        put(newItem, slot);
    }
    /// Where the old item's bytes are, which a part takes.
    void requireOld(uint64 oldItem) const { slotOf(oldItem); }
    /// The new item gets the lowest slot that is left.
    void add(uint64 newItem) {
        while (nextFree < taken.size() && taken[nextFree])
            ++nextFree;
        if (nextFree >= std::max(taken.size(), sizeOf(newIdx)))
            refuse("there are more new items than free slots");
        put(newItem, nextFree++);
    }
    SxArray<uint64> take() { return std::move(newIdx); }

private:
    [[noreturn]] static void refuse(const SxString& what) {
        throw SxException("The patch doesn't fit the image: " + what, UNIT, __LINE__);
    }
    uint64 slotOf(uint64 oldItem) const {
        if (oldItem >= sizeOf(oldIdx)) {
            refuse("it names old item " + SxString(oldItem) + " of " + SxString(sizeOf(oldIdx)));
        }
        const uint64 slot = at(oldIdx, oldItem);
        if (slot >= taken.size() || slot >= nBlocks) refuse("old item " + SxString(oldItem) + " has no slot");
        return slot;
    }
    void put(uint64 newItem, uint64 slot) {
        if (newItem >= sizeOf(newIdx)) {
            refuse("it names new item " + SxString(newItem) + " of " + SxString(sizeOf(newIdx)));
        }
        if (at(newIdx, newItem) != NONE) refuse("it gives new item " + SxString(newItem) + " twice");
        at(&newIdx, newItem) = slot;
    }

    const SxArray<uint64>& oldIdx;
    const uint64 nBlocks;
    SxArray<uint64> newIdx;
    std::vector<bool> taken; ///< by slot of the old image: kept by a new item
    uint64 nextFree = 0;
};

} // namespace

SxArray<uint64> ZqPatchMap::generate(const SxArray<uint64>& oldIdx, uint64 nBlocks,
                                     const SxArray<uint64>& map, uint64 nNew,
                                     std::span<const ZqPatchInfo> parts, const StopTest& isStopped) {
    Builder builder(oldIdx, nBlocks, nNew);
    for (uint64 item = 0; item < sizeOf(map); ++item) {
        if (item % LOOK == 0 && isStopped()) return {};
        if (at(map, item) != NONE) builder.keep(item, at(map, item));
    }
    for (const ZqPatchInfo& part : parts) {
        if (isStopped()) return {};
        for (const uint64 item : part.oldMap)
            builder.requireOld(item);
        for (const uint64 item : part.newMap)
            builder.add(item);
    }
    return builder.take();
}

uint64 ZqPatchMap::countBeyond(const SxArray<uint64>& idx, uint64 end) {
    return static_cast<uint64>(
        std::count_if(idx.begin(), idx.end(), [&](uint64 slot) { return slot != NONE && slot >= end; }));
}

uint64 ZqPatchMap::countUsed(const SxArray<uint64>& idx) {
    return sizeOf(idx) - static_cast<uint64>(std::count(idx.begin(), idx.end(), NONE));
}
