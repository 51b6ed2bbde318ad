#pragma once

#include "SxMutex.h"
#include "SxTypes.h"

#include <functional>

/// The rate of a link that several connections share. Each sends in slices of about a millisecond of the link
/// and waits for its turn with each, so that all get the same share, and one that comes waits for one slice
/// of each other at most. Times are absolute: a busy link makes up for sleeps that took too long, up to 50
/// ms. A link that was idle has saved nothing up. Safe from any thread.
class ZqLinkRate {
public:
    /// Bytes per second; 0 is no limit.
    void set(uint64 bytesPerSecond);
    uint64 get() const;

    /// Brackets the time in which a connection has something to send.
    class Busy {
    public:
        explicit Busy(ZqLinkRate* link_);
        ~Busy();
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

    private:
        ZqLinkRate* link;
    };

    /// Waits until up to `n` bytes have passed the link, and gives how many may be sent now; 0 where
    /// `stopped` came true, which is asked every few milliseconds. Within a Busy.
    int64 take(int64 n, const std::function<bool()>& stopped);

private:
    mutable SxMutex mutex;
    uint64 rate SX_GUARDED_BY(mutex) = 0;
    int64 nBusy SX_GUARDED_BY(mutex) = 0;
    int64 freeNs SX_GUARDED_BY(mutex) = 0; ///< when all that was taken has passed
};
