#include "ZqAvg.h"

#include <algorithm>
#include <cmath>
#include <numeric>

void ZqAvg::update(double value) {
    if (!std::isfinite(value)) return;
    if (window > 0) {
        if (n < window) {
            values.push_back(value);
            ++n;
        } else {
            values[nextSlot] = value;
            nextSlot = (nextSlot + 1) % values.size();
        }
        return;
    }
    least = n == 0 ? value : std::min(least, value);
    greatest = n == 0 ? value : std::max(greatest, value);
    ++n;
    sum += value;
    const double distance = value - mean;
    mean += distance / static_cast<double>(n);
    squares += distance * (value - mean);
}

void ZqAvg::reset() {
    *this = window > 0 ? ZqAvg(window) : ZqAvg();
}

double ZqAvg::getAverage() const {
    if (n == 0) return 0;
    const double total = window > 0 ? std::accumulate(values.begin(), values.end(), 0.0) : sum;
    return total / static_cast<double>(n);
}

double ZqAvg::getMin() const {
    if (window > 0 && n > 0) return *std::min_element(values.begin(), values.end());
    return least;
}

double ZqAvg::getMax() const {
    if (window > 0 && n > 0) return *std::max_element(values.begin(), values.end());
    return greatest;
}

double ZqAvg::getSigma() const {
    if (n == 0) return 0;
    if (window == 0) return std::sqrt(squares / static_cast<double>(n));
    const double average = getAverage();
    double total = 0;
    for (const double value : values)
        total += (value - average) * (value - average);
    return std::sqrt(total / static_cast<double>(n));
}
