#pragma once

#include "SxClock.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

/// A clock on which time stands still while any thread works, and jumps to the earliest sleeper when every
/// thread that takes part sleeps or waits for another's end. In force from construction to destruction.
///
/// The thread that makes it takes part, and every job that is started meanwhile; no others may sleep on it.
/// Of several sleepers that are due at once only one is woken; the next follows when that one sleeps, waits
/// or has ended, in the order in which the threads first slept. So at any time at most one of the sleepers
/// runs, and a run is repeatable.
///
/// The clock isn't told whom a thread waits for. So that time doesn't jump between a job's end and the moment
/// at which its waiter goes on, a jump comes no sooner than GRACE of real time after a wait's begin or a
/// job's end, as long as a thread waits.
class VirtualClock : public SxClock {
public:
    static constexpr std::chrono::milliseconds GRACE{20};

    /// `startMs`: milliseconds since 1970 UTC.
    explicit VirtualClock(int64 startMs = 1'700'000'000'000);
    ~VirtualClock() override;
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    int64 systemMs() override;
    int64 steadyNs() override;
    void sleepNs(int64 ns) override;
    void threadStarting() override;
    void threadEnded() override;
    void waitBegins() override;
    void waitEnds() override;

    /// Virtual milliseconds since the construction.
    int64 elapsedMs();
    /// Moves the system time alone, as an adjustment of the machine's clock does.
    void adjustSystem(int64 ms);

private:
    /// When a thread is to wake, and its place among those due at the same time.
    using Sleeper = std::pair<int64, int64>;

    int64 orderOfThisThread();
    bool allBlocked() const { return nWaiting + static_cast<int64>(sleepers.size()) >= nThreads; }
    /// Lets the earliest sleeper go on if it is time for that.
    void advance();

    SxClock* previous;
    std::mutex mutex;
    std::condition_variable changed;
    int64 nowNs = 0, systemStartMs;
    int64 nThreads = 1, nWaiting = 0;
    std::set<Sleeper> sleepers;
    std::map<std::thread::id, int64> order;
    int64 nextOrder = 0;
    std::chrono::steady_clock::time_point quietSince;
};
