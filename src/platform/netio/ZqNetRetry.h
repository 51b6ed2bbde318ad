#pragma once

#include "SxException.h"
#include "ZqNetLink.h"

/// What one request does about its failures: waits and says so, or gives up. For one thread.
class ZqNetRetry {
public:
    /// A request whose server can't be reached is made `nTries_` times, 0 without end.
    ZqNetRetry(const SxPtr<ZqNetLink>& link_, int64 nTries_);
    ~ZqNetRetry() { progress(); }
    ZqNetRetry(const ZqNetRetry&) = delete;
    ZqNetRetry& operator=(const ZqNetRetry&) = delete;

    void setTries(int64 n) { nMax = n; }
    /// Bytes have come: all is well.
    void progress();
    /// Waits as long as is due after failure `e` and returns to try again; or raises it, with what was tried.
    void failed(const SxException& e, const ZqStopTest& stop);

private:
    const SxPtr<ZqNetLink> link;
    int64 nMax;
    bool isAskedTooMuch(const SxException& e);

    // In a row.
    int64 nFailed = 0;
    int64 nBroken = 0;
    int64 nBusy = 0;  ///< answers of a server that is asked too much, that don't count as tries
    int64 seenNs;     ///< refusals up to then were of earlier requests, on the steady clock
    int64 busyNs = 0; ///< when the first of those answers came
};
