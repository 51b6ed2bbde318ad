#pragma once

#include <functional>
#include <optional>

/// The time to the start of an application as it is shown: steady, so that somebody can go by it. It rises
/// only where the link's rate has changed. Times in seconds of any clock that doesn't go back, rates in bytes
/// a second. Not locked.
class ZqShownEta {
public:
    /// The seconds that a start would still take at a rate.
    using Work = std::function<std::optional<double>(double rate)>;

    /// The rate is `rate` now. Gives the seconds to show; none as long as the link isn't known well.
    std::optional<double> look(double now, double rate, const Work& work);
    /// The server is away: what was said no longer holds.
    void forget();
    /// The rate that it goes by, smoothed; 0 for none.
    double getRate() const { return rate; }
    /// Whether the link is known well.
    bool isKnown() const { return isSettled; }

private:
    double beganAt = 0, lastAt = 0;
    double rate = 0;     ///< smoothed
    double toldRate = 0; ///< when the end was set last
    double endsAt = 0;
    bool isSettled = false, isTold = false;
};
