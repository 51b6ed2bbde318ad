#include "ZqTrace.h"

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "SxMd5.h"
#include "ZqImage.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"
#include "ZqTraceFiles.h"

#include <bit>
#include <cstring>
#include <limits>
#include <type_traits>

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
constexpr int64 RECORD_SIZE = 16;
constexpr int64 CHUNK_ITEMS = 65536;
constexpr uint64 FLAG = uint64{1} << 63;
/// A record's time counts 100 ns from 1601; ours milliseconds from 1970.
constexpr uint64 UNITS_PER_MS = 10000;
constexpr uint64 FROM_1601_TO_1970_MS = 11644473600000;
/// A gap of so many milliseconds ends a burst of accesses.
constexpr uint64 BURST_GAP = 1000;
constexpr uint64 MB = 1000000;

static_assert(sizeof(ZqTraceItem) >= RECORD_SIZE && std::is_trivially_copyable_v<ZqTraceItem>);

uint64 swapIfBig(uint64 value) {
    return std::endian::native == std::endian::big ? __builtin_bswap64(value) : value;
}

ZqTraceItem makeItem(uint64 blockField, uint64 timeField) {
    const uint64 block = swapIfBig(blockField);
    return ZqTraceItem(block & ~FLAG, swapIfBig(timeField) / UNITS_PER_MS - FROM_1601_TO_1970_MS,
                       (block & FLAG) != 0);
}

ZqTraceItem decode(const char* record) {
    uint64 fields[2];
    std::memcpy(fields, record, sizeof fields);
    return makeItem(fields[0], fields[1]);
}

void encode(uint64 block, uint64 timeMs, char* record) {
    const uint64 sinceStart = timeMs + FROM_1601_TO_1970_MS;
    if (sinceStart > std::numeric_limits<uint64>::max() / UNITS_PER_MS) {
        throw SxException(SxString("The time ") + static_cast<int64>(timeMs) + " of block " +
                              (block & ~FLAG) + " is none that a trace can hold",
                          UNIT, __LINE__);
    }
    const uint64 fields[2] = {swapIfBig(block), swapIfBig(sinceStart * UNITS_PER_MS)};
    std::memcpy(record, fields, sizeof fields);
}

uint64 blockField(const ZqTraceItem& item) {
    return item.block | (item.flag ? FLAG : 0);
}

/// Writes records in pieces. What isn't flushed is lost.
class RecordWriter {
public:
    explicit RecordWriter(SxFileIO* file_) : file(file_) {}

    void put(uint64 block, uint64 timeMs) {
        encode(block, timeMs, buffer.data() + used);
        used += RECORD_SIZE;
        if (used == buffer.getSize()) flush();
    }
    void flush() {
        file->writeBuffer(buffer.data(), used);
        used = 0;
    }

private:
    SxFileIO* file;
    SxArray<char> buffer = SxArray<char>(CHUNK_ITEMS * RECORD_SIZE);
    int64 used = 0;
};

void putItems(SxFileIO* file, const ZqTrace::Items& items) {
    RecordWriter writer(file);
    for (const ZqTraceItem& item : items) {
        if (item.valid) writer.put(blockField(item), item.time);
    }
    writer.flush();
}

/// An empty array with room for `n` items. It isn't made with its size, since that would write it twice.
SxPtr<ZqTrace::Items> makeRoom(int64 n, const SxString& file) {
    auto items = SxPtr<ZqTrace::Items>::create();
    try {
        items->reserve(n);
    } catch (const std::exception&) {
        throw SxException("There is no memory for the " + SxString(n) + " items of '" + file + "'", UNIT,
                          __LINE__);
    }
    return items;
}

/// Reads `n` records into the room of as many items: to its end, so that the items can be put to its front
/// while the records are walked. No item reaches a record that isn't decoded yet, since an item is the
/// larger one, and a second buffer isn't needed. Gives the first record.
const char* readIntoRoom(SxFileIO* file, int64 n, ZqTrace::Items* items) {
    const int64 room = n * static_cast<int64>(sizeof(ZqTraceItem)), bytes = n * RECORD_SIZE;
    char* const records = reinterpret_cast<char*>(items->data()) + (room - bytes);
    if (file->readBuffer(records, bytes) < bytes) {
        throw SxException("Invalid number of items read", UNIT, __LINE__);
    }
    return records;
}

/// Appends those of the `n` records that come through; see ZqTrace::getItems().
void filter(const char* records, int64 n, bool unique, bool unflagged, bool flagged, ZqTrace::Items* items) {
    SxIndexSet seen(unique ? n : 0);
    for (const char* end = records + n * RECORD_SIZE; records < end; records += RECORD_SIZE) {
        const ZqTraceItem item = decode(records);
        if ((item.flag ? flagged : unflagged) && (!unique || seen.insert(item.block))) items->append(item);
    }
}

void finishRecord(const SxString& path, int64 size, ZqTraceParams::Method method, const SxString& buildId) {
    const bool known = SxFSAction::test_f(path + ZqTraceFiles::RECORD);
    ZqTraceParams record = known ? ZqTraceParams(path) : ZqTraceParams();
    if (!known) record.duration = ZqTrace::getTraceDuration(path);
    record.size = size;
    record.method = method;
    record.checksumTrc = SxMd5::file(path + ZqTraceFiles::ITEMS, nullptr);
    record.checksumMnt = buildId;
    record.write(path);
}

} // namespace

void ZqTrace::read(const SxString& path) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) throw SxException("Trace file " + file + " not found", UNIT, __LINE__);
    pathPrefix = path;
    try {
        SxFileIO trc(file, "rb", 0600);
        loaded = readItems(&trc);
        trc.close();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read " + file + " trace data", UNIT, __LINE__);
    }
}

void ZqTrace::write(const SxString& path) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    try {
        if (!loaded) throw SxException("No trace data loaded", UNIT, __LINE__);
        SxFSAction::mkdir_p(SxFileInfo(file).getPath(), 0777);
        SxFileIO::writeAtomic(file, [this](SxFileIO* trc) { putItems(trc, *loaded); });
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write " + file + " trace data", UNIT, __LINE__);
    }
}

ZqTraceItem ZqTrace::readItem(SxFileIO* file) {
    uint64 block = 0, time = 0;
    constexpr int64 FIELD_SIZE = sizeof(uint64);
    try {
        if (file->readBuffer(&block, FIELD_SIZE) < FIELD_SIZE) return {};
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read trace item block index", UNIT, __LINE__);
    }
    try {
        if (file->readBuffer(&time, FIELD_SIZE) < FIELD_SIZE) return {};
    } catch (const SxException& e) {
        throw SxException(e, "Failed to read trace item file time", UNIT, __LINE__);
    }
    return makeItem(block, time);
}

SxPtr<ZqTrace::Items> ZqTrace::readItems(SxFileIO* file) {
    const int64 n = file->getSize() / RECORD_SIZE;
    SxPtr<Items> result = makeRoom(n, file->getFilePath());
    SxArray<char> buffer(std::min(n, CHUNK_ITEMS) * RECORD_SIZE);
    file->seek(0);
    for (int64 nDue = n; nDue > 0; nDue -= CHUNK_ITEMS) {
        const int64 wanted = std::min(nDue, CHUNK_ITEMS) * RECORD_SIZE;
        const int64 got = file->readBuffer(buffer.data(), wanted);
        if (got < wanted && nDue > CHUNK_ITEMS) throw SxException("Cannot read trace data", UNIT, __LINE__);
        for (int64 at = 0; at + RECORD_SIZE <= got; at += RECORD_SIZE)
            result->append(decode(buffer.data() + at));
    }
    // Where the file became shorter meanwhile, the rest are items that aren't valid.
    result->resize(n, true);
    return result;
}

void ZqTrace::writeItem(SxFileIO* file, const ZqTraceItem& item) {
    if (!item.valid) return;
    char record[RECORD_SIZE];
    encode(blockField(item), item.time, record);
    file->writeBuffer(record, RECORD_SIZE);
}

void ZqTrace::writeItems(SxFileIO* file, const SxConstPtr<Items>& items) {
    try {
        putItems(file, *items);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write trace data to " + file->getFilePath(), UNIT, __LINE__);
    }
}

SxPtr<ZqTrace::Items> ZqTrace::getItems(bool unique, bool unflagged, bool flagged) const {
    return getItems(pathPrefix, unique, unflagged, flagged);
}

SxPtr<ZqTrace::Items> ZqTrace::getItems(const SxString& path, bool unique, bool unflagged, bool flagged) {
    const SxTakeTime timer(Timer::TraceTimer::ReadItems);
    const SxString file = path + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) {
        throw SxException("Cannot trace data. File '" + file + "' not found!", UNIT, __LINE__);
    }
    try {
        SxFileIO trc(file, "rb", 0600);
        const int64 n = trc.getSize() / RECORD_SIZE;
        SxPtr<Items> result = makeRoom(n, file);
        filter(readIntoRoom(&trc, n, result.getPtr()), n, unique, unflagged, flagged, result.getPtr());
        // Much that was dropped would hold on to much memory.
        if (result->getSize() < n / 2) *result = Items(*result);
        return result;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot read trace items from " + file, UNIT, __LINE__);
    } catch (const std::bad_alloc&) {
        throw SxException("Cannot read trace items from " + file + ": there is no memory", UNIT, __LINE__);
    }
}

int64 ZqTrace::getNItems(bool unique) const {
    return getItems(unique, true, true)->getSize();
}

int64 ZqTrace::getTraceDuration() const {
    if (!loaded) throw SxException("No trace data loaded", UNIT, __LINE__);
    const int64 n = loaded->getSize();
    return n > 1 ? static_cast<int64>((*loaded)(n - 1).time - (*loaded)(0).time) : 0;
}

int64 ZqTrace::getTraceDuration(const SxString& path) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) return 0;
    try {
        // The two records say the same as the whole file.
        SxFileIO trc(file, "rb", 0600);
        const int64 n = trc.getSize() / RECORD_SIZE;
        if (n < 2) return 0;
        const ZqTraceItem first = readItem(&trc);
        trc.seek((n - 1) * RECORD_SIZE);
        return static_cast<int64>(readItem(&trc).time - first.time);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot evaluate duration for trace " + path, UNIT, __LINE__);
    }
}

uint64 ZqTrace::getPageSizeMB() {
    uint64 i = 0, before = 0, current = 0, largest = 0, previous = 0;
    const SxPtr<Items> accesses = getItems(true, true, false);
    for (const ZqTraceItem& item : *accesses) {
        if (!item.valid) continue;
        if (i == 0) previous = item.time;
        if (item.time - previous < BURST_GAP) {
            current += ZqImage::BLOCK_SIZE;
        } else {
            if (current > largest) {
                largest = current;
                before = i * ZqImage::BLOCK_SIZE - current;
            }
            current = 0;
        }
        previous = item.time;
        ++i;
    }
    if (largest == 0) return current / MB;
    const uint64 total = largest + before;
    return total / (total / largest) / MB;
}

bool ZqTrace::write(const SxConstPtr<SxArray<uint64>>& blocks, const SxString& path,
                    const SxString& buildId) {
    auto times = SxPtr<SxArray<uint64>>::create(blocks->getSize());
    times->set(static_cast<uint64>(ZqSysEnv::getSysTime()));
    ZqTraceParams().write(path);
    return write(blocks, times, path, ZqTraceParams::FileScan, buildId);
}

bool ZqTrace::write(const SxConstPtr<SxArray<uint64>>& blocks, const SxConstPtr<SxArray<uint64>>& times,
                    const SxString& path, ZqTraceParams::Method method, const SxString& buildId) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    SxFSAction::mkdir_p(SxFileInfo(file).getPath(), 0777);
    try {
        if (blocks->getSize() != times->getSize()) {
            throw SxException("There are " + SxString(blocks->getSize()) + " blocks and " + times->getSize() +
                                  " times",
                              UNIT, __LINE__);
        }
        SxFileIO::writeAtomic(file, [&](SxFileIO* trc) {
            RecordWriter writer(trc);
            for (int64 i = 0; i < blocks->getSize(); ++i)
                writer.put((*blocks)(i), (*times)(i));
            writer.flush();
        });
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(3, "\n"));
        throw SxException("Cannot write trace file " + file, UNIT, __LINE__);
    }
    finishRecord(path, blocks->getSize() * RECORD_SIZE, method, buildId);
    return true;
}

bool ZqTrace::write(const SxConstPtr<Items>& items, const SxString& path, ZqTraceParams::Method method,
                    const SxString& buildId) {
    const SxString record = path + ZqTraceFiles::RECORD, file = path + ZqTraceFiles::ITEMS;
    SxFSAction::mkdir_p(SxFileInfo(record).getPath(), 0777);
    int64 size = 0;
    try {
        SxFileIO::writeAtomic(file, [&](SxFileIO* trc) {
            putItems(trc, *items);
            size = trc->getOffset();
        });
    } catch (const SxException& e) {
        throw SxException(e, "The trace file [" + file + "] cannot be written.", UNIT, __LINE__);
    }
    try {
        finishRecord(path, size, method, buildId);
    } catch (const SxException& e) {
        throw SxException(e, "The trace meta information [" + record + "] cannot be written.", UNIT,
                          __LINE__);
    }
    return true;
}
