#include "ZqNetRetry.h"

#include "SxClock.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqNetRetry";

} // namespace

ZqNetRetry::ZqNetRetry(const SxPtr<ZqNetLink>& link_, int64 nTries_)
    : link(link_),
      nMax(nTries_),
      waitNs(SxClock::get().steadyNs()),
      seenNs(waitNs) {
}

void ZqNetRetry::beginTurn(int64 nTries, int64 ms) {
    nInTurn = nTries;
    turnMs = ms;
    nTurnFailed = 0;
    beginWait();
}

void ZqNetRetry::beginWait() {
    turnNs = SxClock::get().steadyNs();
    if (nFailed == 0) waitNs = turnNs;
}

bool ZqNetRetry::hasTurnEnded(bool isBusy) {
    const int64 now = SxClock::get().steadyNs();
    if (isBusy) turnNs = now;
    return nInTurn > 0 && (++nTurnFailed >= nInTurn || now - turnNs > turnMs * 1'000'000);
}

void ZqNetRetry::progress() {
    nTurnFailed = 0;
    if (nFailed == 0) return;
    nFailed = nBroken = nBusy = busyNs = 0;
    link->endWaiting(this);
}

/// Whether the server is there and only wants to be left alone, within the time for which that is no try in
/// vain.
bool ZqNetRetry::isAskedTooMuch(const SxException& e) {
    const int64 now = SxClock::get().steadyNs(), refusedNs = link->getRefusedNs();
    const bool isRefused = e.hasTag(ZqNetLink::UNREACHABLE) && refusedNs > seenNs;
    seenNs = now;
    if (!isRefused) return false;
    if (busyNs == 0) busyNs = now;
    return now - busyNs <= link->getSettings().busyMs * 1'000'000;
}

void ZqNetRetry::failed(const SxException& e, const ZqStopTest& stop) {
    const bool isBroken = e.hasTag(ZqNetLink::BROKEN);
    if (!isBroken && !e.hasTag(ZqNetLink::UNREACHABLE)) throw e;
    link->checkStop(stop);
    const ZqNetSettings& settings = link->getSettings();
    const bool isBusy = isAskedTooMuch(e);
    ++nFailed;
    if (isBroken) ++nBroken;
    if (isBusy) ++nBusy;
    if ((nMax > 0 && nFailed - nBusy >= nMax) ||
        (settings.nBrokenTries > 0 && nBroken >= settings.nBrokenTries)) {
        throw SxException(e, "Gave up after " + SxString(nFailed) + " tries", UNIT, __LINE__);
    }
    if (hasTurnEnded(isBusy)) {
        throw SxException(e, "Nothing came in " + SxString(nTurnFailed) + " tries", UNIT, __LINE__)
            .tagged(TURN_ENDED);
    }
    if (!isBusy) link->noteAway(nFailed, waitNs);
    link->setWaiting(this, "waiting for the server: " + e.getMessage());
    if (isBusy) {
        // How long nothing is asked of it is the same for all requests of the link, and known there.
        link->sleep(settings.firstBackOffMs, stop);
        return;
    }
    const int64 nDoubled = std::min<int64>(nFailed - 1, 16);
    const int64 pauseMs = std::min(settings.firstBackOffMs << nDoubled, settings.maxBackOffMs);
    if (isBroken || nMax > 0) {
        link->sleep(pauseMs, stop);
        return;
    }
    // A server that others get bytes from is back.
    const int64 leastMs = std::min(pauseMs, settings.firstBackOffMs);
    link->sleep(leastMs, stop);
    const uint64 nBefore = link->getFigures().nBytes;
    link->sleep(pauseMs - leastMs, stop, [&] { return link->getFigures().nBytes > nBefore; });
}
