#pragma once

#include "SxTime.h"

/// A limit of time that begins anew with each progress: what goes on slowly may take any time, what stands
/// still may not.
class SxDeadline {
public:
    explicit SxDeadline(int64 limitMs) : limitNs(limitMs * 1'000'000), endNs(nowNs() + limitNs) {}

    /// Takes a number that changes with progress.
    void note(uint64 progress) {
        if (isKnown && progress == last) return;
        // The first one is what was there before.
        if (isKnown) endNs = nowNs() + limitNs;
        isKnown = true;
        last = progress;
    }
    /// 0 or less once the time is up.
    int64 getLeftMs() const { return (endNs - nowNs()) / 1'000'000; }

private:
    static int64 nowNs() { return SxClock::get().steadyNs(); }

    int64 limitNs, endNs;
    uint64 last = 0;
    bool isKnown = false;
};
