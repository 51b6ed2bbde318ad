#pragma once

#include "SxString.h"

#include <vector>

/// One side of a chart: what it counts, from where to where, and the round numbers along it. A plain value.
class ZqChartAxis {
public:
    enum Unit {
        Time,  ///< milliseconds, shown in ms, s, min, h or d
        Bytes, ///< shown in bytes, KiB, MiB, ...
        Count  ///< large ones are shown with k, M, ...
    };
    struct Tick {
        double value;
        SxString label;
    };

    /// From `least` to `most`, both finite; an empty range is widened.
    ZqChartAxis(const SxString& name_, Unit unit_, double least_, double most_);

    /// Where a value lies, from 0 to 1; what lies outside of the range is moved to its end.
    double shareOf(double value) const;
    /// Up to `nMost` + 1 round values of the range, `nMost` being at least 3, with their numbers in the
    /// axis's unit.
    std::vector<Tick> getTicks(int nMost) const;
    /// What it counts, with its unit: "Time, s".
    SxString getTitle() const;
    double getLeast() const { return least; }
    double getMost() const { return most; }

private:
    SxString name, suffix; ///< `suffix` follows each number
    double least, most;
    double scale = 1; ///< the axis's unit in units of the values
};
