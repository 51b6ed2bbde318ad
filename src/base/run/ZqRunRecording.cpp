#include "ZqRunRecording.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqDriveMeans.h"
#include "ZqImageFeed.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRunSettings.h"
#include "ZqRunWait.h"
#include "ZqSysEnv.h"
#include "ZqVolume.h"

namespace {
constexpr const char* UNIT = "src/base/ZqRunRecording";
/// Room for the records of a mount, in bytes.
constexpr uint64 RECORD_ROOM = 1 << 20;
} // namespace

ZqRunRecording::ZqRunRecording(const ZqRunSettings& settings)
    : image(settings.feed.image),
      wanted(settings.traceFolder),
      limitMs(settings.traceMs),
      nMost(settings.nTraces),
      isPlay(!settings.isDriveOnly && !settings.feed.isDownloadOnly),
      wish(settings.tracing),
      mayOwn(wanted.isEmpty() && isPlay),
      traces(image) {
}

void ZqRunRecording::requireFolder() const {
    if (mayOwn && wish != ZqTracePolicy::Never) {
        ZqImageFolder::requireNoLink(image, ZqImageFiles::TRACES);
        const SxString kept = ZqImageFolder::prefix(image) + SxString(ZqImageFiles::TRACES).left("/");
        if (SxFSAction::exists(kept) && !SxFSAction::test_d(kept)) {
            throw SxException("'" + kept + "' is no folder, and a run keeps its traces there", UNIT,
                              __LINE__);
        }
    }
    if (isPlay) ZqImageFolder::requireNoLink(image, ZqImageFiles::RUNS);
}

void ZqRunRecording::decide(const SxString& build, bool wasComplete, int64 nUntraced) {
    if (!mayOwn) return;
    const bool mayRecord = ZqDriveMeans().getFuse().isThere;
    decision = ZqTracePolicy::decide({image, build, wasComplete, nUntraced, wish, nMost, mayRecord});
    own = decision->records;
}

void ZqRunRecording::awaitRoom(const ZqImageFeed& feed, ZqRunWait* waits) {
    while (own && ZqSysEnv::getFreeDiskSpace(image) < RECORD_ROOM) {
        waits->requireGoing();
        // Nothing else needs room, so the player need not wait for what only the publisher can use.
        if (feed.isComplete()) {
            lacking = true;
            own = false;
            decision.reset();
            break;
        }
        feed.requireAlive();
        waits->tell("waiting for room on the disk of '" + image + "'");
        SxTime::msleep(SxWait::LOOK_MS);
    }
    waits->tell("");
}

void ZqRunRecording::begin() {
    folder = own ? newFolder() : wanted;
    if (own) traces.begin(folder);
}

void ZqRunRecording::drop() {
    if (own) traces.drop(folder);
}

void ZqRunRecording::keep() {
    if (own) traces.add(folder, nMost);
}

/// One for the trace of a run that begins now, which isn't there yet.
SxString ZqRunRecording::newFolder() const {
    SxString stamp = ZqSysEnv::getTimestamp();
    stamp = stamp.substitute(":", "-");
    const SxString base = ZqImageFolder::prefix(image) + ZqImageFiles::TRACES + stamp;
    SxString path = base;
    for (int i = 2; SxFSAction::exists(path); ++i)
        path = base + "-" + i;
    return path;
}

void ZqRunRecording::startPlay(bool isAdopted) {
    if (limitMs > 0 && (!folder.isEmpty() || isAdopted))
        endNs = SxClock::get().steadyNs() + limitMs * 1'000'000;
}

bool ZqRunRecording::limit() {
    if (endNs == 0 || SxClock::get().steadyNs() < endNs) return false;
    try {
        end();
        endNs = 0;
        return true;
    } catch (const SxException&) {
        // The service is silent, and is asked again with the next look.
        return false;
    }
}

void ZqRunRecording::end() {
    try {
        const ZqMountMgr mounts;
        if (!mounts.isMonitored(image)) return;
        mounts.monitorOff(image);
        ended = true;
        zqLogMsg("base", "ZqRun: the trace ends, the drive stays");
    } catch (const SxException& e) {
        if (e.hasTag(ZqVolume::SILENT)) throw;
        // The trace only gets longer than it should.
        zqLogMsg("base", SxString("ZqRun: cannot end the trace: ") + e.what());
    }
}
