#include "App.h"
#include "Job.h"
#include "RunTexts.h"
#include "Verbs.h"

#include <tavrin/SxFSAction.h>
#include <tavrin/ZqAppParams.h>
#include <tavrin/ZqHttpLimits.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>
#include <tavrin/ZqImageReport.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqReportSections.h>
#include <tavrin/ZqRunRecord.h>
#include <tavrin/ZqStatsConsent.h>
#include <tavrin/ZqUrlText.h>

namespace {
constexpr const char* UNIT = "src/client/StatsVerbs";

struct ShowOptions {
    SxString image;
    int64 last = 1;
};

struct UploadOptions {
    SxString image, url;
    SxList<SxString> headers, sections;
    bool update = false, dryRun = false;
};

SxString bytes(uint64 n) {
    return readableBytes(static_cast<double>(n));
}

SxString bytes(int64 n) {
    return readableBytes(static_cast<double>(n));
}

SxString share(uint64 part, uint64 whole) {
    return SxString::sprintf("%.0f %%", ZqReadable::percentage(part, static_cast<int64>(whole)));
}

void row(const char* name, const SxString& value, Output* out) {
    out->text(SxString::sprintf("  %-26s", name) + value);
}

/// How good the order was, in the run's bytes.
void tellAccuracy(const ZqRunRecord& run, Output* out) {
    const ZqRunAccuracy& found = run.accuracy;
    if (found.nWaits) {
        row("reads that waited",
            SxString(*found.nWaits) + ", " + ZqReadable::seconds(static_cast<int64>(found.waitedMs)) +
                " in all",
            out);
    }
    if (!found.isJudged) {
        row("order",
            run.asOfMs > 0              ? "not judged, since that comes at the end of a run"
            : run.traceFolder.isEmpty() ? "not judged, since the run left no trace"
                                        : "not judged, since the run had gone on with one that was killed",
            out);
        return;
    }
    row("read", bytes(found.nRead), out);
    row("  not there yet", bytes(found.nLate) + " (" + share(found.nLate, found.nRead) + ")", out);
    row("  there before the run", bytes(found.nThereBefore), out);
    row("  there in time", bytes(found.nEarlyUsed), out);
    row("brought in order", bytes(found.nBrought) + ", judged for " + ZqReadable::duration(found.judgedMs),
        out);
    row("  early and used", bytes(found.nEarlyUsed) + " (" + share(found.nEarlyUsed, found.nBrought) + ")",
        out);
    row("  early and unused",
        bytes(found.nEarlyUnused) + " (" + share(found.nEarlyUnused, found.nBrought) + ")", out);
}

SxString endText(const ZqRunRecord& run) {
    if (run.asOfMs > 0)
        return "not told: the run goes on, or was killed; noted " + ZqReadable::date(run.asOfMs);
    if (run.info.startErr) return "failed before the application ran";
    if (run.wasStopped) return run.wasStarted ? "ended by the player" : "stopped by the player";
    SxString text = run.isExitKnown ? SxString("code ") + run.info.exitCode : SxString("code unknown");
    if (run.info.endErr) text += ", the run failed";
    return text;
}

void tellRun(const ZqRunRecord& run, Output* out) {
    const ZqRuntimeInfo& info = run.info;
    out->text("Run of " + ZqReadable::date(info.time0) + ", " + ZqReadable::duration(run.lengthMs));
    row("start of the application", run.startMs >= 0 ? ZqReadable::seconds(run.startMs) : SxString("never"),
        out);
    if (run.firstWindowMs >= 0) row("first window seen", ZqReadable::seconds(run.firstWindowMs), out);
    if (run.firstFrameMs >= 0) row("first frame", ZqReadable::seconds(run.firstFrameMs), out);
    if (run.startMs >= 0)
        row("needed for the start", bytes(info.preloadSize) + " of " + bytes(info.imageSize), out);
    row("received",
        bytes(run.link.nBytes) + (run.image.isPacked ? " (packed)" : "") + ", on demand " +
            bytes(run.link.nOnDemandBytes),
        out);
    row("download", info.downloadComplete ? "complete" : "goes on with the next run", out);
    row("growth of the image", SxString::sprintf("%.1f Mbit/s, at most %.1f", info.avgSpeed, info.maxSpeed),
        out);
    if (run.waits) row("waits for data", waitsText(*run.waits), out);
    row("underflows",
        SxString(info.nUnderflows) + ", the longest " + ZqReadable::seconds(info.maxUnderflowTime), out);
    if (run.wasStarted) tellAccuracy(run, out);
    if (info.coverage)
        row("named by the trace", SxString::sprintf("%.1f %% of the image", *info.coverage * 100), out);
    if (info.patchStats.started) row("patched before", SxString(info.patchStats.timeSec) + " s", out);
    if (info.defragStats.started) row("re-ordered before", SxString(info.defragStats.timeSec) + " s", out);
    if (!run.driveFailure.isEmpty()) row("drive", run.driveFailure.makeVisible(), out);
    row("end", endText(run), out);
}

/// What leaves the machine with each run.
void tellConsent(const SxString& image, Output* out) {
    const SxString folder = ZqImageFolder::prefix(image);
    if (SxFSAction::isGone(folder + ZqImageFiles::APP_JSON)) return;
    std::optional<ZqStatsConsent> consent;
    try {
        consent = ZqStatsConsents::find(ZqAppParams(folder).guid);
    } catch (const SxException& e) {
        Output::failure(e.toString(SxException::ShowMessage, ": "));
        return;
    }
    if (!consent) {
        out->text("Nothing of this application's runs leaves this machine");
        return;
    }
    out->text("Reports of runs go to " + ZqUrlText::of(consent->target.getUrl()) + " with the sections " +
              SxString::join(consent->sections, ", ") + "; `tavrin run --no-stats` ends that");
}

int show(const ShowOptions& options, Output& out) {
    if (!SxFSAction::test_d(options.image)) {
        throw SxException("'" + options.image + "' is no image folder", UNIT, __LINE__);
    }
    SxList<SxException> failures;
    const SxList<ZqRunRecord> runs = ZqRunRecord::readLast(options.image, options.last, &failures);
    for (const ZqRunRecord& run : runs) {
        if (out.getMode().json) out.listing(run.toJson().toJson().str() + "\n");
        tellRun(run, &out);
    }
    for (const SxException& failure : failures)
        Output::failure(failure.toString(SxException::ShowMessage, ": "));
    if (runs.isEmpty() && failures.isEmpty())
        out.text("There is no record of a run of '" + options.image + "'");
    tellConsent(options.image, &out);
    return failures.isEmpty() ? ExitSuccess : ExitFailure;
}

int upload(const UploadOptions& options, Output& out) {
    if (!SxFSAction::test_d(options.image)) {
        throw SxException("'" + options.image + "' is no image folder", UNIT, __LINE__);
    }
    const ZqReportTarget target(options.url, options.headers);
    const SxList<SxString> sections = ZqReportSections::of(options.sections);
    ZqImageReport report(options.image);
    const SxString unknown = report.takeFacts();
    if (!unknown.isEmpty()) out.finding("The drive service tells no version: " + unknown);
    if (options.dryRun) {
        out.raw(report.toDocument(sections, options.update).toJson(4).str() + "\n");
        return ExitSuccess;
    }
    const StopSignals signals;
    ZqHttpLimits limits;
    limits.stop = [&] { return signals.isAsked(); };
    report.send(target, sections, options.update, limits);
    out.text("Sent to " + ZqUrlText::of(options.url) + "; the figures are from " + report.getSource());
    return ExitSuccess;
}
} // namespace

void registerStatsVerbs(App* app) {
    Family family = app->family("stats", "What runs were like, and what is told of them");
    static ShowOptions shown;
    family
        .verb("show", "Show how the last runs of an image went, and what is told of them",
              "tavrin stats show IMAGE")
        .argument("IMAGE", &shown.image, "Image folder")
        .integer("--last", &shown.last, 1, ZqRunRecord::KEPT, "So many runs; 1 where not given")
        .action([](Output& out) { return show(shown, out); });
    static UploadOptions sent;
    family
        .verb("upload", "Send the figures of an image's last run to a statistics service, once",
              "tavrin stats upload IMAGE --url https://example.org/runs --dry-run")
        .argument("IMAGE", &sent.image, "Image folder")
        .text("--url", &sent.url, "URL", "Address of the service; {{ID}} and {{TOKEN}} stand for the run's",
              true)
        .headers("--header", &sent.headers, "Send this line with the request")
        .choices("--section", &sent.sections, ZqReportSections::all(),
                 "What is told; rt, dl, odr, trc and prep where not given")
        .flag("--update", &sent.update, "A later report of the run, by PATCH")
        .flag("--dry-run", &sent.dryRun, "Show what would be sent, and open no connection")
        .action([](Output& out) { return upload(sent, out); });
    registerHardwareVerb(&family);
    registerCollectVerb(&family);
}
