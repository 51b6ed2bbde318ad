#pragma once

#include "SxPtr.h"
#include "ZqNetGate.h"

#include <atomic>
#include <deque>
#include <vector>

class ZqTransfer;

/// The requests of a link that aren't begun yet, and what its server says about more of them, which decides
/// when the next begins (ZqNetGate). For the network thread, but for getRefusal(), which is safe from any;
/// times are those of the steady clock.
class ZqNetQueue {
public:
    explicit ZqNetQueue(const ZqNetSettings& settings) : gate(settings) {}

    void add(const SxPtr<ZqTransfer>& transfer, int64 nowNs);
    void drop(const SxPtr<ZqTransfer>& transfer);
    /// Takes out the next that may begin beside `nUnderWay` others, ordered streams not counted; null where
    /// none may.
    SxPtr<ZqTransfer> takeNext(int64 nUnderWay, int64 nowNs);
    /// Takes out all.
    std::vector<SxPtr<ZqTransfer>> takeAll();
    /// See ZqNetGate.
    int64 findNextNs(int64 nUnderWay, int64 nowNs) const;

    // See ZqNetGate.
    void answered(int64 begunNs, int64 nowNs);
    void refused(int64 begunNs, int64 retryAfterMs, int64 nUnderWay, int64 nowNs);
    /// What a server has said that is asked too much: when last, and up to when it is left alone; 0 never.
    struct Refusal {
        int64 lastNs = 0, untilNs = 0;
    };
    Refusal getRefusal() const { return {refusedNs.load(), pausedUntilNs.load()}; }

private:
    struct Queued {
        SxPtr<ZqTransfer> transfer;
        int64 sinceNs = 0;
    };
    std::vector<ZqNetGate::Request> list() const;

    ZqNetGate gate;
    std::deque<Queued> queued;
    std::atomic<int64> refusedNs{0}, pausedUntilNs{0};
};
