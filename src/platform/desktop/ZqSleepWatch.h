#pragma once

#include "SxTypes.h"

#include <memory>

/// Tells when the machine is about to sleep, and holds that up by a delay inhibitor of logind, for as long as
/// logind grants: 5 s, where the machine's owner hasn't set another time (`InhibitDelayMaxSec`). Where there
/// is no system bus, or no logind on it, or they refuse, nothing is ever told and nothing is different; both
/// are looked for again every 10 s. A logind that was started anew is asked anew. Belongs to one thread, and
/// none of its operations waits for longer than 2 s.
class ZqSleepWatch {
public:
    ZqSleepWatch();
    ~ZqSleepWatch();
    ZqSleepWatch(const ZqSleepWatch&) = delete;
    ZqSleepWatch& operator=(const ZqSleepWatch&) = delete;

    /// Takes in what the bus has to say. Whether the machine is about to sleep, and hasn't woken again.
    bool isSleepComing();
    /// Whether the machine's sleep waits for release().
    bool isHolding() const;
    /// Lets the machine sleep. Once it has woken, its next sleep is held up again.
    void release();

private:
    class Bus;
    std::unique_ptr<Bus> bus;
    int64 nextNs = 0;  ///< when the bus is looked for, or asked to hold up the sleep, the next time
    bool told = false; ///< the log has why that failed
};
