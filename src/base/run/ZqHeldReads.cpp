#include "ZqHeldReads.h"

#include "ZqDiskStatus.h"
#include "ZqReadWait.h"

#include <algorithm>

namespace {

constexpr int64 NS_PER_MS = 1'000'000;

void add(ZqRunRecord::Waits* sum, int64 ms) {
    ++sum->n;
    sum->longestMs = std::max(sum->longestMs, ms);
    sum->sumMs += ms;
}

} // namespace

void ZqHeldReads::goOn(int64 beginNs_, int64 startNs_, int64 knownNs_) {
    beginNs = beginNs_;
    startNs = startNs_;
    knownNs = knownNs_;
}

void ZqHeldReads::look(const ZqDiskStatus& disk) {
    if (startNs == NONE || hasEnded) return;
    const auto fromNs = static_cast<int64>(disk.lastWaitFromNs), toNs = static_cast<int64>(disk.lastWaitToNs);
    if (fromNs > takenNs && toNs > knownNs) take(fromNs, toNs);
    openNs = static_cast<int64>(disk.waitSinceNs);
}

void ZqHeldReads::end(int64 nowNs) {
    if (startNs != NONE && openNs != 0) take(openNs, nowNs);
    openNs = 0;
    hasEnded = true;
}

int64 ZqHeldReads::lengthOf(int64 fromNs, int64 toNs) const {
    const int64 ns = toNs - std::max(fromNs, startNs);
    return ns > ZqReadWait::LEAST_NS ? ns / NS_PER_MS : 0;
}

void ZqHeldReads::take(int64 fromNs, int64 toNs) {
    takenNs = fromNs;
    const int64 ms = lengthOf(fromNs, toNs);
    if (ms == 0) return;
    add(&sum, ms);
    const int64 fromMs = (std::max(fromNs, startNs) - beginNs) / NS_PER_MS;
    waits.push_back({fromMs, fromMs + ms});
    if (waits.size() <= MOST) return;
    waits.erase(std::min_element(waits.begin(), waits.end(), [](const Wait& a, const Wait& b) {
        return a.toMs - a.fromMs < b.toMs - b.fromMs;
    }));
}

std::optional<ZqRunRecord::Waits> ZqHeldReads::getSum() const {
    if (startNs == NONE) return {};
    return sum;
}
