#pragma once

#include "SxSystemThread.h"
#include "ZqRunSeries.h"

#include <atomic>

class ZqImageFeed;

/// Takes the samples of a run's series until it is ended. It has a thread of its own and asks the feed,
/// never the drive service: a call of the service could hold up the run's end. The drive's cursor follows the
/// file within 10 ms, so the line of the file's size is that of the cursor, too. The operations belong to the
/// owner's thread.
class ZqRunSampler : public SxSystemThread {
public:
    /// `feed_`: one that has begun to download, and outlives this. `beginNs`: when the run began, by the
    /// steady clock. `nAtStart`: bytes of `img.zqf` that were there before the download.
    ZqRunSampler(const ZqImageFeed& feed_, int64 beginNs_, uint64 nAtStart_);

    /// Ends the thread, takes the last sample, and gives the series.
    const ZqRunSeries& end();

protected:
    void main() override;

private:
    void take();

    const ZqImageFeed& feed;
    const int64 beginNs;
    const uint64 nAtStart;
    std::atomic<bool> isEnding{false};
    ZqRunSeries series; ///< the thread's, until that has ended
};
