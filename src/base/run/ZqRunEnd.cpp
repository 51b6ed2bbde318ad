#include "ZqRun.h"

#include "SxClock.h"
#include "SxException.h"
#include "ZqApplicationNote.h"
#include "ZqBlocks.h"
#include "ZqCoreAppGuard.h"
#include "ZqFirstFrame.h"
#include "ZqFirstWindow.h"
#include "ZqGameOutput.h"
#include "ZqHeldReads.h"
#include "ZqImageFeed.h"
#include "ZqImageFolder.h"
#include "ZqOutputKeeper.h"
#include "ZqRunDrive.h"
#include "ZqRunNotes.h"
#include "ZqRunRecording.h"
#include "ZqRunSampler.h"
#include "ZqRunStatistics.h"
#include "ZqRunWait.h"

#include <algorithm>

// What remains of a run: its figures, its record, and the way that its drive goes.

namespace {
constexpr const char* UNIT = "src/base/ZqRunEnd";
constexpr int64 MS_PER_S = 1000, NS_PER_MS = 1'000'000;
/// An application that fails so soon most likely hasn't come to be played, and its last words say why.
constexpr uint64 EARLY_MS = 10'000;
} // namespace

void ZqRun::end() {
    held->end(SxClock::get().steadyNs());
    statistics->endJudgement(elapsedMs());
    if (sampler) result.series = sampler->end();
    phase = Ending;
    fillResult();
    feed->stop();
    result.nMissing = feed->countMissing();
    result.isComplete = feed->isVerified() && result.nMissing == 0;
    try {
        if (guard) {
            guard->stop();
            guard->wait();
            result.info.exitCode = guard->getExitCode();
            result.info.runTime = static_cast<int64>(guard->runTime) / MS_PER_S;
            if (outputKeeper) outputKeeper->letGo();
            note->noteEnd(guard->getGroup());
        }
        const bool keep = settings.keepsMounted && result.wasStarted && feed->isVerified();
        // The play that the trace is of has ended.
        if (keep) waits->patiently([&] { recording->end(); });
        drive->end(keep);
    } catch (const SxException& e) {
        result.info.endErr = true;
        writeInfo();
        throw SxException(e, "The run of '" + image + "' could not be ended cleanly", UNIT, __LINE__);
    }
    writeInfo();
    feed->removeNew();
}

void ZqRun::keepOutput() {
    if (!output->getFile().isEmpty()) outputKeeper = std::make_unique<ZqOutputKeeper>(output);
}

/// After the drive's end, which mustn't wait for a disk that hangs.
void ZqRun::endOutput() {
    if (!outputKeeper) return;
    const SxList<SxString> lastLines = outputKeeper->finish();
    const bool isEarly = guard && guard->runTime < EARLY_MS;
    if (result.isExitKnown && result.info.exitCode != 0 && isEarly) result.lastLines = lastLines;
    result.outputFile = output->getFile();
}

void ZqRun::writeInfo() {
    endOutput();
    result.mountPath = drive->getMountPath();
    result.driveFailure = drive->getFailure();
    result.wasBusy = drive->wasBusy();
    result.lostLetter = drive->getLostLetter();
    if (!result.driveFailure.isEmpty()) result.info.endErr = true;
    goOn();
    notes->finish(&result);
    if (isPlay()) statistics->finish(*drive, *recording);
    if (notes->hasComeLate(&result)) result.rewriteRecord();
}

void ZqRun::fillResult() {
    result.lengthMs = elapsedMs();
    result.firstFrameMs = firstFrame->getMs();
    result.firstWindowMs = firstWindow->getMs();
    result.traceFolder = recording->getFolder();
    result.lacksTraceRoom = recording->lacksRoom();
    const ZqFeedStatus status = feed->getStatus();
    const ZqRuntimeInfo own = result.info;
    ZqRuntimeInfo& info = result.info;
    info = feed->getRuntimeInfo();
    info.id = own.id;
    info.appsAtStart = own.appsAtStart;
    info.zqddVer = own.zqddVer;
    info.zqfmVer = own.zqfmVer;
    info.preloadSize = own.preloadSize;
    info.dataAtStart = own.dataAtStart;
    info.nStarts = note->getStarts();
    info.startErr = own.startErr;
    info.endErr = own.endErr;
    info.path = image;
    info.guid = statistics->getApp().guid;
    info.getSystemVersions();
    result.build = statistics->getApp().checksumMnt;
    result.order = statistics->getApp().checksumIdx;
    info.time0 = beginMs;
    info.timeToStart = std::max<int64>(result.startMs, 0) / 1000;
    info.timeToReady = std::max<int64>(result.firstFrameMs, 0) / 1000;
    info.dataAtEnd = static_cast<int64>(status.nCurrent);
    info.imageSize = static_cast<int64>(status.nTotal);
    info.downloadFromZero = info.dataAtStart == 0;
    info.downloadComplete = status.nTotal > 0 && status.nCurrent >= status.nTotal;
    const ZqImageFeed::Speeds speeds = feed->getSpeeds();
    info.avgSpeed = speeds.mean;
    info.maxSpeed = speeds.greatest;
    info.sigmaSpeed = speeds.sigma;
    info.reqSpeed = static_cast<double>(feed->getApp().getBpS(static_cast<uint64>(info.preloadSize))) /
                    ZqBlocks::PER_MEGABIT;
    info.prefetchSizeMB = info.preloadSize / static_cast<int64>(ZqBlocks::MEGABYTE);
    result.waits = held->getSum();
    result.heldReads = held->getWaits();
    if (const int64 ns = feed->getLastWaitNs(); ns > 0) result.lastWaitMs = (ns - beginNs) / 1'000'000;
    result.link = status.link;
    result.image = status.image;
    result.nMissing = feed->countMissing();
}

void ZqRun::takeFormerRecord() {
    former = ZqRunRecord::findOpen(image, note->getStarts());
    if (!former) return;
    formerGapMs = std::max<int64>(beginMs - former->asOfMs, 0);
    // Reports go out with it from the beginning.
    result.info.id = former->info.id;
}

/// Waits for what nobody has fed since that run was killed count, too.
void ZqRun::goOnWithWaits() {
    if (!former) {
        held->start(beginNs, SxClock::get().steadyNs());
        return;
    }
    drive->addWaits({former->accuracy.nWaits.value_or(0), former->accuracy.waitedMs});
    const int64 knownNs = beginNs - formerGapMs * NS_PER_MS;
    const int64 playedMs = former->lengthMs - std::max<int64>(former->startMs, 0);
    held->goOn(beginNs, knownNs - playedMs * NS_PER_MS, knownNs);
}

/// Adds the figures of the run that was killed, where this one has gone on with its application.
void ZqRun::goOn() {
    if (!former) return;
    result.goOnFrom(*former, formerGapMs);
    if (!former->traceFolder.isEmpty()) {
        // Records name it from their image folder on.
        const bool isBelow = !former->traceFolder.startsWith("/");
        result.traceFolder =
            isBelow ? ZqImageFolder::prefix(image) + former->traceFolder : former->traceFolder;
    }
    result.isTakenOver = true;
    const int64 formerMs = former->lengthMs + formerGapMs;
    result.series.shift(formerMs);
    for (ZqRunResult::Wait& wait : result.heldReads) {
        wait.fromMs += formerMs;
        wait.toMs += formerMs;
    }
}

void ZqRun::noteRun() {
    const ZqRunResult before = result;
    fillResult();
    // Where nothing comes after this, the run was killed.
    result.info.endErr = true;
    result.info.runTime = (result.lengthMs - std::max<int64>(result.startMs, 0)) / MS_PER_S;
    result.driveFailure = drive->getFailure();
    if (const auto& waited = drive->getWaits()) {
        result.accuracy.nWaits = waited->n;
        result.accuracy.waitedMs = waited->ms;
    }
    goOn();
    notes->note(result);
    result = before;
}
