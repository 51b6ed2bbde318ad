#include "WriteLayer.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <functional>
#include <new>

namespace {

constexpr const char* UNIT = "src/driver/WriteLayer";

// In the place of the first record stand two numbers: what the file is, and the number of RAW blocks. From
// the second format on a record with the image's identity follows.
constexpr uint64 MAGIC = 0x3330'5245'5941'4c5a;        // "ZLAYER03"
constexpr uint64 MAGIC_SECOND = 0x3230'5245'5941'4c5a; // "ZLAYER02": no block is discarded
constexpr uint64 MAGIC_FIRST = 0x3130'5245'5941'4c5a;  // "ZLAYER01": without an identity, too
/// Slots that may be given out beyond one for each RAW block: two writes of one block that run at once take
/// two, of which one is given back, and slots that were discarded wait for a sync.
constexpr uint64 SPARE_SLOTS = 1 << 18;
/// Records that wait in memory until somebody syncs; a write that makes it so many syncs by itself. They take
/// 1 MiB, and stand for 256 MiB of blocks.
constexpr size_t MAX_PENDING = 1 << 16;
constexpr uint64 RECORDS_AT_ONCE = 1 << 16;
/// Records that the reserve of the index has room for.
constexpr size_t RECORDS_IN_RESERVE = 128;
/// Blocks that are discarded at a time with the lock held, which writers need.
constexpr uint64 DISCARD_AT_ONCE = 1 << 12;

uint32 checkOf(uint64 rawIdx, uint32 slot) {
    uint64 mixed = (rawIdx ^ std::rotl(uint64{slot}, 40)) + 0x9e37'79b9'7f4a'7c15;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58'476d'1ce4'e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d0'49bb'1331'11eb;
    return static_cast<uint32>(mixed ^ (mixed >> 31));
}

uint64 little(uint64 value) {
    return std::endian::native == std::endian::big ? __builtin_bswap64(value) : value;
}

uint32 little(uint32 value) {
    return std::endian::native == std::endian::big ? __builtin_bswap32(value) : value;
}

} // namespace

WriteLayer::WriteLayer(const std::string& folder_, BlockMap* map_, bool readOnly_)
    : folder(folder_),
      map(map_),
      identity(LayerIdentity::of(folder_)),
      readOnly(readOnly_) {
    // What a flush() that was cut off has left.
    if (!readOnly && !folder.isGone(NEXT_INDEX)) folder.unlink(NEXT_INDEX);
    if (folder.isGone(INDEX)) return;
    const SxMutexBlock turn(&changing);
    const unsigned flags = SxOs::Read | SxOs::NoFollow | (readOnly ? 0U : unsigned{SxOs::Write});
    folder.open(&tix, INDEX, flags);
    if (!folder.isGone(DATA)) folder.open(&tmp, DATA, flags);
    load();
    if (tmp.isOpen()) {
        publishedFd = tmp.getFd();
    } else {
        tix.close();
    }
}

/// Takes over the records up to the first that isn't whole: what comes after that was never synced.
void WriteLayer::load() {
    const uint64 size = tix.getSize();
    Found found;
    found.hasHome.resize(map->nRaw());
    tixEnd = readHeader(size);
    if (tixEnd > 0) tixEnd = readRecords(tixEnd, size, &found);
    while (!found.used.empty() && !found.used.back())
        found.used.pop_back();
    // Slots that were freed later may lie beyond the file, which is cut then.
    if (found.used.size() > (tmp.isOpen() ? tmp.getSize() / ZqBlocks::SIZE : 0)) {
        throw SxException("'" + SxString(tix.getPath()) + "' has a slot beyond 'img.tmp' (slot " +
                              (found.used.size() - 1) + ")",
                          UNIT, __LINE__);
    }
    if (tixEnd < size) {
        notice = "'" + SxString(tix.getPath()) + "': " + (size - tixEnd) +
                 " bytes after the last whole record don't count; they were never synced";
        // They must not count as records again once others are appended in front of them.
        const int status = readOnly ? 0 : SxOs::get().truncate(tix.getFd(), static_cast<int64>(tixEnd));
        if (status < 0) tix.raise("Cannot cut", status, UNIT, __LINE__);
    }
    if (!readOnly) makeDurable();
    compactAt = LEAST_TO_COMPACT + 2 * countLive(found) * sizeof(Record);
    {
        const SxMutexBlock lock(&mutex);
        nSlots = found.used.size();
        // A cut may have come between a record that frees a slot and the hole in its place.
        for (uint64 slot = nSlots; slot-- > 0;) {
            if (!found.used[slot]) unused.push_back({slot});
        }
    }
    if (readOnly || !tmp.isOpen()) return;
    if (tmp.getSize() > found.used.size() * ZqBlocks::SIZE)
        SxOs::get().truncate(tmp.getFd(), static_cast<int64>(found.used.size() * ZqBlocks::SIZE));
    reserve();
}

/// What a killed service has written counts from here on, and need not be on the disk yet: slots that these
/// records free are used for something else, and whoever reads these bytes may sync and rely on them.
void WriteLayer::makeDurable() {
    if (const int error = tix.sync()) tix.raise("Cannot bring to the disk", error, UNIT, __LINE__);
    if (syncNames() != 0) throw SxException(getFailure(), UNIT, __LINE__);
    if (!tmp.isOpen()) return;
    tmp.noteWritten(0, tmp.getSize());
    dirty = true;
}

/// Gives 0 or an errno value.
int WriteLayer::syncNames() {
    const int error = folder.sync();
    if (!error) return 0;
    return fail("Cannot bring the names in '" + SxString(folder.getPath()) + "' to the disk", error);
}

/// Gives where the records begin; 0 where the file was cut off before its first sync.
uint64 WriteLayer::readHeader(uint64 size) {
    uint64 header[2] = {};
    if (size < sizeof header) return 0;
    readAll(header, sizeof header, 0);
    const uint64 magic = little(header[0]), nBlocks = little(header[1]);
    if (magic == 0 && nBlocks == 0) return 0;
    if (magic != MAGIC && magic != MAGIC_SECOND && magic != MAGIC_FIRST) {
        throw SxException("'" + SxString(tix.getPath()) + "' is not the index of a write layer", UNIT,
                          __LINE__);
    }
    if (nBlocks != map->nRaw()) {
        throw SxException("'" + SxString(tix.getPath()) + "' belongs to a disk of " + nBlocks +
                              " blocks, this one has " + map->nRaw(),
                          UNIT, __LINE__);
    }
    isFormer = magic != MAGIC;
    tixBegin = magic == MAGIC_FIRST ? sizeof header : HEADER_SIZE;
    return magic == MAGIC_FIRST ? tixBegin : readIdentity(size);
}

uint64 WriteLayer::readIdentity(uint64 size) const {
    Record record{};
    if (size < HEADER_SIZE) return 0;
    readAll(&record, sizeof record, sizeof record);
    const LayerIdentity found{little(record.rawIdx), little(record.slot)};
    if (little(record.check) != checkOf(found.high, found.low)) return 0;
    if (found.fits(identity)) return HEADER_SIZE;
    throw SxException(
        "The write layer '" + SxString(tix.getPath()) +
            "' belongs to another image, or another version of this one: put that image back, or "
            "remove img.tix and img.tmp, and what was written with them",
        UNIT, __LINE__);
}

void WriteLayer::readAll(void* to, uint64 n, uint64 offset) const {
    const int64 got = tix.readAt(to, n, offset);
    if (got != static_cast<int64>(n)) tix.raise("Cannot read", got < 0 ? got : -EIO, UNIT, __LINE__);
}

uint64 WriteLayer::readRecords(uint64 at, uint64 size, Found* found) {
    std::vector<Record> records(std::min(size / sizeof(Record), RECORDS_AT_ONCE));
    while (size - at >= sizeof(Record)) {
        const uint64 n = std::min<uint64>((size - at) / sizeof(Record), records.size());
        const int64 got = tix.readAt(records.data(), n * sizeof(Record), at);
        if (got < 0) tix.raise("Cannot read", got, UNIT, __LINE__);
        const uint64 nGot = static_cast<uint64>(got) / sizeof(Record);
        for (uint64 i = 0; i < nGot; ++i, at += sizeof(Record)) {
            const uint64 rawIdx = little(records[i].rawIdx);
            const uint32 slot = little(records[i].slot);
            if (little(records[i].check) != checkOf(rawIdx, slot)) return at;
            adoptRecord({rawIdx}, {slot}, found);
        }
        if (nGot < n) break;
    }
    return at;
}

void WriteLayer::adoptRecord(RawIdx rawIdx, SlotIdx slot, Found* found) {
    std::vector<bool>* used = &found->used;
    const BlockMap::Place old = rawIdx.value < map->nRaw() ? map->get(rawIdx) : BlockMap::NONE;
    const auto refuse = [&](const SxString& fault) {
        throw SxException("'" + SxString(tix.getPath()) + "' has " + fault + " (RAW block " + rawIdx.value +
                              " in slot " + slot.value + ")",
                          UNIT, __LINE__);
    };
    if (rawIdx.value >= map->nRaw()) refuse("a block beyond the disk");
    if (old.isStored()) found->hasHome[rawIdx.value] = true;
    if (slot == ZEROS) {
        if (old.isSlot()) (*used)[old.slot().value] = false;
        return map->set(rawIdx, BlockMap::NONE);
    }
    if (slot.value >= map->nRaw() + SPARE_SLOTS) refuse("a slot that can't have been given out");
    if (slot.value >= used->size()) used->resize(slot.value + 1);
    if ((*used)[slot.value]) refuse("a slot twice");
    if (old.isSlot()) refuse("a block twice");
    (*used)[slot.value] = true;
    map->set(rawIdx, slot);
}

/// Records that an index written anew would have.
uint64 WriteLayer::countLive(const Found& found) const {
    auto n = static_cast<uint64>(std::count(found.used.begin(), found.used.end(), true));
    for (uint64 i = 0; i < found.hasHome.size(); ++i) {
        // Others read as zeros without a record, too.
        if (found.hasHome[i] && map->get({i}).isNothing()) ++n;
    }
    return n;
}

void WriteLayer::create() {
    const SxMutexBlock turn(&changing);
    if (!tmp.isOpen()) {
        // What lies in the files without a record was never synced.
        const unsigned flags = SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow;
        folder.open(&tix, INDEX, flags);
        tixEnd = 0;
        tixBegin = HEADER_SIZE;
        isFormer = false;
        compactAt = LEAST_TO_COMPACT;
        namesPending = true;
        folder.open(&tmp, DATA, flags);
        tixReserved = 0;
    }
    if (reserve() == ENOSPC && tixEnd == 0) {
        publishedFd = -1;
        tmp.close();
        tix.close();
        throw SxException("There is no room in '" + SxString(folder.getPath()) +
                              "' for what programs write to the drive: make room, or mount it with mode ro",
                          UNIT, __LINE__);
    }
    publishedFd = tmp.getFd();
    // It was that of a full disk, which has room again.
    const SxMutexBlock lock(&mutex);
    if (failedError.load() == 0) failure = "";
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
    if (failedError.load() != 0) return EIO;
    if (getFd() >= 0) return 0;
    try {
        create();
    } catch (const SxException& e) {
        note(e.toString(SxException::ShowMessage, ": "));
        return EIO;
    }
    return 0;
}

int WriteLayer::write(RawIdx first, uint64 n, const char* data) {
    if (const int error = makeFiles()) return error;
    const uint64 began = enterWriter();
    const int error = writeBlocks(first, n, data);
    leaveWriter(began);
    if (error) return error;
    return hasManyPending() ? sync() : 0;
}

uint64 WriteLayer::enterWriter() {
    const SxMutexBlock lock(&mutex);
    ++nWriters[epoch % 2];
    return epoch;
}

void WriteLayer::leaveWriter(uint64 began) {
    const SxMutexBlock lock(&mutex);
    --nWriters[began % 2];
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
            place.isSlot() ? writeInSlots(place.slot(), end - i, from) : writeNew(first + i, end - i, from);
        if (error) return error;
        i = end;
    }
    return 0;
}

int WriteLayer::discard(RawIdx first, uint64 n) {
    if (const int error = makeFiles()) return error;
    for (uint64 i = 0; i < n;) {
        if (failedError.load() != 0) return EIO;
        {
            const SxMutexBlock lock(&mutex);
            const uint64 end = std::min(n, i + DISCARD_AT_ONCE);
            for (; i < end; ++i) {
                const BlockMap::Place place = map->get(first + i);
                if (place.isNothing()) continue;
                map->set(first + i, BlockMap::NONE);
                pending.push_back(makeRecord(first + i, ZEROS));
                ++nRecords;
                if (place.isSlot()) freedPending.push_back({place.slot(), epoch, nRecords});
            }
        }
        if (!hasManyPending()) continue;
        if (const int error = sync()) return error;
    }
    return 0;
}

/// A slot is written in place, as a disk does it: a cut leaves the old bytes or the new ones. So the layer
/// never outgrows the disk, however often its blocks are written, and needs no compaction.
int WriteLayer::writeInSlots(SlotIdx first, uint64 n, const char* data) {
    const int error = tmp.writeAt(data, n * ZqBlocks::SIZE, static_cast<uint64>(first.byte()));
    dirty = true;
    if (error == 0 || error == ENOSPC) return error;
    return fail("Cannot write '" + SxString(tmp.getPath()) + "'", error);
}

int WriteLayer::writeNew(RawIdx first, uint64 n, const char* data) {
    while (n > 0) {
        uint64 nGiven = n;
        const SlotIdx slot = allocate(&nGiven);
        if (nGiven == 0) return ENOSPC;
        if (const int error = writeInSlots(slot, nGiven, data)) {
            giveBack(slot, nGiven);
            return error == ENOSPC ? writeReserved(first, n, data) : error;
        }
        publish(first, slot, nGiven);
        first = first + nGiven;
        data += nGiven * ZqBlocks::SIZE;
        n -= nGiven;
    }
    return 0;
}

/// Takes up to `*n` slots that lie together, and says how many.
SlotIdx WriteLayer::allocate(uint64* n) {
    const SxMutexBlock lock(&mutex);
    std::vector<SlotIdx>* const from = unused.empty() ? &freeSlots : &unused;
    if (from->empty()) {
        const SlotIdx slot{nSlots};
        const uint64 end = std::min<uint64>(map->nRaw() + SPARE_SLOTS, uint64{~uint32{0}});
        *n = std::min(*n, end - std::min(nSlots, end));
        nSlots += *n;
        return slot;
    }
    const SlotIdx slot = from->back();
    uint64 nTaken = 0;
    while (nTaken < *n && !from->empty() && from->back() == slot + nTaken) {
        from->pop_back();
        ++nTaken;
    }
    *n = nTaken;
    return slot;
}

void WriteLayer::publish(RawIdx first, SlotIdx slot, uint64 n) {
    const SxMutexBlock lock(&mutex);
    for (uint64 i = 0; i < n; ++i) {
        if (map->get(first + i).isSlot()) {
            // Another write of this block ran at once and was quicker: as if it had come after this one.
            unused.push_back(slot + i);
            continue;
        }
        map->set(first + i, slot + i);
        pending.push_back(makeRecord(first + i, slot + i));
        ++nRecords;
    }
}

WriteLayer::Record WriteLayer::makeRecord(RawIdx rawIdx, SlotIdx slot) {
    const auto number = static_cast<uint32>(slot.value);
    return {little(rawIdx.value), little(number), little(checkOf(rawIdx.value, number))};
}

RawIdx WriteLayer::blockOf(const Record& record) {
    return {little(record.rawIdx)};
}

bool WriteLayer::isZeros(const Record& record) {
    return SlotIdx{little(record.slot)} == ZEROS;
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
    if (failedError.load() != 0) return EIO;
    if (!tmp.isOpen()) return 0;
    Batch batch;
    {
        const SxMutexBlock lock(&mutex);
        batch.records.swap(pending);
        batch.freed.swap(freedPending);
        batch.nBefore = nRecords - batch.records.size();
    }
    int error = ENOMEM;
    try {
        error = syncBatch(&batch);
    } catch (const std::bad_alloc&) {
        dirty = true;
    }
    try {
        putBack(&batch);
    } catch (const std::bad_alloc&) {
        // A later sync would succeed without these records, so all later ones fail.
        failedError = ENOMEM;
        return fail("Cannot bring '" + SxString(tix.getPath()) + "' to the disk", ENOMEM);
    }
    return error;
}

/// Has a later sync write what is left of a batch.
void WriteLayer::putBack(Batch* batch) {
    const SxMutexBlock lock(&mutex);
    const auto rest = batch->records.begin() + static_cast<std::ptrdiff_t>(batch->nDone);
    pending.insert(pending.begin(), rest, batch->records.end());
    freedPending.insert(freedPending.begin(), batch->freed.begin(), batch->freed.end());
}

int WriteLayer::syncBatch(Batch* batch) {
    if (dirty.exchange(false)) {
        if (const int error = tmp.sync()) {
            return fail("Cannot bring '" + SxString(tmp.getPath()) + "' to the disk", error);
        }
    }
    if (namesPending) {
        if (const int error = syncNames()) return error;
        namesPending = false;
    }
    if (const int error = appendBatch(batch)) return error;
    reuseFreed();
    // Where that fails the index stays as it is, and nothing is lost but room.
    if (tixEnd > compactAt) compact();
    reserve();
    return failedError.load() != 0 ? EIO : 0;
}

/// On a disk that is full the records go to the index in pieces that fit the reserve: what the discards of
/// one have freed makes room for the next.
int WriteLayer::appendBatch(Batch* batch) {
    const std::vector<Record>& records = batch->records;
    size_t nAtOnce = records.size();
    bool isFull = false;
    int error = 0;
    while (error == 0 && batch->nDone < records.size()) {
        const size_t n = std::min(nAtOnce, records.size() - batch->nDone);
        error = appendRecords(records.data() + batch->nDone, n);
        if (error == ENOSPC && n > RECORDS_IN_RESERVE) {
            nAtOnce = RECORDS_IN_RESERVE;
            isFull = true;
            error = 0;
            continue;
        }
        if (error == 0) batch->nDone += n;
        settle(batch);
        if (!isFull) continue;
        reuseFreed();
        while (giveBackRoom())
            continue;
        reserve();
    }
    return error;
}

/// Takes those slots out of the batch whose discards are among its durable records.
void WriteLayer::settle(Batch* batch) {
    const auto isDurable = [&](const Freed& slot) { return slot.nRecords <= batch->nBefore + batch->nDone; };
    const auto end = std::find_if_not(batch->freed.begin(), batch->freed.end(), isDurable);
    const SxMutexBlock lock(&mutex);
    freedSynced.insert(freedSynced.end(), batch->freed.begin(), end);
    batch->freed.erase(batch->freed.begin(), end);
}

/// Makes slots free whose discard is durable and which nobody writes to now.
void WriteLayer::reuseFreed() {
    const SxMutexBlock lock(&mutex);
    for (int i = 0; i < 2 && nWriters[(epoch + 1) % 2] == 0; ++i)
        ++epoch;
    std::vector<SlotIdx> slots;
    std::erase_if(freedSynced, [&](const Freed& freed) SX_REQUIRES(mutex) {
        if (freed.epoch + 2 > epoch) return false;
        slots.push_back(freed.slot);
        return true;
    });
    if (slots.empty()) return;
    // Whoever is reading from these slots reads again.
    ++moves;
    std::sort(slots.begin(), slots.end(), std::greater<>());
    unused.insert(unused.end(), slots.begin(), slots.end());
}

int WriteLayer::appendRecords(const Record* records, size_t n) {
    // The formats without discards allow no second record of a block either, so the index is written anew
    // first.
    if (isFormer && tixEnd != 0) {
        const int error = compact();
        if (error && error != ENOSPC)
            return fail("Cannot write '" + SxString(tix.getPath()) + "' in its present format", error);
        if (error) return error;
    }
    int error = tixEnd == 0 ? writeHeader(tix) : 0;
    const uint64 at = tixEnd == 0 ? HEADER_SIZE : tixEnd, size = n * sizeof(Record);
    if (!error) error = tix.writeAt(records, size, at);
    if (error == ENOSPC) return error;
    if (!error) error = tix.sync();
    if (error) return fail("Cannot write '" + SxString(tix.getPath()) + "'", error);
    tixEnd = at + size;
    isFormer = false;
    return 0;
}

int WriteLayer::writeHeader(const DriveFile& file) const {
    struct {
        uint64 magic, nBlocks;
        Record identity;
    } const header = {little(MAGIC), little(map->nRaw()), makeRecord({identity.high}, {identity.low})};
    static_assert(sizeof header == HEADER_SIZE);
    return file.writeAt(&header, sizeof header, 0);
}

void WriteLayer::note(const SxString& text) {
    const SxMutexBlock lock(&mutex);
    if (failure.isEmpty()) failure = text;
}

int WriteLayer::fail(const SxString& what, int error) {
    failedError = error;
    note(what + ": " + SxOs::errorText(error));
    return error;
}

SxString WriteLayer::getFailure() const {
    const SxMutexBlock lock(&mutex);
    return failure;
}
