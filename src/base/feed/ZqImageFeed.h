#pragma once

#include "ZqCursorWay.h"
#include "ZqFeedFolder.h"
#include "ZqFeedHealth.h"
#include "ZqGrowingImage.h"
#include "ZqRuntimeInfo.h"
#include "ZqStartForecast.h"

#include <atomic>
#include <memory>

class ZqCoreUnderflowMgr;
class ZqDigestCheck;
class ZqFeedJob;
class ZqImageDownload;
class ZqPartRepair;

/// Completes an image folder from its server, in order, while a drive is made of it: fetches records and
/// blocks, moves the drive's cursor, and answers underflows. Composes what does it: the folder's records, the
/// ordered download with its writer and progress (ZqImageDownload), the repair of what an earlier run has
/// left (ZqPartRepair), the comparison with the digest (ZqDigestCheck), the manager of underflows, and a
/// keeper, the thread that looks after these and starts again what has ended too early. Needs a server only
/// for what is missing, and writes only into the image's folder. Used by runs and by mounts that are fed.
/// open(), fetchRecords(), start(), the operations on the drive and stop() belong to the owner's thread; the
/// queries are safe from any, getLinkStatus() at any time and the others once open() has returned.
class ZqImageFeed {
public:
    using Settings = ZqFeedSettings;

    using Status = ZqFeedStatus;

    /// The download's speeds over the run, in megabit per second.
    struct Speeds {
        double mean = 0., greatest = 0., sigma = 0.;
    };

    explicit ZqImageFeed(const Settings& settings_);
    /// Stops.
    ~ZqImageFeed();
    ZqImageFeed(const ZqImageFeed&) = delete;
    ZqImageFeed& operator=(const ZqImageFeed&) = delete;

    /// Takes the image for this process, so that nobody else downloads into it, and fetches `app.json` where
    /// the image isn't complete. Notes the address in the folder. Raises naming the holder where the image is
    /// in use.
    void open(const ZqStopTest& stop);
    /// The file system of the image, see ZqDriveMeans::typeOf(), by its first block, for which the server is
    /// asked where it isn't there; empty where that can't be told. Between open() and start().
    SxString findVolumeType(const ZqStopTest& stop) const;
    /// Raises where the disk lacks room for a drive of that mode at least, or, with `waits`, for what a start
    /// needs that waits until enough is there, however fast the download. Between open() and start().
    void requireRoom(ZqDriveKinds::MountMode mode, bool waits) const;
    /// Begins to download. A complete image has nothing to download, but it is compared with its digest where
    /// no run has done that to the end.
    void start();
    /// Fetches the records that are missing, while blocks come in already.
    void fetchRecords(const ZqStopTest& stop);
    /// Brings the drive's cursor to the file's size, until the two agree. To be called once the drive is up,
    /// since it was mounted with what was there a moment before.
    void alignCursor() const;
    /// Raises where the server is one from which no drive can be fed, since it has no ranges. To be called
    /// before a drive comes up, with which that would be waited for as all that a server does. Raises nothing
    /// where what is there can be played.
    void requireRanges(const ZqStopTest& stop) const;
    /// From now on a drive comes up, or is up: what the server fails to give no longer ends the download.
    void driveStarts() { health.driveStarts(); }
    /// From now on there is an application whose window may be minimised, started as `app` says. Restarts the
    /// manager of underflows.
    void applicationStarts(const ZqAppParams& app);
    /// Brings the application's window back once the underflow is over for which it was taken out of the
    /// way; leaves it where the player has minimised it. To be called every now and then.
    void restoreWindow();
    /// Ends the threads, within a second.
    void stop();
    /// Removes an image folder that open() has made, and that start() was never called for. After stop().
    void removeNew() { folder.removeNew(); }

    const ZqAppParams& getApp() const noexcept { return folder.getApp(); }
    const ZqImageParams& getParams() const noexcept { return folder.getParams(); }
    /// Bytes of `img.zqf` that are there: can be read.
    uint64 fileSize() const { return file.size(); }
    /// How many blocks are there, as a mount takes it.
    uint64 countBlocks() const;
    /// Bytes that are still to be fetched: neither in `img.zqf` nor kept beside it. From open() on.
    uint64 countMissing() const;
    /// Whether all bytes are in `img.zqf`.
    bool isComplete() const { return file.isComplete(); }
    /// Whether they are, and have the digest that `app.json` states. One that a drive may have written into
    /// counts as such; so does a complete one that nobody wants compared.
    bool isVerified() const;
    /// Whether nothing is left to be done: all is there and right, and no read will have to wait any longer.
    bool isSettled() const { return settled; }
    /// From start() on.
    Status getStatus() const;
    /// Seconds until the application may start, or with `isAtOnce` until there can be a drive, where the link
    /// brings `rate` bytes a second; none where that isn't above 0. 0 where nothing is downloaded. From
    /// start() on.
    std::optional<double> estimateStart(double rate, bool isAtOnce) const;
    /// Seconds until all is there, likewise; 0 where that isn't known.
    double estimateRest(double rate) const;
    /// What the load profile says of a start with what is there, likewise.
    ZqStartForecast forecast(double rate) const;
    /// How long the server has been away; safe at any time.
    ZqNetOutage getOutage() const;
    /// What open() waits for, as a line.
    SxString getLinkStatus() const;
    /// The underflows and on-demand requests so far.
    ZqRuntimeInfo getRuntimeInfo() const;
    /// When a read of the drive was last seen to wait; steady clock in ns, 0 for never.
    int64 getLastWaitNs() const;
    Speeds getSpeeds() const;
    /// The way of the drive's cursor so far; none for an image that was complete.
    ZqCursorWay getCursorWay() const;
    /// From now on nobody needs to know more of it. From start() on.
    void endCursorWay();
    /// Whether something has ended the download that can't be mended, and raises that.
    bool hasFailed() const { return health.hasEnded(); }
    /// Whether a read that the drive holds may still be answered. Once it is false it stays so.
    bool answersReads() const;
    void requireAlive() const { health.requireAlive(); }

private:
    void keepUntilStopped();
    void keep();
    void keepManager();
    /// Whether no thread has anything left to do.
    bool hasSettled();
    void fail(const SxException& e);

    const Settings settings;
    ZqFeedFolder folder;
    ZqFeedHealth health;
    ZqGrowingImage file;
    // What a complete image has none of.
    std::unique_ptr<ZqImageDownload> download;
    std::unique_ptr<ZqPartRepair> part;
    std::unique_ptr<ZqDigestCheck> digest;
    bool hasOpened = false;
    SxPtr<ZqCoreUnderflowMgr> manager;
    /// Over the manager's starts and ends, which the keeper and the owner look after in turns.
    SxMutex managerMutex;
    std::unique_ptr<ZqFeedJob> keeper;
    std::unique_ptr<ZqFeedJob> hints; ///< fetches them, so that nothing waits for that
    std::atomic<bool> stopping{false}, settled{false};
    std::atomic<bool> isCutOff{false}; ///< the server has another version, and nothing is taken from it

    mutable SxMutex mutex;
    SxPtr<ZqNetLink> link; ///< null for a complete image; changed, and read before start(), under the mutex
};
