#include "ZqRacedTransfer.h"

#include "SxClock.h"
#include "ZqFileFacts.h"
#include "ZqNetLink.h"
#include "ZqNetProgress.h"

#include <algorithm>

namespace {
constexpr int64 MS = 1'000'000;
} // namespace

ZqRacedTransfer::ZqRacedTransfer(const SxPtr<ZqNetLink>& link_, ZqTransfer::Kind kind_, Make make_)
    : link(link_),
      make(std::move(make_)),
      requested(kind_),
      kind(kind_) {
}

void ZqRacedTransfer::drop() {
    dropSecond();
    if (transfer && !transfer->isFinished()) link->drop(transfer);
    set(nullptr);
}

uint64 ZqRacedTransfer::countBuffered() const {
    return transfer ? static_cast<uint64>(transfer->getState().nBuffered) : 0;
}

void ZqRacedTransfer::begin() {
    if (transfer) return;
    hadSecond = false;
    const Made made = make();
    answer = made.answer;
    set(made.transfer);
    isFresh = true;
    askedNs = SxClock::get().steadyNs();
    link->add(transfer);
}

void ZqRacedTransfer::set(const SxPtr<ZqTransfer>& next) {
    const SxMutexBlock lock(&mutex);
    transfer = next;
    // It may have been hastened while there was none.
    if (transfer && kind != requested) transfer->become(kind);
}

void ZqRacedTransfer::become(ZqTransfer::Kind other) {
    const SxMutexBlock lock(&mutex);
    if (kind == other) return;
    kind = other;
    if (kind == ZqTransfer::Kind::OnDemand) hastenedNs = SxClock::get().steadyNs();
    if (transfer) transfer->become(kind);
}

/// Whether somebody has waited for so long that the connection may be dead, or of no use. One that is slow,
/// and not silent, is compared with another only where ZqNetLink::mayCompare() allows it.
bool ZqRacedTransfer::isOverdue() {
    const int64 usefulNs = transfer->getUsefulNs(), dueNs = link->getSettings().secondMs * MS;
    if (hadSecond || usefulNs == 0) return false;
    const int64 now = SxClock::get().steadyNs();
    {
        const SxMutexBlock lock(&mutex);
        if (kind != ZqTransfer::Kind::OnDemand || now - std::max(usefulNs, hastenedNs) < dueNs) return false;
    }
    // What waits here, for its consumer, isn't due.
    const ZqTransfer::State state = transfer->getState();
    if (state.ended || state.nBuffered >= ZqNetProgress::USEFUL_BYTES) return false;
    return now - transfer->getMovedNs() >= dueNs || link->mayCompare();
}

void ZqRacedTransfer::beginSecond() {
    hadSecond = true;
    const Made made = make();
    second = made.transfer;
    secondAnswer = made.answer;
    second->become(ZqTransfer::Kind::OnDemand);
    link->suspect(transfer);
    link->add(second);
}

/// The second goes on alone.
void ZqRacedTransfer::takeSecond() {
    if (!transfer->isFinished()) link->drop(transfer);
    answer = secondAnswer;
    isFresh = true;
    askedNs = SxClock::get().steadyNs();
    // Where it has brought nothing either, it gets no further one.
    hadSecond = second->isSilent();
    set(second);
    second = nullptr;
}

void ZqRacedTransfer::dropSecond() {
    if (second && !second->isFinished()) link->drop(second);
    second = nullptr;
}

/// Ends the race of both where it can be told who wins: the first that has brought a useful amount, or all.
/// Both go on from the same byte, and nothing is taken of the one that loses.
void ZqRacedTransfer::decide() {
    constexpr int64 USEFUL = ZqNetProgress::USEFUL_BYTES;
    const ZqTransfer::State one = transfer->getState(), other = second->getState();
    const bool mayPass = ZqNetLink::isAway(one.failure);
    // A refusal doesn't end the first, which may only be slow. A doubt can be settled at once.
    const bool isMore = other.nBuffered > one.nBuffered;
    const bool isOfUse = !other.failed || isMore || other.failure.hasTag(ZqFileFacts::DOUBTFUL);
    const bool isBetter = isOfUse && (other.ended || (other.nBuffered >= USEFUL && isMore));
    if (!isOfUse || (one.ended && !(one.failed && mayPass)) || (one.nBuffered >= USEFUL && !isMore)) {
        dropSecond();
    } else if (isBetter || one.failed) {
        if (isBetter) link->noteBetter();
        takeSecond();
    }
}

/// The next bytes, or the end.
ZqTransfer::Next ZqRacedTransfer::next(SxArray<char>* piece, const ZqStopTest& stop) {
    for (;;) {
        link->checkStop(stop);
        if (second) {
            decide();
            if (second) transfer->awaitMore();
            continue;
        }
        // Also where there is always some byte.
        if (isOverdue()) {
            beginSecond();
            continue;
        }
        const ZqTransfer::Next got = transfer->next(piece);
        if (got != ZqTransfer::Next::Waiting) return got;
    }
}
