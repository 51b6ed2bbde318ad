#include "ZqTraceBuilder.h"

#include "SxFSAction.h"
#include "SxIndexSet.h"
#include "SxJSONParser.h"
#include "ZqImageLock.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqSysEnv.h"
#include "ZqTrace.h"
#include "ZqTraceFiles.h"
#include "ZqTraceLock.h"
#include "ZqTraceOrigins.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

namespace {

constexpr const char* UNIT = "src/base/ZqTraceBuilder";
/// Characters of a build id that tell a former result of it.
constexpr size_t MARK = 8;
constexpr const char* SCHEMA = "zqtrace-schema.json";

void log(const SxString& text) {
    zqLogMsg("base", "ZqTraceBuilder::main: " + text);
}

/// Raises where a file that is there can't be read to its end.
void requireReadable(const SxString& file) {
    if (SxFSAction::sizeOf(file) < 0) return;
    SxFileIO reader(file, "rb");
    SxArray<char> buffer(int64{1} << 16);
    while (reader.readBuffer(buffer.data(), buffer.getSize()) > 0) {
    }
}

/// Whether a file of a trace is JSON. What is JSON but no record of ours isn't removed: a newer version may
/// have written it.
bool isJson(const SxString& file) {
    if (SxFSAction::sizeOf(file) <= 0) return false;
    try {
        SxJSONParser parser;
        parser.readString(SxFileIO::readUtf8(file), file);
        return true;
    } catch (const SxException&) {
        requireReadable(file);
        return false;
    }
}

/// A walk over the items of a run before its joining.
struct Walk {
    Walk(const SxString& path, uint64 start, uint64 end) {
        ZqTraceRecords::Reader reader(path);
        ZqTraceItem item;
        uint64 first = 0;
        for (bool begun = false; reader.next(&item); begun = true) {
            if (!begun) first = item.time;
            if (item.block >= ZqTraceFormat::MAX_BLOCKS && wildBlock == 0) wildBlock = item.block;
            fitsStart = fitsStart && ZqTraceFormat::holds(item.time - first + start);
            fitsEnd = fitsEnd && ZqTraceFormat::holds(item.time - first + end);
        }
    }

    uint64 wildBlock = 0; ///< one that no disk has
    /// Whether records can hold the times where the run is put there.
    bool fitsStart = true, fitsEnd = true;
};

} // namespace

/// A folder of the sweep.
struct ZqTraceBuilder::Run {
    enum Fate {
        Open, ///< to be joined
        Held, ///< it is in one that is to be joined, and stays
        Damaged,
        Stays
    };

    uint64 getStart() const { return static_cast<uint64>(record->time0); }
    bool isJoinedTrace() const { return !record->sources.empty(); }
    /// Whether it is of no use once it was joined.
    bool goes() const { return fate == Damaged || (fate == Open && record->isSeries()); }

    SxString name, path;                            ///< the path with its trailing slash
    std::optional<ZqTraceRecords::Unchanged> files; ///< as they were before the record was read
    std::optional<ZqTraceParams> record;
    Fate fate = Open;
};

/// Runs one after the other, of which only the first access to each block is kept.
class ZqTraceBuilder::Joined {
public:
    /// `nMost`: items that there may be.
    explicit Joined(int64 nMost) : seen(nMost) {}

    bool hasBase() const { return base.has_value(); }
    const ZqTraceParams& getBase() const { return *base; }
    /// Where the next run begins, and where it would if it were the second one, each without a length.
    uint64 getEnd() const { return getStart() + static_cast<uint64>(duration); }
    uint64 getStart() const { return static_cast<uint64>(base->time0); }

    /// Appends the run in `path` after the end; the first one stays where it is.
    void append(const ZqTraceParams& record, const SxString& path) {
        const bool isFirst = !base;
        const uint64 end = isFirst ? 0 : getEnd();
        origins.add(ZqTraceOrigins::of(path, record));
        if (isFirst) {
            base = record;
        } else {
            base->firstSessionBlockIndex = items.getSize();
        }
        ZqTraceRecords::Reader reader(path);
        ZqTraceItem item;
        uint64 shift = 0;
        for (bool begun = false; reader.next(&item); begun = true) {
            if (!begun && !isFirst) shift = end - item.time;
            add(item, shift);
        }
        duration = nAll > 1 ? static_cast<int64>(last - first) : 0;
        // Where the record tells none, the items do.
        if (isFirst && base->duration > 0) duration = base->duration;
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
        record.sources = origins.getLatest();
        return record;
    }

private:
    void add(const ZqTraceItem& item, uint64 shift) {
        last = item.time + shift;
        if (nAll++ == 0) first = last;
        if (seen.insert(item.block)) items.append(ZqTraceItem(item.block, last, item.flag));
    }

    std::optional<ZqTraceParams> base;
    ZqTraceOrigins origins;
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
    if (!ZqTraceSources::isPlainName(traceName)) {
        throw SxException("'" + traceName + "' is no name for a trace folder", UNIT, __LINE__);
    }
    if (ZqMountMgr().isMounted(imagePath)) return giveUp("Image still mounted, trace not complete.");
    SxPtr<ZqImageLock> lock;
    try {
        lock = ZqImageLock::take(imagePath, ZqImageLock::Shape, ZqImageLock::Exclusive, "trace build");
    } catch (const SxException& e) {
        // The failure names the process that works with the image, and at what. It may be a drive of another
        // machine root, which isMounted() doesn't know, or any other job.
        return giveUp(e.what());
    }
    if (!SxFSAction::test_d(tracesPath)) return giveUp("Cannot find " + tracesPath);

    for (const SxDir& folder : SxFSAction::getDirs(tracesPath)) {
        const auto cutOff = ZqTraceSources::read(folder.getOrig() + "/");
        if (!cutOff) continue;
        log("Going on with what was cut off, from " + folder.getOrig());
        tell(cutOff->finish(tracesPath, folder.getName()));
    }
    std::vector<Run> runs = findRuns();
    if (runs.size() <= 1) return log("Nothing to merge");
    readRecords(&runs);
    std::optional<Joined> joined;
    do {
        choose(&runs);
        int64 nMost = 0;
        for (const Run& run : runs) {
            if (run.fate == Run::Open)
                nMost += std::max<int64>(SxFSAction::sizeOf(run.path + ZqTraceFiles::ITEMS), 0);
        }
        joined.emplace(nMost / ZqTraceFormat::SIZE);
    } while (!joinAll(&runs, &*joined));
    nHeld = std::count_if(runs.begin(), runs.end(), [](const Run& run) { return run.fate == Run::Held; });
    finish(runs, *joined);
}

std::vector<ZqTraceBuilder::Run> ZqTraceBuilder::findRuns() {
    std::vector<Run> runs;
    for (const SxDir& folder : SxFSAction::getDirs(tracesPath)) {
        const SxString path = folder.getAbsPath() + "/";
        const SxString name = folder.getName();
        if (ZqTraceRecords::isRecording(path)) {
            if (name == traceName) ZqTraceRecords::refuseRecording(path);
            log("A mounted drive records into " + path);
            left.push_back({name, "a mounted drive records into it"});
        } else if (ZqTraceLock::isHeld(path)) {
            if (name == traceName)
                throw SxException("Another command writes the trace '" + path + "' at the moment", UNIT,
                                  __LINE__);
            log("Another command writes " + path);
            left.push_back({name, "another command writes it at the moment"});
        } else if (!ZqTraceSources::isTraceFolder(path)) {
            if (name == traceName) {
                throw SxException("Folder '" + path +
                                      "' holds something else than a trace and isn't replaced",
                                  UNIT, __LINE__);
            }
            log("No trace and left alone: " + path);
        } else {
            runs.push_back({name, path, {}, {}});
        }
    }
    const SxString place = tracesPath + traceName;
    if (SxFSAction::exists(place) && !SxFSAction::test_d(place)) {
        throw SxException("'" + place + "' is no folder and isn't replaced by a trace", UNIT, __LINE__);
    }
    return runs;
}

void ZqTraceBuilder::readRecords(std::vector<Run>* runs) {
    // Without the schema no record can be read, and all traces would count as damaged.
    const SxString schema = ZqSysEnv::getSchemaPath() + SCHEMA;
    if (!SxFSAction::test_f(schema)) {
        throw SxException("Required schema file " + schema + " not found", UNIT, __LINE__);
    }
    for (Run& run : *runs) {
        run.files.emplace(run.path);
        try {
            run.record = ZqTraceParams(run.path);
        } catch (const SxException& e) {
            if (isJson(run.path + ZqTraceFiles::RECORD)) {
                const SxException* cause = &e;
                while (cause->getCause())
                    cause = cause->getCause();
                leave(&run, cause->getMessage());
                continue;
            }
        }
        // A record that could be read isn't empty, so only the items are left to be looked at.
        if (run.record && SxFSAction::sizeOf(run.path + ZqTraceFiles::ITEMS) > 0) continue;
        log("Corrupted trace " + run.path);
        run.fate = Run::Damaged;
        ++nCorrupted;
    }
}

void ZqTraceBuilder::leave(Run* run, const SxString& why) {
    log("Leaving out " + run->path + ": " + why);
    run->fate = Run::Stays;
    left.push_back({run->name, why});
}

void ZqTraceBuilder::choose(std::vector<Run>* runs) {
    for (Run& run : *runs) {
        if (run.fate == Run::Held) run.fate = Run::Open;
    }
    chooseBuild(runs);
    passOver(runs, chooseSeries(runs));
    chooseStarts(runs);
}

void ZqTraceBuilder::chooseBuild(std::vector<Run>* runs) {
    const Run* newest = nullptr;
    for (const Run& run : *runs) {
        if (run.fate == Run::Open && (!newest || run.getStart() >= newest->getStart())) newest = &run;
    }
    if (!newest) return;
    const SxString build = newest->record->checksumMnt;
    for (Run& run : *runs) {
        if (run.fate != Run::Open || run.record->checksumMnt == build) continue;
        leave(&run, "it is of the build '" + run.record->checksumMnt + "', and the newest run, '" +
                        newest->name + "', is of '" + build + "'");
    }
}

ZqTraceOrigins ZqTraceBuilder::chooseSeries(std::vector<Run>* runs) {
    std::vector<Run*> joinedTraces;
    for (Run& run : *runs) {
        if (run.fate == Run::Open && run.isJoinedTrace()) joinedTraces.push_back(&run);
    }
    // The one with the most runs keeps its place: whatever it shares with others, it has more beside. Of
    // equal ones the former result does.
    std::stable_sort(joinedTraces.begin(), joinedTraces.end(), [this](const Run* a, const Run* b) {
        const size_t nA = a->record->sources.size(), nB = b->record->sources.size();
        return nA != nB ? nA > nB : a->name == traceName && !(b->name == traceName);
    });
    ZqTraceOrigins origins;
    std::set<uint64> starts;
    for (Run* run : joinedTraces) {
        const auto& own = run->record->sources;
        if (std::any_of(own.begin(), own.end(), [&](const auto& source) {
                return origins.holds(source) || origins.holdsFormer(source);
            })) {
            leave(run, "it was joined of runs that are in another of these traces, too");
        } else if (!starts.insert(run->getStart()).second) {
            leave(run, "it starts at the same time as another joined trace");
        } else {
            origins.add(own);
        }
    }
    return origins;
}

void ZqTraceBuilder::passOver(std::vector<Run>* runs, const ZqTraceOrigins& origins) {
    const auto hold = [](Run* run) {
        log("Went into another trace before: " + run->path);
        run->fate = Run::Held;
    };
    std::map<uint64, const Run*> held;
    std::vector<std::pair<Run*, ZqTraceOrigins::Source>> others;
    for (Run& run : *runs) {
        if (run.fate != Run::Open || run.isJoinedTrace()) continue;
        const auto self = ZqTraceOrigins::self(run.path, *run.record);
        if (!origins.holds(self)) {
            others.emplace_back(&run, self);
            continue;
        }
        hold(&run);
        held.emplace(run.getStart(), &run);
    }
    for (const auto& [run, self] : others) {
        if (!origins.holdsFormer(self)) continue;
        // Where the one that went in is still there, it hasn't become this one.
        const auto twin = held.find(run->getStart());
        if (twin == held.end()) {
            hold(run);
        } else {
            leave(run, "it starts at the same time as '" + twin->second->name + "'");
        }
    }
}

void ZqTraceBuilder::chooseStarts(std::vector<Run>* runs) {
    // What holds others counts: a joined trace, whose runs were passed over, and a former result, whose runs
    // may be gone.
    const auto rankOf = [this](const Run& run) { return run.isJoinedTrace() ? 2 : run.name == traceName; };
    std::map<uint64, Run*> byStart;
    for (Run& run : *runs) {
        if (run.fate != Run::Open) continue;
        Run*& place = byStart[run.getStart()];
        Run* other = place;
        if (!place || rankOf(run) >= rankOf(*place)) place = &run;
        if (other == nullptr) continue;
        if (place == other) other = &run;
        leave(other, "it starts at the same time as '" + place->name + "'");
    }
}

SxString ZqTraceBuilder::findObstacle(const Run& run, const Joined& joined) const {
    SxString mismatch = ZqTraceRecords::findMismatch(run.path, *run.record);
    if (!mismatch.isEmpty()) return mismatch;
    const Walk walk(run.path, joined.hasBase() ? joined.getStart() : 0,
                    joined.hasBase() ? joined.getEnd() : 0);
    if (walk.wildBlock != 0) return "it names block " + SxString(walk.wildBlock) + ", which no disk has";
    if (!joined.hasBase() || walk.fitsEnd) return {};
    if (!walk.fitsStart) return "it has times that no trace can hold";
    // The times before it are at fault, not the run.
    throw SxException("The traces from '" + joined.getBase().pathPrefix +
                          "' on last too long for another one; the times of one of them are damaged",
                      UNIT, __LINE__);
}

bool ZqTraceBuilder::joinAll(std::vector<Run>* runs, Joined* joined) {
    nJoined = 0;
    std::map<uint64, Run*> byStart;
    for (Run& run : *runs) {
        if (run.fate == Run::Open) byStart[run.getStart()] = &run;
    }
    for (const auto& [time0, run] : byStart) {
        const SxString obstacle = findObstacle(*run, *joined);
        if (!obstacle.isEmpty()) {
            leave(run, obstacle);
            if (run->isJoinedTrace()) return false;
            continue;
        }
        log((joined->hasBase() ? "Appending trace " : "Base trace ") + run->path);
        joined->append(*run->record, run->path);
        run->files->require();
        ++nJoined;
    }
    return true;
}

void ZqTraceBuilder::finish(const std::vector<Run>& runs, const Joined& joined) {
    const bool isAlone =
        nJoined == 1 && nCorrupted == 0 && std::any_of(runs.begin(), runs.end(), [this](const Run& run) {
            return run.name == traceName && run.fate == Run::Open;
        });
    if (isAlone || nJoined + nCorrupted == 0) {
        nJoined = 0;
        return log("Nothing to merge");
    }
    const bool hasResult = joined.hasBase();
    const SxString name = ZqTraceSources::newName(tracesPath);
    const SxString work = tracesPath + name + "/";
    // Made before the note is filled in, which may take another new name.
    if (hasResult) SxFSAction::mkdir_p(work, 0777);
    const ZqTraceSources sources = listWhatGoes(runs, hasResult);
    if (!hasResult) {
        tell(sources.removeAll(tracesPath));
        return;
    }

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
    tell(sources.finish(tracesPath, name));
}

ZqTraceSources ZqTraceBuilder::listWhatGoes(const std::vector<Run>& runs, bool hasResult) {
    ZqTraceSources sources(hasResult ? traceName : SxString());
    for (const Run& run : runs) {
        if (run.goes()) {
            sources.add(tracesPath, run.name);
            continue;
        }
        if (!(run.name == traceName) || !hasResult) continue;
        const SxString aside = sources.keepAside(
            tracesPath, run.record ? SxString(run.record->checksumMnt.str().substr(0, MARK)) : SxString());
        const auto told =
            std::find_if(left.begin(), left.end(), [&](const Left& one) { return one.name == run.name; });
        if (told == left.end()) {
            left.push_back({aside, "it is in the result, which has its name now"});
        } else {
            told->name = aside;
        }
    }
    return sources;
}

void ZqTraceBuilder::tell(const ZqTraceSources::Gone& gone) {
    removed << gone.removed;
    for (const SxString& name : gone.emptied)
        left.push_back({name, "its trace is gone, and what else it holds stays"});
}
