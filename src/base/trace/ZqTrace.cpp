#include "ZqTrace.h"

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "ZqBlocks.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <optional>
#include <type_traits>

using ZqTraceRecords::CHUNK, ZqTraceFormat::SIZE, ZqTraceFormat::decode, ZqTraceRecords::Writer;

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
/// A gap of so many milliseconds ends a burst of accesses.
constexpr uint64 BURST_GAP = 1000;
constexpr uint64 MB = 1000000;

static_assert(sizeof(ZqTraceItem) >= SIZE && std::is_trivially_copyable_v<ZqTraceItem>);

void putItems(Writer* out, const ZqTrace::Items& items) {
    for (const ZqTraceItem& item : items)
        out->put(item);
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
    const int64 room = n * static_cast<int64>(sizeof(ZqTraceItem)), bytes = n * SIZE;
    char* const records = reinterpret_cast<char*>(items->data()) + (room - bytes);
    if (file->readBuffer(records, bytes) < bytes) {
        throw SxException("Invalid number of items read", UNIT, __LINE__);
    }
    return records;
}

/// Appends those of the `n` records that come through; see ZqTrace::getItems().
void filter(const char* records, int64 n, bool unflagged, bool flagged, ZqTrace::Items* items) {
    for (const char* end = records + n * SIZE; records < end; records += SIZE) {
        const ZqTraceItem item = decode(records);
        if (item.flag ? flagged : unflagged) items->append(item);
    }
}

/// Of each block the first item that comes through. A long trace has many more records than blocks, and may
/// be larger than the memory, so it is read in pieces.
SxPtr<ZqTrace::Items> getUnique(const SxString& path, bool unflagged, bool flagged) {
    ZqTraceRecords::Reader reader(path);
    auto items = SxPtr<ZqTrace::Items>::create();
    try {
        SxIndexSet seen(reader.getN());
        ZqTraceItem item;
        while (reader.next(&item)) {
            if ((item.flag ? flagged : unflagged) && seen.insert(item.block)) items->append(item);
        }
    } catch (const std::bad_alloc&) {
        throw SxException("Cannot read trace items from " + path + ZqTraceFiles::ITEMS +
                              ": there is no memory",
                          UNIT, __LINE__);
    }
    return items;
}

void finishRecord(const SxString& path, const ZqTraceRecords::Summary& items, ZqTraceParams::Method method,
                  const SxString& buildId) {
    const bool known = SxFSAction::test_f(path + ZqTraceFiles::RECORD);
    ZqTraceParams record = known ? ZqTraceParams(path) : ZqTraceParams();
    if (!known) record.duration = items.duration;
    record.size = items.size;
    record.method = method;
    record.checksumTrc = items.digest;
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
        const ZqTraceLock lock(path);
        ZqTraceRecords::replace(path, [this](Writer* out) { putItems(out, *loaded); });
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
    return ZqTraceFormat::makeItem(block, time);
}

SxPtr<ZqTrace::Items> ZqTrace::readItems(SxFileIO* file) {
    const int64 n = file->getSize() / SIZE;
    SxPtr<Items> result = makeRoom(n, file->getFilePath());
    SxArray<char> buffer(std::min(n, CHUNK) * SIZE);
    file->seek(0);
    for (int64 nDue = n; nDue > 0; nDue -= CHUNK) {
        const int64 wanted = std::min(nDue, CHUNK) * SIZE;
        const int64 got = file->readBuffer(buffer.data(), wanted);
        if (got < wanted && nDue > CHUNK) throw SxException("Cannot read trace data", UNIT, __LINE__);
        for (int64 at = 0; at + SIZE <= got; at += SIZE)
            result->append(decode(buffer.data() + at));
    }
    // Where the file became shorter meanwhile, the rest are items that aren't valid.
    result->resize(n, true);
    return result;
}

void ZqTrace::writeItem(SxFileIO* file, const ZqTraceItem& item) {
    if (!item.valid) return;
    char record[SIZE];
    ZqTraceFormat::encode(ZqTraceFormat::blockField(item), item.time, record);
    file->writeBuffer(record, SIZE);
}

void ZqTrace::writeItems(SxFileIO* file, const SxConstPtr<Items>& items) {
    try {
        Writer out(file);
        putItems(&out, *items);
        out.flush();
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write trace data to " + file->getFilePath(), UNIT, __LINE__);
    }
}

SxPtr<ZqTrace::Items> ZqTrace::getItems(bool unique, bool unflagged, bool flagged) const {
    return getItems(pathPrefix, unique, unflagged, flagged);
}

SxPtr<ZqTrace::Items> ZqTrace::getItems(const SxString& path, bool unique, bool unflagged, bool flagged) {
    const SxTakeTime timer(Timer::TraceTimer::ReadItems);
    if (unique) return getUnique(path, unflagged, flagged);
    const SxString file = path + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) {
        throw SxException("Cannot trace data. File '" + file + "' not found!", UNIT, __LINE__);
    }
    try {
        SxFileIO trc(file, "rb", 0600);
        const int64 n = trc.getSize() / SIZE;
        SxPtr<Items> result = makeRoom(n, file);
        filter(readIntoRoom(&trc, n, result.getPtr()), n, unflagged, flagged, result.getPtr());
        // Where many items were dropped, the array would keep much memory for nothing.
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
    return ZqTraceFormat::durationOf(path);
}

uint64 ZqTrace::getPageSizeMB() {
    uint64 i = 0, before = 0, current = 0, largest = 0, previous = 0;
    const SxPtr<Items> accesses = getItems(true, true, false);
    for (const ZqTraceItem& item : *accesses) {
        if (!item.valid) continue;
        if (i == 0) previous = item.time;
        if (item.time - previous < BURST_GAP) {
            current += ZqBlocks::SIZE;
        } else {
            if (current > largest) {
                largest = current;
                before = i * ZqBlocks::SIZE - current;
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
    const ZqTraceLock lock(path);
    ZqTraceRecords::refuseRecording(path);
    ZqTraceParams().write(path);
    write(lock, blocks, times, path, ZqTraceParams::FileScan, buildId);
    return true;
}

bool ZqTrace::write(const SxConstPtr<SxArray<uint64>>& blocks, const SxConstPtr<SxArray<uint64>>& times,
                    const SxString& path, ZqTraceParams::Method method, const SxString& buildId) {
    write(ZqTraceLock(path), blocks, times, path, method, buildId);
    return true;
}

void ZqTrace::write(const ZqTraceLock&, const SxConstPtr<SxArray<uint64>>& blocks,
                    const SxConstPtr<SxArray<uint64>>& times, const SxString& path,
                    ZqTraceParams::Method method, const SxString& buildId) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    ZqTraceRecords::Summary summary;
    try {
        if (blocks->getSize() != times->getSize()) {
            throw SxException("There are " + SxString(blocks->getSize()) + " blocks and " + times->getSize() +
                                  " times",
                              UNIT, __LINE__);
        }
        summary = ZqTraceRecords::replace(path, [&](Writer* out) {
            for (int64 i = 0; i < blocks->getSize(); ++i)
                out->put((*blocks)(i), (*times)(i));
        });
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(3, "\n"));
        throw SxException("Cannot write trace file " + file, UNIT, __LINE__);
    }
    finishRecord(path, summary, method, buildId);
}

bool ZqTrace::write(const SxConstPtr<Items>& items, const SxString& path, ZqTraceParams::Method method,
                    const SxString& buildId) {
    SxFSAction::mkdir_p(SxFileInfo(path + ZqTraceFiles::RECORD).getPath(), 0777);
    std::optional<ZqTraceLock> lock;
    try {
        lock.emplace(path);
    } catch (const SxException& e) {
        throw SxException(e, "The trace file [" + path + ZqTraceFiles::ITEMS + "] cannot be written.", UNIT,
                          __LINE__);
    }
    write(*lock, *items, path, method, buildId, [] {});
    return true;
}

void ZqTrace::write(const ZqTraceLock& lock, const Items& items, const SxString& path,
                    ZqTraceParams::Method method, const SxString& buildId,
                    const std::function<void()>& prepareRecord) {
    const auto fill = [&](const Put& put) { std::for_each(items.begin(), items.end(), put); };
    write(lock, fill, path, method, buildId, prepareRecord);
}

void ZqTrace::write(const ZqTraceLock&, const std::function<void(const Put& put)>& fill, const SxString& path,
                    ZqTraceParams::Method method, const SxString& buildId,
                    const std::function<void()>& prepareRecord) {
    const SxString record = path + ZqTraceFiles::RECORD, file = path + ZqTraceFiles::ITEMS;
    ZqTraceRecords::Summary summary;
    try {
        summary = ZqTraceRecords::replace(
            path, [&](Writer* out) { fill([out](const ZqTraceItem& item) { out->put(item); }); });
    } catch (const SxException& e) {
        throw SxException(e, "The trace file [" + file + "] cannot be written.", UNIT, __LINE__);
    }
    prepareRecord();
    try {
        finishRecord(path, summary, method, buildId);
    } catch (const SxException& e) {
        throw SxException(e, "The trace meta information [" + record + "] cannot be written.", UNIT,
                          __LINE__);
    }
}
