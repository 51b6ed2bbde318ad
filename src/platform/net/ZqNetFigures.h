#pragma once

#include "SxTypes.h"

/// What a link has moved and how fast, for reports and decisions.
struct ZqNetFigures {
    uint64 nBytes = 0;         ///< body bytes received, of all requests
    uint64 nOnDemandBytes = 0; ///< those of ranges that somebody waited for
    uint64 nRequests = 0;
    uint64 nRetries = 0;
    int64 roundTripUs = 0;  ///< from request to first byte, the smallest of late; 0 not known yet
    double rate = 0.;       ///< of the ordered streams while they weren't held, bytes a second; 0 not known
    bool isAtLimit = false; ///< the rate limit holds the ordered streams, so the link carries more than that
    double tripBytes = 0.;  ///< what the link carries in a round trip at its best of late; 0 not known
};

/// A server, or the way to it, that is away.
struct ZqNetOutage {
    int64 ms = 0;     ///< since the last byte came while bytes were wanted; 0 while it isn't away
    int64 nTries = 0; ///< in vain; 0 where it is silent, and no request has failed yet
};
