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

    /// Takes a number that changes with progress. Nobody may have looked for longer than the limit, since
    /// whoever looks was stopped, or the question itself took so long. Nothing is known of that time, so the
    /// limit begins anew then, but not twice in a row.
    void note(uint64 progress) {
        const int64 now = nowNs();
        const bool isLate = now - lookNs > limitNs;
        // The first number is no progress: it is what was there before.
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
