#include "ZqRunStatistics.h"

#include "BlockIdx.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqImageFeed.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRunDrive.h"
#include "ZqRunRecording.h"
#include "ZqRunResult.h"
#include "ZqRunSettings.h"
#include "ZqRunWait.h"
#include "ZqStatsReporter.h"
#include "ZqSysEnv.h"

namespace {
/// A run is no failure for want of its figures.
void log(const SxException& e) {
    zqLogMsg("base", "ZqRunStatistics: " + e.toString(SxException::ShowMessage, ": "));
}
} // namespace

ZqRunStatistics::ZqRunStatistics(const ZqRunSettings& settings_, ZqImageFeed* feed_, ZqRunWait* waits_,
                                 ZqRunResult* result_)
    : settings(settings_),
      image(settings_.feed.image),
      feed(feed_),
      waits(waits_),
      result(result_),
      reporter(std::make_unique<ZqStatsReporter>()) {
}

ZqRunStatistics::~ZqRunStatistics() = default;

void ZqRunStatistics::check() {
    ZqStatsReporter::check(settings.stats);
    const SxString folder = ZqImageFolder::prefix(image);
    if (!settings.stats.isRefused || SxFSAction::isGone(folder + ZqImageFiles::APP_JSON)) return;
    SxString guid;
    try {
        guid = ZqAppParams(folder).guid;
    } catch (const SxException& e) {
        // The server has another one, or the run fails for it.
        log(e);
        return;
    }
    reporter->open(settings.stats, guid);
}

void ZqRunStatistics::open() {
    isOpen = true;
    if (!known) nBefore = feed->isComplete() ? blocksFor(feed->fileSize()) : feed->countBlocks();
    result->info.path = image;
    result->info.guid = getApp().guid;
    reporter->open(settings.stats, result->info.guid);
}

void ZqRunStatistics::openWithoutFeed() {
    const SxString folder = ZqImageFolder::prefix(image);
    try {
        if (isOpen || SxFSAction::isGone(folder + ZqImageFiles::APP_JSON)) return;
        known = std::make_unique<const ZqAppParams>(folder);
        open();
    } catch (const SxException& e) {
        // What has failed first is told.
        log(e);
    }
}

const ZqAppParams& ZqRunStatistics::getApp() const {
    return known ? *known : feed->getApp();
}

void ZqRunStatistics::traceBegins() {
    // Its times go by the steady clock from there on.
    clockMs = ZqSysEnv::getSysTime() - SxClock::get().steadyMs();
}

void ZqRunStatistics::noteApps() {
    if (!reporter->wantsApps()) return;
    for (const SxString& name : ZqSysEnv::getProgramNames())
        result->info.appsAtStart << name;
}

void ZqRunStatistics::applicationRuns() {
    if (toldStart) return;
    toldStart = true;
    noteVersions();
    reporter->applicationStarts(result->info);
}

/// The service is there now, and may be silent at the run's end.
void ZqRunStatistics::noteVersions() {
    if (!reporter->hasConsent()) return;
    try {
        result->info.zqddVer = ZqMountMgr::getDriveVersion();
        result->info.zqfmVer = ZqMountMgr::getGuardVersion();
    } catch (const SxException& e) {
        log(e);
    }
}

void ZqRunStatistics::endJudgement(int64 elapsedMs) {
    feed->endCursorWay();
    if (judgedMs < 0) judgedMs = elapsedMs;
}

void ZqRunStatistics::finish(const ZqRunDrive& drive, const ZqRunRecording& recording) {
    if (!isOpen) return;
    judge(drive, recording);
    result->writeFiles(image);
    report();
}

void ZqRunStatistics::judge(const ZqRunDrive& drive, const ZqRunRecording& recording) {
    ZqRunAccuracy& accuracy = result->accuracy;
    try {
        // Of a run that was killed nobody knows the way of the cursor.
        if (result->wasStarted && !result->traceFolder.isEmpty() && !result->isTakenOver) {
            const ZqCursorWay way = feed->getCursorWay();
            const bool isCutOff = !drive.wasTraced() && !recording.hasEnded();
            accuracy = ZqRunAccuracy::judge(
                {result->traceFolder, image, blocksFor(getApp().sizeZqf), nBefore, &way, clockMs, isCutOff});
            accuracy.judgedMs = judgedMs;
            result->info.coverage = accuracy.coverage;
        }
        if (result->order.isEmpty())
            result->order = SxMd5::file(ZqImageFolder::prefix(image) + ZqImageFiles::IDX, nullptr);
    } catch (const SxException& e) {
        log(e);
    }
    if (const auto& waited = drive.getWaits()) {
        accuracy.nWaits = waited->n;
        accuracy.waitedMs = waited->ms;
    }
}

void ZqRunStatistics::report() {
    if (result->info.startErr) {
        reporter->hasFailed(result->info);
    } else if (result->wasStarted) {
        applicationRuns(); // where it has ended at once
    }
    reporter->end(result->info, waits->test());
    result->unsent = reporter->getFailure();
    // Later reports may need the tokens.
    const SxMap<SxString, SxString> others = reporter->getOtherTokens();
    for (const SxString& id : others.getKeys()) {
        try {
            ZqRunRecord::noteToken(image, id, others(id));
        } catch (const SxException& e) {
            log(e);
        }
    }
    const SxString token = reporter->getToken();
    if (token.isEmpty()) return;
    result->info.clientToken = token;
    result->rewriteRecord();
}
