#include "ZqStartForecast.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr uint64 MEGABYTE = 1'000'000;

double secondsFor(uint64 nBytes, double bytesPerSecond) {
    if (nBytes == 0) return 0;
    return bytesPerSecond > 0 ? static_cast<double>(nBytes) / bytesPerSecond
                              : std::numeric_limits<double>::infinity();
}

uint64 missing(uint64 need, uint64 nThere) {
    return need - std::min(need, nThere);
}

/// `nPlayed` bytes are what the play needs.
uint64 withLeast(const ZqAppParams& app, uint64 nPlayed) {
    constexpr uint64 MAX = std::numeric_limits<uint64>::max();
    const uint64 preload = app.minPreload > MAX / MEGABYTE ? MAX : app.minPreload * MEGABYTE;
    return std::min(app.sizeZqf, std::max({app.sizeMnt, preload, nPlayed}));
}

} // namespace

uint64 ZqStartForecast::findInit(const ZqAppParams& app, double speedMbit) {
    if (app.minBandwidth > 0 && static_cast<double>(app.minBandwidth) > speedMbit) return app.sizeZqf;
    return withLeast(app, app.getNInit(speedMbit));
}

uint64 ZqStartForecast::findDrive(const ZqAppParams& app) {
    if (app.mountMode == ZqDriveKinds::ReadWrite) return app.sizeZqf;
    return std::min(app.sizeMnt, app.sizeZqf);
}

uint64 ZqStartForecast::findAll(const ZqAppParams& app) {
    if (app.minBandwidth > 0 || app.loadprofile.isEmpty()) return app.sizeZqf;
    return withLeast(app, ZqLoadProfilePoint::getNInit(app.loadprofile, 0));
}

ZqStartForecast::ZqStartForecast(const ZqAppParams& app, double speedMbit, uint64 nThere)
    : isKnown(!app.loadprofile.isEmpty()) {
    const double speed = std::max(speedMbit, 0.0), bytesPerSecond = speed * ZqBlocks::PER_MEGABIT;
    const uint64 forDrive = findDrive(app);
    nInit = std::max(findInit(app, speed), forDrive);
    untilSafe = secondsFor(missing(nInit, nThere), bytesPerSecond);
    untilMount = secondsFor(missing(forDrive, nThere), bytesPerSecond);
    if (isKnown) addWaits(app, bytesPerSecond, std::max(forDrive, nThere));
}

void ZqStartForecast::addWaits(const ZqAppParams& app, double bytesPerSecond, uint64 nAtStart) {
    if (nAtStart >= app.sizeZqf) return;
    // An application that waits doesn't go on, so what comes meanwhile counts for what it needs later.
    double waited = 0;
    bool isWaiting = false;
    for (const ZqLoadProfilePoint& point : app.loadprofile) {
        const auto at = static_cast<double>(point.time);
        const double ready = secondsFor(missing(point.size, nAtStart), bytesPerSecond);
        const double seconds = ready - at - waited;
        if (!(seconds > 0)) {
            isWaiting = false;
            continue;
        }
        if (isWaiting) {
            waits.back().seconds += seconds;
        } else {
            waits.push_back({at, seconds});
        }
        isWaiting = true;
        waited += seconds;
        if (std::isinf(waited)) return;
    }
}

double ZqStartForecast::getTotalWait() const {
    double total = 0;
    for (const Wait& wait : waits)
        total += wait.seconds;
    return total;
}
