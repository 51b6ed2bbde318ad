#pragma once

#include "ZqNetLink.h"

#include <deque>
#include <limits>
#include <vector>

/// What a link still asks of a server that has said that it is asked too much (429, 503). For the network
/// thread; times are those of the steady clock.
///
/// Nothing is asked for as long as its `Retry-After` says, up to 5 minutes, or else for a back-off. Meanwhile
/// one request that somebody waits for may ask again after 10 s, and a good answer to it lets the others go
/// on. After that half of what was under way goes at once, and requests begin half as often. With each second
/// it is one request more, and they begin a quarter more often. So a server that takes five requests a second
/// refuses one every few seconds. An ordered stream has a place beside the count.
class ZqNetGate {
public:
    explicit ZqNetGate(const ZqNetSettings& settings_) : settings(settings_) {}

    /// One that wants to begin.
    struct Request {
        bool isWaitedFor = false; ///< somebody waits for it
        bool isOrdered = false;   ///< an ordered stream, which has a place of its own
        bool isOnDemand = false;  ///< it goes before those that have waited for less than a second
        int64 sinceNs = 0;        ///< when it came
    };
    /// The place in `waiting`, oldest first, of the one that begins next beside `nUnderWay` others; its size
    /// where none may. One that may not begin holds up no other.
    size_t choose(const std::vector<Request>& waiting, int64 nUnderWay, int64 nowNs) const;
    /// Whether it may begin beside `nUnderWay` others, ordered streams not counted.
    bool mayBegin(const Request& request, int64 nUnderWay, int64 nowNs) const;
    /// From when on one of them may begin, if nothing else happens before; NEVER where an end or an answer of
    /// another has to.
    int64 findNextNs(const std::vector<Request>& waiting, int64 nUnderWay, int64 nowNs) const;
    static constexpr int64 NEVER = std::numeric_limits<int64>::max();
    void noteBegin(int64 nowNs);
    /// A request that was begun at `begunNs` was answered well.
    void answered(int64 begunNs, int64 nowNs);
    /// The server refused it, and asks for `retryAfterMs` (-1 where it doesn't say), while `nUnderWay` others
    /// were under way.
    void refused(int64 begunNs, int64 retryAfterMs, int64 nUnderWay, int64 nowNs);
    /// Up to when nothing is asked of the server, but for one request at a time that somebody waits for.
    int64 getUntilNs() const noexcept { return untilNs; }

private:
    void recover(int64 nowNs);

    const ZqNetSettings settings;
    std::deque<int64> begun; ///< of the last second
    int64 refusedNs = 0;     ///< when it was refused last; 0 never
    int64 changedNs = 0;     ///< when the limits changed last
    int64 untilNs = 0, probeNs = 0;
    int64 nInRow = 0;
    int64 maxUnderWay = 0; ///< 0 without a limit
    int64 gapNs = 0;       ///< between two begins
};
