#include "WriteLayer.h"

#include "SxException.h"

#include <algorithm>
#include <cerrno>
#include <functional>

namespace {

constexpr const char* UNIT = "src/driver/WriteLayerFlush";
constexpr uint64 BLOCKS_AT_ONCE = 1 << 16;

} // namespace

/// Visits each block that has a slot, in RAW order.
template<class Visit>
void WriteLayer::forEachBlock(const Target& target, Visit&& visit) {
    SxArray<uint64> homes;
    for (RawIdx first; first.value < map->nRaw(); first = first + BLOCKS_AT_ONCE) {
        const uint64 n = std::min(BLOCKS_AT_ONCE, map->nRaw() - first.value);
        bool isRead = false;
        for (uint64 i = 0; i < n; ++i) {
            const RawIdx rawIdx = first + i;
            const BlockMap::Place place = map->get(rawIdx);
            if (!place.isSlot()) continue;
            if (!isRead) map->readStored(first, n, &homes);
            isRead = true;
            const BlockMap::Place home(homes(static_cast<int64>(i)));
            const auto begin = static_cast<uint64>(home.isStored() ? home.zqfIdx().byte() : 0);
            const uint64 size = std::min(BLOCK_SIZE, target.sizeRaw - rawIdx.value * BLOCK_SIZE);
            const bool hasRoom =
                home.isStored() && home.zqfIdx().value < target.nBlocks && begin + size <= target.nBytes;
            visit(Move{rawIdx, place.slot(), home, size, hasRoom});
        }
    }
}

void WriteLayer::flush(const Target& target) {
    const SxMutexBlock turn(&changing);
    if (const int error = syncInTurn())
        tix.raise("Cannot bring the layer to the disk:", error, UNIT, __LINE__);
    if (!tmp.isOpen() || copyOut(target) == 0) return;
    writeIndex(target);
    try {
        freeMoved(target);
    } catch (const SxException& e) {
        // Blocks without a record must not be written in their slots.
        fail(e.toString(SxException::ShowMessage, ": "), EIO);
        throw;
    }
}

/// Copies the blocks that have a place; gives how many. What is cut off here is done again by the next flush:
/// until the index is replaced, the layer holds the same bytes.
uint64 WriteLayer::copyOut(const Target& target) {
    uint64 nMoved = 0;
    char block[BLOCK_SIZE];
    forEachBlock(target, [&](const Move& move) {
        if (!move.moves) return;
        const int64 got = tmp.readAt(block, move.size, static_cast<uint64>(move.slot.byte()));
        if (got != static_cast<int64>(move.size))
            tmp.raise("Cannot read", got < 0 ? got : -EIO, UNIT, __LINE__);
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

/// Replaces the index by one of the blocks that stay.
void WriteLayer::writeIndex(const Target& target) {
    DriveFile next;
    next.open(folder + "img.tix.new",
              SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
    const auto require = [&](int error) {
        if (error) next.raise("Cannot write", error, UNIT, __LINE__);
    };
    require(writeHeader(next));
    uint64 end = HEADER_SIZE;
    std::vector<Record> records;
    const auto append = [&] {
        require(next.writeAt(records.data(), records.size() * sizeof(Record), end));
        end += records.size() * sizeof(Record);
        records.clear();
    };
    forEachBlock(target, [&](const Move& move) {
        if (!move.moves) records.push_back(makeRecord(move.rawIdx, move.slot));
        if (records.size() == BLOCKS_AT_ONCE) append();
    });
    append();
    require(next.sync());
    if (const int status = SxOs::get().rename(next.getPath(), tix.getPath()); status < 0) {
        next.raise("Cannot rename", status, UNIT, __LINE__);
    }
    tix.adopt(&next);
    tixEnd = end;
    if (const int status = SxOs::get().syncDir(folder); status < 0) {
        // Which of the two indices a cut would leave isn't known, so neither may be added to.
        fail("Cannot bring the names in '" + SxString(folder) + "' to the disk", -status);
        throw SxException(getFailure(), UNIT, __LINE__);
    }
}

void WriteLayer::freeMoved(const Target& target) {
    std::vector<SlotIdx> freed;
    uint64 end = 0;
    forEachBlock(target, [&](const Move& move) {
        if (move.moves) {
            map->set(move.rawIdx, move.home);
            freed.push_back(move.slot);
        } else {
            end = std::max(end, move.slot.value + 1);
        }
    });
    // Whoever is reading from these slots reads again. The bytes go only behind this.
    ++moves;
    std::vector<SlotIdx> holes;
    {
        const SxMutexBlock lock(&mutex);
        freeSlots.insert(freeSlots.end(), freed.begin(), freed.end());
        std::erase_if(freeSlots, [end](SlotIdx slot) { return slot.value >= end; });
        std::sort(freeSlots.begin(), freeSlots.end(), std::greater<>());
        nSlots = end;
        holes = freeSlots;
    }
    giveBackRoom(holes, end);
}

/// Where the file system can't do this the room is used by later writes.
void WriteLayer::giveBackRoom(const std::vector<SlotIdx>& slots, uint64 end) {
    SxOs& os = SxOs::get();
    os.truncate(tmp.getFd(), static_cast<int64>(end * BLOCK_SIZE));
    for (const SlotIdx slot : slots)
        os.punchHole(tmp.getFd(), slot.byte(), BLOCK_SIZE);
}
