#include "ZqOrderRuns.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxFileInfo.h"
#include "SxMd5.h"
#include "ZqImageFolder.h"
#include "ZqSysEnv.h"
#include "ZqTraceFiles.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

namespace {

constexpr const char* UNIT = "src/publish/ZqOrderRuns";

/// Records of a trace that are read between two calls of a pace, and that are shown together.
constexpr uint64 PER_CALL = 65536, PER_LOOK = 256;

/// Tells a pace of the records of a trace that are read.
class Steps {
public:
    explicit Steps(const ZqOrderRuns::Pace& pace_) : pace(pace_) {}
    void add(uint64 nRecords) {
        nUntold += nRecords;
        if (nUntold >= PER_CALL) tell();
    }
    void tell() { pace(std::exchange(nUntold, 0) * ZqTraceFormat::SIZE); }

private:
    const ZqOrderRuns::Pace& pace;
    uint64 nUntold = 0;
};

/// How often a trace is read.
constexpr uint64 N_TIMES = 2;

SxString pathOf(const SxString& trace) {
    return ZqSysEnv::unifySlashes(ZqImageFolder::prefix(trace));
}

/// Bytes of the records of a trace; 0 where it has none.
uint64 sizeOf(const SxString& trace) {
    const SxFileInfo items(pathOf(trace) + ZqTraceFiles::ITEMS);
    return items.isFile() ? static_cast<uint64>(items.getSize()) : 0;
}

SxString joinedCause(const SxException& e) {
    return "can't be read: " + e.toString(SxException::ShowMessage, ": ");
}

} // namespace

ZqOrderRuns::ZqOrderRuns(const SxList<SxString>& traces, const ZqOrderImage& image_, Pace pace_)
    : image(image_),
      pace(std::move(pace_)) {
    if (traces.getSize() > static_cast<int64>(MAX_RUNS)) {
        throw SxException("An order comes from at most " + SxString(static_cast<uint64>(MAX_RUNS)) +
                              " traces, and " + SxString(traces.getSize()) + " are given",
                          UNIT, __LINE__);
    }
    for (const SxString& trace : traces)
        addRun(trace);
    // By what they are. How they are called only settles which of two that are the same is told of.
    std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) {
        return std::tie(a.digest.str(), a.record.time0, a.path.str()) <
               std::tie(b.digest.str(), b.record.time0, b.path.str());
    });
}

void ZqOrderRuns::addRun(const SxString& trace) {
    try {
        const SxString path = pathOf(trace);
        Run run{trace, path, ZqTraceParams(path), {}};
        const SxString of = run.record.checksumMnt;
        if (run.record.isSeries()) {
            left.push_back(
                {trace, "was joined of several runs, and no longer tells what each needs at its start"});
        } else if (!(of == image.buildId)) {
            left.push_back({trace, "is one of the build '" + of + "', and '" + image.name +
                                       "' is the build '" + image.buildId + "'"});
        } else {
            run.digest = run.record.checksumTrc;
            // Only the record of a run whose writer was killed states none.
            if (run.digest.isEmpty()) run.digest = digestOf(path + ZqTraceFiles::ITEMS);
            runs.push_back(std::move(run));
        }
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        left.push_back({trace, joinedCause(e)});
    }
}

SxString ZqOrderRuns::digestOf(const SxString& items) const {
    SxFileIO file(items, "rb");
    return SxMd5::file(&file, [this](int64) {
        pace(0);
        return true;
    });
}

void ZqOrderRuns::passOver(const SxString& trace, uint64 nTimes) const {
    pace(nTimes * sizeOf(trace));
}

void ZqOrderRuns::read(const std::function<void(size_t number, const Blocks& blocks)>& show) {
    std::vector<Run> fit;
    for (const ZqLeftTrace& one : left)
        passOver(one.trace, N_TIMES);
    Blocks blocks;
    for (Run& run : runs) {
        SxString why = readRun(&run, &blocks);
        // Not before they are read: of two records that state the same one may lie.
        if (why.isEmpty() && !fit.empty() && fit.back().digest == run.digest &&
            fit.back().record.time0 == run.record.time0) {
            why = "is the same run as '" + fit.back().trace + "'";
        }
        if (!why.isEmpty()) {
            left.push_back({run.trace, why});
            passOver(run.trace, N_TIMES - 1);
            continue;
        }
        show(fit.size(), blocks);
        fit.push_back(std::move(run));
    }
    runs = std::move(fit);
    seen = {};
    std::sort(left.begin(), left.end(), [](const ZqLeftTrace& a, const ZqLeftTrace& b) {
        return std::tie(a.trace.str(), a.why.str()) < std::tie(b.trace.str(), b.why.str());
    });
    if (runs.empty()) refuse();
}

SxString ZqOrderRuns::readRun(Run* run, Blocks* blocks) {
    const SxString file = run->path + ZqTraceFiles::ITEMS;
    blocks->clear();
    // What a mount reads counts as seen, so that a run begins with its first read of content.
    seen.assign(image.getNRaw(), false);
    for (const uint64 rawIdx : image.front)
        seen[rawIdx] = true;
    try {
        run->files.emplace(run->path);
        // The digest is taken on the way: a trace may be larger than the memory, and reading it is what
        // takes the time.
        SxMd5 digest;
        ZqTraceRecords::Reader reader(run->path, ZqTraceRecords::CHUNK, &digest);
        ZqTraceRecords::Found found;
        std::optional<uint64> beyond;
        bool isNamed = false;
        Steps steps(pace);
        for (ZqTraceItem item; reader.next(&item); steps.add(1)) {
            found.hasHoles = found.hasHoles || ZqTraceFormat::isHole(item);
            if (item.block >= image.getNRaw()) {
                if (!beyond) beyond = item.block;
                continue;
            }
            isNamed = isNamed || image.included[item.block];
            if (seen[item.block] || !image.included[item.block]) continue;
            seen[item.block] = true;
            blocks->push_back(item.block);
        }
        steps.tell();
        digest.finish();
        found.size = reader.getN() * ZqTraceFormat::SIZE;
        found.digest = digest.toString();
        // A rest of less than a record isn't read, but is part of what a digest was taken of.
        const bool hasRest = SxFileInfo(file).getSize() != found.size;
        SxString mismatch = hasRest ? ZqTraceRecords::findMismatch(run->path, run->record)
                                    : ZqTraceRecords::findMismatch(run->path, run->record, found);
        if (!mismatch.isEmpty()) return "is damaged: " + mismatch;
        run->files->require();
        if (beyond) {
            return "names block " + SxString(*beyond) + ", and '" + image.name + "' has " +
                   SxString(image.getNRaw());
        }
        if (reader.getN() == 0) return "is empty";
        return isNamed ? SxString() : "names no block that '" + image.name + "' includes";
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        return joinedCause(e);
    }
}

void ZqOrderRuns::walk(size_t number,
                       const std::function<void(std::span<const ZqTraceItem> items)>& look) const {
    const Run& run = runs.at(number);
    ZqTraceRecords::Reader reader(run.path);
    Steps steps(pace);
    std::vector<ZqTraceItem> items;
    for (bool hasMore = true; hasMore;) {
        items.clear();
        ZqTraceItem item;
        while (items.size() < PER_LOOK && (hasMore = reader.next(&item)))
            items.push_back(item);
        look(items);
        steps.add(items.size());
    }
    steps.tell();
    run.files->require();
}

uint64 ZqOrderRuns::countBytes(const SxList<SxString>& traces) {
    uint64 n = 0;
    for (const SxString& trace : traces)
        n += N_TIMES * sizeOf(trace);
    return n;
}

void ZqOrderRuns::refuse() const {
    SxString text = "There is no trace that the order could come from";
    for (const ZqLeftTrace& one : left)
        text += "; '" + one.trace + "' " + one.why;
    throw SxException(text, UNIT, __LINE__);
}
