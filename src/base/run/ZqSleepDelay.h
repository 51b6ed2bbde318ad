#pragma once

#include "SxLatch.h"
#include "SxSystemThread.h"

#include <atomic>
#include <functional>

/// Holds up the machine's sleep until no read waits for blocks. A task that waits for a block sits in the
/// kernel without a break and can't be frozen; a SIGSTOP doesn't reach it either. A single one keeps the
/// machine awake: the system gives up after 20 s. (Tried with the system's freezer: with a held read, stopped
/// or not, a group stays "FREEZING", and is "FROZEN" at once when the read is answered.)
///
/// When a sleep is announced the run suspends the application, so that it begins no new read, and those that
/// are held are fetched as always. Then the delay is let go, and after the sleep the next one is held up
/// anew. A read whose blocks don't come stays held, and the machine awake: logind waits no longer than it
/// grants, then the system tries, fails, and tells that it is awake. To fail such a read would let the
/// machine sleep and kill the game, which takes a read error for a damaged disk. Programs of others that read
/// from a drive aren't suspended: their held reads are waited for, too, but what they read later can keep the
/// machine awake.
///
/// No limit of a run counts the time asleep, since the steady clock (CLOCK_MONOTONIC) stands still meanwhile.
/// So neither a stalled request nor a silent service nor the speed of the download is taken for what the
/// sleep was. A connection that has died in the sleep is given up after the usual 10 s of silence and made
/// again; what a reader waits for is asked for over another one before that.
///
/// Does nothing where the system doesn't tell of its sleep (ZqSleepWatch).
class ZqSleepDelay : public SxSystemThread {
public:
    /// `isCalm` tells whether the application stands still, and nothing waits for blocks. It is called from
    /// this thread, every 10 ms while the machine is about to sleep.
    explicit ZqSleepDelay(std::function<bool()> isCalm_);

    /// Whether the machine is about to sleep, or sleeps. Safe from any thread.
    bool isSleepComing() const { return coming; }
    /// Ends the thread, and lets the machine sleep.
    void end();

protected:
    void main() override;

private:
    const std::function<bool()> isCalm;
    std::atomic<bool> coming{false};
    SxLatch ending;
};
