#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "ZqAvg.h"
#include "ZqRuntimeInfo.h"

/// Counts underflows and on-demand fetches into the run's record. get() and isOpen() are safe from any
/// thread, all else belongs to the job's. Times are steady ms: a jump of the system's clock changes nothing.
class ZqUnderflowFigures {
public:
    /// `record`: what is counted into; it outlives this object.
    explicit ZqUnderflowFigures(ZqRuntimeInfo* record);

    /// Counts an underflow of `size` bytes that began at `sinceMs`, unless one that was counted before isn't
    /// over.
    void begin(int64 size, int64 sinceMs) SX_EXCLUDES(mutex);
    /// Ends the underflow that was counted last, if it is open, also where a later fetch resolves it. A
    /// duration counts only where the underflow was counted.
    void end() SX_EXCLUDES(mutex);
    bool isOpen() const SX_EXCLUDES(mutex);
    /// A copy of the record, with the duration so far of an underflow that is open: a game that is stopped
    /// because it waits is the very case that the figures are to show.
    ZqRuntimeInfo get() const SX_EXCLUDES(mutex);

    /// The length of the drive's queue at the begin of a pass.
    void noteQueue(uint64 length) SX_EXCLUDES(mutex);
    /// Bytes that came with one fetch.
    void noteSize(int64 bytes) { fetchSizes.update(bytes); }
    /// What was fetched from byte `offset` of `img.zqf` on has got to the drive.
    void noteRequest(uint64 offset) { requestIndices.update(offset); }
    /// Stretches that hints have brought so far, and how many of these reads have waited for later.
    void noteHints(int64 nBegun, int64 nUsed) SX_EXCLUDES(mutex);
    /// A pass brought `n` stretches, at least one, in `elapsedMs`.
    void noteFetches(int64 n, int64 elapsedMs) SX_EXCLUDES(mutex);

    /// Logs the times of fetches and the place of requests in an image of `sizeZqf` bytes.
    void logTotals(uint64 sizeZqf) const;

private:
    static constexpr int64 NONE = -1;

    mutable SxMutex mutex;
    ZqRuntimeInfo* const record;              ///< changed under the lock
    int64 openMs SX_GUARDED_BY(mutex) = NONE; ///< when the underflow that is open began
    ZqAvg fetchTimes, fetchSizes, queueLengths, requestIndices;
    SxArray<ZqAvg> batchTimes; ///< time for one fetch in passes of n + 1 fetches, ms
};
