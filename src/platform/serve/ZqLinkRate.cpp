#include "ZqLinkRate.h"

#include "SxClock.h"

#include <algorithm>

namespace {
constexpr int64 SECOND_NS = 1'000'000'000;
constexpr int64 LOOK_NS = 10'000'000;
/// How late a busy link may be and still make up for it.
constexpr int64 MAX_DEBT_NS = 50'000'000;
constexpr int64 SLICES_PER_SECOND = 1000;
/// A packet of an Ethernet; smaller slices are only work.
constexpr int64 MIN_SLICE = 1448;
constexpr int64 MAX_SLICE = 64 << 10;
} // namespace

void ZqLinkRate::set(uint64 bytesPerSecond) {
    const SxMutexBlock block(&mutex);
    rate = bytesPerSecond;
    freeNs = 0;
}

uint64 ZqLinkRate::get() const {
    const SxMutexBlock block(&mutex);
    return rate;
}

ZqLinkRate::Busy::Busy(ZqLinkRate* link_) : link(link_) {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock block(&link->mutex);
    if (link->nBusy++ == 0) link->freeNs = std::max(link->freeNs, nowNs);
}

ZqLinkRate::Busy::~Busy() {
    const SxMutexBlock block(&link->mutex);
    --link->nBusy;
}

int64 ZqLinkRate::take(int64 n, const std::function<bool()>& stopped) {
    int64 untilNs = 0;
    {
        const int64 nowNs = SxClock::get().steadyNs();
        const SxMutexBlock block(&mutex);
        if (rate == 0) return std::min(n, MAX_SLICE);
        const auto perSecond = static_cast<double>(rate);
        n = std::min(n, std::clamp(static_cast<int64>(rate) / SLICES_PER_SECOND, MIN_SLICE, MAX_SLICE));
        const double ns = static_cast<double>(n) * static_cast<double>(SECOND_NS) / perSecond;
        freeNs = std::max(freeNs, nowNs - MAX_DEBT_NS) + static_cast<int64>(ns);
        untilNs = freeNs;
    }
    for (;;) {
        if (stopped()) return 0;
        const int64 leftNs = untilNs - SxClock::get().steadyNs();
        if (leftNs <= 0) return n;
        SxClock::get().sleepNs(std::min(leftNs, LOOK_NS));
    }
}
