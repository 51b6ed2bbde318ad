#include "ZqRunSampler.h"

#include "SxClock.h"
#include "SxTime.h"
#include "ZqImageFeed.h"

#include <algorithm>

namespace {
/// From one look for the series to the next.
constexpr int64 SAMPLE_MS = 20;
/// The same from the moment on at which no read has to wait any longer.
constexpr int64 CALM_SAMPLE_MS = 200;
} // namespace

ZqRunSampler::ZqRunSampler(const ZqImageFeed& feed_, int64 beginNs_, uint64 nAtStart_)
    : feed(feed_),
      beginNs(beginNs_),
      nAtStart(nAtStart_) {
    setThreadName("samples");
}

const ZqRunSeries& ZqRunSampler::end() {
    isEnding = true;
    wait();
    take();
    return series;
}

void ZqRunSampler::main() {
    while (!isEnding) {
        take();
        SxTime::msleep(feed.isSettled() ? CALM_SAMPLE_MS : SAMPLE_MS);
    }
}

void ZqRunSampler::take() {
    const ZqFeedStatus status = feed.getStatus();
    // The feed has counted nothing at first, whatever is there.
    const uint64 nThere = std::max(status.nCurrent, nAtStart);
    series.add({(SxClock::get().steadyNs() - beginNs) / 1'000'000, nThere, status.link.nBytes,
                status.link.nOnDemandBytes, status.isUnderflow});
}
