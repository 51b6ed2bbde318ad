#pragma once

#include "SxMutex.h"
#include "ZqReadWait.h"

/// The waits of a disk's readers: a wait is a time in which at least one read was held without a break. Times
/// in nanoseconds of the steady clock. One that isn't longer than ZqReadWait::LEAST_NS is forgotten when it
/// ends. Safe from any thread.
class ReadWaits {
public:
    struct View {
        int64 sinceNs = 0;                  ///< when the one that goes on began; 0 for none
        int64 lastFromNs = 0, lastToNs = 0; ///< the last one that has ended; 0 for none
    };

    /// One more read is held.
    void begin(int64 nowNs) {
        const SxMutexBlock lock(&mutex);
        if (nHeld++ == 0) now.sinceNs = nowNs;
    }
    /// One of them no longer is.
    void end(int64 nowNs) {
        const SxMutexBlock lock(&mutex);
        if (--nHeld > 0) return;
        if (nowNs - now.sinceNs > ZqReadWait::LEAST_NS) {
            now.lastFromNs = now.sinceNs;
            now.lastToNs = nowNs;
        }
        now.sinceNs = 0;
    }
    View view() const {
        const SxMutexBlock lock(&mutex);
        return now;
    }

private:
    mutable SxMutex mutex;
    uint64 nHeld SX_GUARDED_BY(mutex) = 0;
    View now SX_GUARDED_BY(mutex);
};
