#pragma once

#include "SxPtr.h"
#include "SxTypes.h"

#include <atomic>
#include <vector>

class ZqRangeFetch;
class ZqRangeSource;

/// The stretches of `img.zqf` that are on their way from a source of ranges. One that the server is silent
/// about holds up no other. All operations belong to one thread. Offsets are bytes.
class ZqRangeFetches {
public:
    ZqRangeFetches();
    /// Waits for all; end() makes that short.
    ~ZqRangeFetches();

    bool isEmpty() const { return fetches.empty(); }
    /// How many more are worth having on the wire together at steady time `nowMs`. One that the server has
    /// been silent about takes the place of no other.
    int64 nFree(int64 nowMs) const;
    bool isUnderWay(uint64 offset) const;
    /// The same for one that isn't left to the ordered download.
    bool isUnderWayApart(uint64 offset) const;

    /// Begins to fetch `length` bytes. `isApart`: by requests of its own, not left to the ordered download.
    void begin(const SxPtr<ZqRangeSource>& from, uint64 offset, uint64 length, bool isApart);
    /// Waits until one has ended, but no longer than the drive is left alone.
    void await(const std::atomic<bool>& isStopped) const;
    /// Takes out one that has ended; null where there is none.
    SxPtr<ZqRangeFetch> takeEnded();
    /// Gives up all. Their sources stay cancelled where the job is stopped.
    void end(const std::atomic<bool>& isStopped);

private:
    std::vector<SxPtr<ZqRangeFetch>> fetches;
};
