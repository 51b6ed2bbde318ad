#include "ZqChart.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr int X_TICKS = 8;
/// From one number of the vertical axis to the next, at least.
constexpr double Y_TICK_ROOM = 36;
constexpr double TICK_GAP = 8;
/// A band that is narrower wouldn't be seen.
constexpr double LEAST_BAND = 2;
constexpr int N_SHADES = 4;
/// Up to so many cells are drawn as dots, of so many cells' width.
constexpr struct {
    int64 nCells;
    double width;
} DOTS[] = {{250, 3}, {2000, 2}};

using Fig = ZqFigure;

SxString titled(const SxString& element, const char* name, const SxString& note) {
    if (note.isEmpty()) return element + "/>\n";
    return element + "><title>" + Fig::escape(note) + "</title></" + name + ">\n";
}

} // namespace

// Cells.

ZqChartCells::ZqChartCells(int nColumns_, int nRows_)
    : nColumns(nColumns_),
      nRows(nRows_),
      counts(static_cast<size_t>(nColumns_) * static_cast<size_t>(nRows_)) {
}

void ZqChartCells::add(double x, double y) {
    const int column = std::clamp(static_cast<int>(x * nColumns), 0, nColumns - 1);
    const int row = std::clamp(static_cast<int>((1 - y) * nRows), 0, nRows - 1);
    uint32_t& count =
        counts[static_cast<size_t>(column) * static_cast<size_t>(nRows) + static_cast<size_t>(row)];
    nFilled += count == 0;
    if (count < std::numeric_limits<uint32_t>::max()) ++count;
}

SxString ZqChartCells::toPath(uint32_t least, bool asDots) const {
    std::string path;
    int atColumn = 0, atRow = 0;
    const auto go = [&](int column, int row) {
        path += 'm' + std::to_string(column - atColumn);
        if (row >= atRow) path += ' ';
        path += std::to_string(row - atRow);
    };
    for (int column = 0; column < nColumns; ++column) {
        const uint32_t* const cells = &counts[static_cast<size_t>(column) * static_cast<size_t>(nRows)];
        for (int row = 0; row < nRows; ++row) {
            if (cells[row] < least) continue;
            int end = row + 1;
            while (end < nRows && cells[end] >= least)
                ++end;
            const int length = end - row - (asDots ? 1 : 0);
            go(column, row);
            path += 'v' + std::to_string(length);
            atColumn = column;
            atRow = row + length;
            row = end;
        }
    }
    return SxString(std::move(path));
}

SxString ZqChartCells::toSvg(const char* ink) const {
    if (isEmpty()) return {};
    double width = 1;
    bool asDots = false;
    for (const auto& dots : DOTS) {
        if (asDots || nFilled > dots.nCells) continue;
        asDots = true;
        width = dots.width;
    }
    SxString svg = SxString("<g class=\"cells ") + (asDots ? "few " : "") + ink +
                   "\" transform=\"translate(" + Fig::number(ZqChart::LEFT + SIZE / 2.) + " " +
                   Fig::number(ZqChart::TOP + (asDots ? SIZE / 2. : 0)) + ") scale(" + SIZE +
                   ")\" stroke-width=\"" + Fig::number(width) + "\"" +
                   (asDots ? " stroke-linecap=\"round\"" : "") + ">\n";
    // Each shade is one path over all cells with at least so many accesses, drawn upon the lighter ones. So
    // it looks darker, its runs of cells are long, and no cell is in one path twice. Shades go by powers of
    // the largest count, since a few blocks are read a thousand times.
    const double largest = *std::max_element(counts.begin(), counts.end());
    uint32_t former = 0;
    for (int shade = 0; shade < N_SHADES; ++shade) {
        const auto least = static_cast<uint32_t>(std::pow(largest, static_cast<double>(shade) / N_SHADES));
        if (least == former) continue;
        svg += "<path d=\"" + toPath(least, asDots) + "\"/>\n";
        former = least;
    }
    return svg + "</g>\n";
}

// The chart.

void ZqChart::addBand(double from, double to, const char* ink, const SxString& note) {
    const double left = xOf(from), width = std::max(xOf(to) - left, LEAST_BAND);
    drawn += titled(SxString("<rect class=\"band ") + ink + "\" x=\"" + Fig::number(left) + "\" y=\"" +
                        Fig::number(TOP) + "\" width=\"" + Fig::number(width) + "\" height=\"" +
                        Fig::number(plotHeight) + "\"",
                    "rect", note);
}

void ZqChart::addCells(const ZqChartCells& cells, const char* ink) {
    drawn += cells.toSvg(ink);
}

std::string ZqChart::pathOf(const Points& points, Course course) const {
    Points places;
    for (const auto& [value, height] : points) {
        const std::pair<double, double> place(xOf(value), yOf(height));
        if (places.size() > 1 && std::floor(places.back().first) == std::floor(place.first)) {
            places.back() = place;
        } else {
            places.push_back(place);
        }
    }
    std::string path;
    SxString formerY;
    for (size_t i = 0; i < places.size(); ++i) {
        const SxString placeX = Fig::number(places[i].first), placeY = Fig::number(places[i].second);
        if (i == 0) {
            path = "M" + placeX.str() + " " + placeY.str();
        } else if (course == Straight) {
            path += "L" + placeX.str() + " " + placeY.str();
        } else if (!(placeY == formerY) || i + 1 == places.size()) {
            path += "H" + placeX.str();
            if (!(placeY == formerY)) path += "V" + placeY.str();
        }
        formerY = placeY;
    }
    return path;
}

void ZqChart::addLine(const Points& points, Course course, const char* ink) {
    if (points.empty()) return;
    drawn += SxString("<path class=\"line ") + ink + "\" d=\"" + pathOf(points, course) + "\"/>\n";
}

void ZqChart::addArea(const Points& points, Course course, const char* ink) {
    if (points.empty()) return;
    drawn += SxString("<path class=\"area ") + ink + "\" d=\"" + pathOf(points, course) + "V" +
             Fig::number(TOP + plotHeight) + "H" + Fig::number(xOf(points.front().first)) + "Z\"/>\n";
    addLine(points, course, ink);
}

void ZqChart::addMark(double at, const char* ink, const SxString& note) {
    drawn += titled(SxString("<path class=\"mark ") + ink + "\" d=\"M" + Fig::number(xOf(at)) + " " +
                        Fig::number(TOP) + "v" + Fig::number(plotHeight) + "\"",
                    "path", note);
}

SxString ZqChart::toSvg() const {
    const double bottom = TOP + plotHeight;
    const SxString left = Fig::number(LEFT), width = Fig::number(PLOT_WIDTH);
    SxString grid, numbers;
    for (const auto& tick : y.getTicks(std::max(3, static_cast<int>(plotHeight / Y_TICK_ROOM)))) {
        const SxString top = Fig::number(yOf(tick.value));
        grid += "M" + left + " " + top + "h" + width;
        numbers += "<text class=\"y\" x=\"" + Fig::number(LEFT - TICK_GAP) + "\" y=\"" + top +
                   "\" dy=\".35em\" text-anchor=\"end\">" + Fig::escape(tick.label) + "</text>";
    }
    for (const auto& tick : x.getTicks(X_TICKS)) {
        const SxString at = Fig::number(xOf(tick.value));
        grid += "M" + at + " " + Fig::number(TOP) + "V" + Fig::number(bottom);
        numbers += "<text class=\"x\" x=\"" + at + "\" y=\"" + Fig::number(bottom + TICK_GAP) +
                   "\" dy=\".8em\" text-anchor=\"middle\">" + Fig::escape(tick.label) + "</text>";
    }
    return "<path class=\"grid\" d=\"" + grid + "\"/>\n" + drawn + "<path class=\"frame-line\" d=\"M" + left +
           " " + Fig::number(TOP) + "V" + Fig::number(bottom) + "h" + width + "\"/>\n" + numbers +
           "\n<text class=\"name\" x=\"24\" y=\"20\">" + Fig::escape(y.getTitle()) +
           "</text>\n<text class=\"name\" x=\"" + Fig::number(Fig::WIDTH - RIGHT) + "\" y=\"" +
           Fig::number(bottom + TICK_GAP) + "\" dy=\"2.1em\" text-anchor=\"end\">" +
           Fig::escape(x.getTitle()) + "</text>\n";
}
