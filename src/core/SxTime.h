#pragma once

#include "SxClock.h"
#include "SxString.h"

#include <algorithm>

/// Sleeping and formatted time, on the clock in force (SxClock). Safe from any thread.
class SxTime {
public:
    static void msleep(int64 milliseconds);
    static void sleep(double seconds);
    /// The current local time by a strftime(3) format; at most 1024 bytes, else empty.
    static SxString strftime(const SxString& format);
};

/// Waiting for a state: looks every 10 ms within a stated pass, and goes on as soon as the state is there, so
/// what is ready after 40 ms is used after 50. A pass has the length that is stated for the wait, and
/// counters and log lines are due once a pass.
class SxWait {
public:
    static constexpr int64 LOOK_MS = 10;

    /// One pass of `passMs` milliseconds, the time of the looks included. Looks before the first sleep and at
    /// the end; gives whether `ready` came true. `lookMs` is for looks that cost
    /// much, such as one at every process of the machine.
    template<class Ready>
    static bool pass(int64 passMs, Ready&& ready, int64 lookMs = LOOK_MS) {
        const int64 endNs = SxClock::get().steadyNs() + passMs * 1'000'000;
        for (;;) {
            if (ready()) return true;
            const int64 leftNs = endNs - SxClock::get().steadyNs();
            if (leftNs <= 0) return false;
            SxClock::get().sleepNs(std::min(leftNs, lookMs * 1'000'000));
        }
    }

    /// Up to `nPasses` passes; `afterPass(i)`, i from 0, runs after each pass that ended without the state,
    /// for counters and log lines that are due once a pass.
    template<class Ready, class AfterPass>
    static bool passes(int64 nPasses, int64 passMs, Ready&& ready, AfterPass&& afterPass) {
        for (int64 i = 0; i < nPasses; ++i) {
            if (pass(passMs, ready)) return true;
            afterPass(i);
        }
        return false;
    }
};
