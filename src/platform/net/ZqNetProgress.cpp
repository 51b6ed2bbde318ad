#include "ZqNetProgress.h"

#include <algorithm>

namespace {
/// In the ten seconds of the usual limit that is USEFUL_BYTES. The slowest links that anybody plays over
/// carry several times that.
constexpr double MIN_RATE = static_cast<double>(ZqNetProgress::USEFUL_BYTES) / 10.;
/// A request that is slower than the link by that much has a connection that is at fault: an equal share is
/// more.
constexpr double PART_OF_BEST = 1. / 64.;
/// A server may limit its rate, after a fast begin, too. One that brings so much is of use whatever else
/// came.
constexpr double MAX_RATE = 8192.;
/// So often the patience with a slow request doubles.
constexpr int64 MAX_DOUBLED = 3;
} // namespace

double ZqNetProgress::getUsefulRate(double bestRate, int64 nBeside) {
    const double ofLink = std::clamp(bestRate * PART_OF_BEST, MIN_RATE, MAX_RATE);
    return ofLink / static_cast<double>(std::max<int64>(nBeside, 1));
}

int64 ZqNetProgress::getPatience(int64 limit, int64 nSlow) {
    return limit << std::min(nSlow, MAX_DOUBLED);
}

void ZqNetProgress::begin(int64 nowNs) {
    spans.fill({nowNs, 0});
}

void ZqNetProgress::take(int64 n, double bestRate, int64 nBeside, int64 nowNs) {
    for (size_t i = 0; i < spans.size(); ++i) {
        spans[i].nBytes += n;
        // Several that are slow may share a slow link, or have a bad machine each. A second request finds
        // that out and gives nothing up, so it need not wait for more to tell.
        const double rate = getUsefulRate(bestRate, i == Second ? 1 : nBeside);
        const double useful = rate * static_cast<double>(limits[i]) / 1e9;
        if (static_cast<double>(spans[i].nBytes) >= useful) spans[i] = {nowNs, 0};
    }
}

void ZqNetProgress::skip(int64 ns) {
    for (Span& span : spans)
        span.sinceNs += ns;
}
