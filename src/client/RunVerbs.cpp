#include "RunVerbs.h"
#include "App.h"
#include "Forecast.h"
#include "Job.h"
#include "Progress.h"
#include "Verbs.h"

#include <tavrin/SxTime.h>
#include <tavrin/ZqImageStaging.h>
#include <tavrin/ZqLaunchCommand.h>
#include <tavrin/ZqReadable.h>
#include <tavrin/ZqRecordFile.h>
#include <tavrin/ZqReportSections.h>
#include <tavrin/ZqRun.h>
#include <tavrin/ZqRunPage.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>

namespace {
constexpr const char* UNIT = "src/client/RunVerbs";
constexpr int64 LOOK_MS = 100;
constexpr int64 MS_PER_S = 1000;
constexpr int64 MOST_SECONDS = 1'000'000, MOST_TRACES = 1'000'000;
/// From one look at the job's end to the next. Each wakes the machine, for as long as somebody plays, and the
/// end of a run needn't be seen sooner.
constexpr int64 END_LOOK_MS = 50;

struct RunOptions {
    SxString image, url, report, page, runner;
    SxList<SxString> headers;
    ZqStatsWish stats;
    uint64 rate = 0;
    bool now = false, keepMounted = false, complete = false, noLaunchers = false;
    bool trace = false, noTrace = false;
    int64 nTraces = ZqRun::N_TRACES, traceSeconds = ZqRun::TRACE_MS / MS_PER_S;
};

SxString phaseText(ZqRun::Phase phase) {
    constexpr std::array<const char*, 9> TEXTS = {"opening", "loading", "mounting",   "preparing", "running",
                                                  "running", "feeding", "completing", "ending"};
    return TEXTS[static_cast<size_t>(phase)];
}

/// What stands in front of the numbers of the progress line.
SxString statusText(ZqRun::Phase phase, const ZqFeedStatus& status) {
    if (!status.waiting.isEmpty()) return status.waiting;
    SxString text = phaseText(phase);
    if (phase < ZqRun::Running && status.startEta > 0) {
        text += SxString(", start in ") + status.startEta + " s";
    }
    if (status.isUnderflow) text += ", the application waits for data";
    if (status.isChecking) text += ", checking the image";
    if (status.nShort > 0) {
        text += SxString::sprintf(", needs %.0f MB more on the disk",
                                  std::ceil(static_cast<double>(status.nShort) / 1e6));
    }
    return text;
}

SxString seconds(int64 ms) {
    return SxString::sprintf("%.2f s", static_cast<double>(ms) / 1e3);
}

void tellFigures(const ZqRun::Result& result, Output* out) {
    const ZqRuntimeInfo& info = result.info;
    if (result.startMs >= 0) out->text("  start of the application  " + seconds(result.startMs));
    if (result.firstFrameMs >= 0) out->text("  first frame               " + seconds(result.firstFrameMs));
    out->text("  there at the start        " + readableBytes(static_cast<double>(info.preloadSize)) + " of " +
              readableBytes(static_cast<double>(info.imageSize)));
    out->text("  received                  " + readableBytes(static_cast<double>(result.link.nBytes)) +
              (result.image.isPacked ? " (packed)" : "") + ", on demand " +
              readableBytes(static_cast<double>(result.link.nOnDemandBytes)) + ", twice " +
              readableBytes(static_cast<double>(result.image.nTwice)));
    out->text(SxString("  on-demand requests        ") + info.nOnDemandFetches + ", " + info.avgOnDemandTime +
              " ms each, the longest " + info.maxOnDemandTime + " ms");
    if (info.nHinted > 0) {
        out->text(SxString("  fetched by hints          ") +
                  ZqReadable::counted(info.nHinted, "stretch", "stretches") + ", of which " +
                  info.nHintsUsed + " were read");
    }
    out->text(SxString("  underflows                ") + info.nUnderflows + ", the longest " +
              seconds(info.maxUnderflowTime));
    out->text("  download                  " +
              SxString(info.downloadComplete ? "complete" : "goes on with the next run") + ", " +
              SxString::sprintf("%.1f Mbit/s", info.avgSpeed));
    if (!result.traceFolder.isEmpty()) out->text("  trace                     " + result.traceFolder);
    if (!result.mountPath.isEmpty()) out->text("  the drive stays at        " + result.mountPath);
}

/// How to get what is missing of the image.
void tellMissing(const ZqRun::Result& result, const SxString& image, Output* out) {
    if (result.nMissing == 0) return;
    out->text(readableBytes(static_cast<double>(result.nMissing)) + " are still missing; `tavrin fetch " +
              image.makeVisible() + "` downloads them");
}

/// Tells once, when the speed of the download is known and the start is still to come, or was one at once,
/// what the load profile says of it.
class ForecastLine {
public:
    ForecastLine(bool startsAtOnce_, Output* out_) : startsAtOnce(startsAtOnce_), out(out_) {}

    void look(const ZqRun& job, const ZqFeedStatus& status, Progress* progress) {
        const ZqRun::Phase phase = job.getPhase();
        const bool isAhead = phase > ZqRun::Opening && phase < ZqRun::Running;
        if (told || status.nCurrent >= status.nTotal || !(status.speed > 0)) return;
        if (!isAhead && !(startsAtOnce && phase == ZqRun::Running)) return;
        told = true;
        const double mbit = status.speed / BYTES_PER_MBIT;
        const ZqStartForecast forecast = job.forecast(mbit);
        progress->finish();
        out->text(SxString::sprintf("At %.1f Mbit/s: ", mbit) + safeStartText(forecast));
        if (forecast.untilSafe > 0) out->text("  " + earlyStartText(forecast));
        out->flush();
    }

private:
    static constexpr double BYTES_PER_MBIT = 125'000;

    const bool startsAtOnce;
    Output* const out;
    bool told = false;
};

/// Whether the run records; empty where that is as always.
SxString traceText(const ZqTracePolicy::Decision& decision) {
    static_assert(ZqTracePolicy::N_ENOUGH == 5 && ZqTracePolicy::EVERY == 10, "the text says so");
    switch (decision.reason) {
    case ZqTracePolicy::Wished:
        return decision.records ? "Records which blocks are read, as --trace says."
                                : "Records no trace, as --no-trace says.";
    case ZqTracePolicy::Few:
        return "Records which blocks are read: " + SxString(decision.nSound) +
               " of 5 traces of this build are there.";
    case ZqTracePolicy::Turn:
        return "Records which blocks are read: five traces of this build are there, and every tenth run "
               "records.";
    case ZqTracePolicy::Enough:
        return "Records no trace: five traces of this build are there. Every tenth run records.";
    case ZqTracePolicy::Partial:
        break;
    }
    return {};
}

/// Tells that once it is decided.
class TraceLine {
public:
    explicit TraceLine(Output* out_) : out(out_) {}

    void look(const ZqRun& job, Progress* progress) {
        if (told) return;
        const std::optional<ZqTracePolicy::Decision> decision = job.getTraceDecision();
        if (!decision) return;
        told = true;
        const SxString line = traceText(*decision);
        if (line.isEmpty()) return;
        progress->finish();
        out->text(line);
        out->flush();
    }

private:
    Output* const out;
    bool told = false;
};

/// Shows the run until it has ended; `look` is called between, and at the end.
void followRun(ZqRun* job, const SxString& image, Output& out,
               const std::function<void(const ZqFeedStatus& status, Progress* progress)>& look) {
    StopSignals signals;
    Progress progress(out.getMode(), "opening");
    job->start();
    bool toldLoss = false, toldCarried = false;
    while (!SxWait::pass(
        LOOK_MS, [&] { return !job->isRunning(); }, END_LOOK_MS)) {
        if (signals.isAsked()) job->stop();
        const ZqFeedStatus status = job->getStatus();
        progress.setLabel(statusText(job->getPhase(), status));
        progress.update(status.isChecking ? status.nChecked : status.nCurrent, status.nTotal);
        if (!toldCarried && !status.carried.isEmpty()) {
            toldCarried = true;
            progress.finish();
            out.text(status.carried);
        }
        look(status, &progress);
        if (toldLoss || !job->hasLostWrites()) continue;
        toldLoss = true;
        progress.finish();
        Output::failure(lostWritesText(image));
    }
    // A run can be over before anybody has looked.
    look(job->getStatus(), &progress);
    progress.finish();
    job->wait();
    if (!toldLoss && job->hasLostWrites()) Output::failure(lostWritesText(image));
    // Told here where it isn't what has ended the run.
    const SxString failure = job->getResult().driveFailure;
    if (!failure.isEmpty() && job->hasException() && !job->getException().hasTag(ZqRun::DRIVE_FAILED))
        Output::failure("A read or write of the drive of '" + image + "' has failed: " + failure);
}

/// Where one of the two files can't be written, the other one is written all the same, and what has ended the
/// run is still told.
void writeFiles(const ZqRun& job, const RunOptions& options) {
    SxList<SxException> failures;
    const auto attempt = [&](const SxString& file, const std::function<void()>& write) {
        if (file.isEmpty()) return;
        try {
            write();
        } catch (const SxException& e) {
            failures << SxException(e, "Failed to write file " + file, UNIT, __LINE__);
        }
    };
    attempt(options.report, [&] { ZqRecordFile::write(job.toJson(), options.report); });
    attempt(options.page, [&] {
        const SxString failure =
            job.hasException() ? job.getException().toString(SxException::ShowMessage, ": ") : SxString();
        ZqRecordFile::writeText(ZqRunPage(job.getResult(), failure).toHtml(), options.page);
    });
    for (const SxException& e : failures) {
        // The last one is the verb's failure, unless the run has one.
        if (!job.hasException() && &e == &failures.last()) throw SxException(e);
        Output::failure(e.toString(SxException::ShowMessage, ": "));
    }
}

ZqRun::Settings settingsOf(const RunOptions& options) {
    ZqRun::Settings settings;
    if (options.trace) settings.tracing = ZqTracePolicy::Always;
    if (options.noTrace) settings.tracing = ZqTracePolicy::Never;
    settings.traceMs = options.traceSeconds * MS_PER_S;
    settings.nTraces = options.nTraces;
    settings.feed.image = options.image;
    settings.feed.url = options.url;
    settings.feed.headers = SxArray<SxString>(options.headers);
    settings.feed.rateLimit = options.rate;
    settings.startsAtOnce = options.now;
    settings.stats = options.stats;
    settings.noLaunchers = options.noLaunchers;
    settings.runner = options.runner;
    settings.keepsMounted = options.keepMounted;
    settings.completes = options.complete;
    if (const char* file = std::getenv("TAVRIN_FIRST_FRAME")) settings.firstFrameFile = file;
    return settings;
}

int run(const RunOptions& options, Output& out) {
    if (options.trace && options.noTrace) {
        Output::failure("Give one of both: --trace or --no-trace");
        return ExitUsage;
    }
    refuseForeignFolder(options.image);
    if (!options.report.isEmpty()) requirePlainFile(options.report, "report", {options.image});
    if (!options.page.isEmpty()) {
        requirePlainFile(options.page, "page", {options.image});
        if (!options.report.isEmpty() && ZqImageStaging::liesIn(options.page, options.report)) {
            throw SxException("The page and the report can't be the same file", UNIT, __LINE__);
        }
    }
    ZqRun job(settingsOf(options));
    ForecastLine forecast(options.now, &out);
    TraceLine trace(&out);
    followRun(&job, options.image, out, [&](const auto& status, Progress* progress) {
        trace.look(job, progress);
        forecast.look(job, status, progress);
    });
    const ZqRun::Result& result = job.getResult();
    if (result.wasStarted) {
        out.text(result.isExitKnown ? SxString("The application has ended with code ") + result.info.exitCode
                                    : SxString("The application has ended; its exit code is unknown"));
        tellFigures(result, &out);
        tellMissing(result, options.image, &out);
    }
    if (!result.missed.isEmpty()) {
        out.finding("The process '" + result.missed.makeVisible() +
                    "', which app.json names as the application, was never found");
    }
    if (out.getMode().json) out.object(job.toJson());
    if (result.lacksTraceRoom) {
        out.finding("The disk of '" + options.image + "' is full: this run has left no trace");
    }
    if (result.wasBusy) {
        out.finding("A process still had files of the drive open when it was taken away; what it wrote after "
                    "that is lost");
    }
    if (!result.unwritten.isEmpty()) Output::failure(result.unwritten);
    if (!result.unsent.isEmpty()) {
        Output::failure("Not all reports of runs could be sent: " + result.unsent);
    }
    if (!result.lostLetter.isEmpty()) {
        out.finding("The runner has taken the drive letter " + result.lostLetter +
                    "; what is noted of it in the prefix leads elsewhere");
    }
    writeFiles(job, options);
    if (job.hasException()) raiseHinted(job.getException());
    return ExitSuccess;
}

int fetch(const RunOptions& options, Output& out) {
    refuseForeignFolder(options.image);
    ZqRun::Settings settings;
    settings.feed.image = options.image;
    settings.feed.url = options.url;
    settings.feed.headers = SxArray<SxString>(options.headers);
    settings.feed.rateLimit = options.rate;
    settings.feed.job = "fetch";
    settings.feed.isDownloadOnly = true;
    ZqRun job(settings);
    followRun(&job, options.image, out, [](const auto&, Progress*) {});
    const ZqRun::Result& result = job.getResult();
    if (out.getMode().json) out.object(job.toJson());
    tellMissing(result, options.image, &out);
    if (job.hasException()) throw job.getException();
    out.text("The image is complete: " + exactBytes(static_cast<uint64>(result.info.imageSize)) + ", " +
             readableBytes(static_cast<double>(result.link.nBytes)) + " received" +
             (result.image.isPacked ? " (packed)" : "") +
             SxString::sprintf(", in %.1f s.", static_cast<double>(result.lengthMs) / 1e3));
    return ExitSuccess;
}
} // namespace

SxString lostWritesText(const SxString& image) {
    return "What programs wrote to the former drive of '" + image +
           "' may be lost as far as they hadn't synced it: its service was killed, or somebody has taken it "
           "away";
}

void raiseHinted(const SxException& failure) {
    if (!failure.hasTag(ZqLaunchCommand::NOT_INSTALLED)) throw SxException(failure);
    throw SxException(
        failure,
        "The title's launcher isn't installed here; --no-launchers leaves it out, and starts the "
        "title itself",
        UNIT, __LINE__);
}

int mountFed(const FedMount& mount, Output& out, const std::function<void()>& tell) {
    refuseForeignFolder(mount.image);
    ZqRun::Settings settings;
    settings.feed.image = mount.image;
    settings.feed.url = mount.url;
    settings.feed.headers = SxArray<SxString>(mount.headers);
    settings.feed.job = "mount";
    settings.isDriveOnly = true;
    settings.mountMode = mount.mode;
    settings.traceFolder = mount.trace;
    settings.noLaunchers = mount.noLaunchers;
    ZqRun job(settings);
    bool told = false;
    followRun(&job, mount.image, out, [&](const auto&, Progress*) {
        if (told || job.getPhase() != ZqRun::Feeding) return;
        told = true;
        tell();
        // Whoever reads it through a pipe needs it while the drive is there.
        out.flush();
    });
    if (job.hasException()) raiseHinted(job.getException());
    return ExitSuccess;
}

void registerRunVerbs(App* app) {
    static RunOptions options;
    app->verb("run", "Play an image while it is still downloaded",
              "tavrin run IMAGE --url https://example.org/game/")
        .argument("IMAGE", &options.image, "Image folder; may be empty or absent at first")
        .text("--url", &options.url, "FOLDER_URL", "Where the image comes from; noted in IMAGE")
        .headers("--header", &options.headers, "Send this line with each request")
        .flag("--now", &options.now, "Start at once, and don't wait until enough is downloaded")
        .number("--rate", &options.rate, 1, "Download with at most that many bytes a second")
        .flag("--keep-mounted", &options.keepMounted,
              "Complete the image when the application has ended, and leave the drive")
        .flag("--complete", &options.complete,
              "Complete the image when the application has ended, and then take the drive away")
        .flag("--no-launchers", &options.noLaunchers,
              "Start the title itself, and leave the launchers of this machine alone")
        .text("--runner", &options.runner, "PROGRAM",
              "What starts Windows programs in Wine's place, such as umu-run")
        .flag("--trace", &options.trace, "Record a trace of the run, however many there are")
        .flag("--no-trace", &options.noTrace, "Record no trace of the run")
        .integer("--trace-seconds", &options.traceSeconds, 0, MOST_SECONDS,
                 "Record for so many seconds of play; 600 where not given, 0 for all of it")
        .integer("--keep-traces", &options.nTraces, 0, MOST_TRACES,
                 "Keep the traces of the last N runs; 20 where not given, 0 for all")
        .text("--stats-url", &options.stats.url, "URL",
              "Consent to reports of this application's runs to this address, from now on")
        .headers("--stats-header", &options.stats.headers, "Send this line with each report")
        .choices("--stats-section", &options.stats.sections, ZqReportSections::all(),
                 "What reports tell; rt, dl, odr, trc and prep where not given")
        .flag("--no-stats", &options.stats.isRefused,
              "Take that consent back, and forget what waits to be sent")
        .text("--report", &options.report, "FILE", "Write the figures of the run to this file, as JSON")
        .text("--page", &options.page, "FILE",
              "Write figures and charts of the run to this file, as one page of HTML")
        .action([](Output& out) { return run(options, out); });
    static RunOptions fetching;
    app->verb("fetch", "Download what is missing of an image, and check it; needs no drive",
              "tavrin fetch IMAGE --url https://example.org/game/")
        .argument("IMAGE", &fetching.image, "Image folder; may be empty or absent at first")
        .text("--url", &fetching.url, "FOLDER_URL", "Where the image comes from; noted in IMAGE")
        .headers("--header", &fetching.headers, "Send this line with each request")
        .number("--rate", &fetching.rate, 1, "Download with at most that many bytes a second")
        .action([](Output& out) { return fetch(fetching, out); });
}
