#include "ZqStallWatch.h"

#include "ZqNetLink.h"
#include "ZqTransfer.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqStallWatch";
constexpr int64 MS = 1'000'000;
/// A request that hasn't made progress for so long no longer holds others.
constexpr int64 PRIORITY_NS = 1'000 * MS;
constexpr int64 RECORD_LOOK_NS = 200 * MS, MAX_RECORD = (16 << 10) + 512;
} // namespace

ZqStallWatch::ZqStallWatch(const ZqNetSettings& settings, int64 nSlow, bool isEncrypted, int64 nowNs)
    : silenceNs(settings.stallMs * MS),
      limitNs(ZqNetProgress::getPatience(silenceNs, nSlow)),
      progress({silenceNs, settings.secondMs * MS, PRIORITY_NS}) {
    record.isEncrypted = isEncrypted;
    progress.begin(nowNs);
}

void ZqStallWatch::take(int64 n, double bestRate, int64 nBeside, int64 nowNs) {
    record.nCredited = 0;
    progress.take(n, bestRate, nBeside, nowNs);
}

bool ZqStallWatch::isRecordDue(int64 nowNs) const {
    return record.isEncrypted && !held && nowNs - record.lookedNs >= RECORD_LOOK_NS;
}

void ZqStallWatch::noteReceived(int64 nReceived, double bestRate, int64 nBeside, int64 nowNs) {
    record.lookedNs = nowNs;
    const int64 nNew =
        record.nSeen >= 0 ? std::min(nReceived - record.nSeen, MAX_RECORD - record.nCredited) : 0;
    record.nSeen = nReceived;
    if (nNew <= 0) return;
    record.nCredited += nNew;
    progress.take(nNew, bestRate, nBeside, nowNs);
}

void ZqStallWatch::hold(int64 nowNs) {
    held = true;
    heldNs = nowNs;
}

void ZqStallWatch::goOn(int64 nowNs) {
    skipHeld(nowNs);
    held = false;
}

void ZqStallWatch::skipHeld(int64 nowNs) {
    if (!held) return;
    progress.skip(nowNs - heldNs);
    heldNs = nowNs;
}

bool ZqStallWatch::isMoving(int64 nowNs) const {
    return held || nowNs - progress.getSinceNs(ZqNetProgress::Hold) < PRIORITY_NS;
}

/// One that was found slow before has more time, but for complete silence.
bool ZqStallWatch::isStalled(int64 nowNs) const {
    if (held) return false;
    const int64 standingNs = nowNs - progress.getSinceNs(ZqNetProgress::Stall);
    const bool isSilent = progress.getBytes(ZqNetProgress::Stall) == 0;
    return standingNs > (isSilent ? silenceNs : limitNs);
}

SxException ZqStallWatch::failure() const {
    const int64 nGot = progress.getBytes(ZqNetProgress::Stall);
    // How long the server has been silent in all is the link's to tell.
    if (nGot == 0) return SxException(ZqNetLink::UNREACHABLE, "no data", UNIT, __LINE__);
    const SxString got = "only " + SxString(nGot) + " bytes in " +
                         SxString::sprintf("%g s", static_cast<double>(limitNs) * 1e-9);
    const SxException few(ZqNetLink::UNREACHABLE, got, UNIT, __LINE__);
    return SxException(few, "the answer comes too slowly", UNIT, __LINE__).tagged(ZqTransfer::SLOW);
}
