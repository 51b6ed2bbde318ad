#pragma once

#include "SxTypes.h"

#include <concepts>
#include <cstddef>
#include <vector>

/// Moving statistic over the last N values, or over all values since the creation or the last reset(). A
/// value that isn't finite is left out. Without values everything is 0. A value type. Not locked.
class ZqAvg {
public:
    /// Over all values, in constant memory.
    ZqAvg() = default;
    /// Over the last `window_` values, at least 1.
    explicit ZqAvg(int64 window_) : window(window_ < 1 ? 1 : window_) {}

    void update(double value);
    template<std::integral T>
    void update(T value) {
        update(static_cast<double>(value));
    }
    void reset();

    /// Number of values that the figures are of.
    int64 getN() const noexcept { return n; }
    double getAverage() const;
    double getMin() const;
    double getMax() const;
    /// Standard deviation of the values as a population (divided by N, not by N - 1).
    double getSigma() const;

private:
    int64 window = 0;
    int64 n = 0;
    // With a window: a ring of the values.
    std::vector<double> values;
    std::size_t nextSlot = 0;
    // Without one: Welford's running moments, and the plain sum, which is exact for whole numbers.
    double sum = 0, mean = 0, squares = 0, least = 0, greatest = 0;
};
