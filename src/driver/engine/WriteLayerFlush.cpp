#include "WriteLayer.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

namespace {

constexpr const char* UNIT = "src/driver/WriteLayerFlush";
constexpr uint64 BLOCKS_AT_ONCE = 1 << 16;

} // namespace

/// Visits each block that has a slot, or was discarded, in RAW order.
template<class Visit>
void WriteLayer::forEachBlock(const Target& target, Visit&& visit) {
    SxArray<uint64> homes;
    for (RawIdx first; first.value < map->nRaw(); first = first + BLOCKS_AT_ONCE) {
        const uint64 n = std::min(BLOCKS_AT_ONCE, map->nRaw() - first.value);
        bool isRead = false;
        for (uint64 i = 0; i < n; ++i) {
            const RawIdx rawIdx = first + i;
            ++nLookedAt;
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
            visit(Move{rawIdx, place.isSlot() ? place.slot() : ZEROS, home, size, hasRoom});
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
        // The new index has no records of the blocks that moved: they must not be written in their slots.
        fail(e.toString(SxException::ShowMessage, ": "), EIO);
        throw;
    }
    reserve();
}

/// Copies the blocks that have a place; gives how many. What is cut off here is done again by the next flush:
/// until the index is replaced, the layer holds the same bytes.
uint64 WriteLayer::copyOut(const Target& target) {
    uint64 nMoved = 0;
    char block[ZqBlocks::SIZE];
    forEachBlock(target, [&](const Move& move) {
        if (!move.moves) return;
        if (move.slot == ZEROS) {
            std::memset(block, 0, sizeof block);
        } else {
            const int64 got = tmp.readAt(block, move.size, static_cast<uint64>(move.slot.byte()));
            if (got != static_cast<int64>(move.size))
                tmp.raise("Cannot read", got < 0 ? got : -EIO, UNIT, __LINE__);
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

/// Replaces the index by one of the blocks that stay.
void WriteLayer::writeIndex(const Target& target) {
    openNext();
    const auto require = [&](int error) {
        if (error) nextTix.raise("Cannot write", error, UNIT, __LINE__);
    };
    require(writeHeader(nextTix));
    uint64 end = HEADER_SIZE;
    std::vector<Record> records;
    const auto append = [&] {
        require(nextTix.writeAt(records.data(), records.size() * sizeof(Record), end));
        end += records.size() * sizeof(Record);
        records.clear();
    };
    forEachBlock(target, [&](const Move& move) {
        if (!move.moves) records.push_back(makeRecord(move.rawIdx, move.slot));
        if (records.size() == BLOCKS_AT_ONCE) append();
    });
    append();
    require(nextTix.sync());
    replaceIndex(end);
}

/// Another image's files may have been put into the folder.
void WriteLayer::requireInPlace() {
    if (folder.holds(tix, INDEX)) return;
    throw SxException("'" + SxString(tix.getPath()) + "' was removed, or replaced by another one", UNIT,
                      __LINE__);
}

void WriteLayer::openNext() {
    nextTix.close(); // of one that was given up
    requireInPlace();
    folder.open(&nextTix, NEXT_INDEX,
                SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
}

/// Puts a new index of `end` bytes, which is synced, in the place of the old one.
void WriteLayer::replaceIndex(uint64 end) {
    requireInPlace();
    if (const int error = folder.rename(NEXT_INDEX, INDEX)) {
        nextTix.raise("Cannot rename", error, UNIT, __LINE__);
    }
    tix.adopt(&nextTix);
    tixBegin = HEADER_SIZE;
    tixEnd = end;
    tixReserved = 0;
    isFormer = false;
    compactAt = LEAST_TO_COMPACT + 2 * end;
    // Where this fails, nobody knows which of the two indices a cut would leave, so neither may be added to.
    if (syncNames() != 0) throw SxException(getFailure(), UNIT, __LINE__);
}

void WriteLayer::freeMoved(const Target& target) {
    std::vector<SlotIdx> freed;
    uint64 end = 0;
    forEachBlock(target, [&](const Move& move) {
        if (move.moves) map->set(move.rawIdx, move.home);
        if (move.slot == ZEROS) return;
        if (move.moves) {
            freed.push_back(move.slot);
        } else {
            end = std::max(end, move.slot.value + 1);
        }
    });
    // Whoever is reading from these slots reads again. The bytes may go only after this.
    ++moves;
    const SxMutexBlock turn(&giving);
    {
        const SxMutexBlock lock(&mutex);
        unused.insert(unused.end(), freed.begin(), freed.end());
        for (const Freed& slot : freedSynced)
            unused.push_back(slot.slot);
        freedSynced.clear();
        unused.insert(unused.end(), reserved.begin(), reserved.end());
        reserved.clear();
        for (std::vector<SlotIdx>* slots : {&unused, &freeSlots}) {
            std::erase_if(*slots, [end](SlotIdx slot) { return slot.value >= end; });
            std::sort(slots->begin(), slots->end(), std::greater<>());
        }
        nSlots = end;
    }
    SxOs::get().truncate(tmp.getFd(), static_cast<int64>(end * ZqBlocks::SIZE));
}

/// Calls `append` with each record of the index that no later one of its block takes the place of.
template<class Append>
void WriteLayer::copyLatest(Append&& append) {
    std::vector<bool> seen(map->nRaw());
    std::vector<Record> records;
    SxArray<uint64> home;
    for (uint64 end = tixEnd; end > tixBegin;) {
        const uint64 n = std::min(BLOCKS_AT_ONCE, (end - tixBegin) / sizeof(Record));
        records.resize(n);
        end -= n * sizeof(Record);
        readAll(records.data(), n * sizeof(Record), end);
        for (size_t i = n; i-- > 0;) {
            ++nLookedAt;
            const RawIdx rawIdx = blockOf(records[i]);
            if (rawIdx.value >= seen.size() || seen[rawIdx.value]) continue;
            seen[rawIdx.value] = true;
            if (isZeros(records[i])) {
                map->readStored(rawIdx, 1, &home);
                // It reads as zeros without a record, too.
                if (BlockMap::Place(home(0)).isNothing()) continue;
            }
            append(records[i]);
        }
    }
}

/// Writes the index anew, without records that others have taken the place of. Gives 0 or an errno value,
/// where the old one stays in its place, and the layer's failure is set only if neither can be used.
int WriteLayer::compact() {
    try {
        openNext();
        int error = writeHeader(nextTix);
        uint64 end = HEADER_SIZE;
        std::vector<Record> records;
        const auto write = [&] {
            if (!error) error = nextTix.writeAt(records.data(), records.size() * sizeof(Record), end);
            end += records.size() * sizeof(Record);
            records.clear();
        };
        copyLatest([&](const Record& record) {
            records.push_back(record);
            if (records.size() == BLOCKS_AT_ONCE) write();
        });
        write();
        if (!error) error = nextTix.sync();
        if (!error) {
            replaceIndex(end);
            return 0;
        }
        nextTix.close();
        folder.unlink(NEXT_INDEX);
        compactAt = tixEnd + LEAST_TO_COMPACT;
        return error;
    } catch (const std::exception&) {
        if (nextTix.isOpen()) folder.unlink(NEXT_INDEX);
        nextTix.close();
        compactAt = tixEnd + LEAST_TO_COMPACT;
        return EIO;
    }
}
