#pragma once

#include "BlockIdx.h"

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <vector>

/// A request that waits for blocks.
struct HeldRequest {
    std::list<HeldRequest>::iterator self; ///< its place among those that are held
    uint64 token = 0;
    uint64 offset = 0; ///< RAW bytes
    uint32 size = 0;   ///< bytes
    bool write = false;
    int64 sinceNs = 0;           ///< when it was held, by the steady clock
    std::vector<ZqfIdx> missing; ///< when it was held, in ascending order
    uint64 nMissing = 0;         ///< of these, still
};

/// The blocks that held requests wait for, each once, and the queue in which they are handed out. Not locked.
///
///   state     waits in   leaves by
///   queued    queue      pop: popped; arrived or no longer wanted: gone
///   popped    nothing    RETURN_NS later: returned; arrived or no longer wanted: gone
///   returned  returned   as queued, and is popped before those
class MissingQueue {
public:
    /// A popped block that isn't delivered by then stands on the queue again.
    static constexpr int64 RETURN_NS = 100'000'000;

    /// Puts the request's missing blocks at the end, but for those that are wanted already.
    void add(HeldRequest* request);
    /// The request no longer waits; blocks that nobody else waits for are gone.
    void remove(HeldRequest* request);
    /// The blocks from `first` to `end` - 1 are there; gives the requests that wait for no others.
    std::vector<HeldRequest*> arrive(ZqfIdx first, ZqfIdx end);
    /// Starts afresh with `requests`, oldest first, whose missing blocks may have changed; what is popped
    /// stays so.
    void rebuild(const std::vector<HeldRequest*>& requests);

    uint64 length(int64 nowNs);
    std::vector<uint64> pop(uint64 max, int64 nowNs);
    /// Lowest block that `request` waits for still.
    ZqfIdx firstMissing(const HeldRequest& request) const;

private:
    static constexpr int64 NOT_POPPED = -1;
    static constexpr uint64 MAX_STALE = 1024; ///< entries of gone blocks, beside as many as there are others
    struct Wanted {
        HeldRequest* first;
        std::vector<HeldRequest*> more; ///< rarely any
        uint64 ticket;                  ///< tells a place in a queue from one that is out of date
        int64 poppedNs;
    };
    struct Entry {
        ZqfIdx zqfIdx;
        uint64 ticket;
    };

    void takeBack(int64 nowNs);
    bool stands(const Entry& entry) const;
    void leave(const Wanted& wanted) { nQueued -= wanted.poppedNs == NOT_POPPED; }
    void popFrom(std::deque<Entry>* queue, uint64 max, int64 nowNs, std::vector<uint64>* zqfIdxs);

    std::map<ZqfIdx, Wanted> blocks;
    std::deque<Entry> queued, returned, popped;
    uint64 nQueued = 0, nTickets = 0;
};
