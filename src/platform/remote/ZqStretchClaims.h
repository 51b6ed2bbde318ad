#pragma once

#include "ZqStretchRequest.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <set>
#include <utility>
#include <vector>

class ZqStretchFetch;

/// Who is about to have which stretch of an image, so that none is fetched twice: those that a loader is to
/// have are claimed, with the request that brings them; those of requests that were announced and that nobody
/// has taken yet; and those that somebody fetches as he waits for them. Requests of which only claimed
/// stretches are left are queued here for the loaders. Safe from any thread.
///
/// What has come is kept before its claim or demand ends. So a claim or demand is made first, and then one
/// looks again whether the stretch is there by now. Who looks for it takes claims first, and then what is
/// kept. In this order nothing gets lost between the two, though each has a lock of its own.
class ZqStretchClaims {
public:
    using Fetch = SxPtr<ZqStretchFetch>;
    using Group = std::map<uint64, Fetch>; ///< by stretch

    /// Ends all that nobody has taken.
    ~ZqStretchClaims();

    /// The keys of `group` are wanted together: gives it the requests for these that were announced before,
    /// and `unwanted` all others; those that bring a stretch of the group further on go to a loader. What is
    /// left without a request and isn't claimed is given.
    std::vector<uint64> regroup(Group* group, Group* unwanted);
    /// These are announced now; gets what they take the place of.
    void announce(Group* group);
    /// The request that was announced for a stretch, once; null where there is none.
    Fetch takeAnnounced(uint64 stretchIdx);

    /// Somebody fetches this one and waits for it. False where it is claimed.
    bool beginDemand(uint64 stretchIdx);
    void endDemand(uint64 stretchIdx);
    /// Somebody waits for a claimed one, until endWait().
    void beginWait();
    void endWait();

    /// A loader is to have this one, by that request. Gives how many are claimed then; 0 where somebody has
    /// it already.
    uint64 claim(uint64 stretchIdx, const SxPtr<ZqStretchRequest>& request);
    void release(uint64 firstIdx, uint64 endIdx) noexcept;
    /// How many are claimed.
    uint64 count() const;
    /// The request that brings a claimed stretch; null where it isn't claimed.
    SxPtr<ZqStretchRequest> find(uint64 stretchIdx) const;

    /// Leaves to a loader what is still to come of a request.
    void pass(const Fetch& fetch);
    /// Leaves these to loaders, the first one first, before others that were left so earlier. They aren't
    /// begun before a loader has nothing else to do, and while nothing is announced or waited for: a server
    /// sends of what is held, too, as much as goes into buffers.
    void passLikely(const std::vector<Fetch>& fetches);
    /// What a loader has to do next; null where there is nothing for a while, or it is to stop. Of those that
    /// passLikely() has left, loaders get `nLikely` at a time, until noteEnd().
    Fetch takePassed(const ZqStopTest& isStopped, uint64 nLikely);
    /// A loader has done what it could of a request.
    void noteEnd(const Fetch& fetch);
    /// The request that brings a claimed stretch, where no loader has taken it yet: it is taken away from
    /// them. Else waits a moment for what becomes of the claim, and gives null.
    Fetch takePassed(uint64 stretchIdx);
    /// Lets all who wait look again.
    void wake();

private:
    void handOver(Group* fetches, uint64 stretchIdx) SX_REQUIRES(mutex);
    Fetch takeNext(uint64 nLikely) SX_REQUIRES(mutex);
    static Fetch takeFrom(std::deque<Fetch>* fetches, uint64 stretchIdx);

    mutable SxMutex mutex;
    std::condition_variable_any changed;
    std::map<uint64, SxPtr<ZqStretchRequest>> claimed SX_GUARDED_BY(mutex); ///< by stretch
    Group announced SX_GUARDED_BY(mutex);
    std::multiset<uint64> demanded SX_GUARDED_BY(mutex);
    std::deque<Fetch> passed SX_GUARDED_BY(mutex); ///< for the loaders
    std::deque<Fetch> likely SX_GUARDED_BY(mutex); ///< for the loaders, later
    uint64 nLikelyUnderWay SX_GUARDED_BY(mutex) = 0;
    uint64 nWaits SX_GUARDED_BY(mutex) = 0;
};

/// A request with the claims that it has: whoever waits for the first of its stretches takes that, and a
/// loader the others. Lets go of what is still claimed at its end. For one thread at a time.
class ZqStretchFetch {
public:
    /// Somebody waits for its first stretch where `isAwaited`; else that is claimed, too.
    ZqStretchFetch(ZqStretchClaims* claims_, ZqImageForms* forms, uint64 stretchIdx, bool isAwaited)
        : request(SxPtr<ZqStretchRequest>::create(forms, stretchIdx)),
          claims(claims_),
          claimedIdx(isAwaited ? stretchIdx + 1 : stretchIdx),
          endIdx(claimedIdx) {}
    ~ZqStretchFetch() { claims->release(claimedIdx, endIdx); }
    ZqStretchFetch(const ZqStretchFetch&) = delete;
    ZqStretchFetch& operator=(const ZqStretchFetch&) = delete;

    /// Begins the request, unless it was.
    void begin(ZqTransfer::Kind kind) {
        if (!std::exchange(isBegun, true)) request->begin(kind);
    }

    // Before the request begins.
    /// Claims one stretch more, the next, and gives how many are claimed of the image then; 0 where somebody
    /// has that already.
    uint64 claimNext();
    /// Takes the last of these claims back.
    void unclaim();

    /// The first that is claimed was taken and is kept.
    void release();
    /// Nobody waits for the first one any longer: it is claimed, too.
    void claimRest() { claimedIdx = request->getNext(); }
    /// Whether a stretch is among those that are claimed.
    bool brings(uint64 stretchIdx) const { return stretchIdx >= claimedIdx && stretchIdx < endIdx; }
    bool hasClaims() const { return claimedIdx < endIdx; }
    /// One past the last that is claimed.
    uint64 getEnd() const noexcept { return endIdx; }

    const SxPtr<ZqStretchRequest> request;
    bool isCounted = false; ///< among the likely ones that loaders have; for ZqStretchClaims alone

private:
    ZqStretchClaims* const claims;
    uint64 claimedIdx, endIdx;
    bool isBegun = false;
};
