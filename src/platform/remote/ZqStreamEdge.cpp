#include "ZqStreamEdge.h"

#include "SxClock.h"

#include <chrono>

namespace {

constexpr uint64 STRETCH = ZqStretchLayout::STRETCH;
constexpr auto LOOK = std::chrono::milliseconds(20);
/// A stream that has made no progress for two round trips, and at least for so long, reaches no stretch soon.
constexpr int64 MIN_PATIENCE_NS = 100'000'000;
/// A request takes one round trip, and holds the stream. What that brings in a second one is mostly needed,
/// too.
constexpr double SOON_TRIPS = 2.;

} // namespace

bool ZqStreamEdge::begin(uint64 offset) {
    SxMutexBlock lock(&mutex);
    if (streaming) return false;
    streaming = true;
    pos = offset;
    share();
    movedNs = SxClock::get().steadyNs();
    return true;
}

void ZqStreamEdge::end() {
    SxMutexBlock lock(&mutex);
    streaming = false;
    share();
}

void ZqStreamEdge::setCore(uint64 end) {
    SxMutexBlock lock(&mutex);
    coreEnd = end;
    share();
}

void ZqStreamEdge::share() {
    link->shareWithStreams(streaming && pos < coreEnd);
}

void ZqStreamEdge::receive(uint64 to) {
    SxMutexBlock lock(&mutex);
    pos = to;
    share();
    movedNs = SxClock::get().steadyNs();
}

void ZqStreamEdge::advance(uint64 to) {
    receive(to);
    changed.notify_all();
}

void ZqStreamEdge::noteMoved() {
    SxMutexBlock lock(&mutex);
    movedNs = SxClock::get().steadyNs();
}

uint64 ZqStreamEdge::noteReceived(bool isPacked, uint64 from, uint64 to) {
    SxMutexBlock lock(&mutex);
    uint64& end = furthest[isPacked ? 1 : 0];
    const uint64 nAgain = std::min(to, std::max(from, end)) - from;
    end = std::max(end, to);
    return nAgain;
}

void ZqStreamEdge::noteShare(uint64 nWire, uint64 size) {
    SxMutexBlock lock(&mutex);
    wireShare = 0.9 * wireShare + 0.1 * static_cast<double>(nWire) / static_cast<double>(size);
}

double ZqStreamEdge::getWireShare() const {
    SxMutexBlock lock(&mutex);
    return wireShare;
}

double ZqStreamEdge::tripBytes(double nTrips) const {
    const ZqNetLink::Figures now = link->getFigures();
    return now.rate * static_cast<double>(now.roundTripUs) / 1e6 * nTrips;
}

bool ZqStreamEdge::isReachedSoon(uint64 stretchIdx) const {
    const uint64 begin = stretchIdx * STRETCH;
    uint64 from = 0;
    int64 sinceNs = 0;
    double share = 0.;
    {
        SxMutexBlock lock(&mutex);
        if (!streaming || layout.endOf(stretchIdx) <= pos) return false;
        from = pos;
        sinceNs = movedNs;
        share = wireShare;
    }
    const int64 patienceNs = std::max(MIN_PATIENCE_NS, link->getFigures().roundTripUs * 2'000);
    if (SxClock::get().steadyNs() - sinceNs > patienceNs) return false;
    return begin <= from || static_cast<double>(begin - from) * share <= tripBytes(SOON_TRIPS);
}

bool ZqStreamEdge::hasBegun(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return stretchIdx * STRETCH < pos;
}

bool ZqStreamEdge::hasPassed(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return (stretchIdx + 1) * STRETCH <= pos;
}

void ZqStreamEdge::await(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    if (layout.endOf(stretchIdx) > pos) changed.wait_for(mutex, LOOK);
}
