#pragma once

#include "SxString.h"

/// Sleeping and formatted time, on the clock in force (SxClock). Safe from any thread.
class SxTime {
public:
    static void msleep(int64 milliseconds);
    static void sleep(double seconds);
    /// The current local time by a strftime(3) format; at most 1024 bytes, else empty.
    static SxString strftime(const SxString& format);
};

/// Waiting for a state: looks every 10 ms within a stated pass, and goes on as soon as the state is there.
class SxWait {
public:
    static constexpr int64 LOOK_MS = 10;

    /// One pass of at most `passMs` milliseconds. Looks before the first sleep and at the end; gives whether
    /// `ready` came true.
    template<class Ready>
    static bool pass(int64 passMs, Ready&& ready) {
        for (int64 left = passMs;; left -= LOOK_MS) {
            if (ready()) return true;
            if (left <= 0) return false;
            SxTime::msleep(left < LOOK_MS ? left : LOOK_MS);
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
