#include "ZqBlockOrder.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqTraceFiles.h"
#include "ZqTraceRecords.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <optional>

namespace {

constexpr const char* UNIT = "src/publish/ZqBlockOrder";
/// Gaps of up to so many blocks are alike; longer ones are classed by doubling lengths, up to LONGEST_GAP.
/// With orders of two games by all of their runs but one, the blocks that this one read beyond them lay after
/// 7,700 and 600 other blocks, instead of the 21,300 and 1,250 of RAW order, in as many stretches as there.
/// By the distance from a named block alone they lie after 11,100 and 950, and in 11 and 4 times as many
/// stretches, each of which is a request.
constexpr uint64 SHORT_GAP = 64, LONGEST_GAP = 4096;
constexpr size_t N_CLASSES = std::bit_width(LONGEST_GAP / SHORT_GAP);
/// A profile tells of growth by this part of all that it asks for.
constexpr uint64 PROFILE_STEPS = 64;
constexpr uint64 MS_PER_SECOND = 1000;

__extension__ using Wide = unsigned __int128;

/// 0 for the shortest gaps.
size_t gapClass(uint64 length) {
    return static_cast<size_t>(std::bit_width((length - 1) / SHORT_GAP));
}

/// Whether `b` lies on or below the line from `a` to `c`. Times and sizes rise from each to the next.
bool isBelow(const ZqLoadProfilePoint& a, const ZqLoadProfilePoint& b, const ZqLoadProfilePoint& c) {
    return Wide{b.size - a.size} * (c.time - a.time) <= Wide{c.size - a.size} * (b.time - a.time);
}

/// Shows the items of a trace one by one. A trace may be larger than the memory.
template<class Look>
void walk(const SxString& trace, Look&& look) {
    ZqTraceRecords::Reader reader(trace);
    ZqTraceItem item;
    while (reader.next(&item))
        look(item);
}

/// Leaves few of the points. The corners of their hull alone answer both questions as all points would: how
/// much must be there before a start at a speed, and which speed a start must have. A few of the other points
/// stay, since they tell where readers would wait.
SxList<ZqLoadProfilePoint> thinOut(const std::vector<ZqLoadProfilePoint>& points) {
    std::vector<ZqLoadProfilePoint> corners;
    for (const ZqLoadProfilePoint& point : points) {
        while (corners.size() > 1 && isBelow(corners.end()[-2], corners.back(), point))
            corners.pop_back();
        corners.push_back(point);
    }
    SxList<ZqLoadProfilePoint> result;
    const uint64 step = points.empty() ? 0 : points.back().size / PROFILE_STEPS;
    uint64 last = 0;
    auto corner = corners.begin();
    for (const ZqLoadProfilePoint& point : points) {
        const bool isCorner = corner != corners.end() && *corner == point;
        if (isCorner) ++corner;
        if (!isCorner && point.size - last < step) continue;
        result.append(point);
        last = point.size;
    }
    return result;
}

} // namespace

ZqBlockOrder::ZqBlockOrder(const Image& image, const SxString& trace) : placed(image.included.size()) {
    const ZqTraceRecords::Unchanged files(trace);
    requireFit(image, trace);
    order.reserve(std::count(image.included.begin(), image.included.end(), true));
    for (const uint64 rawIdx : image.front)
        nFront += place(image, rawIdx) ? 1 : 0;
    walk(trace, [&](const ZqTraceItem& item) { nNamed += place(image, item.block) ? 1 : 0; });
    placeNear(image);
    for (uint64 rawIdx = 0; rawIdx < placed.size(); ++rawIdx)
        place(image, rawIdx);
    makeMap(placed.size());
    placed = {};
    makeProfile(trace);
    files.require();
}

void ZqBlockOrder::requireBuild(const SxString& trace, const SxString& buildId, const SxString& name) {
    const ZqTraceParams record(trace);
    record.refuseSeries();
    const SxString of = record.checksumMnt;
    if (of == buildId) return;
    throw SxException("The trace '" + trace + "' is one of the build '" + of + "', and '" + name +
                          "' is the build '" + buildId + "'",
                      UNIT, __LINE__);
}

void ZqBlockOrder::requireFit(const Image& image, const SxString& trace) {
    requireBuild(trace, image.buildId, image.name);
    ZqTraceRecords::requireMatch(trace);
    const SxString file = trace + ZqTraceFiles::ITEMS;
    bool named = false;
    walk(trace, [&](const ZqTraceItem& item) {
        if (item.block >= image.included.size()) {
            throw SxException("The trace '" + file + "' names block " + item.block + ", and '" + image.name +
                                  "' has " + static_cast<uint64>(image.included.size()),
                              UNIT, __LINE__);
        }
        named = named || image.included[item.block];
    });
    if (!named) {
        throw SxException("The trace '" + file + "' names no block that '" + image.name + "' includes", UNIT,
                          __LINE__);
    }
}

/// Gives whether the block has got its place now.
bool ZqBlockOrder::place(const Image& image, uint64 rawIdx) {
    // The trace may have been replaced since it was looked at, which is found at the end.
    if (rawIdx >= placed.size() || !image.included[rawIdx] || placed[rawIdx]) return false;
    placed[rawIdx] = true;
    order.append(rawIdx);
    return true;
}

void ZqBlockOrder::placeNear(const Image& image) {
    struct Gap {
        uint64 first, end; ///< RAW indices
    };
    // Gaps stay whole: what is fetched on demand are neighbours in the ZqF file, and should be ones on the
    // disk.
    std::array<std::vector<Gap>, N_CLASSES> gaps;
    const auto next = [&](uint64 from, bool value) {
        return static_cast<uint64>(
            std::find(placed.begin() + static_cast<std::ptrdiff_t>(from), placed.end(), value) -
            placed.begin());
    };
    for (uint64 first = next(next(0, true), false); first < placed.size();) {
        const uint64 end = next(first, true);
        if (end < placed.size() && end - first <= LONGEST_GAP)
            gaps.at(gapClass(end - first)).push_back({first, end});
        first = next(end, false);
    }
    for (const std::vector<Gap>& alike : gaps) {
        for (const Gap& gap : alike) {
            for (uint64 rawIdx = gap.first; rawIdx < gap.end; ++rawIdx)
                nNear += place(image, rawIdx) ? 1 : 0;
        }
    }
}

void ZqBlockOrder::makeMap(uint64 nRaw) {
    map.resize(static_cast<int64>(nRaw));
    std::fill(map.begin(), map.end(), ZqImage::NO_ENTRY);
    uint64 zqfIdx = 0;
    for (const uint64 rawIdx : order)
        map(static_cast<int64>(rawIdx)) = zqfIdx++;
}

void ZqBlockOrder::makeProfile(const SxString& trace) {
    const auto zqfIdxOf = [&](const ZqTraceItem& item) {
        const bool isInside = item.block < static_cast<uint64>(map.getSize());
        return isInside ? map(static_cast<int64>(item.block)) : ZqImage::NO_ENTRY;
    };
    // The application's start is its first read of content: a trace begins with the mount, which may be long
    // before.
    std::optional<int64> start;
    walk(trace, [&](const ZqTraceItem& item) {
        const uint64 zqfIdx = zqfIdxOf(item);
        if (zqfIdx == ZqImage::NO_ENTRY || zqfIdx < nFront) return;
        start = std::min(start.value_or(static_cast<int64>(item.time)), static_cast<int64>(item.time));
    });
    // Bytes by second. Seconds are cut, not rounded: what is read 900 ms after the start must be there at its
    // beginning.
    std::map<uint64, uint64> needs;
    walk(trace, [&](const ZqTraceItem& item) {
        const uint64 zqfIdx = zqfIdxOf(item);
        if (zqfIdx == ZqImage::NO_ENTRY) return;
        const int64 ms = start ? static_cast<int64>(item.time) - *start : 0;
        uint64& need = needs[static_cast<uint64>(std::max<int64>(ms, 0)) / MS_PER_SECOND];
        need = std::max(need, (zqfIdx + 1) * ZqBlocks::SIZE);
    });
    std::vector<ZqLoadProfilePoint> points;
    for (const auto& [second, size] : needs) {
        if (!points.empty() && size <= points.back().size) continue;
        points.emplace_back();
        points.back().time = second;
        points.back().size = size;
    }
    profile = thinOut(points);
}

void ZqBlockOrder::apply(ZqAppParams* app) const {
    app->sizeZqf = static_cast<uint64>(order.getSize()) * ZqBlocks::SIZE;
    app->sizeIdx = static_cast<uint64>(map.getSize()) * sizeof(uint64);
    app->sizeMnt = nFront * ZqBlocks::SIZE;
    app->loadprofile = profile;
}
