#include "ZqRangeFetches.h"

#include "SxClock.h"
#include "SxTime.h"
#include "ZqRangeFetch.h"
#include "ZqRangeSource.h"

#include <algorithm>

namespace {

constexpr int64 MS = 1'000'000;
constexpr int64 SLOW_MS = 3000;    ///< one that lasts longer takes the place of no other
constexpr int64 MAX_FETCHES = 128; ///< at once, slow ones included
/// From one look for the end of a fetch, which a reader waits for, to the next.
constexpr int64 FETCH_LOOK_NS = MS / 4;

} // namespace

ZqRangeFetches::ZqRangeFetches() = default;

ZqRangeFetches::~ZqRangeFetches() = default;

int64 ZqRangeFetches::nFree(int64 nowMs) const {
    const int64 nFresh = std::count_if(fetches.begin(), fetches.end(), [&](const SxPtr<ZqRangeFetch>& fetch) {
        return nowMs - fetch->beginMs < SLOW_MS;
    });
    return std::min(ZqRangeSource::GROUP - nFresh, MAX_FETCHES - static_cast<int64>(fetches.size()));
}

bool ZqRangeFetches::isUnderWay(uint64 offset) const {
    return std::any_of(fetches.begin(), fetches.end(),
                       [&](const SxPtr<ZqRangeFetch>& fetch) { return fetch->offset == offset; });
}

bool ZqRangeFetches::isUnderWayApart(uint64 offset) const {
    return std::any_of(fetches.begin(), fetches.end(), [&](const SxPtr<ZqRangeFetch>& fetch) {
        return fetch->offset == offset && fetch->isApart;
    });
}

void ZqRangeFetches::begin(const SxPtr<ZqRangeSource>& from, uint64 offset, uint64 length, bool isApart) {
    const auto fetch = SxPtr<ZqRangeFetch>::create(from, offset, length, isApart);
    fetch->start();
    fetches.push_back(fetch);
}

void ZqRangeFetches::await(const std::atomic<bool>& isStopped) const {
    const int64 endNs = SxClock::get().steadyNs() + SxWait::LOOK_MS * MS;
    const auto hasEnded = [this] {
        return std::any_of(fetches.begin(), fetches.end(),
                           [](const SxPtr<ZqRangeFetch>& fetch) { return !fetch->isRunning(); });
    };
    while (!fetches.empty() && !hasEnded() && !isStopped && SxClock::get().steadyNs() < endNs)
        SxClock::get().sleepNs(FETCH_LOOK_NS);
}

SxPtr<ZqRangeFetch> ZqRangeFetches::takeEnded() {
    const auto ended = std::find_if(fetches.begin(), fetches.end(),
                                    [](const SxPtr<ZqRangeFetch>& fetch) { return !fetch->isRunning(); });
    if (ended == fetches.end()) return {};
    SxPtr<ZqRangeFetch> fetch = *ended;
    fetches.erase(ended);
    fetch->wait();
    return fetch;
}

void ZqRangeFetches::end(const std::atomic<bool>& isStopped) {
    // A fetch ends with the source that it was begun with, which may have been another one.
    std::vector<SxPtr<ZqRangeSource>> sources;
    for (const SxPtr<ZqRangeFetch>& fetch : fetches) {
        const auto isSame = [&](const SxPtr<ZqRangeSource>& source) { return source == fetch->from; };
        if (std::none_of(sources.begin(), sources.end(), isSame)) sources.push_back(fetch->from);
    }
    for (const SxPtr<ZqRangeSource>& source : sources)
        source->cancel(true);
    fetches.clear();
    if (isStopped) return;
    for (const SxPtr<ZqRangeSource>& source : sources)
        source->cancel(false);
}
