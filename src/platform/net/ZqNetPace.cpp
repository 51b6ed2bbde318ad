#include "ZqNetPace.h"

#include <algorithm>
#include <utility>

namespace {
constexpr int64 MS = 1'000'000;
/// Time over which one rate is measured.
constexpr int64 RATE_NS = 50 * MS;
/// Bytes of a range over which one is measured.
constexpr int64 RANGE_BYTES = 96 << 10;
/// From a stream's begin, or the end of a hold, until its bytes count: those before have waited in buffers.
constexpr int64 SETTLE_NS = 25 * MS;
/// From one piece to the next; the slowest links that are of use bring one a second.
constexpr int64 SILENCE_NS = 3'000 * MS;
/// The best rate is that of one such span, which goes on, and of the one before.
constexpr int64 BEST_RATE_NS = 15'000 * MS;
/// The same of the shortest round trip. Longer, since under load every request has waited for what the
/// streams had sent before it.
constexpr int64 BEST_TRIP_NS = 60'000 * MS;
} // namespace

void ZqNetPace::measure(Span* span, int64 nowNs, int64 n) {
    if (span->sinceNs == 0) *span = {nowNs + SETTLE_NS, 0};
    if (nowNs < span->sinceNs) return;
    const int64 passed = nowNs - span->sinceNs;
    // What ends the settling came in a time that isn't known, and a silence is no rate.
    if (!std::exchange(span->isSettled, true) || passed > SILENCE_NS) {
        *span = {nowNs, 0, false, true};
        return;
    }
    span->nBytes += n;
    if (passed < RATE_NS) return;
    const double measured = static_cast<double>(span->nBytes) * 1e9 / static_cast<double>(passed);
    const double old = rate.load();
    rate.store(old > 0. ? 0.75 * old + 0.25 * measured : measured);
    noteBest(measured, nowNs);
    *span = {nowNs, 0, false, true};
}

void ZqNetPace::measureRange(Span* span, int64 nowNs, int64 n) {
    if (span->wasHeld) {
        if (span->sinceNs == 0) span->sinceNs = nowNs + SETTLE_NS;
        if (nowNs < span->sinceNs) return;
        *span = {};
    }
    if (span->sinceNs == 0) {
        *span = {nowNs, 0};
        return;
    }
    span->nBytes += n;
    const int64 passed = nowNs - span->sinceNs;
    if (span->nBytes < RANGE_BYTES || passed < MS) return;
    noteBest(static_cast<double>(span->nBytes) * 1e9 / static_cast<double>(passed), nowNs);
    *span = {nowNs, 0};
}

void ZqNetPace::noteBest(double measured, int64 nowNs) {
    if (nowNs - rateSinceNs > BEST_RATE_NS) {
        bestRateBefore = bestRate;
        bestRate = 0.;
        rateSinceNs = nowNs;
    }
    bestRate = std::max(bestRate, measured);
    noteTrip();
}

double ZqNetPace::getBestRate(int64 nowNs) const {
    const int64 passed = nowNs - rateSinceNs;
    if (passed > 2 * BEST_RATE_NS) return 0.;
    return passed > BEST_RATE_NS ? bestRate : std::max(bestRate, bestRateBefore);
}

void ZqNetPace::noteRoundTrip(int64 us, int64 nowNs) {
    if (nowNs - tripSinceNs > BEST_TRIP_NS) {
        bestTripUsBefore = bestTripUs;
        bestTripUs = us;
        tripSinceNs = nowNs;
    }
    bestTripUs = std::min(bestTripUs, us);
    roundTripUs.store(bestTripUsBefore > 0 ? std::min(bestTripUs, bestTripUsBefore) : bestTripUs);
    noteTrip();
}

void ZqNetPace::noteTrip() {
    tripBytes.store(std::max(bestRate, bestRateBefore) * static_cast<double>(roundTripUs.load()) / 1e6);
}
