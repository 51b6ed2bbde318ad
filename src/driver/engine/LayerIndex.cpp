#include "LayerIndex.h"

#include "LayerSlots.h"
#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* UNIT = "src/driver/LayerIndex";
constexpr const char *INDEX = ZqImageFiles::LAYER_INDEX,
                     *NEXT_INDEX = "img.tix.new"; ///< which takes the place of the index

// In the place of the first record stand two numbers: what the file is, and the number of RAW blocks. From
// the second format on a record with the image's identity follows.
constexpr uint64 MAGIC = 0x3330'5245'5941'4c5a;        // "ZLAYER03"
constexpr uint64 MAGIC_SECOND = 0x3230'5245'5941'4c5a; // "ZLAYER02": no block is discarded
constexpr uint64 MAGIC_FIRST = 0x3130'5245'5941'4c5a;  // "ZLAYER01": without an identity, too
constexpr uint64 RECORDS_AT_ONCE = 1 << 16;
/// Bytes of an index that aren't worth writing it anew.
constexpr uint64 LEAST_TO_COMPACT = 1 << 20;
/// Bytes beyond the index's end that have room on the disk: more than the records of all reserved slots.
constexpr uint64 INDEX_AHEAD = 4096, INDEX_STEP = 16 << 10;

} // namespace

LayerIndex::LayerIndex(const ImageFolder& folder_, const LayerIdentity& identity_, BlockMap* map_,
                       bool readOnly_, DriveFailure* failure_)
    : folder(folder_),
      identity(identity_),
      map(map_),
      readOnly(readOnly_),
      failure(failure_) {
}

bool LayerIndex::open() {
    // What a flush that was cut off has left.
    if (!readOnly && !folder.isGone(NEXT_INDEX)) folder.unlink(NEXT_INDEX);
    if (folder.isGone(INDEX)) return false;
    folder.open(&file, INDEX, SxOs::Read | SxOs::NoFollow | (readOnly ? 0U : unsigned{SxOs::Write}));
    return true;
}

std::vector<bool> LayerIndex::load(uint64 nSlots) {
    const uint64 size = file.getSize();
    Found found;
    found.hasHome.resize(map->nRaw());
    end = readHeader(size);
    if (end > 0) end = readRecords(end, size, &found);
    while (!found.used.empty() && !found.used.back())
        found.used.pop_back();
    // Slots that were freed later may lie beyond the file, which is cut then.
    if (found.used.size() > nSlots) {
        throw SxException("'" + SxString(file.getPath()) + "' has a slot beyond 'img.tmp' (slot " +
                              (found.used.size() - 1) + ")",
                          UNIT, __LINE__);
    }
    if (end < size) {
        notice = "'" + SxString(file.getPath()) + "': " + (size - end) +
                 " bytes after the last whole record don't count; they were never synced";
        // They must not count as records again once others are appended in front of them.
        const int status = readOnly ? 0 : SxOs::get().truncate(file.getFd(), static_cast<int64>(end));
        if (status < 0) file.raise("Cannot cut", status, UNIT, __LINE__);
    }
    if (!readOnly) makeDurable();
    compactAt = LEAST_TO_COMPACT + 2 * countLive(found) * sizeof(LayerRecord);
    return found.used;
}

/// What a killed service has written counts from here on, and need not be on the disk yet: slots that these
/// records free are used for something else.
void LayerIndex::makeDurable() {
    if (const int error = file.sync()) file.raise("Cannot bring to the disk", error, UNIT, __LINE__);
    if (syncNames() != 0) throw SxException(failure->getText(), UNIT, __LINE__);
}

int LayerIndex::syncNames() {
    const int error = folder.sync();
    if (!error) return 0;
    return failure->stop(error, [this] {
        return "Cannot bring the names in '" + SxString(folder.getPath()) + "' to the disk";
    });
}

int LayerIndex::syncNewNames() {
    if (!namesPending) return 0;
    if (const int error = syncNames()) return error;
    namesPending = false;
    return 0;
}

/// Gives where the records begin; 0 where the file was cut off before its first sync.
uint64 LayerIndex::readHeader(uint64 size) {
    uint64 header[2] = {};
    if (size < sizeof header) return 0;
    readAll(header, sizeof header, 0);
    const uint64 magic = LayerRecord::little(header[0]), nBlocks = LayerRecord::little(header[1]);
    if (magic == 0 && nBlocks == 0) return 0;
    if (magic != MAGIC && magic != MAGIC_SECOND && magic != MAGIC_FIRST) {
        throw SxException("'" + SxString(file.getPath()) + "' is not the index of a write layer", UNIT,
                          __LINE__);
    }
    if (nBlocks != map->nRaw()) {
        throw SxException("'" + SxString(file.getPath()) + "' belongs to a disk of " + nBlocks +
                              " blocks, this one has " + map->nRaw(),
                          UNIT, __LINE__);
    }
    isFormer = magic != MAGIC;
    begin = magic == MAGIC_FIRST ? sizeof header : HEADER_SIZE;
    return magic == MAGIC_FIRST ? begin : readIdentity(size);
}

uint64 LayerIndex::readIdentity(uint64 size) const {
    LayerRecord record;
    if (size < HEADER_SIZE) return 0;
    readAll(&record, sizeof record, sizeof record);
    if (!record.isWhole()) return 0;
    const LayerIdentity found{record.getBlock().value, static_cast<uint32>(record.getSlot().value)};
    if (found.fits(identity)) return HEADER_SIZE;
    throw SxException(
        "The write layer '" + SxString(file.getPath()) +
            "' belongs to another image, or another version of this one: put that image back, or "
            "remove img.tix and img.tmp, and what was written with them",
        UNIT, __LINE__);
}

void LayerIndex::readAll(void* to, uint64 n, uint64 offset) const {
    const int64 got = file.readAt(to, n, offset);
    if (got != static_cast<int64>(n)) file.raise("Cannot read", got < 0 ? got : -EIO, UNIT, __LINE__);
}

uint64 LayerIndex::readRecords(uint64 at, uint64 size, Found* found) {
    std::vector<LayerRecord> records(std::min(size / sizeof(LayerRecord), RECORDS_AT_ONCE));
    while (size - at >= sizeof(LayerRecord)) {
        const uint64 n = std::min<uint64>((size - at) / sizeof(LayerRecord), records.size());
        const int64 got = file.readAt(records.data(), n * sizeof(LayerRecord), at);
        if (got < 0) file.raise("Cannot read", got, UNIT, __LINE__);
        const uint64 nGot = static_cast<uint64>(got) / sizeof(LayerRecord);
        for (uint64 i = 0; i < nGot; ++i, at += sizeof(LayerRecord)) {
            if (!records[i].isWhole()) return at;
            adopt(records[i].getBlock(), records[i].getSlot(), found);
        }
        if (nGot < n) break;
    }
    return at;
}

void LayerIndex::adopt(RawIdx rawIdx, SlotIdx slot, Found* found) {
    std::vector<bool>* used = &found->used;
    const BlockMap::Place old = rawIdx.value < map->nRaw() ? map->get(rawIdx) : BlockMap::NONE;
    const auto refuse = [&](const SxString& fault) {
        throw SxException("'" + SxString(file.getPath()) + "' has " + fault + " (RAW block " + rawIdx.value +
                              " in slot " + slot.value + ")",
                          UNIT, __LINE__);
    };
    if (rawIdx.value >= map->nRaw()) refuse("a block beyond the disk");
    if (old.isStored()) found->hasHome[rawIdx.value] = true;
    if (slot == LayerRecord::ZEROS) {
        if (old.isSlot()) (*used)[old.slot().value] = false;
        return map->set(rawIdx, BlockMap::NONE);
    }
    if (slot.value >= LayerSlots::maxFor(map->nRaw())) refuse("a slot that can't have been given out");
    if (slot.value >= used->size()) used->resize(slot.value + 1);
    if ((*used)[slot.value]) refuse("a slot twice");
    if (old.isSlot()) refuse("a block twice");
    (*used)[slot.value] = true;
    map->set(rawIdx, slot);
}

/// Records that an index written anew would have.
uint64 LayerIndex::countLive(const Found& found) const {
    auto n = static_cast<uint64>(std::count(found.used.begin(), found.used.end(), true));
    for (uint64 i = 0; i < found.hasHome.size(); ++i) {
        // Others read as zeros without a record, too.
        if (found.hasHome[i] && map->get({i}).isNothing()) ++n;
    }
    return n;
}

void LayerIndex::create() {
    folder.open(&file, INDEX, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
    begin = HEADER_SIZE;
    end = 0;
    nReserved = 0;
    isFormer = false;
    compactAt = LEAST_TO_COMPACT;
    namesPending = true;
}

int LayerIndex::reserve() {
    if (end + INDEX_AHEAD <= nReserved) return 0;
    const int error = -SxOs::get().preallocate(file.getFd(), static_cast<int64>(end), INDEX_STEP);
    if (!error) nReserved = end + INDEX_STEP;
    return error;
}

int LayerIndex::append(const LayerRecord* records, size_t n) {
    // The formats without discards allow no second record of a block either, so the index is written anew
    // first.
    if (isFormer && end != 0) {
        const int error = compact();
        if (error == ENOSPC) return error;
        if (error) {
            return failure->stop(error, [this] {
                return "Cannot write '" + SxString(file.getPath()) + "' in its present format";
            });
        }
    }
    int error = end == 0 ? writeHeader(file) : 0;
    const uint64 at = end == 0 ? HEADER_SIZE : end, size = n * sizeof(LayerRecord);
    if (!error) error = file.writeAt(records, size, at);
    if (error == ENOSPC) return error;
    if (!error) error = file.sync();
    if (error)
        return failure->stop(error, [this] { return "Cannot write '" + SxString(file.getPath()) + "'"; });
    end = at + size;
    isFormer = false;
    return 0;
}

int LayerIndex::writeHeader(const DriveFile& to) const {
    struct {
        uint64 magic, nBlocks;
        LayerRecord identity;
    } const header = {
        LayerRecord::little(MAGIC), LayerRecord::little(map->nRaw()), {{identity.high}, {identity.low}}};
    static_assert(sizeof header == HEADER_SIZE);
    return to.writeAt(&header, sizeof header, 0);
}

/// Another image's files may have been put into the folder.
void LayerIndex::requireInPlace() const {
    if (folder.holds(file, INDEX)) return;
    throw SxException("'" + SxString(file.getPath()) + "' was removed, or replaced by another one", UNIT,
                      __LINE__);
}

/// Makes the next index of these records and syncs it. Raises where it can't be made; gives an errno value
/// where it can't be written.
int LayerIndex::writeNext(const Fill& fill, uint64* endOfNext) {
    next.close(); // of one that was given up
    requireInPlace();
    folder.open(&next, NEXT_INDEX, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::Truncate | SxOs::NoFollow);
    int error = writeHeader(next);
    *endOfNext = HEADER_SIZE;
    std::vector<LayerRecord> records;
    const auto write = [&] {
        const uint64 size = records.size() * sizeof(LayerRecord);
        if (!error) error = next.writeAt(records.data(), size, *endOfNext);
        *endOfNext += size;
        records.clear();
    };
    fill([&](const LayerRecord& record) {
        records.push_back(record);
        if (records.size() == RECORDS_AT_ONCE) write();
    });
    write();
    return error ? error : next.sync();
}

/// Puts the next index, which is synced, in the place of the old one.
void LayerIndex::replaceByNext(uint64 endOfNext) {
    requireInPlace();
    if (const int error = folder.rename(NEXT_INDEX, INDEX)) {
        next.raise("Cannot rename", error, UNIT, __LINE__);
    }
    file.adopt(&next);
    begin = HEADER_SIZE;
    end = endOfNext;
    nReserved = 0;
    isFormer = false;
    compactAt = LEAST_TO_COMPACT + 2 * end;
    // Where this fails, nobody knows which of the two indices a cut would leave, so neither may be added to.
    if (syncNames() != 0) throw SxException(failure->getText(), UNIT, __LINE__);
}

void LayerIndex::replace(const Fill& fill) {
    uint64 endOfNext = 0;
    if (const int error = writeNext(fill, &endOfNext)) next.raise("Cannot write", error, UNIT, __LINE__);
    replaceByNext(endOfNext);
}

/// Gives each record of the index that no later one of its block takes the place of.
void LayerIndex::copyLatest(const Append& append) {
    std::vector<bool> seen(map->nRaw());
    std::vector<LayerRecord> records;
    SxArray<uint64> home;
    for (uint64 to = end; to > begin;) {
        const uint64 n = std::min(RECORDS_AT_ONCE, (to - begin) / sizeof(LayerRecord));
        records.resize(n);
        to -= n * sizeof(LayerRecord);
        readAll(records.data(), n * sizeof(LayerRecord), to);
        for (size_t i = n; i-- > 0;) {
            ++nLookedAt;
            const RawIdx rawIdx = records[i].getBlock();
            if (rawIdx.value >= seen.size() || seen[rawIdx.value]) continue;
            seen[rawIdx.value] = true;
            if (records[i].isZeros()) {
                map->readStored(rawIdx, 1, &home);
                // It reads as zeros without a record, too.
                if (BlockMap::Place(home(0)).isNothing()) continue;
            }
            append(records[i]);
        }
    }
}

void LayerIndex::compactIfLarge() {
    if (end > compactAt) compact();
}

/// Writes the index anew, without records that others have taken the place of. Gives 0 or an errno value,
/// where the old one stays in its place, and the layer is stopped only if neither can be used.
int LayerIndex::compact() {
    int error = EIO;
    try {
        uint64 endOfNext = 0;
        error = writeNext([this](const Append& append) { copyLatest(append); }, &endOfNext);
        if (!error) {
            replaceByNext(endOfNext);
            return 0;
        }
    } catch (const std::exception&) {
        error = EIO;
    }
    if (next.isOpen()) folder.unlink(NEXT_INDEX);
    next.close();
    compactAt = end + LEAST_TO_COMPACT;
    return error;
}

void LayerIndex::raise(const SxString& what, int error, int line) const {
    file.raise(what, error, UNIT, line);
}
