#include "ZqTracePlot.h"

#include "SxException.h"
#include "SxFileInfo.h"
#include "SxIndexSet.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqReadable.h"
#include "ZqTraceParams.h"
#include "ZqTraceRecords.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqTracePlot";
constexpr double BLOCKS_HEIGHT = 340, NEEDED_HEIGHT = 160;
constexpr auto N_COLUMNS = static_cast<size_t>(ZqChart::PLOT_WIDTH);
/// Room above what is largest.
constexpr double HEADROOM = 1.04;
constexpr auto BLOCK = static_cast<double>(ZqBlocks::SIZE);

/// The last name of a path that ends in a slash.
SxString nameOf(const SxString& folder) {
    return SxFileInfo(SxFileInfo(folder).getAbsPath()).getName();
}

} // namespace

ZqTracePlot::ZqTracePlot(Settings settings_)
    : settings(std::move(settings_)),
      reads(static_cast<int>(ZqChart::PLOT_WIDTH) / ZqChartCells::SIZE,
            static_cast<int>(BLOCKS_HEIGHT) / ZqChartCells::SIZE),
      writes(reads),
      nNew(N_COLUMNS),
      ends(N_COLUMNS) {
    ZqTraceRecords::requireMatch(settings.trace);
    time0 = settings.begin ? *settings.begin : ZqTraceParams(settings.trace).time0;
    if (hasPlaces()) readPlaces();
    findRange();
    if (settings.begin) {
        firstMs = std::min(firstMs, 0.);
        lastMs = std::max(lastMs, static_cast<double>(settings.end));
    }
    count();
}

void ZqTracePlot::readPlaces() {
    const SxString of = ZqTraceParams(settings.trace).checksumMnt;
    const SxString build = ZqAppParams(settings.image).checksumMnt;
    if (!(of == build)) {
        throw SxException("The trace '" + settings.trace + "' is one of the build '" + of + "', and '" +
                              settings.image + "' is the build '" + build + "'",
                          UNIT, __LINE__);
    }
    places = ZqImage(settings.image).getMap();
}

double ZqTracePlot::timeOf(uint64 timeMs) const {
    return static_cast<double>(static_cast<int64>(timeMs - static_cast<uint64>(time0)));
}

std::optional<uint64> ZqTracePlot::placeOf(uint64 rawIdx) const {
    if (!hasPlaces()) return rawIdx;
    if (rawIdx >= static_cast<uint64>(places.getSize())) {
        throw SxException("The trace '" + settings.trace + "' names block " + rawIdx + ", and '" +
                              settings.image + "' has " + places.getSize() + " blocks",
                          UNIT, __LINE__);
    }
    const uint64 zqfIdx = places(static_cast<int64>(rawIdx));
    if (zqfIdx == ZqImage::NO_ENTRY) return {};
    return zqfIdx;
}

void ZqTracePlot::findRange() {
    ZqTraceRecords::Reader reader(settings.trace);
    ZqTraceItem item;
    bool isFirst = true;
    while (nItems < reader.getN() && reader.next(&item)) {
        ++nItems;
        nWrites += item.flag;
        const std::optional<uint64> place = placeOf(item.block);
        if (!place) {
            ++nElsewhere;
            continue;
        }
        const double ms = timeOf(item.time);
        firstMs = isFirst ? ms : std::min(firstMs, ms);
        lastMs = isFirst ? ms : std::max(lastMs, ms);
        lastPlace = std::max(lastPlace, *place);
        isFirst = false;
    }
}

void ZqTracePlot::count() {
    ZqTraceRecords::Reader reader(settings.trace);
    const ZqChartAxis time = timeAxis();
    const double height = getHeight();
    SxIndexSet blocks(nItems);
    ZqTraceItem item;
    // A trace that is recorded meanwhile has more by now.
    for (int64 i = 0; i < nItems && reader.next(&item); ++i) {
        const std::optional<uint64> place = placeOf(item.block);
        if (!place) continue;
        const double share = time.shareOf(timeOf(item.time));
        // The middle of a block.
        (item.flag ? writes : reads).add(share, (static_cast<double>(*place) + .5) / height);
        const size_t column = std::min(static_cast<size_t>(share * N_COLUMNS), N_COLUMNS - 1);
        ends[column] = std::max(ends[column], *place + 1);
        if (!blocks.insert(item.block)) continue;
        ++nNew[column];
        ++nBlocks;
    }
}

SxString ZqTracePlot::describe() const {
    if (nItems == 0) return "The trace holds no accesses";
    SxString text = ZqReadable::counted(nItems, "access", "accesses") + " in " +
                    ZqReadable::duration(static_cast<int64>(lastMs - firstMs)) + ", to " +
                    ZqReadable::counted(nBlocks, "block", "blocks") + " (" +
                    ZqReadable::bytes(static_cast<double>(nBlocks) * BLOCK) + ")";
    if (nWrites > 0) text += ", " + ZqReadable::counted(nWrites, "write", "writes");
    if (nElsewhere > 0)
        text += ", and " + ZqReadable::count(nElsewhere) + " to blocks that the image doesn't include";
    return text;
}

double ZqTracePlot::getHeight() const {
    return (static_cast<double>(lastPlace) + 1) * HEADROOM;
}

ZqChartAxis ZqTracePlot::timeAxis() const {
    return {settings.begin ? "Time of the run" : "Time", ZqChartAxis::Time, firstMs, lastMs};
}

ZqFigure ZqTracePlot::drawBlocks() const {
    const double height = getHeight();
    const ZqChartAxis blocks =
        hasPlaces() ? ZqChartAxis("Place in img.zqf", ZqChartAxis::Bytes, 0, height * BLOCK)
                    : ZqChartAxis("Block on the disk, by RAW index", ZqChartAxis::Count, 0, height);
    ZqChart chart(timeAxis(), blocks, BLOCKS_HEIGHT);
    ZqFigure figure;
    figure.heading = "Blocks over time";
    figure.label = "Which blocks were touched, over time: " + describe();
    if (hasPlaces() && !settings.download.empty()) {
        chart.addArea(settings.download, ZqChart::Straight, "there");
        figure.keys.push_back({ZqFigure::Line, "there", "There by then: reads above it have waited"});
    }
    chart.addCells(reads, "reads");
    chart.addCells(writes, "writes");
    if (!reads.isEmpty()) figure.keys.push_back({ZqFigure::Dots, "reads", "Reads"});
    if (!writes.isEmpty()) figure.keys.push_back({ZqFigure::Dots, "writes", "Writes"});
    figure.body = chart.toSvg();
    figure.height = chart.getHeight();
    return figure;
}

ZqFigure ZqTracePlot::drawNeeded() const {
    const ZqChartAxis time = timeAxis();
    ZqChart::Points needed, prefix;
    uint64 n = 0, end = 0;
    for (size_t column = 0; column < N_COLUMNS; ++column) {
        n += nNew[column];
        end = std::max(end, ends[column]);
        const double share = (static_cast<double>(column) + .5) / static_cast<double>(N_COLUMNS);
        const double ms = time.getLeast() + share * (time.getMost() - time.getLeast());
        if (column == 0) needed.emplace_back(time.getLeast(), 0);
        needed.emplace_back(ms, static_cast<double>(n) * BLOCK);
        prefix.emplace_back(ms, static_cast<double>(end) * BLOCK);
    }
    const double most = static_cast<double>(hasPlaces() ? end : n) * BLOCK;
    ZqChart chart(time, ZqChartAxis("Data needed", ZqChartAxis::Bytes, 0, most * HEADROOM), NEEDED_HEIGHT);
    ZqFigure figure;
    figure.heading = "Data needed over time";
    figure.label =
        "Bytes of different blocks, over time, up to " + ZqReadable::bytes(static_cast<double>(n) * BLOCK);
    chart.addArea(needed, ZqChart::Steps, "needed");
    figure.keys.push_back({ZqFigure::Line, "needed", "Different blocks so far"});
    if (hasPlaces()) {
        // With dashes, since in a good order it covers the other.
        chart.addLine(prefix, ZqChart::Steps, "prefix dashed");
        figure.keys.push_back({ZqFigure::Mark, "prefix", "Of img.zqf, in its order"});
    }
    figure.body = chart.toSvg();
    figure.height = chart.getHeight();
    return figure;
}

std::vector<ZqFigure> ZqTracePlot::getFigures() const {
    if (nItems == nElsewhere) return {};
    return {drawBlocks(), drawNeeded()};
}

SxString ZqTracePlot::toSvg() const {
    return ZqFigure::toDocument("Trace " + nameOf(settings.trace), describe() + ".", getFigures());
}
