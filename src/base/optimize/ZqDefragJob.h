#pragma once

#include "SxLatch.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqRuntimeInfo.h"

#include <atomic>

/// What the two jobs that bring an image to a new order have in common: their figures and their end. The
/// queries and stop() are safe from any thread. Whoever starts one holds ZqImageLock::Shape exclusively, so
/// that nobody uses the image meanwhile.
class ZqDefragJob : public SxSystemThread {
public:
    /// Gets `defragStats`; not null.
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    /// What failures call the index folder, for one that is a private copy; before start().
    void setIndexName(const SxString& name) { indexName = name; }
    /// Looks at everything, works out what there is to do, and changes nothing; before start().
    void setForecastOnly() { forecastOnly = true; }
    /// Asks the job to end. It ends without a failure, after a block or a piece of them. A design decision: a
    /// stop that comes before start() holds, so that none is lost by how threads take their turns.
    void stop() { stopFlag = true; }
    bool isStopRequested() const { return stopFlag; }
    /// Percent, 0 to 100; 100 at the end, also after a stop.
    double getProgress() const;
    /// Bytes done. At the end getNTotal(), also after a stop.
    uint64 getICurrent() const;
    /// Bytes to do.
    uint64 getNTotal() const;
    /// Bytes per second since the start.
    uint64 getBpS() const;
    /// Seconds left; the bytes left where no speed is known.
    uint64 getETA() const;
    /// Waits for the end, up to `ms` milliseconds; whether it has come. wait() is needed all the same.
    bool awaitEnd(int64 ms) { return ended.isSetWithin(ms); }
    /// After the end: whether all was done, and nothing is left to go on with.
    bool isComplete() const { return complete; }

    // After the end, or the forecast.

    /// Blocks that the new order includes.
    uint64 getNIncluded() const { return nIncluded; }
    /// Blocks that lie elsewhere in the new order, and blocks that stay.
    uint64 getNMoved() const { return nMoved; }
    uint64 getNKept() const { return nKept; }
    /// Bytes that it writes into `img.zqf`.
    uint64 getBytes() const { return forecastOnly ? forecastBytes : written; }
    /// Bytes of the disk that it takes for a time, or for good, beside what the image has.
    uint64 getBytesExtra() const { return bytesExtra; }
    /// Of a forecast: seconds that the job would take, at the rate of the disk that was measured.
    double getForecastSeconds() const { return forecastSeconds; }

protected:
    /// Both folders with or without trailing slashes.
    ZqDefragJob(const SxString& image, const SxString& index);

    void main() final;
    void run();
    /// What the job does. Raises with the tag "Stopped" after a stop; returns when all is done.
    virtual void reorder() = 0;
    void setTotal(uint64 bytes);
    void setCurrent(uint64 bytes, double percent);
    void refuseStop() const;
    void addWritten(uint64 bytes) { written += bytes; }
    bool isForecastOnly() const { return forecastOnly; }

    const SxString imagePath, indexPath; ///< with trailing slashes
    SxString indexName;
    uint64 nIncluded = 0, nMoved = 0, nKept = 0;
    uint64 bytesExtra = 0, forecastBytes = 0;
    double forecastSeconds = 0;

private:
    mutable SxMutex progressMutex;
    double progress SX_GUARDED_BY(progressMutex) = 0;
    uint64 startTime SX_GUARDED_BY(progressMutex) = 0; ///< milliseconds
    uint64 iCurrent SX_GUARDED_BY(progressMutex) = 0;
    uint64 nTotal SX_GUARDED_BY(progressMutex) = 0;

    SxLatch ended;
    std::atomic<bool> stopFlag = false;
    uint64 written = 0; ///< bytes, by this run
    bool complete = false, forecastOnly = false;
};
