#pragma once

#include "ZqRangeReader.h"
#include "ZqRemoteImage.h"

/// Stretches on their way: one, or several that follow each other, in one request. Whoever waits for the
/// first takes that; a loader takes the others, which are claimed by it until then. Lets go of its claims at
/// its end, which must not come while the image's mutex is held.
struct ZqRemoteImage::Fetch {
    explicit Fetch(ZqRemoteImage* image_, uint64 stretchIdx)
        : image(image_),
          nextIdx(stretchIdx),
          endIdx(stretchIdx + 1),
          claimedIdx(endIdx) {}
    ~Fetch() {
        for (; claimedIdx < endIdx; ++claimedIdx)
            image->forgetAhead(claimedIdx);
    }
    Fetch(const Fetch&) = delete;
    Fetch& operator=(const Fetch&) = delete;

    /// Bytes of the wire.
    uint64 wireSize(uint64 stretchIdx) const {
        return table ? table->getFrame(stretchIdx).size : image->stretchSize(stretchIdx);
    }

    ZqRemoteImage* const image;
    uint64 nextIdx, endIdx;   ///< stretches that are still to be taken
    uint64 claimedIdx;        ///< the first that is claimed
    SxPtr<ZqSeekTable> table; ///< of the packed form; null where the plain one is fetched
    SxPtr<ZqRangeReader> reader;
    bool isAgain = false;   ///< one that was damaged, fetched once more
    bool isChecked = false; ///< the stretch that was taken last was compared with a checksum
};
