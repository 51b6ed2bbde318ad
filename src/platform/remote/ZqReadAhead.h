#pragma once

#include "SxMutex.h"
#include "ZqNetLink.h"
#include "ZqStretchLayout.h"

/// How much of what follows a stretch on demand comes with it. Makes no requests. Safe from any thread.
///
/// What follows comes in the same request, since whoever reads mostly reads on. Only the first stretch is on
/// demand. After it the request yields to others on demand, and the ordered streams are held for it. Who goes
/// through the image gets more before he needs it.
///
/// To the first frame of a game it took 4.1 s without this and 2.8 s with it, from a packed image at 20
/// Mbit/s; at 100 Mbit/s it took 1.7 and 1.0 s. On a link whose round trip carries little of a stretch it
/// takes more from the next request on demand than it saves, since it can't be held to the byte.
///
/// It ends when FIRST_TOGETHER such requests have brought nothing that somebody has asked for: reads here and
/// there would find the link full. It ends, too, when what came so and is unused is too much
/// (ZqStretchCache): an image that is read all over would never be complete.
class ZqReadAhead {
public:
    ZqReadAhead(const SxPtr<ZqNetLink>& link_, const ZqStretchLayout& layout_)
        : link(link_),
          layout(layout_) {}

    /// Stretches from `firstIdx` on that come with one that somebody needs: as many as leave the link no
    /// round trip idle, none where they would hold up others. Where stretches pack well, as level files do
    /// that a game looks through one by one, they are several. `table` is that of the packed form where that
    /// is in use.
    uint64 countFollowing(uint64 firstIdx, const SxPtr<ZqSeekTable>& table) const;
    /// Whether what came with others has been of use of late, for somebody who may read on or not.
    bool mayTry() const;
    /// One more request of several stretches is made for such.
    void noteTry();
    /// Somebody has asked for a stretch that came with others: two more such requests may be made.
    void noteUse();

private:
    /// Requests of several stretches in a row that may bring nothing of use.
    static constexpr int64 FIRST_TOGETHER = 4;

    const SxPtr<ZqNetLink> link;
    const ZqStretchLayout layout;
    mutable SxMutex mutex;
    /// Requests of several stretches that may still be made until one of the further ones is of use.
    int64 nLeft SX_GUARDED_BY(mutex) = FIRST_TOGETHER;
};
