#include "RunVerbs.h"
#include "App.h"
#include "ClientSettings.h"
#include "GameOutput.h"
#include "Job.h"
#include "Progress.h"
#include "RunShow.h"
#include "RunTexts.h"
#include "Verbs.h"

#include <tavrin/SxProcessInfo.h>
#include <tavrin/ZqImageStaging.h>
#include <tavrin/ZqLaunchCommand.h>
#include <tavrin/ZqRecordFile.h>
#include <tavrin/ZqReportSections.h>
#include <tavrin/ZqRun.h>
#include <tavrin/ZqRunNotices.h>
#include <tavrin/ZqRunPage.h>

#include <cstdlib>
#include <functional>
#include <optional>

namespace {
constexpr const char* UNIT = "src/client/RunVerbs";
constexpr int64 MS_PER_S = 1000;
constexpr int64 MOST_SECONDS = 1'000'000, MOST_TRACES = 1'000'000;

struct RunOptions {
    SxString image, url, report, page, runner;
    NetOptions net;
    ZqStatsWish stats;
    std::optional<uint64> rate;
    bool now = false, keepMounted = false, complete = false, noLaunchers = false;
    bool trace = false, noTrace = false, noVerify = false, noNotify = false;
    int64 nTraces = -1; ///< below 0 where it wasn't given
    int64 traceSeconds = ZqRun::TRACE_MS / MS_PER_S;
};

/// Whether the player has ended the run, once there was an application, and all went well.
bool isEndedByPlayer(const ZqRun& job) {
    const ZqRun::Result& result = job.getResult();
    return result.wasStopped && result.wasStarted && result.missed.isEmpty() && job.hasException() &&
           job.getException().hasTag(SxException::STOPPED) && result.driveFailure.isEmpty();
}

SxString endText(const ZqRun& job) {
    const ZqRun::Result& result = job.getResult();
    if (result.wasStopped && !result.isExitKnown) return "The run was ended by you";
    if (!result.isExitKnown) return "The application has ended; its exit code is unknown";
    return "The application has ended with code " + SxProcessInfo::describeExitCode(result.info.exitCode);
}

/// Where one of the two files can't be written, the other one is written all the same. Gives the failures.
SxList<SxException> writeFiles(const ZqRun& job, const RunOptions& options) {
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
        const bool hasFailed = job.hasException() && !isEndedByPlayer(job);
        const SxString failure =
            hasFailed ? job.getException().toString(SxException::ShowMessage, ": ") : SxString();
        ZqRecordFile::writeText(ZqRunPage(job.getResult(), failure).toHtml(), options.page);
    });
    return failures;
}

/// What has ended the run is told, too: the last failure is the verb's, unless the run has one.
void tellUnwritten(bool hasFailed, const SxList<SxException>& failures) {
    for (const SxException& e : failures) {
        if (!hasFailed && &e == &failures.last()) throw SxException(e);
        Output::failure(e.toString(SxException::ShowMessage, ": "));
    }
}

/// `rate`: of the option, where it was given.
void takeNet(const NetOptions& net, std::optional<uint64> rate, const ClientSettings& own,
             ZqFeedSettings* feed) {
    feed->headers = SxArray<SxString>(net.headers);
    feed->access = net.toWish(own.getAccess());
    feed->rateLimit = rate.value_or(own.getRate());
}

ZqRun::Settings settingsOf(const RunOptions& options, const ClientSettings& own) {
    ZqRun::Settings settings;
    if (options.trace) settings.tracing = ZqTracePolicy::Always;
    if (options.noTrace) settings.tracing = ZqTracePolicy::Never;
    settings.traceMs = options.traceSeconds * MS_PER_S;
    settings.nTraces = options.nTraces < 0 ? own.getNTraces() : options.nTraces;
    settings.feed.image = options.image;
    settings.feed.url = options.url;
    takeNet(options.net, options.rate, own, &settings.feed);
    settings.feed.verifies = !options.noVerify && own.isVerifying();
    settings.startsAtOnce = options.now;
    settings.stats = options.stats;
    settings.noLaunchers = options.noLaunchers;
    settings.runner = options.runner;
    settings.keepsMounted = options.keepMounted;
    settings.completes = options.complete;
    if (const char* file = std::getenv("TAVRIN_FIRST_FRAME")) settings.firstFrameFile = file;
    return settings;
}

/// Why the application couldn't be started; empty where it was, or the player has ended the run before.
SxString startFailure(const ZqRun& job) {
    const ZqRun::Result& result = job.getResult();
    if (result.wasStarted || result.wasStopped || !job.hasException()) return {};
    return job.getException().toString(SxException::ShowMessage, ": ");
}

/// Raises where a file that is to be written at the end couldn't be.
void requireFiles(const RunOptions& options) {
    if (!options.report.isEmpty()) requirePlainFile(options.report, "report", {options.image});
    if (options.page.isEmpty()) return;
    requirePlainFile(options.page, "page", {options.image});
    if (!options.report.isEmpty() && ZqImageStaging::liesIn(options.page, options.report)) {
        throw SxException("The page and the report can't be the same file", UNIT, __LINE__);
    }
}

/// How the run went, and what of it went wrong beside what has ended it.
void tellEnd(const ZqRun& job, const RunOptions& options, const GameOutput& gameOutput, Output* out) {
    const ZqRun::Result& result = job.getResult();
    if (result.wasStarted) {
        out->text(endText(job));
        tellFigures(result, out);
        tellMissing(job, options.image, out);
        gameOutput.tellLast(result);
    }
    if (!result.missed.isEmpty()) {
        out->finding("The process '" + result.missed.makeVisible() +
                     "', which app.json names as the application, was never found");
    }
    if (out->getMode().json) out->object(job.toJson());
    if (result.lacksTraceRoom) {
        out->finding("The disk of '" + options.image + "' is full: this run has left no trace");
    }
    if (result.wasBusy) {
        out->finding(
            "A process still had files of the drive open when it was taken away; what it wrote after "
            "that is lost");
    }
    // Of a run that was refused the reason tells all.
    if (!result.unwritten.isEmpty() && (result.wasStarted || !job.hasException()))
        Output::failure(result.unwritten);
    if (!result.unsent.isEmpty()) {
        Output::failure("Not all reports of runs could be sent: " + result.unsent);
    }
    if (!result.lostLetter.isEmpty()) {
        out->finding("The runner has taken the drive letter " + result.lostLetter +
                     "; what is noted of it in the prefix leads elsewhere");
    }
}

int run(const RunOptions& options, Output& out) {
    if (options.trace && options.noTrace) {
        Output::failure("Give one of both: --trace or --no-trace");
        return ExitUsage;
    }
    refuseForeignFolder(options.image);
    requireFiles(options);
    GameOutput gameOutput(out.getMode());
    const ClientSettings own = ClientSettings::read();
    ZqRun::Settings settings = settingsOf(options, own);
    settings.readsOutput = gameOutput.isShown();
    ZqRun job(settings);
    const RunSignals signals(&job, options.image);
    ForecastLine forecast(options.now, &out);
    TraceLine trace(&out);
    std::optional<ZqRunNotices> notices;
    if (!options.noNotify && own.isNotifying()) notices.emplace(options.image);
    followRun(&job, signals, options.image, options.now, out,
              [&](const auto& status, const auto& estimate, Progress* progress) {
                  trace.look(job, progress);
                  forecast.look(job, status, estimate, progress);
                  gameOutput.look(&job, progress);
                  if (notices) notices->look(job.getPhase(), job.hasStarted(), status);
              });
    if (notices) notices->end(startFailure(job));
    // Before all texts: a terminal that is gone, or stands still, costs no files.
    const SxList<SxException> unwritten = writeFiles(job, options);
    tellEnd(job, options, gameOutput, &out);
    const bool hasFailed = job.hasException() && !isEndedByPlayer(job);
    tellUnwritten(hasFailed, unwritten);
    if (hasFailed) raiseHinted(job.getException());
    return ExitSuccess;
}

int fetch(const RunOptions& options, Output& out) {
    refuseForeignFolder(options.image);
    ZqRun::Settings settings;
    settings.feed.image = options.image;
    settings.feed.url = options.url;
    takeNet(options.net, options.rate, ClientSettings::read(), &settings.feed);
    settings.feed.job = "fetch";
    settings.feed.isDownloadOnly = true;
    ZqRun job(settings);
    const RunSignals signals(&job, options.image, false);
    followRun(&job, signals, options.image, false, out, [](const auto&, const auto&, Progress*) {});
    const ZqRun::Result& result = job.getResult();
    if (out.getMode().json) out.object(job.toJson());
    tellMissing(job, options.image, &out);
    if (job.hasException()) raiseHinted(job.getException());
    out.text("The image is complete: " + exactBytes(static_cast<uint64>(result.info.imageSize)) + ", " +
             readableBytes(static_cast<double>(result.link.nBytes)) + " received" +
             (result.image.isPacked ? " (packed)" : "") +
             SxString::sprintf(", in %.1f s.", static_cast<double>(result.lengthMs) / 1e3));
    return ExitSuccess;
}
} // namespace

void raiseHinted(const SxException& failure) {
    if (failure.hasTag(ZqRun::UNTRUSTED)) {
        throw SxException(failure,
                          "No authority that this system trusts vouches for the server; --cacert FILE names "
                          "another one",
                          UNIT, __LINE__);
    }
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
    takeNet(mount.net, std::nullopt, ClientSettings::read(), &settings.feed);
    settings.feed.job = "mount";
    settings.isDriveOnly = true;
    settings.mountMode = mount.mode;
    settings.traceFolder = mount.trace;
    settings.noLaunchers = mount.noLaunchers;
    ZqRun job(settings);
    const RunSignals signals(&job, mount.image);
    bool told = false;
    followRun(&job, signals, mount.image, false, out, [&](const auto&, const auto&, Progress*) {
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
        .network(&options.net, "Send this line with each request")
        .flag("--now", &options.now, "Start at once, and don't wait until enough is downloaded")
        .rate("--rate", &options.rate, "Download with at most that much a second, as in 20Mbit")
        .flag("--keep-mounted", &options.keepMounted,
              "Complete the image when the application has ended, and leave the drive")
        .flag("--complete", &options.complete,
              "Complete the image when the application has ended, and then take the drive away")
        .flag("--no-launchers", &options.noLaunchers,
              "Start the title itself, and leave the launchers of this machine alone")
        .text("--runner", &options.runner, "PROGRAM",
              "What starts Windows programs in Wine's place, such as umu-run")
        .flag("--no-verify", &options.noVerify,
              "Play a complete image without the comparison with its digest, which is made once")
        .flag("--trace", &options.trace, "Record a trace of the run, however many there are")
        .flag("--no-trace", &options.noTrace, "Record no trace of the run")
        .integer("--trace-seconds", &options.traceSeconds, 0, MOST_SECONDS,
                 "Record for so many seconds of play; 600 where not given, 0 for all of it")
        .integer("--keep-traces", &options.nTraces, 0, MOST_TRACES,
                 "Keep the traces of the last N runs; 20 where not given, 0 for all")
        .flag("--no-notify", &options.noNotify, "Show no notifications of the run on the desktop")
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
        .network(&fetching.net, "Send this line with each request")
        .rate("--rate", &fetching.rate, "Download with at most that much a second, as in 20Mbit")
        .action([](Output& out) { return fetch(fetching, out); });
}
