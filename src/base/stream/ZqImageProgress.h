#pragma once

#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqAppParams.h"
#include "ZqAvg.h"
#include "ZqCursorWay.h"

#include <atomic>
#include <functional>

/// Connects a growing `img.zqf` with its drive: moves the drive's cursor to the end of what is there,
/// measures the download, and says how much must be there before the application may start. Cursor and count
/// follow the file within 10 ms; together with the writer, which looks as often, a block can be read 20 ms
/// after its bytes came. May run before the mount; an image that isn't mounted has no cursor to be moved, and
/// a drive that goes in the middle of a call is no failure either. Ends when the image is complete; a failure
/// ends it with the event APP_ERROR. Durations are taken on the steady clock, which no adjustment moves. All
/// operations are safe from any thread, but for those of SxSystemThread. Counts are in bytes of `img.zqf`,
/// speeds in megabit per second unless said otherwise.
class ZqImageProgress : public SxSystemThread {
public:
    /// `path`: the image's folder without a trailing slash, which holds `img.zqf` when the thread starts.
    ZqImageProgress(const SxString& path, const ZqAppParams& params);

    /// Where the image's writer is in this process: gives the end of what its calls of write(2) have returned
    /// for, ANY while it writes nothing. The file's size counts no further than that: a file system of a
    /// daemon (FUSE) tells the daemon's size while a write of several requests is under way, and reads end at
    /// the size from before it. Where another process writes, the size is all there is, and the drive holds a
    /// read that comes short. To be called before the start; `end` is called on this thread.
    void setWriteEnd(std::function<uint64()> end) { writeEnd = std::move(end); }
    static constexpr uint64 ANY = ~uint64{0};

    /// Until the first second has told a speed, getNInit() takes what `speed` gives, in megabit per second;
    /// without that no speed is known then, and all of the image counts as needed. To be called before the
    /// start.
    void setEarlySpeed(std::function<double()> speed) { earlySpeed = std::move(speed); }

    void stop();
    bool stopRequested() const;

    /// What is there, what was there at the start, and what there will be.
    uint64 getNCurrent() const;
    uint64 getNCurrent0() const;
    uint64 getNTotal() const;
    void setNCurrent(uint64 n);

    /// Of the last pass, of the last ten (mean and standard deviation), and of the whole run.
    double getCurrentSpeed() const;
    double getAvgSpeed() const;
    /// How many passes the mean is of.
    int64 getNSpeeds() const;
    /// The pass that is under way, which no speed has yet.
    struct Pass {
        double seconds = 0; ///< since the last one ended
        uint64 nBytes = 0;  ///< that have come in it
    };
    Pass getPass() const;
    double getSigmaSpeed() const;
    double getGlobalAvgSpeed() const;
    double getGlobalSigmaSpeed() const;
    double getGlobalMaxSpeed() const;
    /// The way of the cursor so far, by the steady clock, whether there is a drive or not.
    ZqCursorWay getCursorWay() const;
    /// From now on nobody needs to know more of it.
    void endCursorWay() { wayEnded = true; }
    /// Forgets the last ten passes; the figures of the whole run stay.
    void resetAvgSpeed();

    // `speedLimit` is a rate in bytes per second, the most that the download may take.

    /// Bytes per second that the application needs once `nInit` bytes are there.
    uint64 getRequiredSpeed(uint64 nInit) const;
    /// Bytes that must be there before the application may start.
    uint64 getNInit(uint64 speedLimit) const;
    /// Seconds until they are there, and until all is.
    uint64 getStartETA(uint64 speedLimit) const;
    uint64 getTotalETA() const;
    /// Bytes that the longest recorded trace touches, of the image's own traces and of those two folders
    /// above it; 0 without any. For information: no start waits for them, see getNInit().
    uint64 getNInitTrace() const;

    /// Whether the drive service didn't answer when it was last told of the cursor.
    bool isServiceSilent() const { return serviceSilent; }

    /// The cursor that `nBytes` of `img.zqf` allow: a ZqF index, before which every block is whole.
    static uint64 cursorBehind(uint64 nBytes);

protected:
    void main() override;

private:
    class File;

    void watch();
    void awaitGrowth(File* file);
    void follow(File* file);
    void beginPass(uint64 nThere, int64 nowMs);
    void takeSample(uint64 nNew, int64 elapsedMs);
    void noteWay(uint64 zqfIdx);
    /// False where the service is silent.
    bool moveCursor(uint64 zqfIdx);
    uint64 secondsUntil(uint64 nBytes) const;

    const SxString path;
    const ZqAppParams appParams;
    std::function<uint64()> writeEnd;   ///< may be empty
    std::function<double()> earlySpeed; ///< likewise

    mutable SxMutex speedMutex;
    SxPtr<ZqAvg> avgSpeed SX_GUARDED_BY(speedMutex);
    SxPtr<ZqAvg> globalAvgSpeed SX_GUARDED_BY(speedMutex);
    double currentSpeed SX_GUARDED_BY(speedMutex) = 0;

    mutable SxMutex countMutex;
    uint64 nCurrent0 SX_GUARDED_BY(countMutex) = 0;
    uint64 nCurrent SX_GUARDED_BY(countMutex) = 0;
    uint64 nTotal SX_GUARDED_BY(countMutex);
    uint64 nPassed SX_GUARDED_BY(countMutex) = 0;    ///< what was there when the last pass ended
    int64 passSinceMs SX_GUARDED_BY(countMutex) = 0; ///< steady clock; 0 while there is none

    mutable SxMutex wayMutex;
    ZqCursorWay way SX_GUARDED_BY(wayMutex);

    std::atomic<bool> wayEnded{false};
    std::atomic<bool> stopFlag{false};
    std::atomic<bool> serviceSilent{false};
};
