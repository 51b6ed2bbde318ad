#pragma once

#include "MissingQueue.h"
#include "ReadWaits.h"
#include "SxMutex.h"

#include <atomic>
#include <list>

/// The requests of one disk that can't go on, and what holds them. Safe from any thread. What it gives as
/// woken tokens is to be woken by the caller, without a lock.
///
///   state      why                         goes on by
///   missing    a block isn't there         the last of its blocks, the cursor, failing, close
///   suspended  the disk is suspended       resume, close
///   gated      a write, while the layer    the gate's opening, close
///              is flushed
///
/// A request that goes on is forgotten here; where it can't be done yet its retry is held anew.
class HeldRequests {
public:
    using Tokens = std::vector<uint64>;
    enum class Verdict { Go, Held, Failed };
    /// Lists the missing blocks of a request in ascending order. Called with the lock held; must be quick.
    using FindMissing = std::function<void(const HeldRequest& request, std::vector<ZqfIdx>* missing)>;

    /// `waits_`: told of each read that is held; it outlives this.
    HeldRequests(FindMissing findMissing_, ReadWaits* waits_)
        : findMissing(std::move(findMissing_)),
          waits(waits_) {}

    /// Whether requests may not just go on: the cheap question before admit().
    bool isRestricted() const { return restrictions.load() != 0; }
    /// Holds a request that may not go on now, since the disk is suspended or the gate is closed.
    Verdict admit(uint64 token, bool write);
    /// Holds a request for its missing blocks. Go where none is missing now.
    Verdict hold(uint64 token, uint64 offset, uint32 size, bool write);
    bool forget(uint64 token);

    /// The blocks from `first` to `end` - 1 are there.
    Tokens arrive(ZqfIdx first, ZqfIdx end);
    /// Sets the cursor. Where it goes down, blocks that were there are missing again.
    Tokens moveCursor(std::atomic<uint64>* cursor, uint64 to);
    /// From now on a request for a missing block fails and isn't held.
    Tokens failMissing();
    void suspend();
    Tokens resume();
    void closeGate();
    Tokens openGate();
    /// Fails all requests from now on.
    Tokens close();

    bool isSuspended() const { return (restrictions.load() & Suspended) != 0; }
    bool isClosed() const { return (restrictions.load() & Closed) != 0; }
    /// Whether a read is held for a missing block.
    bool isUnderflow() const;
    uint64 nHeld() const;
    /// For how long reads were held so far, all together, those that are held now up to now.
    int64 readsHeldNs() const;
    uint64 queueLength();
    std::vector<uint64> popMissing(uint64 max);
    bool oldest(uint64* offset, uint64* length) const;

private:
    enum Restriction : unsigned { Suspended = 1, Gated = 2, Closed = 4 };
    struct Waiting {
        uint64 token;
        bool write;
        int64 sinceNs;
    };

    bool isHeldBack(bool write) const;
    void restrict(Restriction restriction, bool on) SX_REQUIRES(mutex);
    Tokens releaseWaiting() SX_REQUIRES(mutex);
    Tokens releaseMissing() SX_REQUIRES(mutex);
    Tokens arriveLocked(ZqfIdx first, ZqfIdx end) SX_REQUIRES(mutex);
    Tokens rebuild() SX_REQUIRES(mutex);
    void noteBegin(bool write, int64 nowNs) SX_REQUIRES(mutex);
    void noteEnd(bool write, int64 sinceNs) SX_REQUIRES(mutex);

    const FindMissing findMissing;
    ReadWaits* const waits;
    mutable SxMutex mutex;
    std::atomic<unsigned> restrictions{0}; ///< changed with the mutex held
    bool failing SX_GUARDED_BY(mutex) = false;
    int64 endedNs SX_GUARDED_BY(mutex) = 0; ///< for how long reads were held that no longer are
    /// Oldest first; each knows its own place, so that one of thousands is found at once.
    std::list<HeldRequest> missing SX_GUARDED_BY(mutex);
    std::vector<Waiting> waiting SX_GUARDED_BY(mutex);
    MissingQueue queue SX_GUARDED_BY(mutex);
};
