#pragma once

#include "BlockMap.h"
#include "LayerRecord.h"
#include "LayerSlots.h"

#include <functional>
#include <vector>

/// Moves the blocks of a write layer that have a place in the image there; one that was discarded as zeros.
/// Blocks without a place stay. One object for each flush, for one thread, while nobody writes or discards.
///
/// Its steps, in this order: the blocks are copied, durably; an index of those that stay takes the place of
/// the old one; the map has the blocks at their places. What is cut off before the second one is done again
/// by the next flush: until the index is replaced, the layer holds the same bytes.
class LayerFlush {
public:
    /// Where blocks are moved to.
    struct Target {
        const DriveFile* zqf;
        uint64 nBlocks; ///< ZqF blocks that are there
        uint64 nBytes;  ///< of the file
        uint64 sizeRaw; ///< bytes
    };

    /// `nLookedAt_` counts the blocks that were looked at.
    LayerFlush(BlockMap* map_, const LayerSlots& slots_, const Target& target_,
               std::atomic<uint64>* nLookedAt_);

    /// Copies the blocks that have a place, durably; gives how many. Raises.
    uint64 copyOut();
    /// Gives the record of each block that stays. Raises.
    void listStaying(const std::function<void(const LayerRecord& record)>& append);
    /// The slots once the blocks have moved.
    struct Left {
        std::vector<SlotIdx> freed;
        SlotIdx end; ///< beyond the last one in use
    };
    /// Puts the blocks at their places in the map. Raises.
    Left switchOver();

private:
    /// What becomes of one block.
    struct Move {
        RawIdx rawIdx;
        SlotIdx slot;         ///< or LayerRecord::ZEROS
        BlockMap::Place home; ///< its entry in the map without the layer
        uint64 size;          ///< bytes of it that lie on the disk
        bool moves;
    };

    template<class Visit>
    void forEachBlock(Visit&& visit);

    BlockMap* const map;
    const LayerSlots& slots;
    const Target target;
    std::atomic<uint64>* const nLookedAt;
};
