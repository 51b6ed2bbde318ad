#pragma once

#include "SxException.h"
#include "ZqNetLink.h"

/// What one request does about its failures, or several that take turns with each other: waits and says so,
/// or gives up. For one thread.
class ZqNetRetry {
public:
    /// Tag of a failure with which a turn ends.
    static constexpr const char* TURN_ENDED = "TurnEnded";

    /// A request whose server can't be reached is made `nTries_` times, 0 without end.
    ZqNetRetry(const SxPtr<ZqNetLink>& link_, int64 nTries_);
    ~ZqNetRetry() { progress(); }
    ZqNetRetry(const ZqNetRetry&) = delete;
    ZqNetRetry& operator=(const ZqNetRetry&) = delete;

    void setTries(int64 n) { nMax = n; }
    /// From now on it is the turn of one of two sources of the same bytes: failed() raises, with the tag
    /// TURN_ENDED, what has failed `nTries` times in a row, or for longer than `ms`. Pauses and tries go on
    /// from turn to turn, so that both sources have one back-off. Answers of a server that is asked too much
    /// take none of the time.
    void beginTurn(int64 nTries, int64 ms);
    /// Somebody waits from now on for the bytes that come next; before that nothing of a turn passes.
    void beginWait();
    /// There is one source only.
    void endTurns() { nInTurn = 0; }
    /// Bytes have come: all is well.
    void progress();
    /// Waits as long as is due after failure `e` and returns to try again; or raises it, with what was tried.
    void failed(const SxException& e, const ZqStopTest& stop);

private:
    const SxPtr<ZqNetLink> link;
    int64 nMax;
    int64 nInTurn = 0, turnMs = 0; ///< limits of a turn; no tries for none
    bool isAskedTooMuch(const SxException& e);
    bool hasTurnEnded(bool isBusy);

    // In a row.
    int64 nFailed = 0;
    int64 nBroken = 0;
    int64 nTurnFailed = 0;
    int64 turnNs = 0; ///< since when somebody has waited in this turn
    int64 waitNs;     ///< since when somebody has waited for what comes next, or for what failed first
    int64 nBusy = 0;  ///< answers of a server that is asked too much, that don't count as tries
    int64 seenNs;     ///< refusals up to then were of earlier requests, on the steady clock
    int64 busyNs = 0; ///< when the first of those answers came
};
