#include "ZqOrderProfiles.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

namespace {

/// A profile tells of growth by this part of all that it asks for.
constexpr uint64 STEPS = 64;
constexpr int64 MS_PER_SECOND = 1000;
constexpr uint32 NEVER = std::numeric_limits<uint32>::max();
constexpr uint64 PER_STRETCH = ZqBlocks::STRETCH / ZqBlocks::SIZE;

__extension__ using Wide = unsigned __int128;
using Points = std::vector<ZqLoadProfilePoint>;

/// Whether `b` lies on or below the line from `a` to `c`. Times and sizes rise from each to the next.
bool isBelow(const ZqLoadProfilePoint& a, const ZqLoadProfilePoint& b, const ZqLoadProfilePoint& c) {
    return Wide{b.size - a.size} * (c.time - a.time) <= Wide{c.size - a.size} * (b.time - a.time);
}

/// Leaves few of the points. The corners of their hull alone answer both questions as all points would: how
/// much must be there before a start at a speed, and which speed a start must have. A few of the other points
/// stay, since they tell where readers would wait.
Points thinOut(const Points& points) {
    Points corners;
    for (const ZqLoadProfilePoint& point : points) {
        while (corners.size() > 1 && isBelow(corners.end()[-2], corners.back(), point))
            corners.pop_back();
        corners.push_back(point);
    }
    Points result;
    const uint64 step = points.empty() ? 0 : points.back().size / STEPS;
    uint64 last = 0;
    auto corner = corners.begin();
    for (const ZqLoadProfilePoint& point : points) {
        const bool isCorner = corner != corners.end() && *corner == point;
        if (isCorner) ++corner;
        if (!isCorner && point.size - last < step) continue;
        result.push_back(point);
        last = point.size;
    }
    return result;
}

/// Adds a point where it asks for more than the last.
void append(Points* points, uint64 second, uint64 size) {
    if (!points->empty() && size <= points->back().size) return;
    points->emplace_back();
    points->back().time = second;
    points->back().size = size;
}

ZqOrderProfiles::Profile toProfile(const Points& points) {
    ZqOrderProfiles::Profile result;
    for (const ZqLoadProfilePoint& point : thinOut(points))
        result.append(point);
    return result;
}

} // namespace

ZqOrderProfiles::ZqOrderProfiles(uint64 nFront_, uint64 nOrdered_, uint64 nBlocks)
    : nFront(nFront_),
      nOrdered(nOrdered_),
      sizeZqf(nBlocks * ZqBlocks::SIZE),
      firstSeconds((nBlocks + PER_STRETCH - 1) / PER_STRETCH, NEVER) {
}

void ZqOrderProfiles::add(uint64 zqfIdx, int64 ms) {
    const uint64 second = static_cast<uint64>(std::max<int64>(ms, 0) / MS_PER_SECOND);
    if (zqfIdx < nOrdered) {
        uint64& nBlocks = needs[second].nBlocks;
        nBlocks = std::max(nBlocks, zqfIdx + 1);
        return;
    }
    const uint64 stretch = zqfIdx / PER_STRETCH;
    uint32& first = firstSeconds.at(stretch);
    if (first == NEVER) touched.push_back(static_cast<uint32>(stretch));
    first = std::min(first, static_cast<uint32>(std::min<uint64>(second, NEVER - 1)));
}

std::vector<uint32> ZqOrderProfiles::endRun() {
    needs[0].nBlocks = std::max(needs[0].nBlocks, nFront);
    for (const uint32 stretch : touched)
        ++needs[firstSeconds[stretch]].nStretches;
    Points points;
    Need sum;
    for (const auto& [second, need] : needs) {
        sum.nBlocks = std::max(sum.nBlocks, need.nBlocks);
        sum.nStretches += need.nStretches;
        // A stretch may have blocks of the core, and the last one isn't a whole one.
        append(&points, second,
               std::min(sum.nBlocks * ZqBlocks::SIZE + sum.nStretches * ZqBlocks::STRETCH, sizeZqf));
    }
    for (const ZqLoadProfilePoint& point : points) {
        uint64& size = worst[point.time];
        size = std::max(size, point.size);
    }
    runs.push_back(thinOut(points));

    for (const uint32 stretch : touched)
        firstSeconds[stretch] = NEVER;
    needs.clear();
    return std::exchange(touched, {});
}

ZqOrderProfiles::Profile ZqOrderProfiles::getWorst() const {
    Points points;
    for (const auto& [second, size] : worst)
        append(&points, second, size);
    return toProfile(points);
}

ZqOrderProfiles::Profile ZqOrderProfiles::getMedian() const {
    std::set<uint64> seconds;
    for (const Points& run : runs) {
        for (const ZqLoadProfilePoint& point : run)
            seconds.insert(point.time);
    }
    Points points;
    std::vector<size_t> places(runs.size());
    std::vector<uint64> sizes(runs.size());
    for (const uint64 second : seconds) {
        for (size_t i = 0; i < runs.size(); ++i) {
            while (places[i] < runs[i].size() && runs[i][places[i]].time <= second)
                sizes[i] = runs[i][places[i]++].size;
        }
        std::vector<uint64> sorted = sizes;
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
        append(&points, second, *middle);
    }
    return toProfile(points);
}
