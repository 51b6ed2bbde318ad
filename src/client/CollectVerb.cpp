#include "App.h"
#include "Job.h"
#include "PrivateFolder.h"
#include "Verbs.h"

#include <tavrin/SxFileInfo.h>
#include <tavrin/ZqFleet.h>
#include <tavrin/ZqFleetPage.h>
#include <tavrin/ZqFleetText.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqRecordFile.h>

namespace {
constexpr const char* UNIT = "src/client/CollectVerb";

struct CollectOptions {
    SxList<SxString> paths;
    SxString by, page, store, parquet;
};

using Symbol = SxParserKit::SxSymbol;

struct Way {
    const char* word;
    ZqFleetBy by;
};
constexpr Way WAYS[] = {{"build", ZqFleetBy::Build},
                        {"order", ZqFleetBy::Order},
                        {"link", ZqFleetBy::Link},
                        {"system", ZqFleetBy::System}};

ZqFleetBy toWay(const SxString& word) {
    for (const Way& way : WAYS)
        if (word == way.word) return way.by;
    return ZqFleetBy::BuildAndOrder;
}

// As JSON.

void append(Symbol* group, const char* key, const ZqFleetSpread& spread, bool isWhole) {
    if (spread.n == 0) return;
    Symbol object = group->append(key, SxParserAst::Object);
    object.append("runs", spread.n);
    const std::pair<const char*, double> values[] = {
        {"median", spread.median}, {"p90", spread.ninety}, {"p99", spread.ninetyNine}};
    for (const auto& [name, value] : values) {
        if (isWhole) {
            object.append(name, ZqReadable::whole(value));
        } else {
            object.append(name, value);
        }
    }
}

double share(double part, double whole) {
    return whole > 0 ? part / whole : 0;
}

void appendAccuracy(Symbol* group, const ZqFleetGroup& runs) {
    if (runs.nJudged == 0) return;
    Symbol object = group->append("accuracy", SxParserAst::Object);
    object.append("runs", runs.nJudged);
    if (runs.brought > 0) {
        object.append("earlyUsed", share(runs.earlyUsed, runs.brought));
        object.append("earlyUnused", share(runs.earlyUnused, runs.brought));
    }
    if (runs.read > 0) object.append("late", share(runs.late, runs.read));
}

void appendExits(Symbol* group, const ZqFleetGroup& runs) {
    Symbol object = group->append("exits", SxParserAst::Object);
    object.append("known", runs.nExits);
    object.append("nonZero", runs.nNonZero);
    object.append("startErr", runs.nStartErr);
    object.append("endErr", runs.nEndErr);
    object.append("stoppedKnown", runs.nStopKnown);
    object.append("stopped", runs.nStopped);
}

SxString toLine(const ZqFleetGroup& runs, ZqFleetBy by) {
    Symbol group;
    group.setType(SxParserAst::Object);
    const bool isBoth = by == ZqFleetBy::BuildAndOrder;
    if (isBoth || by == ZqFleetBy::Build) group.append("build", runs.build);
    if (isBoth || by == ZqFleetBy::Order) group.append("order", runs.order);
    if (by == ZqFleetBy::Link) group.append("link", runs.link);
    if (by == ZqFleetBy::System) group.append("system", runs.system);
    group.append("runs", runs.nRuns);
    append(&group, "startMs", runs.start, true);
    append(&group, "firstFrameMs", runs.frame, true);
    append(&group, "nUnderflows", runs.underflows, true);
    append(&group, "avgSpeed", runs.speed, false);
    append(&group, "preloadSize", runs.prefix, true);
    appendAccuracy(&group, runs);
    appendExits(&group, runs);
    return group.toJson() + "\n";
}

// For people.

constexpr int64 NAME_WIDTH = 40;

using ZqFleetText::duration, ZqFleetText::number, ZqFleetText::speed, ZqFleetText::percent;

/// The first `width` characters, or with spaces up to them.
SxString fitted(const SxString& text, int64 width, bool isRight) {
    SxString result = text.makeVisible();
    if (result.getSize() > width) result.updateNChars(width);
    const SxString room(std::string(static_cast<size_t>(width - result.getSize()), ' '));
    return isRight ? room + result : result + room;
}

SxString line(const SxString& name, const std::vector<SxString>& cells) {
    SxString text = fitted(name, NAME_WIDTH, false);
    for (const SxString& cell : cells)
        text += " " + fitted(cell, 13, true);
    return text;
}

struct Figure {
    const char* name;
    ZqFleetSpread ZqFleetGroup::*spread;
    SxString (*show)(double value);
};
const Figure FIGURES[] = {{"Time to start", &ZqFleetGroup::start, duration},
                          {"Time to the first frame", &ZqFleetGroup::frame, duration},
                          {"Underflows", &ZqFleetGroup::underflows, number},
                          {"Growth of the image", &ZqFleetGroup::speed, speed},
                          {"Needed for the start", &ZqFleetGroup::prefix, readableBytes}};

void tellSpread(const ZqFleetFigures& figures, const Figure& figure, Output* out) {
    if ((figures.all.*figure.spread).n == 0) return;
    out->text("");
    out->text(line(figure.name, {"runs", "median", "90 %", "99 %"}));
    for (const ZqFleetGroup& group : figures.groups) {
        const ZqFleetSpread& spread = group.*figure.spread;
        if (spread.n == 0) continue;
        out->text(
            line("  " + figures.nameOf(group), {ZqReadable::count(spread.n), figure.show(spread.median),
                                                figure.show(spread.ninety), figure.show(spread.ninetyNine)}));
    }
}

void tellAccuracy(const ZqFleetFigures& figures, Output* out) {
    if (figures.all.nJudged == 0) return;
    out->text("");
    out->text(line("Order", {"runs", "brought, used", "unused", "read late"}));
    for (const ZqFleetGroup& group : figures.groups) {
        if (group.nJudged == 0) continue;
        out->text(line("  " + figures.nameOf(group),
                       {ZqReadable::count(group.nJudged), percent(group.earlyUsed, group.brought),
                        percent(group.earlyUnused, group.brought), percent(group.late, group.read)}));
    }
}

void tellExits(const ZqFleetFigures& figures, Output* out) {
    out->text("");
    out->text(line("Ends", {"runs", "exit not 0", "start failed", "end failed", "stopped"}));
    for (const ZqFleetGroup& group : figures.groups) {
        out->text(line("  " + figures.nameOf(group),
                       {ZqReadable::count(group.nRuns), percent(group.nNonZero, group.nExits),
                        percent(group.nStartErr, group.nRuns), percent(group.nEndErr, group.nRuns),
                        percent(group.nStopped, group.nStopKnown)}));
    }
}

void tell(const ZqFleetFigures& figures, Output* out) {
    SxString first = ZqReadable::counted(figures.all.nRuns, "run", "runs");
    if (figures.firstMs > 0) {
        first += " from " + ZqReadable::date(figures.firstMs) + " to " + ZqReadable::date(figures.lastMs);
    }
    out->text(first + ", of " + ZqReadable::counted(figures.nRecords, "record", "records") + " in " +
              ZqReadable::counted(figures.nFiles, "file", "files") +
              SxString::sprintf(", read in %.2f s, counted in %.2f s.", figures.loadSec, figures.countSec));
    for (const Figure& figure : FIGURES)
        tellSpread(figures, figure, out);
    tellAccuracy(figures, out);
    tellExits(figures, out);
    const int64 nLeftOut = figures.nGroups - static_cast<int64>(figures.groups.size());
    if (nLeftOut > 0)
        out->text("And " + ZqReadable::counted(nLeftOut, "smaller group", "smaller groups") + ".");
}

/// On standard error, so that what is counted doesn't mix with what isn't.
void tellFaults(const ZqFleetFigures& figures) {
    if (figures.nBad == 0) return;
    const auto nShown = static_cast<int64>(figures.faults.size());
    Output::failure(ZqReadable::counted(figures.nBad, "record was", "records were") + " not taken" +
                    (nShown < figures.nBad ? SxString("; the first ") + nShown + ":" : SxString(":")));
    for (const ZqFleetFault& fault : figures.faults) {
        const SxString place = fault.line > 0 ? SxString(", line ") + fault.line : SxString();
        Output::failure("'" + fault.file + "'" + place + ": " + fault.text);
    }
}

void requireOutputs(const CollectOptions& options) {
    if (options.page.isEmpty()) return;
    requirePlainFile(options.page, "page", {});
    if (!options.store.isEmpty() &&
        SxFileInfo(options.page).getAbsPath() == SxFileInfo(options.store).getAbsPath())
        throw SxException("The page and the store can't be the same file", UNIT, __LINE__);
}

int collect(const CollectOptions& options, Output& out) {
    requireOutputs(options);
    const PrivateFolder scratch;
    ZqFleet::Settings settings;
    settings.paths = options.paths;
    settings.by = toWay(options.by);
    settings.scratch = scratch.path;
    settings.store = options.store;
    settings.parquet = options.parquet;
    if (!options.page.isEmpty()) settings.outputs.append(options.page);
    ZqFleet job(settings);
    try {
        runJob(&job, "collect", out);
    } catch (const SxException&) {
        tellFaults(job.getFigures());
        throw;
    }
    const ZqFleetFigures& figures = job.getFigures();
    if (!options.page.isEmpty()) ZqRecordFile::writeText(ZqFleetPage(figures).toHtml(), options.page);
    if (out.getMode().json) {
        for (const ZqFleetGroup& group : figures.groups)
            out.listing(toLine(group, figures.by));
    }
    tell(figures, &out);
    tellFaults(figures);
    return ExitSuccess;
}

} // namespace

void registerCollectVerb(Family* stats) {
    auto options = SxPtr<CollectOptions>::create();
    SxList<SxString> words;
    for (const Way& way : WAYS)
        words.append(way.word);
    stats
        ->verb("collect", "Make figures of the runs of a fleet",
               "tavrin stats collect /srv/statistics --page fleet.html")
        .arguments(
            "PATH", &options->paths,
            "Files with records of runs, one in a file or one a line, and folders with such files below")
        .choice("--by", &options->by, words, "What runs are put into groups by; else by build and order")
        .text("--page", &options->page, "FILE", "Write the figures to this file, as one page of HTML")
        .text("--store", &options->store, "FILE", "Keep the runs in this file, and count those in it, too")
        .text("--parquet", &options->parquet, "DIR",
              "Write the runs to DIR/runs.parquet; DIR is new or empty")
        .action([options](Output& out) { return collect(*options, out); });
}
