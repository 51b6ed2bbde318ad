#pragma once

#include "SxTypes.h"

/// The clock that all time comes from and that all waiting goes through. There is one at a time for the
/// process: the machine's, or one that a test puts in its place, so that a loop which waits for 61 seconds is
/// tested in microseconds. All operations are safe from any thread.
class SxClock {
public:
    virtual ~SxClock() = default;

    /// Milliseconds since 1970-01-01 00:00 UTC.
    virtual int64 systemMs() = 0;
    /// Nanoseconds since an arbitrary point; never goes backward.
    virtual int64 steadyNs() = 0;
    int64 steadyMs() { return steadyNs() / 1'000'000; }
    /// Blocks the calling thread for `ns` nanoseconds of this clock.
    virtual void sleepNs(int64 ns) = 0;

    // A virtual clock moves on when every thread that takes part sleeps or waits, so it must know of them.
    /// Called by the starting thread before a job's thread runs.
    virtual void threadStarting() {}
    /// Called by a job's thread at its end.
    virtual void threadEnded() {}
    /// Brackets a wait for another thread's end.
    virtual void waitBegins() {}
    virtual void waitEnds() {}

    /// The clock in force.
    static SxClock& get() noexcept;
    /// Puts `clock` in force, or the machine's with null; the caller keeps it alive. Not while jobs run.
    static void set(SxClock* clock) noexcept;
};
