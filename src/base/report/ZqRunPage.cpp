#include "ZqRunPage.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessInfo.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqPage.h"
#include "ZqReadable.h"
#include "ZqTracePlot.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr double DOWNLOAD_HEIGHT = 300;
/// Room above what is largest.
constexpr double HEADROOM = 1.04;
constexpr size_t MOST_ROWS = 20;

SxString bytes(int64 n) {
    return ZqReadable::bytes(static_cast<double>(n));
}

SxString bytes(uint64 n) {
    return ZqReadable::bytes(static_cast<double>(n));
}

SxString row(const char* name, const SxString& value) {
    return SxString("<tr><th scope=\"row\">") + name + "</th><td>" + ZqFigure::escape(value) + "</td></tr>\n";
}

int64 waitedMs(const std::vector<ZqRunSeries::Underflow>& underflows) {
    return std::accumulate(underflows.begin(), underflows.end(), int64{0},
                           [](int64 sum, const auto& underflow) { return sum + underflow.waitedMs; });
}

} // namespace

ZqRunPage::ZqRunPage(const ZqRunResult& result_, const SxString& failure_)
    : result(result_),
      failure(failure_) {
}

SxString ZqRunPage::toHtml() const {
    const SxString name = ZqFigure::escape(SxFileInfo(SxFileInfo(result.info.path).getAbsPath()).getName());
    return ZqPage::document("Run of " + name, "<header>\n<h1>Run of " + name + "</h1>\n" + head() + tiles() +
                                                  downloadSection() + readSections() + details());
}

SxString ZqRunPage::head() const {
    SxString text = ZqReadable::date(result.info.time0) + ", " + ZqReadable::duration(result.lengthMs);
    if (!result.wasStarted) {
        text += "; the application was not started";
    } else if (result.isExitKnown) {
        text += "; the application ended with code " + SxProcessInfo::describeExitCode(result.info.exitCode);
    } else if (result.wasStopped) {
        text += "; the player ended it";
    } else {
        text += "; the application's exit code is unknown";
    }
    SxString html = "<p>" + text + "</p>\n</header>\n";
    if (!failure.isEmpty()) html += "<p class=\"failure\">" + ZqFigure::escape(failure) + "</p>\n";
    return html;
}

SxString ZqRunPage::tiles() const {
    const ZqRuntimeInfo& info = result.info;
    SxString html = "<dl class=\"tiles\">\n";
    const auto time = [&](const char* name, int64 ms) {
        if (ms >= 0) html += ZqPage::tile(name, ZqReadable::seconds(ms));
    };
    time("First frame", result.firstFrameMs);
    time("First window", result.firstWindowMs);
    time("Start", result.startMs);
    if (result.startMs >= 0)
        html += ZqPage::tile("Needed for the start", bytes(info.preloadSize), "of " + bytes(info.imageSize));
    html +=
        ZqPage::tile("Received", bytes(result.link.nBytes),
                     (result.image.isPacked ? "packed, " : "") + bytes(result.image.nTwice) + " of it twice");
    html += ZqPage::tile("On demand", bytes(result.link.nOnDemandBytes),
                         ZqReadable::counted(info.nOnDemandFetches, "request", "requests"));
    if (result.waits) {
        html += ZqPage::tile("Waits for data", ZqReadable::count(result.waits->n),
                             "the longest " + ZqReadable::seconds(result.waits->longestMs));
    }
    html += ZqPage::tile("Underflows", ZqReadable::count(info.nUnderflows),
                         "the longest " + ZqReadable::seconds(info.maxUnderflowTime));
    html += ZqPage::tile("Download", info.downloadComplete ? "complete" : "goes on with the next run",
                         result.link.rate > 0 ? SxString::sprintf("the link brought %.1f Mbit/s",
                                                                  result.link.rate / ZqBlocks::PER_MEGABIT)
                                              : SxString());
    if (result.isExitKnown) html += ZqPage::tile("Exit code", SxString(info.exitCode));
    return html + "</dl>\n";
}

ZqChart::Points ZqRunPage::pointsOf(uint64 ZqRunSeries::Sample::*bytes_) const {
    ZqChart::Points points;
    for (const ZqRunSeries::Sample& sample : result.series.getSamples())
        points.emplace_back(static_cast<double>(sample.timeMs), static_cast<double>(sample.*bytes_));
    return points;
}

ZqFigure ZqRunPage::drawDownload() const {
    using Sample = ZqRunSeries::Sample;
    const auto& samples = result.series.getSamples();
    const Sample& last = samples.back();
    const double most = static_cast<double>(std::max({last.nThere, last.nReceived, last.nOnDemand}));
    ZqChart chart({"Time of the run", ZqChartAxis::Time, 0, static_cast<double>(result.lengthMs)},
                  {"Data", ZqChartAxis::Bytes, 0, most * HEADROOM}, DOWNLOAD_HEIGHT);
    ZqFigure figure;
    figure.heading = "Download";
    figure.label = "Bytes that were there, over the time of the run, up to " + bytes(last.nThere);
    chart.addArea(pointsOf(&Sample::nThere), ZqChart::Straight, "there");
    figure.keys.push_back({ZqFigure::Line, "there", "In img.zqf, up to the drive's cursor"});
    if (last.nReceived > 0) {
        chart.addLine(pointsOf(&Sample::nReceived), ZqChart::Straight, "received");
        figure.keys.push_back({ZqFigure::Line, "received", "Received over the link"});
    }
    if (last.nOnDemand > 0) {
        chart.addLine(pointsOf(&Sample::nOnDemand), ZqChart::Steps, "demand");
        figure.keys.push_back({ZqFigure::Line, "demand", "Of that, on demand"});
    }
    for (const ZqRunResult::Wait& wait : result.heldReads) {
        chart.addBand(static_cast<double>(wait.fromMs), static_cast<double>(wait.toMs), "wait",
                      "Waited for data at " + ZqReadable::seconds(wait.fromMs) + ", for " +
                          ZqReadable::seconds(wait.toMs - wait.fromMs));
    }
    if (result.waits && result.waits->n > 0) {
        const bool isPart = static_cast<int64>(result.heldReads.size()) < result.waits->n;
        figure.keys.push_back({ZqFigure::Band, "wait",
                               "Waits for data, " + ZqReadable::seconds(result.waits->sumMs) + " in all" +
                                   (isPart ? ", of which the longest are drawn" : "")});
    }
    const auto& underflows = result.series.getUnderflows();
    for (const ZqRunSeries::Underflow& underflow : underflows) {
        chart.addBand(static_cast<double>(underflow.fromMs), static_cast<double>(underflow.toMs), "underflow",
                      "Underflow at " + ZqReadable::seconds(underflow.fromMs) + ", for " +
                          ZqReadable::seconds(underflow.waitedMs));
    }
    if (!underflows.empty()) {
        figure.keys.push_back({ZqFigure::Band, "underflow",
                               "Underflows, " + ZqReadable::seconds(waitedMs(underflows)) + " in all"});
    }
    const auto mark = [&](int64 ms, const char* ink, const SxString& name) {
        if (ms < 0) return;
        const SxString note = name + ", " + ZqReadable::seconds(ms);
        chart.addMark(static_cast<double>(ms), ink, note);
        figure.keys.push_back({ZqFigure::Mark, ink, note});
    };
    mark(result.mountMs, "drive", "Drive");
    mark(result.startMs, "start", "Start");
    mark(result.firstFrameMs, "frame", "First frame");
    figure.body = chart.toSvg();
    figure.height = chart.getHeight();
    return figure;
}

SxString ZqRunPage::downloadSection() const {
    if (result.series.getSamples().empty()) return {};
    SxString note;
    if (result.isTakenOver)
        note = "<p class=\"note\">The run that began it was killed: what came before isn't drawn.</p>\n";
    return drawDownload().toHtml() + note + underflowTable();
}

SxString ZqRunPage::underflowTable() const {
    const auto& underflows = result.series.getUnderflows();
    if (underflows.empty()) return {};
    std::vector<ZqRunSeries::Underflow> longest(underflows);
    std::stable_sort(longest.begin(), longest.end(),
                     [](const auto& a, const auto& b) { return a.waitedMs > b.waitedMs; });
    SxString html = "<section class=\"card\">\n<h2>Underflows</h2>\n<table>\n"
                    "<tr><th scope=\"col\">At</th><th scope=\"col\">Lasted</th></tr>\n";
    for (size_t i = 0; i < std::min(longest.size(), MOST_ROWS); ++i) {
        const ZqRunSeries::Underflow& underflow = longest[i];
        html += "<tr><td>" + ZqReadable::seconds(underflow.fromMs) + "</td><td>" +
                ZqReadable::seconds(underflow.waitedMs);
        if (underflow.n > 1) {
            html += ", " + ZqReadable::count(underflow.n) + " underflows up to " +
                    ZqReadable::seconds(underflow.toMs);
        }
        html += "</td></tr>\n";
    }
    html += "</table>\n";
    if (longest.size() > MOST_ROWS) {
        html += "<p class=\"note\">And " + ZqReadable::count(static_cast<int64>(longest.size() - MOST_ROWS)) +
                " shorter ones.</p>\n";
    }
    return html + "</section>\n";
}

SxString ZqRunPage::readSections() const {
    if (result.traceFolder.isEmpty()) return {};
    SxString note;
    try {
        ZqTracePlot::Settings settings;
        settings.trace = ZqImageFolder::prefix(result.traceFolder);
        settings.begin = result.info.time0;
        settings.end = result.lengthMs;
        const SxString image = ZqImageFolder::prefix(result.info.path);
        if (SxFSAction::test_f(image + ZqImageFiles::IDX)) {
            settings.image = image;
            settings.download = pointsOf(&ZqRunSeries::Sample::nThere);
        }
        const ZqTracePlot plot(settings);
        SxString html;
        for (const ZqFigure& figure : plot.getFigures())
            html += figure.toHtml();
        if (!html.isEmpty()) return html;
        note = plot.describe() + ".";
    } catch (const SxException& e) {
        note = "The trace of the run can't be shown: " + e.toString(SxException::ShowMessage, ": ");
    }
    return "<section class=\"card\">\n<h2>Blocks over time</h2>\n<p class=\"note\">" +
           ZqFigure::escape(note) + "</p>\n</section>\n";
}

SxString ZqRunPage::details() const {
    const ZqRuntimeInfo& info = result.info;
    SxString html = "<section class=\"card\">\n<h2>Details</h2>\n<table class=\"rows\">\n";
    html += row("Image", info.path);
    html += row("Application", info.guid);
    html += row("There when the run began", bytes(info.dataAtStart));
    html += row("There when it ended", bytes(info.dataAtEnd) + " of " + bytes(info.imageSize));
    html += row("Requests", ZqReadable::count(static_cast<int64>(result.link.nRequests)) + ", tried again " +
                                ZqReadable::count(static_cast<int64>(result.link.nRetries)));
    html += row("On-demand requests",
                SxString(info.avgOnDemandTime) + " ms each, the longest " + info.maxOnDemandTime + " ms");
    if (info.nHinted > 0) {
        html += row("Fetched by hints", ZqReadable::counted(info.nHinted, "stretch", "stretches") +
                                            ", of which " + info.nHintsUsed + " were read");
    }
    html += row("Growth of the image",
                SxString::sprintf("%.1f Mbit/s, at most %.1f Mbit/s", info.avgSpeed, info.maxSpeed));
    if (!result.traceFolder.isEmpty()) html += row("Trace", result.traceFolder);
    if (!result.mountPath.isEmpty()) html += row("The drive stays at", result.mountPath);
    return html + "</table>\n</section>\n";
}
