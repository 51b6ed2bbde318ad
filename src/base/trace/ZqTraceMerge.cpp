// The operations of ZqTrace on several traces of one image build.
//
// A merge streams: of each input 64 KiB are in memory, no input is kept open between two pieces, so that
// there may be thousands, and the output is written as it comes. The next item comes from a heap, by relative
// time and then by the place of its trace. Beyond that memory holds the set of blocks, a bit for each. Each
// input is walked once before the merge, to see whether its times only rise (see Source).

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "ZqLog.h"
#include "ZqReadable.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"
#include "ZqTrace.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceRecords.h"

#include <memory>
#include <optional>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqTrace";
/// Records of one trace that are in memory at a time while it is merged: 64 KiB.
constexpr int64 MERGE_CHUNK = 4096;

/// Whether the times of the trace in `path` never go backward, counted from `time0`.
bool isInOrder(const SxString& path, uint64 time0) {
    ZqTraceRecords::Reader reader(path);
    int64 previous = std::numeric_limits<int64>::min();
    ZqTraceItem item;
    while (reader.next(&item)) {
        const auto time = static_cast<int64>(item.time - time0);
        if (time < previous) return false;
        previous = time;
    }
    return true;
}

/// The unique items of one trace, one after the other.
class Source {
public:
    /// Of the trace in the folder `path`.
    explicit Source(const SxString& path) : files(path), reader(path, MERGE_CHUNK), record(path) {
        if (!isInOrder(path, getTime0())) items = ZqTrace::getItems(path, true, true, true);
    }

    /// Raises where the trace is no longer the one that it was.
    void requireUnchanged() const { files.require(); }
    /// Number of records.
    int64 getN() const { return reader.getN(); }
    const ZqTraceParams& getRecord() const { return record; }
    const SxString& getBuildId() const { return record.checksumMnt; }
    const ZqTraceItem& getItem() const { return item; }
    /// Of the present item.
    int64 getRelativeTime() const { return static_cast<int64>(item.time - getTime0()); }

    /// Goes on to the next item; gives whether there is one.
    bool advance(const SxIndexSet& taken) {
        if (items) {
            if (position == items->getSize()) return false;
            item = (*items)(position++);
            return true;
        }
        // Where times only rise, an item whose block was taken already can be passed over without going
        // through the heap, which for traces of one game is most of them: no other item waits for it, and the
        // trace needs no set of its own. Where times go backward that would let later items come too early.
        // So such a trace is loaded without its repeats instead, and each of its items waits for its turn.
        while (reader.next(&item)) {
            if (!taken.contains(item.block)) return true;
        }
        return false;
    }

private:
    uint64 getTime0() const { return static_cast<uint64>(record.time0); }

    ZqTraceRecords::Unchanged files;
    ZqTraceRecords::Reader reader;
    ZqTraceParams record;
    SxPtr<ZqTrace::Items> items; ///< only where times go backward
    int64 position = 0;
    ZqTraceItem item;
};

/// The sources by their present items: the smallest relative time first, of equal ones the earlier source.
class Heap {
public:
    void add(int64 time, size_t source) {
        heads.push_back({time, source});
        std::push_heap(heads.begin(), heads.end(), Head::isLater);
    }
    bool isEmpty() const { return heads.empty(); }
    size_t first() const { return heads.front().source; }
    void removeFirst() {
        heads.front() = heads.back();
        heads.pop_back();
        if (!heads.empty()) sink();
    }
    /// Gives the first source another time, which costs little where it stays among the first.
    void replaceFirst(int64 time) {
        heads.front().time = time;
        sink();
    }

private:
    struct Head {
        int64 time;
        size_t source;
        static bool isLater(const Head& a, const Head& b) {
            return a.time > b.time || (a.time == b.time && a.source > b.source);
        }
    };

    void sink() {
        const Head head = heads.front();
        size_t at = 0;
        for (size_t child = 1; child < heads.size(); child = 2 * at + 1) {
            if (child + 1 < heads.size() && Head::isLater(heads[child], heads[child + 1])) ++child;
            if (!Head::isLater(head, heads[child])) break;
            heads[at] = heads[child];
            at = child;
        }
        heads[at] = head;
    }

    std::vector<Head> heads;
};

/// Writes the merged items with `now` as their time0.
void construct(std::vector<Source>* sources, int64 nItems, int64 now, ZqTraceRecords::Writer* out) {
    SxIndexSet taken(nItems);
    Heap heap;
    for (size_t k = 0; k < sources->size(); ++k) {
        if ((*sources)[k].advance(taken)) heap.add((*sources)[k].getRelativeTime(), k);
    }
    while (!heap.isEmpty()) {
        Source& source = (*sources)[heap.first()];
        const ZqTraceItem& item = source.getItem();
        if (taken.insert(item.block)) {
            out->put(ZqTraceFormat::blockField(item),
                     static_cast<uint64>(source.getRelativeTime()) + static_cast<uint64>(now));
        }
        if (source.advance(taken)) {
            heap.replaceFirst(source.getRelativeTime());
        } else {
            heap.removeFirst();
        }
    }
}

/// Says of what fails in `action` that it was the record of the trace in `path`, as ZqTrace::write() does.
template<class Action>
void withRecordOf(const SxString& path, Action&& action) {
    try {
        action();
    } catch (const SxException& e) {
        throw SxException(
            e, "The trace meta information [" + path + ZqTraceFiles::RECORD + "] cannot be written.", UNIT,
            __LINE__);
    }
}

/// Shows 2 of 3 as "66.7".
SxString percentText(int64 part, int64 whole) {
    return SxString::sprintf("%4.1lf", ZqReadable::percentage(static_cast<uint64>(part), whole));
}

} // namespace

void ZqTrace::merge(const SxString& outPath, const SxConstPtr<SxArray<ZqTrace>>& traces) {
    const SxTakeTime timer(Timer::TraceTimer::MergeTraces);
    const int64 now = ZqSysEnv::getSysTime();
    SxString buildId;
    int64 nItems = 0;
    std::vector<Source> sources;
    sources.reserve(static_cast<size_t>(traces->getSize()));
    for (const ZqTrace& trace : *traces) {
        sources.emplace_back(trace.pathPrefix);
        sources.back().getRecord().refuseSeries();
        ZqTraceRecords::requireMatch(trace.pathPrefix);
        const SxString& own = sources.back().getBuildId();
        nItems += sources.back().getN();
        if (buildId.isEmpty()) buildId = own;
        if (!(own == buildId)) {
            throw SxException("Cannot merge traces: Different build IDs detected.", UNIT, __LINE__);
        }
    }
    const ZqTraceLock lock(outPath);
    // What a former record says beyond a merge stays. It is read before anything is written, so that a
    // damaged one leaves both files alone.
    ZqTraceParams record;
    withRecordOf(outPath, [&] {
        if (SxFSAction::test_f(outPath + ZqTraceFiles::RECORD)) record = ZqTraceParams(outPath);
    });

    ZqTraceRecords::Summary summary;
    std::optional<SxTakeTime> writing;
    try {
        summary = ZqTraceRecords::replace(outPath, [&](ZqTraceRecords::Writer* out) {
            {
                const SxTakeTime constructing(Timer::TraceTimer::ConstructMerge);
                construct(&sources, nItems, now, out);
                for (const Source& source : sources)
                    source.requireUnchanged();
            }
            writing.emplace(Timer::TraceTimer::WriteMergeTrace);
        });
    } catch (const SxException& e) {
        throw SxException(e, "The trace file [" + outPath + ZqTraceFiles::ITEMS + "] cannot be written.",
                          UNIT, __LINE__);
    }
    record.time0 = now;
    record.size = summary.size;
    record.duration = summary.duration;
    record.method = ZqTraceParams::Merge;
    // A merge is no series of runs, whatever the former record said.
    record.firstSessionBlockIndex = 0;
    record.sources.clear();
    record.checksumTrc = summary.digest;
    record.checksumMnt = buildId;
    withRecordOf(outPath, [&] { record.write(outPath); });
}

ZqTrace::Difference ZqTrace::compare(const SxString& otherPath) const {
    const ZqTraceRecords::Unchanged ownFiles(pathPrefix), otherFiles(otherPath);
    ZqTraceRecords::requireMatch(pathPrefix);
    ZqTraceRecords::requireMatch(otherPath);
    const SxPtr<Items> reference = getItems(true, true, true);
    const SxPtr<Items> other = getItems(otherPath, true, true, true);
    const auto time0 = static_cast<uint64>(ZqTraceParams(pathPrefix).time0);
    const auto otherTime0 = static_cast<uint64>(ZqTraceParams(otherPath).time0);
    ownFiles.require();
    otherFiles.require();
    const int64 nReference = reference->getSize(), nOther = other->getSize();
    Difference result;
    result.nReference = nReference;
    result.nOther = nOther;

    SxIndexSet known(nReference);
    for (const ZqTraceItem& item : *reference)
        known.insert(item.block);
    for (const ZqTraceItem& item : *other)
        result.nIdentified += !known.contains(item.block);

    SxIndexSet seen(nReference + nOther);
    int64 i = 0, j = 0;
    while (i < nReference && j < nOther) {
        const auto time = static_cast<int64>((*reference)(i).time - time0);
        if (static_cast<int64>((*other)(j).time - otherTime0) < time) {
            result.nInserted += seen.insert((*other)(j++).block);
        } else {
            seen.insert((*reference)(i++).block);
        }
    }
    for (; j < nOther; ++j)
        result.nAppended += seen.insert((*other)(j).block);
    return result;
}

SxList<SxString> ZqTrace::Difference::toLines() const {
    return {SxString(nReference) + " items in reference trace.",
            SxString(nOther) + " items in new       trace.",
            SxString(nIdentified) + " new items identified.",
            SxString(nInserted) + " items will be inserted/modified in the reference trace.",
            "This is a change of " + percentText(nInserted, nReference) + " % of the reference trace.",
            SxString(nAppended) + " items will be appended to the reference trace."};
}

void ZqTrace::mergeDiff(const SxString& otherPath) const {
    for (const SxString& line : compare(otherPath).toLines())
        zqLogMsg("base", line);
}
