#pragma once

#include "SxMutex.h"
#include "ZqNetLink.h"
#include "ZqStretchLayout.h"

#include <array>
#include <condition_variable>

/// How far the ordered stream of an image has come, how it moves, and so which stretches it is about to
/// reach: those are left to it. The stream tells, and ranges ask. Safe from any thread.
///
/// What the stream has brought is to be found before it moves here. So whoever wants a stretch asks here
/// first whether the stream reaches it soon, and looks for it after that.
class ZqStreamEdge {
public:
    ZqStreamEdge(const SxPtr<ZqNetLink>& link_, const ZqStretchLayout& layout_)
        : link(link_),
          layout(layout_) {}

    // For the stream.
    /// False where one is under way.
    bool begin(uint64 offset);
    void end();
    /// Decoded bytes up to `to` have come, within a stretch.
    void receive(uint64 to);
    /// A stretch that ends at `to` has come, and is to be found.
    void advance(uint64 to);
    /// Bytes of the wire have come, though not yet a stretch.
    void noteMoved();
    /// Of the packed form, or the plain one, bytes `from` to `to` - 1 have come over the wire; gives how many
    /// of them not for the first time, since a request that had brought them was broken off, or the stream
    /// has gone back.
    uint64 noteReceived(bool isPacked, uint64 from, uint64 to);
    /// `nWire` bytes of the wire have brought a stretch of `size`.
    void noteShare(uint64 nWire, uint64 size);

    /// The decoded bytes before `end` are what whoever goes through the image most likely needs next, so a
    /// stream that is there shares the link with requests.
    void setCore(uint64 end);

    /// Bytes of the wire for one decoded byte.
    double getWireShare() const;
    /// Wire bytes that pass in `nTrips` round trips.
    double tripBytes(double nTrips) const;
    /// The stream brings it about as soon as a request could.
    bool isReachedSoon(uint64 stretchIdx) const;
    /// Whether its begin has come.
    bool hasBegun(uint64 stretchIdx) const;
    /// Whether a whole stretch of that number has come; not said of the image's last one where that is short.
    bool hasPassed(uint64 stretchIdx) const;
    /// Waits a moment for the stream to bring it; returns at once where it has.
    void await(uint64 stretchIdx);

private:
    void share() SX_REQUIRES(mutex);

    const SxPtr<ZqNetLink> link;
    const ZqStretchLayout layout;

    mutable SxMutex mutex;
    std::condition_variable_any changed;
    bool streaming SX_GUARDED_BY(mutex) = false;
    uint64 pos SX_GUARDED_BY(mutex) = 0; ///< decoded bytes received in order
    uint64 coreEnd SX_GUARDED_BY(mutex) = 0;
    int64 movedNs SX_GUARDED_BY(mutex) = 0;
    double wireShare SX_GUARDED_BY(mutex) = 1.;
    /// One past the last byte that has come, of the plain form and of the packed one.
    std::array<uint64, 2> furthest SX_GUARDED_BY(mutex) = {};
};
