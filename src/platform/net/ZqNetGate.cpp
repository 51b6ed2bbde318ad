#include "ZqNetGate.h"

#include <algorithm>
#include <array>

namespace {
constexpr int64 MS = 1'000'000, SECOND_NS = 1'000 * MS;
/// The longest pause that a server may ask for, and when it is asked again for what somebody waits for.
constexpr int64 MAX_PAUSE_MS = 300'000, MAX_PROBE_MS = 10'000;
/// So many requests have to have been begun within a second, or how often they come tells nothing.
constexpr size_t MIN_BEGUN = 3;
constexpr int64 MAX_GAP_NS = SECOND_NS, NO_GAP_NS = 5 * MS; ///< a shorter one than the last is none
constexpr int64 NO_LIMIT = 16;                              ///< more aren't under way at once anyway
/// One that hasn't begun for so long is the next, whoever else has come.
constexpr int64 TURN_NS = SECOND_NS;
} // namespace

size_t ZqNetGate::choose(const std::vector<Request>& waiting, int64 nUnderWay, int64 nowNs) const {
    const auto may = [&](const Request& each) { return mayBegin(each, nUnderWay, nowNs); };
    auto next = std::ranges::find_if(waiting, may);
    if (next != waiting.end() && nowNs - next->sinceNs < TURN_NS) {
        const auto onDemand = std::find_if(next, waiting.end(),
                                           [&](const Request& each) { return each.isOnDemand && may(each); });
        if (onDemand != waiting.end()) next = onDemand;
    }
    return static_cast<size_t>(next - waiting.begin());
}

bool ZqNetGate::mayBegin(const Request& request, int64 nUnderWay, int64 nowNs) const {
    if (nowNs < untilNs) {
        // One at a time: if it is answered the others go on, too.
        return request.isWaitedFor && nowNs >= probeNs && nUnderWay == 0;
    }
    if (gapNs > 0 && !begun.empty() && nowNs - begun.back() < gapNs) return false;
    return request.isOrdered || maxUnderWay == 0 || nUnderWay < maxUnderWay;
}

int64 ZqNetGate::findNextNs(const std::vector<Request>& waiting, int64 nUnderWay, int64 nowNs) const {
    // What mayBegin() says changes at these times only.
    const std::array<int64, 4> changes = {nowNs, probeNs, untilNs,
                                          begun.empty() ? nowNs : begun.back() + gapNs};
    int64 next = NEVER;
    for (const int64 at : changes) {
        if (at < nowNs || at >= next) continue;
        const auto may = [&](const Request& each) { return mayBegin(each, nUnderWay, at); };
        if (std::ranges::any_of(waiting, may)) next = at;
    }
    return next;
}

void ZqNetGate::noteBegin(int64 nowNs) {
    begun.push_back(nowNs);
    while (begun.front() < nowNs - SECOND_NS)
        begun.pop_front();
}

void ZqNetGate::answered(int64 begunNs, int64 nowNs) {
    if (refusedNs == 0 || begunNs <= refusedNs) return;
    untilNs = std::min(untilNs, nowNs);
    recover(nowNs);
}

void ZqNetGate::recover(int64 nowNs) {
    while (nowNs - changedNs >= SECOND_NS && (nInRow > 0 || maxUnderWay > 0 || gapNs > 0)) {
        changedNs += SECOND_NS;
        if (nInRow > 0) --nInRow;
        if (maxUnderWay > 0 && ++maxUnderWay > NO_LIMIT) maxUnderWay = 0;
        gapNs = gapNs / 5 * 4; // a quarter more often
        if (gapNs < NO_GAP_NS) gapNs = 0;
    }
}

void ZqNetGate::refused(int64 begunNs, int64 retryAfterMs, int64 nUnderWay, int64 nowNs) {
    int64 pauseMs = std::min(retryAfterMs, MAX_PAUSE_MS);
    // Those that were sent before it told so say nothing new.
    if (refusedNs == 0 || begunNs > refusedNs) {
        const int64 ownMs =
            std::min(settings.firstBackOffMs << std::min<int64>(nInRow, 16), settings.maxBackOffMs);
        pauseMs = std::max(pauseMs, ownMs);
        ++nInRow;
        const int64 nBefore = maxUnderWay > 0 ? std::min(maxUnderWay, nUnderWay + 1) : nUnderWay + 1;
        maxUnderWay = std::max<int64>(nBefore / 2, 1);
        const auto nBegun = std::ranges::count_if(begun, [&](int64 at) { return at > nowNs - SECOND_NS; });
        const int64 gapNow = nBegun >= static_cast<int64>(MIN_BEGUN) ? SECOND_NS / nBegun : 0;
        gapNs = std::min(2 * std::max(gapNs, gapNow), MAX_GAP_NS);
        refusedNs = changedNs = nowNs;
    }
    if (pauseMs <= 0) return;
    untilNs = std::max(untilNs, nowNs + pauseMs * MS);
    probeNs = std::min(untilNs, nowNs + MAX_PROBE_MS * MS);
}
