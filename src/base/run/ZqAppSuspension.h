#pragma once

#include "SxTypes.h"

#include <atomic>

class ZqCoreAppGuard;

/// Suspends the application of a run while the machine is about to sleep, and for an underflow where the
/// record says so; else lets it go on. After a sleep it goes on unless an underflow keeps it suspended. Of
/// the run's thread, but for isHalted(), which is safe from any.
class ZqAppSuspension {
public:
    /// To be called every now and then. `isSleepComing`: the machine is about to sleep; `isWanted`: the
    /// application is to stand still, for that or another reason.
    void look(ZqCoreAppGuard* guard, bool isSleepComing, bool isWanted);
    /// Whether the application doesn't run, as the machine is about to sleep.
    bool isHalted() const { return halted; }

private:
    std::atomic<bool> halted{false};
    int64 failNs = 0; ///< when it couldn't be suspended, or resumed, last; 0 for never
};
