// The operations of ZqTrace that change one trace or join two.

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "ZqTrace.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceOrigins.h"
#include "ZqTraceRecords.h"

#include <optional>

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
constexpr int64 MS_PER_S = 1000;

/// Signed: an item may be from before the trace's start. Both are bounded, so nothing wraps.
int64 relativeTime(const ZqTraceItem& item, const ZqTraceParams& record) {
    return static_cast<int64>(item.time - static_cast<uint64>(record.time0));
}

/// Keeps those items that `wanted` says, in their order.
template<class Wanted>
void keepOnly(ZqTrace::Items* items, Wanted&& wanted) {
    int64 n = 0;
    for (const ZqTraceItem& item : *items) {
        if (wanted(item)) (*items)(n++) = item;
    }
    items->resize(n, true);
}

/// The first item of the trace in `path` whose block is in `blocks`. The trace is read up to there only.
std::optional<ZqTraceItem> findFirst(const SxString& path, const SxIndexSet& blocks) {
    ZqTraceRecords::Reader reader(path);
    ZqTraceItem item;
    while (reader.next(&item)) {
        if (blocks.contains(item.block)) return item;
    }
    return {};
}

/// Takes out the records of the trace in `path` that are nothing but zeros; gives how many.
int64 removeHoles(const SxString& path) {
    const SxString file = path + ZqTraceFiles::ITEMS;
    const auto walk = [&](auto&& put) {
        ZqTraceRecords::Reader reader(path);
        ZqTraceItem item;
        while (reader.next(&item)) {
            if (!ZqTraceFormat::isHole(item)) put(item);
        }
    };
    const int64 nAll = ZqTraceRecords::Reader(path).getN();
    int64 nSound = 0;
    walk([&](const ZqTraceItem&) { ++nSound; });
    if (nSound == 0) {
        const SxString what = nAll == 0
                                  ? SxString("no whole record")
                                  : SxString(nAll) + " records, all of zeros, as a power cut leaves them";
        throw SxException("'" + file + "' holds " + what + ": there is nothing to mend, and the trace can go",
                          UNIT, __LINE__);
    }
    // Without zeros the file isn't written anew: that would cut its times to milliseconds.
    if (nSound < nAll)
        ZqTraceRecords::replace(path, [&](ZqTraceRecords::Writer* out) {
            walk([&](const ZqTraceItem& item) { out->put(item); });
        });
    return nAll - nSound;
}

} // namespace

void ZqTrace::trim() {
    try {
        if (!loaded) throw SxException("No trace data loaded", UNIT, __LINE__);
        // Copies of this object share its items, and keep theirs.
        if (loaded.shared().use_count() > 1) loaded = SxPtr<Items>::create(*loaded);
        const int64 n = loaded->getSize();
        SxIndexSet seen(n);
        keepOnly(loaded.getPtr(), [&](const ZqTraceItem& item) { return seen.insert(item.block); });
        // Where many items were dropped, the array would keep much memory for nothing.
        if (loaded->getSize() < n / 2) *loaded = Items(*loaded);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to trim trace items", UNIT, __LINE__);
    }
}

void ZqTrace::trim(const SxString& outPath) {
    const ZqTraceLock lock(outPath);
    const ZqTraceRecords::Unchanged files(pathPrefix);
    ZqTraceRecords::requireMatch(pathPrefix);
    const ZqTraceParams record(pathPrefix);
    const SxPtr<Items> items = getItems(true, true, true);
    files.require();
    write(lock, *items, outPath, record.method, record.checksumMnt, [&] { record.write(outPath); });
}

void ZqTrace::dropTime(int64 from, int64 to) {
    const ZqTraceLock lock(pathPrefix);
    ZqTraceRecords::requireMatch(pathPrefix);
    const ZqTraceParams record(pathPrefix);
    // A trace may be larger than the memory, so it is walked once more instead of being held.
    const auto walk = [&](const Put& put) {
        ZqTraceRecords::Reader reader(pathPrefix);
        ZqTraceItem item;
        while (reader.next(&item)) {
            const int64 time = relativeTime(item, record);
            if (from <= time && time <= to) put(item);
        }
    };
    bool isEmpty = true;
    walk([&](const ZqTraceItem&) { isEmpty = false; });
    if (isEmpty) throw SxException("All items have been dropped, no trace written.", UNIT, __LINE__);
    write(lock, walk, pathPrefix, record.method, record.checksumMnt, [] {});
}

void ZqTrace::shift(int seconds) {
    const ZqTraceLock lock(pathPrefix);
    ZqTraceRecords::refuseRecording(pathPrefix);
    ZqTraceParams record(pathPrefix);
    record.time0 -= seconds * MS_PER_S;
    record.method = record.getMethodAfter(ZqTraceParams::Shift);
    try {
        record.write(pathPrefix);
    } catch (const SxException& e) {
        throw SxException(e, "The trace '" + pathPrefix + "' can't be shifted by " + SxString(seconds) + " s",
                          UNIT, __LINE__);
    }
}

void ZqTrace::align(const SxString& refPath) {
    const ZqTraceLock lock(pathPrefix);
    const ZqTraceRecords::Unchanged refFiles(refPath);
    ZqTraceRecords::requireMatch(pathPrefix);
    ZqTraceRecords::requireMatch(refPath);
    const ZqTraceParams refRecord(refPath), record(pathPrefix);
    const SxPtr<Items> items = getItems(true, true, true);
    if (!(refRecord.checksumMnt == record.checksumMnt)) {
        throw SxException("Cannot align traces: Different build IDs detected.", UNIT, __LINE__);
    }
    SxIndexSet blocks(items->getSize());
    for (const ZqTraceItem& item : *items)
        blocks.insert(item.block);
    const auto ref = findFirst(refPath, blocks);
    refFiles.require();
    if (!ref) {
        throw SxException("Trace alignment failed: Cannot find common blocks to align.", UNIT, __LINE__);
    }
    const auto* const first = std::find_if(items->data(), items->data() + items->getSize(),
                                           [&](const ZqTraceItem& item) { return item.block == ref->block; });
    const uint64 shift =
        static_cast<uint64>(record.time0) - first->time + static_cast<uint64>(relativeTime(*ref, refRecord));
    const int64 nAhead = first - items->data();
    for (int64 i = nAhead; i < items->getSize(); ++i) {
        (*items)(i - nAhead) = (*items)(i);
        (*items)(i - nAhead).time += shift;
    }
    items->resize(items->getSize() - nAhead, true);
    write(lock, *items, pathPrefix, record.getMethodAfter(ZqTraceParams::Align), record.checksumMnt, [] {});
}

void ZqTrace::append(const SxString& otherPath, const SxString& outPath, int gapSeconds) {
    const ZqTraceRecords::Unchanged ownFiles(pathPrefix), otherFiles(otherPath);
    // A folder without a record is no trace.
    ZqTraceRecords::requireMatch(otherPath);
    const SxPtr<Items> other = getItems(otherPath, false, true, true);
    ZqTraceParams record(pathPrefix);
    if (!loaded) {
        ZqTraceRecords::requireMatch(pathPrefix);
        read(pathPrefix);
    }
    if (record.duration == 0) record.duration = getTraceDuration();
    ZqTraceOrigins origins;
    origins.add(ZqTraceOrigins::of(pathPrefix, record));
    origins.add(ZqTraceOrigins::of(otherPath, ZqTraceParams(otherPath)));
    record.sources = origins.getLatest();
    ownFiles.require();
    otherFiles.require();

    auto joined = SxPtr<Items>::create();
    joined->reserve(loaded->getSize() + other->getSize());
    for (const ZqTraceItem& item : *loaded) {
        if (item.valid) joined->append(item);
    }
    const uint64 end = static_cast<uint64>(record.time0) + static_cast<uint64>(record.duration) +
                       static_cast<uint64>(gapSeconds * MS_PER_S);
    for (const ZqTraceItem& item : *other)
        joined->append(ZqTraceItem(item.block, item.time - (*other)(0).time + end, item.flag));
    loaded = joined;
    std::optional<ZqTraceLock> lock;
    ZqTraceRecords::Summary summary;
    try {
        lock.emplace(outPath);
        summary = ZqTraceRecords::replace(outPath, [&](ZqTraceRecords::Writer* out) {
            for (const ZqTraceItem& item : *joined)
                out->put(item);
        });
    } catch (const SxException& e) {
        throw SxException(e, "Failed to write " + outPath + ZqTraceFiles::ITEMS + " trace data", UNIT,
                          __LINE__);
    }
    record.size = summary.size;
    record.duration = summary.duration;
    record.method = ZqTraceParams::IncMonitoring;
    record.checksumTrc = summary.digest;
    record.write(outPath);
}

int64 ZqTrace::mend() {
    const ZqTraceLock lock(pathPrefix);
    ZqTraceRecords::refuseRecording(pathPrefix);
    const SxString file = pathPrefix + ZqTraceFiles::ITEMS;
    if (!SxFSAction::test_f(file)) throw SxException("Trace file " + file + " not found", UNIT, __LINE__);
    ZqTraceParams record;
    record.pathPrefix = pathPrefix;
    try {
        record.read();
    } catch (const SxException& e) {
        throw SxException(e,
                          "The trace '" + pathPrefix +
                              "' can't be mended: its build, start and method stand in " +
                              ZqTraceFiles::RECORD + " alone",
                          UNIT, __LINE__);
    }
    const int64 nHoles = removeHoles(pathPrefix);
    record.size = SxFileInfo(file).getSize();
    record.duration = getTraceDuration(pathPrefix);
    record.checksumTrc = SxMd5::file(file, nullptr);
    record.write(pathPrefix);
    return nHoles;
}
