#include "ZqNetQueue.h"

#include "ZqTransfer.h"

void ZqNetQueue::add(const SxPtr<ZqTransfer>& transfer, int64 nowNs) {
    queued.push_back({transfer, nowNs});
}

void ZqNetQueue::drop(const SxPtr<ZqTransfer>& transfer) {
    std::erase_if(queued, [&](const Queued& each) { return each.transfer == transfer; });
}

SxPtr<ZqTransfer> ZqNetQueue::takeNext(int64 nUnderWay, int64 nowNs) {
    if (queued.empty()) return {};
    const size_t next = gate.choose(list(), nUnderWay, nowNs);
    if (next == queued.size()) return {};
    const SxPtr<ZqTransfer> transfer = queued[next].transfer;
    queued.erase(queued.begin() + static_cast<std::ptrdiff_t>(next));
    gate.noteBegin(nowNs);
    return transfer;
}

std::vector<SxPtr<ZqTransfer>> ZqNetQueue::takeAll() {
    std::vector<SxPtr<ZqTransfer>> all;
    for (const Queued& each : queued)
        all.push_back(each.transfer);
    queued.clear();
    return all;
}

int64 ZqNetQueue::findNextNs(int64 nUnderWay, int64 nowNs) const {
    return gate.findNextNs(list(), nUnderWay, nowNs);
}

void ZqNetQueue::answered(int64 begunNs, int64 nowNs) {
    gate.answered(begunNs, nowNs);
    pausedUntilNs.store(gate.getUntilNs());
}

void ZqNetQueue::refused(int64 begunNs, int64 retryAfterMs, int64 nUnderWay, int64 nowNs) {
    gate.refused(begunNs, retryAfterMs, nUnderWay, nowNs);
    refusedNs.store(nowNs);
    pausedUntilNs.store(gate.getUntilNs());
}

/// As the gate sees them.
std::vector<ZqNetGate::Request> ZqNetQueue::list() const {
    std::vector<ZqNetGate::Request> requests;
    for (const Queued& each : queued) {
        const ZqTransfer::Kind kind = each.transfer->getKind();
        const bool isOnDemand = kind == ZqTransfer::Kind::OnDemand;
        requests.push_back({isOnDemand || kind == ZqTransfer::Kind::Small, kind == ZqTransfer::Kind::Ordered,
                            isOnDemand, each.sinceNs});
    }
    return requests;
}
