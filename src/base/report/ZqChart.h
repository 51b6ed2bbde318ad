#pragma once

#include "ZqChartAxis.h"
#include "ZqFigure.h"

#include <cstdint>
#include <utility>

/// Where many events fall on a chart, as a grid of cells that are counted, so that a picture's size depends
/// on its area alone: a million accesses at random are 290 KB, the 3,400 of a short game 10 KB. A plain
/// value.
class ZqChartCells {
public:
    /// Side of a cell, in units of a figure.
    static constexpr int SIZE = 2;

    ZqChartCells(int nColumns_, int nRows_);
    /// Counts an event at a share of 0 to 1 of the way to the right, and of that to the top.
    void add(double x, double y);
    bool isEmpty() const { return nFilled == 0; }
    /// The cells with events, darker where there are more. Few cells are drawn as larger dots, which would
    /// otherwise be lost. Each shade is one path, in units of cells.
    SxString toSvg(const char* ink) const;

private:
    SxString toPath(uint32_t least, bool asDots) const;

    int nColumns, nRows;
    int64 nFilled = 0;            ///< cells with events
    std::vector<uint32_t> counts; ///< column by column, from the top
};

/// A chart: two axes and what is drawn between them, each thing upon the former ones. Values are in the axes'
/// units, `ink` is a class of ZqFigure::styleSheet(), or several. The library draws, and not the client,
/// since every launcher wants to show the same. Not locked.
class ZqChart {
public:
    using Points = std::vector<std::pair<double, double>>;
    enum Course { Straight, Steps };

    /// The space around the plot, in units of a figure. It has room for the texts as they are on a narrow
    /// screen, where a page makes them larger.
    static constexpr double LEFT = 84, RIGHT = 24, TOP = 34, BOTTOM = 62;
    static constexpr double PLOT_WIDTH = ZqFigure::WIDTH - LEFT - RIGHT;

    ZqChart(const ZqChartAxis& x_, const ZqChartAxis& y_, double plotHeight_)
        : x(x_),
          y(y_),
          plotHeight(plotHeight_) {}

    /// The whole height over a stretch of the horizontal axis; `note` is shown to who points at it.
    void addBand(double from, double to, const char* ink, const SxString& note);
    /// Cells whose grid has the size of the plot.
    void addCells(const ZqChartCells& cells, const char* ink);
    /// Points from left to right. Of those that share a unit of width only the last is drawn, so that a curve
    /// takes as much room however many samples it is made of.
    void addLine(const Points& points, Course course, const char* ink);
    /// The same, with the room below filled.
    void addArea(const Points& points, Course course, const char* ink);
    /// An upright line.
    void addMark(double at, const char* ink, const SxString& note);
    /// The SVG elements.
    SxString toSvg() const;
    double getHeight() const { return TOP + plotHeight + BOTTOM; }

private:
    double xOf(double value) const { return LEFT + x.shareOf(value) * PLOT_WIDTH; }
    double yOf(double value) const { return TOP + (1 - y.shareOf(value)) * plotHeight; }
    std::string pathOf(const Points& points, Course course) const;

    ZqChartAxis x, y;
    double plotHeight;
    SxString drawn;
};
