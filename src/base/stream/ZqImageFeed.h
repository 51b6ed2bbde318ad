#pragma once

#include "ZqAppParams.h"
#include "ZqDiskReserve.h"
#include "ZqFailurePolicy.h"
#include "ZqFeedStatus.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqRemoteImage.h"
#include "ZqRuntimeInfo.h"

#include <atomic>
#include <memory>

class ZqCoreUnderflowMgr;
class ZqFWriter;
class ZqImageProgress;
class ZqImageRepair;
class ZqOrderedDownload;
class ZqPartCheck;
class ZqStreamRecord;

/// Completes an image folder from its server, in order, while a drive is made of it: fetches records and
/// blocks, moves the drive's cursor, and answers underflows. Owns the threads that do it: the ordered
/// download, the writer, the progress, the manager of underflows, and a keeper that looks after these and
/// starts again what has ended too early. Needs a server only for what is missing, and writes only into the
/// image's folder. Used by runs and by mounts that are fed. open(), fetchRecords(), start(), the operations
/// on the drive and stop() belong to the owner's thread; the queries are safe from any.
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
    void driveStarts() { driveStarted = true; }
    /// From now on there is an application whose window may be minimised. Restarts the manager of underflows.
    void applicationStarts();
    /// Brings the application's window back once the underflow is over for which it was taken out of the
    /// way; leaves it where the player has minimised it. To be called every now and then.
    void restoreWindow();
    /// Ends the threads, within a second.
    void stop();

    const ZqAppParams& getApp() const noexcept { return app; }
    const ZqImageParams& getParams() const noexcept { return params; }
    const SxString& getUrl() const noexcept { return url; }
    /// Bytes of `img.zqf` that are there: can be read.
    uint64 fileSize() const;
    /// How many blocks are there, as a mount takes it.
    uint64 countBlocks() const;
    /// Bytes that are still to be fetched: neither in `img.zqf` nor kept beside it. From open() on.
    uint64 countMissing() const;
    /// Whether all bytes are in `img.zqf`.
    bool isComplete() const;
    /// Whether they are, and have the digest that `app.json` states. A complete image without an address,
    /// which didn't come from a server, counts as such; so does one that a drive may have written into.
    bool isVerified() const { return verified; }
    /// Whether nothing is left to be done: all is there and right, and no read will have to wait any longer.
    bool isSettled() const { return settled; }
    /// From start() on.
    Status getStatus() const;
    /// What open() waits for, as a line.
    SxString getLinkStatus() const;
    /// The underflows and on-demand requests so far.
    ZqRuntimeInfo getRuntimeInfo() const;
    /// When a read of the drive was last seen to wait; steady clock in ns, 0 for never.
    int64 getLastWaitNs() const;
    Speeds getSpeeds() const;
    /// Whether something has ended the download that can't be mended, and raises that.
    bool hasFailed() const;
    /// Whether a read that the drive holds may still be answered. Once it is false it stays so.
    bool answersReads() const;
    void requireAlive() const;

private:
    class Job;
    /// From one try of a download that fails to the next at first, doubled each time.
    static constexpr int64 FIRST_PAUSE_NS = 500'000'000;

    SxString filePath(const char* name) const;
    void noteOpened(const ZqStreamRecord& record);
    /// Cuts off what the file has beyond the image, and beyond what the last download has left of it.
    void cutSurplus(const ZqStreamRecord& record, const ZqStopTest& stop) const;
    /// Compares what is there with its checksums where it may not be as an earlier run has left it, as far as
    /// a start can wait for that, and mends it.
    void openPart(const ZqStreamRecord& record, const ZqStopTest& stop);
    /// Taken by whatever puts blocks right; raises where programs have written there, or may.
    SxPtr<ZqImageLock> lockBlocks() const;
    bool hasProgramsWrites() const;
    void mendAhead(const ZqSeekTable& table, const ZqStopTest& stop);
    void mendPart(const ZqImageRepair& repair, const ZqSeekTable& table, const ZqStopTest& stop);
    /// The rest of it, beside everything else.
    void startPartCheck();
    void checkPart();
    /// Notes how this leaves the part that is there.
    void noteLeft();
    void openStore();
    void removeStore() const;
    void makeWriter();
    /// What the server has of the image, by requests over `of`.
    SxPtr<ZqRemoteImage> makeImage(const SxPtr<ZqNetLink>& of) const;
    void beginDownload();
    void keepUntilStopped();
    void keep();
    /// Looks after the comparison with the digest, which may have to wait for the server.
    void keepDigest();
    void keepManager();
    /// Whether no thread has anything left to do.
    bool hasSettled();
    void keepProgress();
    void keepWriter();
    void keepDownload();
    /// Begins the download again, after a look at the server's version where the failure was of its files.
    void resumeDownload();
    /// Notes how long the server has been silent while bytes of it are wanted.
    void watchServer();
    /// Whether a drive is up, or could be of what is there.
    bool hasDrive() const;
    ZqFailurePolicy::Verdict settle(const SxException& why);
    bool isKnownAsRight(const ZqStreamRecord& record) const;
    void verifyDigest();
    /// Fetches anew what is wrong of the complete image; gives how many stretches were.
    uint64 mend();
    /// Of an image that was complete before the run: what mending it waits for, and has moved.
    void addRepair(Status* status) const;
    /// Reads the whole of `img.zqf`; empty where a stop came between.
    SxString readDigest();
    void measureDisk();
    void lookForRoom();
    SxPtr<ZqFWriter> getWriter() const;
    /// The end of what the writer has written; ZqImageProgress::ANY while there is none that may write.
    uint64 writeEnd() const;
    void setWaiting(const SxString& text);
    void fail(const SxException& e);

    const Settings settings;
    SxString url;
    ZqAppParams app;
    ZqImageParams params;
    SxPtr<ZqImageLock> growth, shape;
    ZqDiskReserve reserve;
    SxPtr<ZqNetLink> link;       ///< changed, and read before start(), under the mutex
    SxPtr<ZqRemoteImage> opened; ///< what open() has begun to use, `image` from start() on
    SxPtr<ZqRemoteImage> image;
    std::unique_ptr<ZqPartCheck> part; ///< the owner's up to start(), then the job's
    std::atomic<bool> isPartRight{
        false}; ///< all that was there at open() is as the server has it, or believed
    bool hasOpened = false;
    SxPtr<ZqImageProgress> progress;
    SxPtr<ZqCoreUnderflowMgr> manager;
    /// Over the manager's starts and ends, which the keeper and the owner look after in turns.
    SxMutex managerMutex;
    std::unique_ptr<ZqOrderedDownload> download;
    std::unique_ptr<Job> keeper, versionCheck, digestCheck, partCheck;
    std::atomic<bool> stopping{false}, verified{false}, checking{false}, settled{false};
    std::atomic<bool> driveStarted{false};
    std::atomic<bool> isCutOff{false}; ///< the server has another version, and nothing is taken from it
    bool isConfirmed = true;           ///< the server was seen at open() to have the version that is here
    bool hadRecords = false;           ///< the folder had all it takes for a drive, blocks apart, at open()
    /// A drive in mode "rw", or a flush of the write layer, may have changed `img.zqf`, which is no fault.
    /// Nothing of it is compared until it is downloaded anew from its first byte. So damage to it isn't seen:
    /// nothing states the digest that it should have.
    bool isWritten = false;
    bool lacksRoom = false;     ///< the keeper's: the writer waits for the disk
    bool isInterrupted = false; ///< the keeper's: the download has failed, and nothing has come since
    int nWriterTries = 0;       ///< the keeper's
    std::atomic<uint64> nChecked{0};
    std::atomic<uint64> nShort{0};       ///< bytes that the disk lacks for the rest of the image
    std::atomic<int64> silentSeconds{0}; ///< without a byte of the server
    // The keeper's alone.
    int64 roomNs = 0;      ///< when room on the disk was last looked for
    int64 writerNs = 0;    ///< when a writer was last looked for
    uint64 nSeenBytes = 0; ///< of the link
    int64 seenNs = 0;      ///< when they came
    uint64 triedSize = 0;
    uint64 interruptedSize = 0;
    int64 pauseNs;        ///< until a download that has failed is tried again
    int64 downloadNs = 0; ///< when the download was begun again, or the server's version looked at

    mutable SxMutex mutex;
    SxPtr<ZqFWriter> writer SX_GUARDED_BY(mutex);
    SxString waiting SX_GUARDED_BY(mutex);
    SxPtr<ZqRemoteImage> repairSource SX_GUARDED_BY(mutex); ///< of what is mended, where `image` has none
    bool failed SX_GUARDED_BY(mutex) = false;
    SxException failure SX_GUARDED_BY(mutex);
};
