#include "ZqShownEta.h"

#include <algorithm>
#include <cmath>

namespace {
/// A link is known when it has been measured for so long.
constexpr double LEAST_SECONDS = 0.5;
/// The rate is the mean of all at first, and then of about that time.
constexpr double SMOOTHING_SECONDS = 3;
/// By how much it has to change.
constexpr double CHANGE = 0.2;
} // namespace

void ZqShownEta::forget() {
    *this = {};
}

std::optional<double> ZqShownEta::look(double now, double latest, const Work& work) {
    if (!(latest > 0)) return {};
    if (rate == 0) {
        beganAt = lastAt = now;
        rate = latest;
    }
    const double passed = now - lastAt, age = now - beganAt;
    lastAt = now;
    if (age > 0) rate += (latest - rate) * std::max(passed / age, 1 - std::exp(-passed / SMOOTHING_SECONDS));
    isSettled = age >= LEAST_SECONDS;
    if (!isSettled) return {};
    const bool hasChanged = isTold && std::abs(rate - toldRate) > CHANGE * toldRate;
    // The mean follows slowly, and what is said would rise again and again.
    if (hasChanged) rate = latest;
    const std::optional<double> seconds = work(rate);
    if (!seconds) return {};
    const double end = now + *seconds;
    if (!isTold || hasChanged) toldRate = rate;
    if (!isTold || hasChanged || end < endsAt) endsAt = end;
    isTold = true;
    return std::max(endsAt - now, 0.0);
}
