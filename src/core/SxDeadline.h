#pragma once

#include "SxTime.h"

/// A limit of time that begins anew with each progress: what goes on slowly may take any time, what stands
/// still may not.
class SxDeadline {
public:
    explicit SxDeadline(int64 limitMs)
        : limitNs(limitMs * 1'000'000),
          lookNs(nowNs()),
          endNs(lookNs + limitNs) {}

    /// Takes a number that changes with progress. Where nobody has looked for longer than the limit, since
    /// whoever looks was stopped or the question took so long, nothing is known of that time: the limit
    /// begins anew, once.
    void note(uint64 progress) {
        const int64 now = nowNs();
        const bool isLate = now - lookNs > limitNs;
        // The first one is what was there before.
        if ((isKnown && progress != last) || (isLate && !wasLate)) endNs = now + limitNs;
        isKnown = true;
        last = progress;
        lookNs = now;
        wasLate = isLate;
    }
    /// 0 or less once the time is up.
    int64 getLeftMs() const { return (endNs - nowNs()) / 1'000'000; }

private:
    static int64 nowNs() { return SxClock::get().steadyNs(); }

    int64 limitNs;
    int64 lookNs; ///< time of the last look
    int64 endNs;
    uint64 last = 0;
    bool isKnown = false, wasLate = false;
};
