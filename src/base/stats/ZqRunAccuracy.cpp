#include "ZqRunAccuracy.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxFileInfo.h"
#include "SxIndexSet.h"
#include "ZqBlocks.h"
#include "ZqCursorWay.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqRecordFile.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <limits>
#include <vector>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqRunAccuracy";

/// The first access to a block.
struct Access {
    uint64 block; ///< RAW index, and from place() on the ZqF index
    int64 timeMs;
    bool isWrite;
};

/// Entries of the map that are read at once.
constexpr uint64 WINDOW = 8192;

/// `*lastMs` becomes the time of the last item.
std::vector<Access> firstAccesses(const ZqRunAccuracy::Question& question, uint64 nRaw, int64* lastMs) {
    ZqTraceRecords::Reader reader(ZqImageFolder::prefix(question.trace));
    SxIndexSet seen(reader.getN());
    std::vector<Access> accesses;
    for (ZqTraceItem item; reader.next(&item);) {
        // A cut can leave a hole.
        if (ZqTraceFormat::isHole(item)) continue;
        *lastMs = static_cast<int64>(item.time) - question.clockMs;
        if (item.block < nRaw && seen.insert(item.block))
            accesses.push_back({item.block, *lastMs, item.flag});
    }
    return accesses;
}

/// How far the way goes until then.
uint64 endOf(const ZqCursorWay& way, int64 endMs) {
    uint64 end = 0;
    for (ZqCursorWay::Walk walk(way); walk.next() && walk.getTimeMs() <= endMs;)
        end = walk.getIdx();
    return end;
}

/// Gives each access the ZqF index of its block, in the place of the RAW index, and leaves out those of
/// blocks that the image doesn't include. The map of a large image has hundreds of megabytes, of which a run
/// needs little.
void place(const SxString& mapFile, uint64 nRaw, uint64 nIncluded, std::vector<Access>* accesses) {
    std::sort(accesses->begin(), accesses->end(),
              [](const Access& a, const Access& b) { return a.block < b.block; });
    SxFileIO map(mapFile, "rb");
    SxArray<uint64> window;
    uint64 first = 0;
    size_t n = 0;
    for (Access access : *accesses) {
        if (window.getSize() == 0 || access.block >= first + static_cast<uint64>(window.getSize())) {
            first = access.block / WINDOW * WINDOW;
            map.seek(static_cast<int64>(first * sizeof(uint64)));
            map.read(&window, static_cast<int64>(std::min(WINDOW, nRaw - first)));
            if (access.block >= first + static_cast<uint64>(window.getSize()))
                throw SxException("Map '" + mapFile + "' has become shorter while it was read", UNIT,
                                  __LINE__);
        }
        access.block = ZqTraceFormat::swapIfBig(window(static_cast<int64>(access.block - first)));
        if (access.block < nIncluded) (*accesses)[n++] = access;
    }
    accesses->resize(n);
    std::sort(accesses->begin(), accesses->end(),
              [](const Access& a, const Access& b) { return a.block < b.block; });
}

uint64 bytesOf(uint64 nBlocks) {
    return nBlocks * ZqBlocks::SIZE;
}

uint64 numberOf(const SxSymbol& object, const char* key) {
    uint64 number = 0;
    ZqRecordFile::get(object, key, &number);
    return number;
}

} // namespace

ZqRunAccuracy ZqRunAccuracy::judge(const Question& question) {
    const SxString map = ZqImageFolder::prefix(question.image) + ZqImageFiles::IDX;
    const uint64 nRaw = static_cast<uint64>(SxFileInfo(map).getSize()) / sizeof(uint64);
    int64 lastMs = 0;
    std::vector<Access> accesses = firstAccesses(question, nRaw, &lastMs);
    place(map, nRaw, question.nIncluded, &accesses);

    const int64 endMs = question.isCutOff ? lastMs : std::numeric_limits<int64>::max();
    const uint64 end = std::min(endOf(*question.way, endMs), question.nIncluded);
    uint64 nThere = 0, nEarly = 0, nLate = 0, nBroughtLate = 0;
    ZqCursorWay::Walk walk(*question.way);
    for (const Access& access : accesses) {
        if (access.isWrite) continue;
        if (access.block < question.nBefore) {
            ++nThere;
            continue;
        }
        const bool isBrought = access.block < end;
        while (isBrought && walk.getIdx() <= access.block)
            walk.next();
        const bool isEarly = isBrought && walk.getTimeMs() <= access.timeMs;
        nEarly += isEarly;
        nLate += !isEarly;
        nBroughtLate += isBrought && !isEarly;
    }
    ZqRunAccuracy accuracy;
    accuracy.isJudged = true;
    const uint64 nBrought = end - std::min(end, question.nBefore);
    accuracy.nBrought = bytesOf(nBrought);
    accuracy.nEarlyUsed = bytesOf(nEarly);
    accuracy.nEarlyUnused = bytesOf(nBrought - nEarly - nBroughtLate);
    accuracy.nThereBefore = bytesOf(nThere);
    accuracy.nLate = bytesOf(nLate);
    accuracy.nRead = bytesOf(nThere + nEarly + nLate);
    if (question.nIncluded > 0)
        accuracy.coverage = static_cast<double>(accesses.size()) / static_cast<double>(question.nIncluded);
    return accuracy;
}

SxSymbol ZqRunAccuracy::toJson() const {
    SxSymbol object;
    object.setType(SxParserAst::Object);
    if (nWaits) {
        object.append("waits", *nWaits);
        object.append("waitedMs", waitedMs);
    }
    if (!isJudged) return object;
    object.append("judgedMs", judgedMs);
    object.append("brought", nBrought);
    object.append("earlyUsed", nEarlyUsed);
    object.append("earlyUnused", nEarlyUnused);
    object.append("read", nRead);
    object.append("late", nLate);
    object.append("thereBefore", nThereBefore);
    return object;
}

ZqRunAccuracy ZqRunAccuracy::fromJson(const SxSymbol& object) {
    ZqRunAccuracy accuracy;
    accuracy.isJudged = object.hasElem("judgedMs");
    ZqRecordFile::get(object, "judgedMs", &accuracy.judgedMs);
    accuracy.nBrought = numberOf(object, "brought");
    accuracy.nEarlyUsed = numberOf(object, "earlyUsed");
    accuracy.nEarlyUnused = numberOf(object, "earlyUnused");
    accuracy.nRead = numberOf(object, "read");
    accuracy.nLate = numberOf(object, "late");
    accuracy.nThereBefore = numberOf(object, "thereBefore");
    if (object.hasElem("waits")) accuracy.nWaits = numberOf(object, "waits");
    accuracy.waitedMs = numberOf(object, "waitedMs");
    return accuracy;
}
