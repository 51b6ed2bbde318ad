#include "ZqFleetColumns.h"

#include <array>

namespace {

struct Source {
    const char* section = nullptr;
    const char* name = nullptr; ///< null for none
    double factor = 0;
};

/// A column with the keys that give it, in the units of the column.
struct Kept {
    ZqColumn column;
    std::array<Source, 2> sources;
    int64 least = 0;
};

constexpr int64 ANY = std::numeric_limits<int64>::min();
/// Of times that are -1 where what they tell of never came.
constexpr int64 NEVER = -1;
/// What a figure that was sent is multiplied by.
constexpr double MEGABITS = 1e-6, MILLISECONDS = 1e3;
constexpr auto Text = ZqColumn::Text, Whole = ZqColumn::Whole, Real = ZqColumn::Real, Flag = ZqColumn::Flag;

constexpr Kept KEPT[] = {
    {{"key", Text}, {}},
    {{"id", Text}, {{{"", "id"}}}},
    {{"guid", Text}, {{{"", "guid"}}}},
    {{"time0", Whole}, {{{"", "time0"}}}},
    {{"version", Whole}, {{{"", "version"}}}},
    {{"build", Text}, {{{"", "build"}}}},
    // `order` has a meaning in statements, and every reader of the Parquet file would have to quote it.
    {{"blockOrder", Text}, {{{"", "order"}}}},
    {{"winVer", Text}, {{{"", "winVer"}, {"env", "winVer"}}}},
    {{"rteVer", Text}, {{{"", "rteVer"}}}},
    {{"orgName", Text}, {{{"", "orgName"}}}},
    {{"nStarts", Whole}, {{{"", "nStarts"}}}},
    {{"runTime", Whole}, {{{"", "runTime"}, {"rt", "tTotalSec"}}}},
    {{"preloadSize", Whole}, {{{"", "preloadSize"}, {"dl", "preloadBytes"}}}},
    {{"timeToStart", Whole}, {{{"", "timeToStart"}, {"rt", "tStartSec"}}}},
    {{"timeToReady", Whole}, {{{"", "timeToReady"}, {"dl", "tReadySec"}}}},
    {{"dataAtStart", Whole}, {{{"", "dataAtStart"}, {"dl", "idx0"}}}},
    {{"dataAtEnd", Whole}, {{{"", "dataAtEnd"}, {"dl", "idx1"}}}},
    {{"imgSize", Whole}, {{{"", "imgSize"}, {"dl", "imgSize"}}}},
    {{"downloadFromZero", Flag}, {{{"", "downloadFromZero"}, {"dl", "initialDl"}}}},
    {{"downloadComplete", Flag}, {{{"", "downloadComplete"}, {"dl", "dlFinished"}}}},
    {{"avgSpeed", Real}, {{{"", "avgSpeed"}, {"dl", "throughputAvgBps", MEGABITS}}}},
    {{"maxSpeed", Real}, {{{"", "maxSpeed"}, {"dl", "throughputMaxBps", MEGABITS}}}},
    {{"sigmaSpeed", Real}, {{{"", "sigmaSpeed"}, {"dl", "throughputSigmaBps", MEGABITS}}}},
    {{"reqSpeed", Real}, {{{"", "reqSpeed"}, {"dl", "throughputReqBps", MEGABITS}}}},
    {{"prefetchSizeMB", Whole}, {{{"", "prefetchSizeMB"}}}},
    {{"nUnderflows", Whole}, {{{"", "nUnderflows"}, {"odr", "nFailed"}}}},
    {{"avgUnderflowTime", Whole}, {{{"", "avgUnderflowTime"}}}},
    {{"avgUnderflowSize", Whole}, {{{"", "avgUnderflowSize"}}}},
    {{"maxUnderflowTime", Whole}, {{{"", "maxUnderflowTime"}}}},
    {{"maxUnderflowSize", Whole}, {{{"", "maxUnderflowSize"}}}},
    {{"nOnDemandFetches", Whole}, {{{"", "nOnDemandFetches"}, {"odr", "n"}}}},
    {{"sumOnDemandSize", Whole}, {{{"", "sumOnDemandSize"}}}},
    {{"avgOnDemandSize", Whole}, {{{"", "avgOnDemandSize"}, {"odr", "sizeAvgBytes"}}}},
    {{"avgOnDemandTime", Whole}, {{{"", "avgOnDemandTime"}, {"odr", "tAvgSec", MILLISECONDS}}}},
    {{"maxOnDemandTime", Whole}, {{{"", "maxOnDemandTime"}, {"odr", "tMaxSec", MILLISECONDS}}}},
    {{"avgOnDemandQueue", Whole}, {{{"", "avgOnDemandQueue"}, {"odr", "sizeAvgQ"}}}},
    {{"maxOnDemandQueue", Whole}, {{{"", "maxOnDemandQueue"}, {"odr", "sizeMaxQ"}}}},
    {{"exitCode", Whole}, {{{"", "exitCode"}, {"rt", "exit"}}}, ANY},
    {{"coverage", Real}, {{{"", "coverage"}, {"trc", "cov"}}}},
    {{"startErr", Flag}, {{{"", "startErr"}}}},
    {{"endErr", Flag}, {{{"", "endErr"}}}},
    {{"stopped", Flag}, {{{"", "stopped"}}}},
    {{"patchSec", Whole}, {{{"patchStats", "timeSec"}, {"prep", "tPatchSec"}}}},
    {{"patchBytes", Whole}, {{{"patchStats", "bytes"}}}},
    {{"defragSec", Whole}, {{{"defragStats", "timeSec"}, {"prep", "tDefragSec"}}}},
    {{"defragBytes", Whole}, {{{"defragStats", "bytes"}}}},
    {{"lengthMs", Whole}, {{{"", "lengthMs"}}}},
    {{"startMs", Whole}, {{{"", "startMs"}}}, NEVER},
    {{"firstFrameMs", Whole}, {{{"", "firstFrameMs"}}}, NEVER},
    {{"lastWaitMs", Whole}, {{{"", "lastWaitMs"}}}, NEVER},
    {{"mountMs", Whole}, {{{"", "mountMs"}}}, NEVER},
    {{"bytesOnDemand", Whole}, {{{"", "bytesOnDemand"}}}},
    {{"bytesReceived", Whole}, {{{"", "bytesReceived"}}}},
    {{"bytesTwice", Whole}, {{{"", "bytesTwice"}}}},
    {{"requests", Whole}, {{{"", "requests"}}}},
    {{"retries", Whole}, {{{"", "retries"}}}},
    {{"packed", Flag}, {{{"", "packed"}}}},
    {{"missingBytes", Whole}, {{{"", "missingBytes"}}}},
    {{"judgedMs", Whole}, {{{"accuracy", "judgedMs"}}}},
    {{"brought", Whole}, {{{"accuracy", "brought"}}}},
    {{"earlyUsed", Whole}, {{{"accuracy", "earlyUsed"}}}},
    {{"earlyUnused", Whole}, {{{"accuracy", "earlyUnused"}}}},
    {{"bytesRead", Whole}, {{{"accuracy", "read"}}}},
    {{"late", Whole}, {{{"accuracy", "late"}}}},
    {{"thereBefore", Whole}, {{{"accuracy", "thereBefore"}}}},
    {{"waits", Whole}, {{{"accuracy", "waits"}}}},
    {{"waitedMs", Whole}, {{{"accuracy", "waitedMs"}}}},
};

const char* typeName(ZqColumn::Type type) {
    switch (type) {
    case ZqColumn::Text:
        return "VARCHAR";
    case ZqColumn::Whole:
        return "BIGINT";
    case ZqColumn::Real:
        return "DOUBLE";
    case ZqColumn::Flag:
        break;
    }
    return "BOOLEAN";
}

SxString joined(SxString (*describe)(const ZqColumn& column)) {
    SxString list;
    for (const ZqColumn& column : ZqFleetColumns::all())
        list += (list.isEmpty() ? "" : ", ") + describe(column);
    return list;
}

} // namespace

const std::vector<ZqColumn>& ZqFleetColumns::all() {
    static const std::vector<ZqColumn> list = [] {
        std::vector<ZqColumn> columns;
        for (const Kept& each : KEPT)
            columns.push_back(each.column);
        return columns;
    }();
    return list;
}

const std::vector<ZqRecordKey>& ZqFleetColumns::keys() {
    static const std::vector<ZqRecordKey> list = [] {
        std::vector<ZqRecordKey> found;
        for (size_t i = 0; i < std::size(KEPT); ++i)
            for (const Source& source : KEPT[i].sources)
                if (source.name)
                    found.push_back({source.section, source.name, i, source.factor, KEPT[i].least});
        return found;
    }();
    return list;
}

SxString ZqFleetColumns::names() {
    return joined([](const ZqColumn& column) { return SxString("\"") + column.name + "\""; });
}

SxString ZqFleetColumns::definition() {
    return "(" + joined([](const ZqColumn& column) {
               return SxString("\"") + column.name + "\" " + typeName(column.type);
           }) +
           ")";
}
