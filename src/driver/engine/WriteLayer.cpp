#include "WriteLayer.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

constexpr const char* UNIT = "src/driver/WriteLayer";

/// Records that wait in memory until somebody syncs; a write that makes it so many syncs by itself. They take
/// 1 MiB, and stand for 256 MiB of blocks.
constexpr size_t MAX_PENDING = 1 << 16;
/// Records that the reserve of the index has room for.
constexpr size_t RECORDS_IN_RESERVE = 128;
/// Blocks that are discarded at a time with the lock held, which writers need.
constexpr uint64 DISCARD_AT_ONCE = 1 << 12;

} // namespace

WriteLayer::WriteLayer(const std::string& folder_, BlockMap* map_, bool readOnly)
    : folder(folder_),
      map(map_),
      slots(folder, LayerSlots::maxFor(map_->nRaw()), &failure),
      index(folder, LayerIdentity::of(folder_), map_, readOnly, &failure) {
    const SxMutexBlock turn(&changing);
    if (!index.open()) return;
    slots.open(readOnly);
    load(readOnly);
    if (slots.isOpen()) {
        slots.publish();
    } else {
        index.close();
    }
}

void WriteLayer::load(bool readOnly) {
    const std::vector<bool> used = index.load(slots.nInFile());
    notice = index.getNotice();
    // Whoever reads what a killed service has written may sync and rely on it.
    if (!readOnly && slots.isOpen()) slots.noteUnsynced();
    slots.load(used);
    if (readOnly || !slots.isOpen()) return;
    slots.cut();
    reserve();
}

bool WriteLayer::hasRecords() const {
    const SxMutexBlock turn(&changing);
    return slots.isOpen() && !index.isEmpty();
}

void WriteLayer::create() {
    const SxMutexBlock turn(&changing);
    createInTurn();
}

void WriteLayer::createInTurn() {
    if (!slots.isOpen()) {
        // What lies in the files without a record was never synced.
        index.create();
        slots.create();
    }
    if (reserve() == ENOSPC && index.isEmpty()) {
        slots.close();
        index.close();
        throw SxException("There is no room in '" + SxString(folder.getPath()) +
                              "' for what programs write to the drive: make room, or mount it with mode ro",
                          UNIT, __LINE__);
    }
    slots.publish();
    // It was that of a full disk, which has room again.
    failure.forget();
}

void WriteLayer::tryToCreate() {
    try {
        create();
    } catch (const SxException&) {
        // Nothing is written yet.
    }
}

/// Gives 0 when writes can be taken, else an errno value.
int WriteLayer::makeFiles() {
    if (failure.isStopped()) return EIO;
    if (getFd() >= 0) return 0;
    try {
        const SxMutexBlock turn(&changing);
        // Another writer may have made them meanwhile, and they may hold its blocks.
        if (getFd() < 0) createInTurn();
    } catch (const SxException& e) {
        failure.note(e.toString(SxException::ShowMessage, ": "));
        return EIO;
    }
    return 0;
}

/// Fills the reserves of both files. Gives 0 or an errno value, where they aren't full.
int WriteLayer::reserve() {
    const int error = index.reserve();
    return error ? error : slots.reserve();
}

int WriteLayer::write(RawIdx first, uint64 n, const char* data) {
    if (const int error = makeFiles()) return error;
    {
        const FreedSlots::Writer writer(&freed);
        if (const int error = writeBlocks(first, n, data)) return error;
    }
    return hasManyPending() ? sync() : 0;
}

int WriteLayer::writeBlocks(RawIdx first, uint64 n, const char* data) {
    for (uint64 i = 0; i < n;) {
        const BlockMap::Place place = map->get(first + i);
        uint64 end = i + 1;
        const auto continues = [&](BlockMap::Place next) {
            if (!place.isSlot()) return !next.isSlot();
            return next.isSlot() && next.slot() == place.slot() + (end - i);
        };
        while (end < n && continues(map->get(first + end)))
            ++end;
        const char* from = data + i * ZqBlocks::SIZE;
        const int error =
            place.isSlot() ? slots.write(place.slot(), end - i, from) : writeNew(first + i, end - i, from);
        if (error) return error;
        i = end;
    }
    return 0;
}

int WriteLayer::discard(RawIdx first, uint64 n) {
    if (const int error = makeFiles()) return error;
    for (RawIdx at = first; at < first + n;) {
        if (failure.isStopped()) return EIO;
        at = discardSome(at, first + n);
        if (!hasManyPending()) continue;
        if (const int error = sync()) return error;
    }
    return 0;
}

/// Gives the first block that is left.
RawIdx WriteLayer::discardSome(RawIdx first, RawIdx end) {
    std::vector<FreedSlots::Slot> some;
    const RawIdx stop = std::min(end, first + DISCARD_AT_ONCE);
    some.reserve(stop.value - first.value);
    {
        const SxMutexBlock lock(&mutex);
        for (RawIdx rawIdx = first; rawIdx < stop; rawIdx = rawIdx + 1) {
            const BlockMap::Place place = map->get(rawIdx);
            if (place.isNothing()) continue;
            // The record first: without memory for it the block stays as it was.
            pending.emplace_back(rawIdx, LayerRecord::ZEROS);
            map->set(rawIdx, BlockMap::NONE);
            ++nRecords;
            if (place.isSlot()) some.push_back({place.slot(), nRecords});
        }
    }
    // A sync may have come between: then they wait for the next one.
    freed.add(some);
    return stop;
}

int WriteLayer::writeNew(RawIdx first, uint64 n, const char* data) {
    while (n > 0) {
        uint64 nGiven = n;
        const SlotIdx slot = slots.allocate(&nGiven);
        if (nGiven == 0) return ENOSPC;
        if (const int error = slots.write(slot, nGiven, data)) {
            // Some of the data may have come to them, so they may have room on the disk.
            slots.giveBack(slot, nGiven);
            return error == ENOSPC ? writeReserved(first, n, data) : error;
        }
        publish(first, slot, nGiven);
        first = first + nGiven;
        data += nGiven * ZqBlocks::SIZE;
        n -= nGiven;
    }
    return 0;
}

/// For a disk that is full. What doesn't fit whole is refused, so that a large write leaves the reserve to
/// the small ones. Gives 0 or an errno value.
int WriteLayer::writeReserved(RawIdx first, uint64 n, const char* data) {
    const std::vector<SlotIdx> taken = slots.takeReserved(n);
    if (taken.empty()) return ENOSPC;
    for (uint64 i = 0; i < n; ++i) {
        if (const int error = slots.write(taken[i], 1, data + i * ZqBlocks::SIZE)) {
            for (uint64 left = i; left < n; ++left)
                slots.giveBack(taken[left], 1);
            return error;
        }
        publish(first + i, taken[i], 1);
    }
    return 0;
}

void WriteLayer::publish(RawIdx first, SlotIdx slot, uint64 n) {
    std::vector<SlotIdx> late;
    {
        const SxMutexBlock lock(&mutex);
        for (uint64 i = 0; i < n; ++i) {
            if (map->get(first + i).isSlot()) {
                // Another write of this block ran at once and was quicker: as if it had come after this one.
                late.push_back(slot + i);
                continue;
            }
            // The record first: a block whose slot the map has without one is never told to the index.
            pending.emplace_back(first + i, slot + i);
            map->set(first + i, slot + i);
            ++nRecords;
        }
    }
    if (!late.empty()) slots.giveBack(std::move(late));
}

bool WriteLayer::hasManyPending() const {
    const SxMutexBlock lock(&mutex);
    return pending.size() >= MAX_PENDING;
}

int WriteLayer::sync() {
    const SxMutexBlock turn(&changing);
    return syncInTurn();
}

int WriteLayer::syncInTurn() {
    if (failure.isStopped()) return EIO;
    if (!slots.isOpen()) return 0;
    Batch batch;
    {
        const SxMutexBlock lock(&mutex);
        batch.records.swap(pending);
        batch.nBefore = nRecords - batch.records.size();
    }
    int error = ENOMEM;
    try {
        error = syncBatch(&batch);
    } catch (const std::bad_alloc&) {
        slots.noteDirty();
    }
    try {
        putBack(batch);
    } catch (const std::bad_alloc&) {
        // A later sync would succeed without these records, so all later ones fail.
        return failure.stop(ENOMEM, [this] {
            return "Cannot bring '" + SxString(folder.getPath()) + ZqImageFiles::LAYER_INDEX +
                   "' to the disk";
        });
    }
    return error;
}

/// Has a later sync write what is left of a batch.
void WriteLayer::putBack(const Batch& batch) {
    const SxMutexBlock lock(&mutex);
    const auto rest = batch.records.begin() + static_cast<std::ptrdiff_t>(batch.nDone);
    pending.insert(pending.begin(), rest, batch.records.end());
}

int WriteLayer::syncBatch(Batch* batch) {
    if (const int error = slots.sync()) return error;
    if (const int error = index.syncNewNames()) return error;
    if (const int error = appendBatch(batch)) return error;
    reuseFreed();
    index.compactIfLarge();
    reserve();
    return failure.isStopped() ? EIO : 0;
}

/// On a disk that is full the records go to the index in pieces that fit the reserve: what the discards of
/// one have freed makes room for the next.
int WriteLayer::appendBatch(Batch* batch) {
    const std::vector<LayerRecord>& records = batch->records;
    size_t nAtOnce = records.size();
    bool isFull = false;
    int error = 0;
    while (error == 0 && batch->nDone < records.size()) {
        const size_t n = std::min(nAtOnce, records.size() - batch->nDone);
        error = index.append(records.data() + batch->nDone, n);
        if (error == ENOSPC && n > RECORDS_IN_RESERVE) {
            nAtOnce = RECORDS_IN_RESERVE;
            isFull = true;
            error = 0;
            continue;
        }
        if (error == 0) batch->nDone += n;
        freed.setDurable(batch->nBefore + batch->nDone);
        if (!isFull) continue;
        reuseFreed();
        while (giveBackRoom())
            continue;
        reserve();
    }
    return error;
}

/// Makes slots free whose discard is durable and which nobody writes to now.
void WriteLayer::reuseFreed() {
    std::vector<SlotIdx> reusable = freed.takeReusable();
    if (reusable.empty()) return;
    // Whoever is reading from these slots reads again.
    ++moves;
    slots.giveBack(std::move(reusable));
}

void WriteLayer::flush(const Target& target) {
    const SxMutexBlock turn(&changing);
    if (const int error = syncInTurn()) index.raise("Cannot bring the layer to the disk:", error, __LINE__);
    if (!slots.isOpen()) return;
    LayerFlush move(map, slots, target, &nLookedAt);
    if (move.copyOut() == 0) return;
    index.replace([&](const LayerIndex::Append& append) { move.listStaying(append); });
    try {
        LayerFlush::Left left = move.switchOver();
        const std::vector<SlotIdx> waiting = freed.takeAll();
        left.freed.insert(left.freed.end(), waiting.begin(), waiting.end());
        // Whoever is reading from these slots reads again. The bytes may go only after this.
        ++moves;
        slots.shrink(left.freed, left.end);
    } catch (const SxException& e) {
        // The new index has no records of the blocks that moved: they must not be written in their slots.
        failure.stop(EIO, [&] { return e.toString(SxException::ShowMessage, ": "); });
        throw;
    } catch (const std::bad_alloc&) {
        failure.stop(ENOMEM, [this] {
            return "Cannot move the layer of '" + SxString(folder.getPath()) + "' into the image";
        });
        throw;
    }
    reserve();
}
