#include "ZqSleepDelay.h"

#include "SxTime.h"
#include "ZqLog.h"
#include "ZqSleepWatch.h"

namespace {

/// From one look at the bus to the next; of the seconds that are granted it costs little, and hardly wakes
/// the processor.
constexpr int64 CALM_LOOK_MS = 500;
/// Looks in a row in which nothing waits. A thread of the application that was about to read when it was
/// stopped still does, so one look isn't enough.
constexpr int N_CALM_LOOKS = 3;

} // namespace

ZqSleepDelay::ZqSleepDelay(std::function<bool()> isCalm_) : isCalm(std::move(isCalm_)) {
    setThreadName("sleep delay");
}

void ZqSleepDelay::end() {
    ending.set();
    wait();
}

void ZqSleepDelay::main() {
    ZqSleepWatch watch;
    int nCalm = 0;
    do {
        const bool isComing = watch.isSleepComing();
        if (isComing != coming) {
            zqLogMsg("base", isComing ? "ZqSleepDelay: the machine is about to sleep"
                                      : "ZqSleepDelay: the machine is awake");
            nCalm = 0;
        }
        coming = isComing;
        if (isComing && watch.isHolding()) {
            nCalm = isCalm() ? nCalm + 1 : 0;
            if (nCalm == N_CALM_LOOKS) {
                zqLogMsg("base", "ZqSleepDelay: nothing waits for blocks, so the machine may sleep");
                watch.release();
            }
        }
    } while (!ending.isSetWithin(coming ? SxWait::LOOK_MS : CALM_LOOK_MS));
}
