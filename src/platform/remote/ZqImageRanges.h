#pragma once

#include "ZqImageCounts.h"
#include "ZqReadAhead.h"
#include "ZqStopThread.h"
#include "ZqStreamEdge.h"
#include "ZqStretchCache.h"
#include "ZqStretchClaims.h"

#include <set>
#include <vector>

/// Ranges of an image on demand, and what follows them. A stretch that is kept or on its way is not asked for
/// again, one that the stream is about to reach is left to it, and the others are requested; loaders, on
/// threads of their own, take what comes with these or before it is needed, and keep it. All operations are
/// safe from any thread; start() and the end belong to the owner.
class ZqImageRanges {
public:
    using Bytes = ZqImageForms::Bytes;

    /// The parts must live longer.
    ZqImageRanges(ZqImageForms* forms_, ZqStretchCache* cache_, ZqStreamEdge* edge_, ZqImageCounts* counts_);
    ~ZqImageRanges();
    ZqImageRanges(const ZqImageRanges&) = delete;
    ZqImageRanges& operator=(const ZqImageRanges&) = delete;

    /// Starts the loaders, once.
    void start();
    /// See ZqRemoteImage, for ranges within the image.
    SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                             const SxArray<uint64>& likely);
    void read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop);
    /// A stretch that is kept or claimed, once it is there; null where nobody is about to have it.
    Bytes awaitClaimed(uint64 stretchIdx, const ZqStopTest& stop);
    /// The stream has brought one.
    void wake() { claims.wake(); }

private:
    using Fetch = ZqStretchClaims::Fetch;
    class Demand;
    class Wait;

    Bytes getStretch(uint64 stretchIdx, const ZqStopTest& stop);
    Bytes find(uint64 stretchIdx);
    Bytes awaitStream(uint64 stretchIdx, const ZqStopTest& stop);
    uint64 countFollowing(uint64 firstIdx) const;
    /// Requests a stretch that somebody waits for, and with it those that follow, where that pays. `likely`:
    /// what somebody may ask for soon, if that is known.
    Fetch beginDemand(uint64 stretchIdx, bool isAlone, const std::set<uint64>& likely = {});
    /// A request for a stretch that somebody may ask for soon, and with it for those of `likely` that follow
    /// it; null where it is there or on its way. It isn't begun.
    Fetch makeLikely(uint64 stretchIdx, const std::set<uint64>& likely);
    Fetch makeFetch(uint64 stretchIdx, bool isAwaited);
    /// Whether somebody goes through the image and has come to a stretch.
    bool isGoneThrough(uint64 stretchIdx) const;
    bool isThere(uint64 stretchIdx) const;
    /// Requests what follows `stretchIdx`, where somebody goes through the image and little of it is there.
    void follow(uint64 stretchIdx);
    /// Takes up to `n` stretches for one request, as far as none is there, on its way or of no use.
    void claimFollowing(ZqStretchFetch* fetch, uint64 n);
    /// Takes and keeps stretches up to `endIdx`, all of them claimed.
    void takeUpTo(ZqStretchFetch* fetch, uint64 endIdx, const ZqStopTest& stop);
    void keep(const ZqStretchRequest& by, uint64 stretchIdx, const Bytes& bytes, bool isUnasked);
    void runLoader(const ZqStopTest& isStopped);
    /// Whether a stretch was begun as a likely one; true once.
    bool wasLikely(uint64 stretchIdx) SX_EXCLUDES(mutex);

    ZqImageForms* const forms;
    ZqStretchCache* const cache;
    ZqStreamEdge* const edge;
    ZqImageCounts* const counts;
    ZqReadAhead ahead;
    ZqStretchClaims claims;
    SxMutex mutex;
    std::set<uint64> likelyBegun SX_GUARDED_BY(mutex); ///< stretches that nobody has asked for yet
    std::vector<std::unique_ptr<ZqStopThread>> loaders;
};
