#include "ZqStartEta.h"

#include "ZqBlocks.h"
#include "ZqStartForecast.h"

#include <algorithm>

namespace {

/// Over which the speed of a download is taken, and how often.
constexpr double WINDOW = 10, PASS = 1;
/// What a mount takes at most on a machine that isn't busy.
constexpr double MOUNT = 1;
/// Points of the way, the closer the nearer they are.
constexpr int N_POINTS = 256;
/// So often the step is halved in which it is enough.
constexpr int N_HALVES = 10;

double between(double from, double to, double share) {
    return from + (to - from) * share;
}

} // namespace

/// `nWire` bytes of the image. As long as the map comes, it takes as much of the link as the image does.
double ZqStartEta::untilCome(uint64 nWire) const {
    return static_cast<double>(nWire + std::min(nWire, nMap)) / rate;
}

/// The image goes on beside it, past what the start needs.
double ZqStartEta::untilMap(const ZqAppParams& app) const {
    const uint64 nRest = nThere < app.sizeZqf ? wireSize(nThere, app.sizeZqf) : 0;
    return static_cast<double>(nMap + std::min(nMap, nRest)) / rate;
}

double ZqStartEta::untilDrive(const ZqAppParams& app) const {
    const uint64 end = ZqStartForecast::findDrive(app);
    return std::max(untilMap(app), untilCome(nThere < end ? wireSize(nThere, end) : 0));
}

std::vector<ZqStartEta::Point> ZqStartEta::draw(uint64 end) const {
    const auto size = static_cast<double>(nThere);
    // What a stretch that packs well has brought counts for the speed when its second ends.
    std::vector<Point> way = {{-passSeconds, size - static_cast<double>(nPass)}, {0, size}};
    const auto span = static_cast<double>(end - nThere);
    uint64 from = nThere, nWire = 0;
    for (int i = 1; i <= N_POINTS; ++i) {
        const double share = static_cast<double>(i) / N_POINTS;
        const uint64 to = i == N_POINTS ? end : nThere + static_cast<uint64>(span * share * share);
        nWire += wireSize(from, to);
        way.push_back({untilCome(nWire), static_cast<double>(to)});
        from = to;
    }
    return way;
}

bool ZqStartEta::isEnough(const ZqAppParams& app, const std::vector<Point>& way, const Point& now) const {
    double mean = rate / ZqBlocks::PER_MEGABIT;
    const double passed = now.seconds + passSeconds;
    if (nSeconds > 0 || passed >= PASS) {
        const double coming = std::min(passed, WINDOW);
        const auto next = std::lower_bound(way.begin(), way.end(), now.seconds - coming,
                                           [](const Point& point, double at) { return point.seconds < at; });
        double nBefore = next->size;
        if (next != way.begin()) {
            const Point& last = *std::prev(next);
            const double step = next->seconds - last.seconds;
            if (step > 0)
                nBefore = between(last.size, next->size, (now.seconds - coming - last.seconds) / step);
        }
        const double past = std::min(static_cast<double>(nSeconds), WINDOW - coming);
        mean = (speed * past + (now.size - nBefore) / ZqBlocks::PER_MEGABIT) / (past + coming);
    }
    return now.size >= static_cast<double>(ZqStartForecast::findInit(app, mean));
}

std::optional<ZqStartEta::Point> ZqStartEta::find(const ZqAppParams& app) const {
    if (!(rate > 0)) return {};
    const uint64 forDrive = ZqStartForecast::findDrive(app);
    if (isAtOnce || std::max(nThere, forDrive) >= app.sizeZqf) {
        const double seconds = untilDrive(app);
        return Point{seconds + (isAtOnce && seconds > 0 ? MOUNT : 0),
                     static_cast<double>(std::max(nThere, forDrive))};
    }
    const std::vector<Point> way = draw(app.sizeZqf);
    const double mapSeconds = untilMap(app);
    // The start looks once there is a drive, and by then the speed is another one.
    const auto isPoint = [&](const Point& point) {
        return point.seconds >= mapSeconds && isEnough(app, way, point);
    };
    const auto first = std::next(way.begin());
    const auto found = std::find_if(first, way.end(), isPoint);
    if (found == first) return *first;
    // The image may be complete before the map is.
    if (found == way.end()) return Point{std::max(way.back().seconds, mapSeconds), way.back().size};
    const Point right = *found, left = *std::prev(found);
    const auto pointAt = [&](double share) {
        return Point{between(left.seconds, right.seconds, share), between(left.size, right.size, share)};
    };
    double least = 0, most = 1;
    for (int i = 0; i < N_HALVES; ++i) {
        const double share = (least + most) / 2;
        (isPoint(pointAt(share)) ? most : least) = share;
    }
    return pointAt(most);
}
