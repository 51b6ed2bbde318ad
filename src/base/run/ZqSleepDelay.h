#pragma once

#include "SxEvent.h"
#include "SxSystemThread.h"

#include <atomic>
#include <functional>

/// Holds up the machine's sleep until no read waits for blocks: a task that waits in the kernel for
/// a drive can't be frozen, and one is enough for the machine to stay awake. Does nothing where the system
/// doesn't tell of its sleep (ZqSleepWatch).
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
    SxEvent ending;
};
