#include "ZqAppSuspension.h"

#include "SxClock.h"
#include "ZqCoreAppGuard.h"

namespace {
/// From one try to suspend an application, or to let it go on, that failed to the next. A search for its
/// process in vain holds up the run for a second.
constexpr int64 SUSPEND_NS = 5'000'000'000;
} // namespace

void ZqAppSuspension::look(ZqCoreAppGuard* guard, bool isSleepComing, bool isWanted) {
    // A launcher goes on, also one whose application hasn't come yet: nobody knows yet whom to suspend.
    const bool isThere = guard->hasApplication();
    const int64 nowNs = SxClock::get().steadyNs();
    const bool isDue = failNs == 0 || nowNs - failNs >= SUSPEND_NS;
    if (isThere && isDue && isWanted != guard->isSuspended()) {
        isWanted ? guard->suspend() : guard->resume();
        failNs = isWanted == guard->isSuspended() ? 0 : SxClock::get().steadyNs();
    }
    halted = isSleepComing && (!isThere || guard->isSuspended());
}
