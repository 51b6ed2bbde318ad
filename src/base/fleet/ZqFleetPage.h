#pragma once

#include "ZqChart.h"
#include "ZqFleetFigures.h"

/// The figures of a fleet as one page of HTML: what all runs were like, how start and first frame differ
/// between groups, and a table for each figure with the groups below each other. The page refers to nothing
/// outside, and holds no script. One thread at a time.
class ZqFleetPage {
public:
    /// `figures_` must outlive it.
    explicit ZqFleetPage(const ZqFleetFigures& figures_) : figures(figures_) {}

    SxString toHtml() const;

private:
    using Times = std::vector<double> ZqFleetCourse::*;

    SxString head() const;
    SxString tiles() const;
    SxString groupTable() const;
    SxString chart(const char* heading, const char* label, Times times) const;
    SxString spreadTable(const char* heading, ZqFleetSpread ZqFleetGroup::*spread,
                         SxString (*show)(double value)) const;
    SxString accuracyTable() const;
    SxString exitTable() const;
    SxString nameCell(size_t group, bool isShort = true) const;

    const ZqFleetFigures& figures;
};
