#pragma once

#include "SxSystemThread.h"

/// Base of a job with progress counters. What the counters count is the job's choice, bytes as a rule. All
/// but main() are safe from any thread. Whoever has made a job starts it, waits for it, and looks only then
/// at what it has come to.
class ZqTaskMon : public SxSystemThread {
public:
    /// What is done so far.
    virtual uint64 getNCurrent() const;
    /// What there is to do; 0 while that isn't known.
    virtual uint64 getNTotal() const;
    /// Counts per second.
    virtual uint64 getSpeed() const;
    /// Seconds until the end at that speed; 0 where nothing is left or the speed is 0.
    virtual uint64 getETA() const;
    virtual void setNCurrent(uint64 n);
    virtual void addNCurrent(uint64 n);
    virtual void setNTotal(uint64 n);
    virtual void setSpeed(uint64 perSecond);
    /// Sets the speed to the current count divided by the whole seconds since `t0` (system time in
    /// milliseconds), or to the count itself in the first second.
    void updateSpeed(int64 t0);

    /// Asks the job to end, by a flag that it looks at; neither waits nor joins.
    void stop();
    bool stopRequested() const;

private:
    mutable SxMutex counterMutex;
    uint64 nCurrent SX_GUARDED_BY(counterMutex) = 0;
    uint64 nTotal SX_GUARDED_BY(counterMutex) = 0;
    uint64 speed SX_GUARDED_BY(counterMutex) = 0;

    mutable SxMutex stopMutex;
    bool stopFlag SX_GUARDED_BY(stopMutex) = false;
};
