#pragma once

#include "SxException.h"
#include "SxMutex.h"
#include "SxString.h"
#include "ZqNetLink.h"

#include <atomic>
#include <functional>

/// What a run waits for, as a line that others may read, and the stop that breaks off each of its waits. The
/// run's thread waits; stop(), isStopping() and getLine() are safe from any.
class ZqRunWait {
public:
    /// For good.
    void stop() { stopFlag = true; }
    bool isStopping() const { return stopFlag; }
    /// The same, for others to ask.
    ZqStopTest test() const {
        return [this] { return isStopping(); };
    }
    /// Raises that with the tag SxException::STOPPED.
    void requireGoing() const;
    /// Says what is waited for; empty for nothing.
    void tell(const SxString& text);
    SxString getLine() const;
    /// Makes calls of the drive service, again and again as long as it is silent and nobody stops the run.
    void patiently(const std::function<void()>& calls);

    static SxException stopped();

private:
    std::atomic<bool> stopFlag{false};
    mutable SxMutex mutex;
    SxString line SX_GUARDED_BY(mutex);
};
