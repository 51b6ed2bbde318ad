#pragma once

#include "ReadWaits.h"
#include "SxClock.h"
#include "SxMutex.h"

#include <atomic>
#include <map>
#include <vector>

/// The requests of one disk for which `img.zqf` came short below the cursor. Their blocks are said to be
/// there, and they are held and tried again for a while before they fail.
///
/// On a FUSE file system stat(2) can tell a size that read(2) doesn't give yet: while a write(2) of several
/// requests is under way, the daemon has more of the file than the kernel lets anybody read. So a cursor that
/// was moved by the size may lie beyond what reads give, until that write has returned.
///
/// Safe from any thread. What it gives as woken tokens is to be woken by the caller, without a lock.
class ShortReads {
public:
    /// How long a request is tried again. A write of what the writer takes at a time lasts so long on a disk
    /// of 200 kB a second.
    static constexpr int64 LIMIT_NS = int64{10} * 1'000'000'000;

    /// `waits_`: told of each request that is held; it outlives this.
    explicit ShortReads(ReadWaits* waits_) : waits(waits_) {}

    /// Holds a request that came short; false where it has had its time, or nobody is to wait any longer.
    bool hold(uint64 token);
    /// Forgets a request, which is no longer woken; false where it isn't held.
    bool forget(uint64 token);
    /// To be called with the first try of a request, and where it was done: its time begins anew.
    void settle(uint64 token) {
        if (nKnown.load() != 0) forget(token);
    }
    /// Those that are to be tried again now.
    std::vector<uint64> release();
    /// From now on none is held; gives those that are.
    std::vector<uint64> fail();
    /// The cursor has moved up: the file grows, so requests are held again, even if one has waited in vain.
    void revive() { hasExpired = false; }
    uint64 nHeld() const;
    /// For how long reads and writes were held so far, all together, those that are held now up to now.
    int64 heldNs() const;

private:
    struct Request {
        int64 sinceNs; ///< when it came short first
        bool isHeld;   ///< not while it is tried again
    };

    std::vector<uint64> releaseLocked() SX_REQUIRES(mutex);
    void noteEnd(int64 sinceNs, int64 nowNs) SX_REQUIRES(mutex);

    ReadWaits* const waits;
    mutable SxMutex mutex;
    std::map<uint64, Request> requests SX_GUARDED_BY(mutex); ///< by their tokens
    std::atomic<uint64> nKnown{0};                           ///< how many these are
    int64 endedNs SX_GUARDED_BY(mutex) = 0; ///< for how long those were held that no longer are
    bool isFailing SX_GUARDED_BY(mutex) = false;
    std::atomic<bool> hasExpired{false}; ///< one has waited in vain: the next ones fail at once
};
