#include "ZqNetHolds.h"

#include <algorithm>

namespace {

constexpr int64 MS = 1'000'000;
/// The streams stay held for so many round trips after an answer to a request on demand, within these bounds:
/// one who has waited for blocks mostly asks for the next ones then, and these would find the link full.
constexpr int64 QUIET_TRIPS = 10;
constexpr int64 MIN_QUIET_NS = 10 * MS, MAX_QUIET_NS = 250 * MS;
/// The longest one when the budget is used up.
constexpr int64 MAX_SHORT_QUIET_NS = 60 * MS;
/// Longer than the 20 ms after which one who waits for the streams says so again.
constexpr int64 HASTENED_NS = 100 * MS;
/// What the rate limit lets an ordered stream make up for after a pause.
constexpr int64 CREDIT_NS = 100 * MS;
/// Longer than a piece takes at any limit that is of use.
constexpr int64 AT_LIMIT_NS = 1000 * MS;

} // namespace

void ZqNetHolds::hasten(int64 nowNs) {
    hastenedUntilNs.store(nowNs + HASTENED_NS);
}

void ZqNetHolds::noteAnswer(int64 tripNs, int64 nowNs) {
    const int64 passed = nowNs - quietSinceNs;
    const int64 held = std::min(passed, quietUntilNs - quietSinceNs);
    quietBudgetNs = std::clamp(quietBudgetNs - held + (passed - held) / 2, int64{0}, QUIET_BUDGET_NS);
    const bool isShort = quietBudgetNs == 0;
    quietSinceNs = nowNs;
    quietUntilNs = nowNs + (isShort ? std::clamp(tripNs, MIN_QUIET_NS, MAX_SHORT_QUIET_NS)
                                    : std::clamp(QUIET_TRIPS * tripNs, MIN_QUIET_NS, MAX_QUIET_NS));
}

void ZqNetHolds::noteTaken(int64 n, int64 nowNs) {
    const double limit = rateLimit.load();
    if (limit <= 0.) return;
    const double costNs = static_cast<double>(n) / limit * 1e9;
    limitedUntilNs = std::max(limitedUntilNs, nowNs - CREDIT_NS) + static_cast<int64>(costNs);
    if (limitedUntilNs > nowNs) atLimitUntilNs.store(limitedUntilNs + AT_LIMIT_NS);
}

bool ZqNetHolds::isAtLimit(int64 nowNs) const noexcept {
    return rateLimit.load() > 0. && nowNs < atLimitUntilNs.load();
}

bool ZqNetHolds::mustHold(Kind kind, const WireTest& isOnTheWire, int64 nowNs) const {
    if (!yields(kind)) return false;
    if (rateLimit.load() > 0. && limitedUntilNs > nowNs) return true;
    // What the stream brings while a request has no answer yet costs that at most a round trip's worth.
    if (kind == Kind::Ordered && shared.load()) return isOnTheWire(Kind::OnDemand, true);
    if (isOnTheWire(Kind::OnDemand, false)) return true;
    const bool hastened = hastenedUntilNs.load() > nowNs;
    if (kind == Kind::Ahead) return hastened;
    if (hastened) return false;
    return quietUntilNs > nowNs || isOnTheWire(Kind::Ahead, false);
}

int64 ZqNetHolds::getUntilNs() const noexcept {
    return std::max(quietUntilNs, limitedUntilNs);
}
