#include "ZqTraceBuilder.h"

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqSysEnv.h"
#include "ZqTrace.h"
#include "ZqTraceFiles.h"
#include "ZqTraceRecords.h"
#include "ZqTraceSources.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

namespace {

constexpr const char* UNIT = "src/base/ZqTraceBuilder";
constexpr const char* SCHEMA = "zqtrace-schema.json";

void log(const SxString& text) {
    zqLogMsg("base", "ZqTraceBuilder::main: " + text);
}

/// Bytes; -1 where there is no file. Raises where that can't be told: a disk that fails must not look like a
/// trace that is damaged, which would go.
int64 sizeOf(const SxString& file) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(file), &info);
    if (result == 0) return info.kind == SxStat::File ? info.size : -1;
    if (result == -ENOENT || result == -ENOTDIR || result == -ELOOP) return -1;
    throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__), "Cannot look at '" + file + "'",
                      UNIT, __LINE__);
}

/// Raises where a file that is there can't be read to its end.
void requireReadable(const SxString& file) {
    if (sizeOf(file) < 0) return;
    SxFileIO reader(file, "rb");
    SxArray<char> buffer(int64{1} << 16);
    while (reader.readBuffer(buffer.data(), buffer.getSize()) > 0) {
    }
}

/// The record of a trace; none where what stands in its folder is none.
std::optional<ZqTraceParams> readRecord(const SxString& path) {
    try {
        return ZqTraceParams(path);
    } catch (const SxException&) {
        requireReadable(path + ZqTraceFiles::RECORD);
    }
    try {
        return ZqTraceParams(path);
    } catch (const SxException& e) {
        log("Corrupted trace " + path);
        log(e.what());
        return {};
    }
}

/// Why the items can be none of a trace; empty where they can.
SxString findDamage(const ZqTrace::Items& items) {
    for (const ZqTraceItem& item : items) {
        if (item.block >= ZqTraceRecords::MAX_BLOCKS)
            return "It names block " + SxString(item.block) + ", which no disk has";
    }
    return {};
}

/// Whether records can hold the times of the run where its first item is put at `start`.
bool fitsBehind(const ZqTrace::Items& run, uint64 start) {
    return std::all_of(run.begin(), run.end(), [&](const ZqTraceItem& item) {
        return ZqTraceRecords::holds(item.time - run(0).time + start);
    });
}

} // namespace

/// A folder of the sweep.
struct ZqTraceBuilder::Run {
    SxString name, path; ///< the path with its trailing slash
    std::optional<ZqTraceParams> record;
};

/// Runs one behind the other, of which only the first access to each block is kept.
class ZqTraceBuilder::Joined {
public:
    /// `nMost`: items that there may be.
    explicit Joined(int64 nMost) : seen(nMost) {}

    bool hasBase() const { return base.has_value(); }
    /// Takes the first run.
    void begin(const ZqTraceParams& record, const ZqTrace::Items& run) {
        base = record;
        add(run, 0);
        // Where the record tells none, the items do.
        if (base->duration > 0) duration = base->duration;
    }
    /// Appends a run behind the end. False, with nothing done, where a record can't hold its times at all.
    /// Raises where the end lies so far that it could elsewhere: what came before is at fault, not the run.
    bool append(const ZqTrace::Items& run) {
        const uint64 start = static_cast<uint64>(base->time0), end = start + static_cast<uint64>(duration);
        if (!fitsBehind(run, end)) {
            if (!fitsBehind(run, start)) return false;
            throw SxException("The traces from '" + base->pathPrefix +
                                  "' on last too long for another one; the times of one of them are damaged",
                              UNIT, __LINE__);
        }
        base->firstSessionBlockIndex = items.getSize();
        add(run, run.getSize() > 0 ? end - run(0).time : 0);
        return true;
    }
    /// Writes the whole, but for its record, which is given.
    ZqTraceParams writeItems(const SxString& path) const {
        const auto summary = ZqTraceRecords::replace(path, [&](ZqTraceRecords::Writer* out) {
            for (const ZqTraceItem& item : items)
                out->put(item);
        });
        ZqTraceParams record = *base;
        record.duration = nAll > 1 ? static_cast<int64>(last - first) : 0;
        record.method = ZqTraceParams::IncMonitoring;
        record.size = summary.size;
        record.checksumTrc = summary.digest;
        return record;
    }

private:
    void add(const ZqTrace::Items& run, uint64 shift) {
        for (const ZqTraceItem& item : run) {
            last = item.time + shift;
            if (nAll++ == 0) first = last;
            if (seen.insert(item.block)) items.append(ZqTraceItem(item.block, last, item.flag));
        }
        duration = nAll > 1 ? static_cast<int64>(last - first) : 0;
    }

    std::optional<ZqTraceParams> base;
    ZqTrace::Items items;
    SxIndexSet seen;
    uint64 first = 0, last = 0; ///< times of all items, repeats included
    int64 nAll = 0;
    int64 duration = 0; ///< where the next run begins, from the time0 of the first
};

ZqTraceBuilder::ZqTraceBuilder(const SxString& imagePath_, const SxString& tracesPath_,
                               const SxString& traceName_)
    : imagePath(ZqSysEnv::unifySlashes(imagePath_ + "/")),
      tracesPath(ZqSysEnv::unifySlashes(tracesPath_ + "/")),
      traceName(traceName_) {
}

void ZqTraceBuilder::stop() {
    const SxMutexBlock lock(&mutex);
    stopFlag = true;
}

bool ZqTraceBuilder::stopRequested() const {
    const SxMutexBlock lock(&mutex);
    return stopFlag;
}

void ZqTraceBuilder::giveUp(const SxString& why) {
    log(why);
    if (refusal.isEmpty()) refusal = why;
    stop();
}

void ZqTraceBuilder::main() {
    try {
        sweep();
    } catch (const SxException& e) {
        stop();
        log(e.toString(SxException::ShowMessage | SxException::ShowPlace, "\n"));
        throw SxException(e, "Trace builder failed.", UNIT, __LINE__);
    }
}

void ZqTraceBuilder::sweep() {
    const SxString stillMounted = "Image still mounted, trace not complete.";
    if (!ZqTraceSources::isPlainName(traceName)) {
        throw SxException("'" + traceName + "' is no name for a trace folder", UNIT, __LINE__);
    }
    if (ZqMountMgr().isMounted(imagePath)) return giveUp(stillMounted);
    SxPtr<ZqImageLock> lock;
    try {
        lock = ZqImageLock::take(imagePath, ZqImageLock::Shape, ZqImageLock::Exclusive, "trace build");
    } catch (const SxException& e) {
        log(e.what());
        refusal = stillMounted + " " + e.what();
        return giveUp(stillMounted);
    }
    if (!SxFSAction::test_d(tracesPath)) return giveUp("Cannot find " + tracesPath);

    for (const SxDir& folder : SxFSAction::getDirs(tracesPath)) {
        const auto cutOff = ZqTraceSources::read(folder.getOrig() + "/");
        if (!cutOff) continue;
        log("Going on with what was cut off, from " + folder.getOrig());
        cutOff->finish(tracesPath, folder.getName());
    }
    std::vector<Run> runs = findRuns();
    if (runs.size() <= 1) return log("Nothing to merge");
    readRecords(&runs);
    int64 nMost = 0;
    for (const Run& run : runs) {
        if (run.record) nMost += std::max<int64>(sizeOf(run.path + ZqTraceFiles::ITEMS), 0);
    }
    Joined joined(nMost / ZqTraceRecords::SIZE);
    join(&runs, &joined);
    finish(runs, joined);
}

std::vector<ZqTraceBuilder::Run> ZqTraceBuilder::findRuns() const {
    std::vector<Run> runs;
    for (const SxDir& folder : SxFSAction::getDirs(tracesPath)) {
        const SxString path = folder.getAbsPath() + "/";
        const SxString name = folder.getName();
        if (ZqTraceRecords::isRecording(path)) {
            if (name == traceName) ZqTraceRecords::refuseRecording(path);
            log("A mounted drive records into " + path);
        } else if (!ZqTraceSources::isTraceFolder(path)) {
            if (name == traceName) {
                throw SxException("Folder '" + path +
                                      "' holds something else than a trace and isn't replaced",
                                  UNIT, __LINE__);
            }
            log("No trace and left alone: " + path);
        } else {
            runs.push_back({name, path, {}});
        }
    }
    const SxString place = tracesPath + traceName;
    if (SxFSAction::exists(place) && !SxFSAction::test_d(place)) {
        throw SxException("'" + place + "' is no folder and isn't replaced by a trace", UNIT, __LINE__);
    }
    return runs;
}

void ZqTraceBuilder::readRecords(std::vector<Run>* runs) {
    // What makes every record unreadable must not take all traces for damaged.
    const SxString schema = ZqSysEnv::getSchemaPath() + SCHEMA;
    if (!SxFSAction::test_f(schema)) {
        throw SxException("Required schema file " + schema + " not found", UNIT, __LINE__);
    }
    for (Run& run : *runs) {
        run.record = readRecord(run.path);
        if (!run.record) ++nCorrupted;
    }
}

void ZqTraceBuilder::join(std::vector<Run>* runs, Joined* joined) {
    std::map<uint64, Run*> byStart;
    for (Run& run : *runs) {
        if (!run.record) continue;
        Run*& place = byStart[static_cast<uint64>(run.record->time0)];
        if (place) log("Leaving out " + place->path + ", which starts at the same time as " + run.path);
        place = &run;
    }
    for (const auto& [time0, run] : byStart) {
        // A record that could be read isn't empty.
        if (sizeOf(run->path + ZqTraceFiles::ITEMS) <= 0) {
            log("Corrupted trace" + run->path);
            ++nCorrupted;
            continue;
        }
        const auto items = ZqTrace::getItems(run->path, false, true, true);
        SxString damage = findDamage(*items);
        if (damage.isEmpty() && !joined->hasBase()) {
            log("Base trace " + run->path);
            joined->begin(*run->record, *items);
        } else if (damage.isEmpty()) {
            log("Appending trace " + run->path);
            if (!joined->append(*items)) damage = "It has times that no trace can hold";
        }
        if (!damage.isEmpty()) {
            log("Corrupted trace" + run->path);
            log(damage);
            ++nCorrupted;
            continue;
        }
        ++nJoined;
    }
}

void ZqTraceBuilder::finish(const std::vector<Run>& runs, const Joined& joined) const {
    const bool hasResult = joined.hasBase();
    const SxString name = ZqTraceSources::newName(tracesPath);
    const SxString work = tracesPath + name + "/";
    // Ahead of the note, which takes another new name.
    if (hasResult) SxFSAction::mkdir_p(work, 0777);
    ZqTraceSources sources(hasResult ? traceName : SxString());
    for (const Run& run : runs)
        sources.add(tracesPath, run.name);
    if (!hasResult) return sources.removeAll(tracesPath);

    try {
        const ZqTraceParams record = joined.writeItems(work);
        sources.write(work);
        // Last: without its record nobody takes what was cut off here for a trace.
        record.write(work);
        SxFSAction::syncDir(tracesPath);
    } catch (const SxException&) {
        try {
            SxFSAction::rm_r(work);
        } catch (const SxException& e) {
            log("Cannot remove " + work + ": " + e.what());
        }
        throw;
    }
    log("Merged traces into " + work);
    sources.finish(tracesPath, name);
}
