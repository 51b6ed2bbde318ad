#include "ZqFleetPage.h"

#include "ZqFleetText.h"
#include "ZqPage.h"
#include "ZqReadable.h"

#include <algorithm>
#include <array>

namespace {

constexpr double CHART_HEIGHT = 300;
/// A curve's end, in percent: a few runs over very slow links would take most of the width.
constexpr size_t LAST_SHARE = 95;
/// Of fewer runs than these 99 % is all of them but one, or all.
constexpr int64 FEW = 20;
constexpr std::array<const char*, ZqFleetFigures::MOST_COURSES> INKS = {"reads", "writes", "needed",
                                                                        "prefix"};

using ZqFleetText::duration, ZqFleetText::number, ZqFleetText::speed, ZqFleetText::percent;

SxString decimal(double n) {
    return SxString::sprintf("%.1f", n);
}

SxString cell(const SxString& text, bool isDim = false) {
    return SxString(isDim ? "<td class=\"dim\">" : "<td>") + ZqFigure::escape(text) + "</td>";
}

SxString beginTable(const char* heading, const SxString& note, const std::vector<const char*>& columns) {
    SxString html = SxString("<section class=\"card\">\n<h2>") + heading + "</h2>\n";
    if (!note.isEmpty()) html += "<p class=\"note\">" + note + "</p>\n";
    html += "<table class=\"numbers\">\n<tr><th scope=\"col\"></th>";
    for (const char* column : columns)
        html += SxString("<th scope=\"col\">") + column + "</th>";
    return html + "</tr>\n";
}

constexpr const char* END_TABLE = "</table>\n</section>\n";

/// The median, with what 90 % of the runs don't exceed below it.
SxString spreadTile(const char* name, const ZqFleetSpread& spread, SxString (*show)(double value)) {
    if (spread.n == 0) return ZqPage::tile(name, "not known");
    return ZqPage::tile(name, show(spread.median), "90 %: " + show(spread.ninety));
}

} // namespace

SxString ZqFleetPage::toHtml() const {
    return ZqPage::document(
        "Runs of a fleet", "<header>\n<h1>Runs of a fleet</h1>\n" + head() + "</header>\n" + tiles() +
                               groupTable() +
                               chart("Started by then", "Share of the runs whose application had started",
                                     &ZqFleetCourse::start) +
                               spreadTable("Time to start", &ZqFleetGroup::start, duration) +
                               chart("First frame by then", "Share of the runs that had shown a first frame",
                                     &ZqFleetCourse::frame) +
                               spreadTable("Time to the first frame", &ZqFleetGroup::frame, duration) +
                               spreadTable("Underflows of a run", &ZqFleetGroup::underflows, number) +
                               spreadTable("Growth of the image, Mbit/s", &ZqFleetGroup::speed, decimal) +
                               spreadTable("Needed for the start", &ZqFleetGroup::prefix, ZqReadable::bytes) +
                               accuracyTable() + exitTable());
}

SxString ZqFleetPage::head() const {
    SxString text = ZqReadable::counted(figures.all.nRuns, "run", "runs");
    if (figures.firstMs > 0)
        text += ", from " + ZqReadable::date(figures.firstMs) + " to " + ZqReadable::date(figures.lastMs);
    if (figures.nBad > 0)
        text += ". " + ZqReadable::counted(figures.nBad, "record was", "records were") + " not taken";
    return "<p>" + text + ".</p>\n";
}

SxString ZqFleetPage::tiles() const {
    const ZqFleetGroup& all = figures.all;
    SxString html = "<dl class=\"tiles\">\n";
    html += ZqPage::tile("Runs", ZqReadable::count(all.nRuns),
                         ZqReadable::counted(figures.nGroups, "group", "groups"));
    html += spreadTile("Time to start", all.start, duration);
    html += spreadTile("First frame", all.frame, duration);
    html += spreadTile("Underflows", all.underflows, number);
    html += spreadTile("Download", all.speed, speed);
    html += spreadTile("Needed for the start", all.prefix, ZqReadable::bytes);
    html += all.nJudged == 0 ? ZqPage::tile("Brought and read", "not known")
                             : ZqPage::tile("Brought and read", percent(all.earlyUsed, all.brought),
                                            percent(all.late, all.read) + " of what was read came late");
    html += ZqPage::tile("Start failed", percent(all.nStartErr, all.nRuns),
                         "ended with a failure: " + percent(all.nEndErr, all.nRuns));
    return html + "</dl>\n";
}

/// The name with the colour of its curve, where it has one.
SxString ZqFleetPage::nameCell(size_t group, bool isShort) const {
    SxString html = "<th scope=\"row\">";
    for (size_t i = 0; i < figures.courses.size(); ++i)
        if (figures.courses[i].group == group)
            html += SxString("<i class=\"swatch stroke ") + INKS[i] + "\"></i>";
    return html + ZqFigure::escape(figures.nameOf(figures.groups[group], isShort)) + "</th>";
}

SxString ZqFleetPage::groupTable() const {
    const int64 nLeftOut = figures.nGroups - static_cast<int64>(figures.groups.size());
    SxString html = beginTable(
        "Groups",
        nLeftOut > 0 ? "Only the largest ones; " +
                           ZqReadable::counted(nLeftOut, "smaller one is", "smaller ones are") + " left out."
                     : SxString(),
        {"Runs", "Share"});
    for (size_t i = 0; i < figures.groups.size(); ++i) {
        const ZqFleetGroup& group = figures.groups[i];
        html += "<tr>" + nameCell(i, false) + cell(ZqReadable::count(group.nRuns)) +
                cell(percent(group.nRuns, figures.all.nRuns)) + "</tr>\n";
    }
    return html + END_TABLE;
}

SxString ZqFleetPage::chart(const char* heading, const char* label, Times times) const {
    double most = 0;
    for (const ZqFleetCourse& course : figures.courses)
        if ((course.*times).size() > LAST_SHARE) most = std::max(most, (course.*times)[LAST_SHARE]);
    if (most <= 0) return {};
    ZqChart drawn({"Time since the run began", ZqChartAxis::Time, 0, most},
                  {"Runs, %", ZqChartAxis::Count, 0, 100}, CHART_HEIGHT);
    ZqFigure figure;
    figure.heading = heading;
    figure.label = SxString(label) + ", over the time";
    for (size_t i = 0; i < figures.courses.size(); ++i) {
        const std::vector<double>& values = figures.courses[i].*times;
        ZqChart::Points points;
        for (size_t share = 0; share < values.size() && values[share] <= most; ++share)
            points.emplace_back(values[share], static_cast<double>(share));
        if (points.empty()) continue;
        drawn.addLine(points, ZqChart::Straight, INKS[i]);
        figure.keys.push_back(
            {ZqFigure::Line, INKS[i], figures.nameOf(figures.groups[figures.courses[i].group])});
    }
    figure.body = drawn.toSvg();
    figure.height = drawn.getHeight();
    return figure.toHtml();
}

SxString ZqFleetPage::spreadTable(const char* heading, ZqFleetSpread ZqFleetGroup::*spread,
                                  SxString (*show)(double value)) const {
    if ((figures.all.*spread).n == 0) return {};
    SxString html = beginTable(heading, {}, {"Runs", "Median", "90 %", "99 %"});
    for (size_t i = 0; i < figures.groups.size(); ++i) {
        const ZqFleetSpread& values = figures.groups[i].*spread;
        if (values.n == 0) continue;
        const bool isFew = values.n < FEW;
        html += "<tr>" + nameCell(i) + cell(ZqReadable::count(values.n)) + cell(show(values.median)) +
                cell(show(values.ninety), isFew) + cell(show(values.ninetyNine), isFew) + "</tr>\n";
    }
    return html + END_TABLE;
}

SxString ZqFleetPage::accuracyTable() const {
    if (figures.all.nJudged == 0) return {};
    SxString html =
        beginTable("Accuracy of the order",
                   "Of what the ordered download brought: read later in the run, or never. Of what "
                   "runs read: not there yet at its first read.",
                   {"Runs", "Used", "Unused", "Late"});
    for (size_t i = 0; i < figures.groups.size(); ++i) {
        const ZqFleetGroup& group = figures.groups[i];
        if (group.nJudged == 0) continue;
        html += "<tr>" + nameCell(i) + cell(ZqReadable::count(group.nJudged)) +
                cell(percent(group.earlyUsed, group.brought)) +
                cell(percent(group.earlyUnused, group.brought)) + cell(percent(group.late, group.read)) +
                "</tr>\n";
    }
    return html + END_TABLE;
}

SxString ZqFleetPage::exitTable() const {
    SxString html = beginTable("How runs ended", {},
                               {"Runs", "Exit code not 0", "Start failed", "End failed", "Stopped"});
    for (size_t i = 0; i < figures.groups.size(); ++i) {
        const ZqFleetGroup& group = figures.groups[i];
        html += "<tr>" + nameCell(i) + cell(ZqReadable::count(group.nRuns)) +
                cell(percent(group.nNonZero, group.nExits)) + cell(percent(group.nStartErr, group.nRuns)) +
                cell(percent(group.nEndErr, group.nRuns)) + cell(percent(group.nStopped, group.nStopKnown)) +
                "</tr>\n";
    }
    return html + END_TABLE;
}
