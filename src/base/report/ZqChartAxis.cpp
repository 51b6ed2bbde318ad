#include "ZqChartAxis.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

struct Step {
    const char* name;
    double size;   ///< in units of the values
    double enough; ///< how large a number the unit is for
};

constexpr double SECOND = 1000, MINUTE = 60 * SECOND, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
constexpr double KIB = 1024, MIB = KIB * KIB, GIB = MIB * KIB, TIB = GIB * KIB, PIB = TIB * KIB;
constexpr std::array<Step, 5> TIMES = {{{"ms", 1, SECOND},
                                        {"s", SECOND, 4 * MINUTE},
                                        {"min", MINUTE, 4 * HOUR},
                                        {"h", HOUR, 4 * DAY},
                                        {"d", DAY, 0}}};
constexpr std::array<Step, 6> SIZES = {{{"bytes", 1, KIB},
                                        {"KiB", KIB, MIB},
                                        {"MiB", MIB, GIB},
                                        {"GiB", GIB, TIB},
                                        {"TiB", TIB, PIB},
                                        {"PiB", PIB, 0}}};
constexpr std::array<Step, 5> COUNTS = {
    {{"", 1, 1e4}, {"k", 1e3, 1e6}, {"M", 1e6, 1e9}, {"G", 1e9, 1e12}, {"T", 1e12, 0}}};

/// The unit in which a number like `value` is short.
template<size_t N>
const Step& stepFor(const std::array<Step, N>& steps, double value) {
    for (const Step& step : steps) {
        if (value < step.enough) return step;
    }
    return steps.back();
}

/// The smallest of 1, 2, 5, 10, 20, ... (or 0.1, ...) that isn't below `least`.
double roundUp(double least) {
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const double factor : {1., 2., 5.}) {
        // Rounding must not skip what it is equal to.
        if (factor * power >= least * (1 - 1e-9)) return factor * power;
    }
    return 10 * power;
}

} // namespace

ZqChartAxis::ZqChartAxis(const SxString& name_, Unit unit_, double least_, double most_)
    : name(name_),
      least(least_),
      most(most_) {
    if (!(most > least)) most = least + (unit_ == Time ? SECOND : 1);
    const double largest = std::max(std::abs(least), std::abs(most));
    const Step& step = unit_ == Time    ? stepFor(TIMES, largest)
                       : unit_ == Bytes ? stepFor(SIZES, largest)
                                        : stepFor(COUNTS, largest);
    scale = step.size;
    if (unit_ == Count) {
        suffix = step.name;
    } else {
        name += SxString(", ") + step.name;
    }
}

double ZqChartAxis::shareOf(double value) const {
    return std::clamp((value - least) / (most - least), 0., 1.);
}

std::vector<ZqChartAxis::Tick> ZqChartAxis::getTicks(int nMost) const {
    const double from = least / scale, to = most / scale;
    const double step = roundUp((to - from) / nMost);
    const int decimals = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
    const double slack = step * 1e-6;
    const double first = std::ceil((from - slack) / step), last = std::floor((to + slack) / step);
    std::vector<Tick> ticks;
    for (int i = 0; first + i <= last && i <= nMost; ++i) {
        // Adding it up would pile up the rounding; adding 0 makes a negative zero plain.
        const double value = (first + i) * step + 0.;
        const bool isZero = first + i == 0;
        ticks.push_back(
            {value * scale, SxString::sprintf("%.*f", decimals, value) + (isZero ? SxString() : suffix)});
    }
    return ticks;
}

SxString ZqChartAxis::getTitle() const {
    return name;
}
