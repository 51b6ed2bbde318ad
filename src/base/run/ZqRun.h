#pragma once

#include "SxMutex.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqDriveKinds.h"
#include "ZqFeedStatus.h"
#include "ZqRunSeries.h"
#include "ZqRuntimeInfo.h"
#include "ZqStartForecast.h"

#include <atomic>
#include <functional>
#include <memory>

class SxException;
class ZqCoreAppGuard;
class ZqImageFeed;
class ZqSleepDelay;
struct ZqDiskStatus;

/// One run of a streamed application, from its server to its end: completes the image, makes a drive of it,
/// starts the application when enough is there, answers its underflows, and takes the drive away. Or, without
/// an application, the drive of a mount that is fed. What has gone wrong stays as the thread's exception;
/// what has ended the download is told after the application's end, since that plays from what is there. All
/// operations are safe from any thread, but for those of SxSystemThread.
class ZqRun : public SxSystemThread {
public:
    /// An order is made for a start and what comes soon after it; play that goes on for hours would only make
    /// the trace longer.
    static constexpr int64 TRACE_MS = 600'000;
    static constexpr int64 N_TRACES = 20;

    struct Settings {
        ZqFeedSettings feed;
        bool startsAtOnce = false; ///< start the application as soon as there is a drive
        bool keepsMounted = false; ///< complete the image after the application's end, and leave the drive
        bool completes = false; ///< complete the image after the application's end, before that of the drive
        bool isDriveOnly = false; ///< no application: feed the drive until somebody unmounts it
        SxString mountMode;       ///< how to mount; empty for what `app.json` says
        SxString traceFolder;     ///< where the trace goes; empty for a new folder among the image's traces
        bool isUntraced = false;  ///< no trace among the image's
        int64 traceMs = TRACE_MS; ///< recording ends after so much play, in milliseconds; 0 for never
        int64 nTraces = N_TRACES; ///< of the traces that runs made here so many stay; 0 for all
        SxString firstFrameFile;  ///< a file written with the application's first frame; may be empty
    };
    enum Phase {
        Opening,    ///< the image's records are fetched
        Loading,    ///< until there is enough for a drive
        Mounting,   ///< the drive comes up
        Preparing,  ///< until the application may start
        Running,    ///< the application runs
        Adopted,    ///< the application of an earlier run does
        Feeding,    ///< the drive is up, and there is no application
        Completing, ///< the application has ended, the rest is fetched and checked
        Ending      ///< the drive is taken away
    };
    /// What came of the run.
    struct Result {
        ZqRuntimeInfo info;       ///< times in seconds, speeds in megabit per second
        bool wasStarted = false;  ///< the application was
        bool isExitKnown = false; ///< `info.exitCode` is that of the application
        int64 startMs = -1;       ///< from the beginning of the run to the application's start
        int64 firstFrameMs = -1;  ///< to its first frame; -1 where that isn't known
        int64 lastWaitMs = -1;    ///< to the last moment at which a read waited for blocks; -1 for never
        int64 mountMs = -1;       ///< until the drive was up; -1 where it was so before, or never
        int64 lengthMs = 0;       ///< to the end of the run, without the time that ending it took
        ZqRunSeries series;       ///< of a run with an application, from the beginning of its download on
        SxString traceFolder;     ///< empty where nothing was traced
        ZqNetFigures link;
        ZqImageFigures image;
        uint64 nMissing = 0;     ///< bytes of `img.zqf` that are still to be fetched
        bool isComplete = false; ///< the image is, and was found to be right
        SxString mountPath;      ///< where the drive was left; empty where it is gone
        SxString missed;         ///< the process that the record names, where it was never found
        SxString driveFailure;   ///< the first read or write of the drive that failed; empty where none has
        bool lacksTraceRoom = false; ///< it was played without a trace, on a full disk
        bool wasBusy = false;        ///< files of a drive that takes writes were open when it was taken away
        SxString unwritten;          ///< why `runtime.json` couldn't be written; empty where it could
    };

    explicit ZqRun(const Settings& settings_);
    ~ZqRun() override;

    /// Ends the run and its application, within a second.
    void stop() { stopFlag = true; }
    Phase getPhase() const { return phase; }
    ZqFeedStatus getStatus() const;
    /// What the load profile says of a start at that speed, in megabit per second of `img.zqf`, with what is
    /// there now. Needs a phase after Opening.
    ZqStartForecast forecast(double speedMbit) const;
    /// Whether the drive of a former run was found to have gone with writes that its programs hadn't synced.
    bool hasLostWrites() const { return lostWrites; }
    /// Tag of a run's exception: the run has come to its end, but a read or write of its drive has failed.
    static constexpr const char* DRIVE_FAILED = "DriveFailed";
    /// Meaningful once the run has ended.
    const Result& getResult() const { return result; }
    /// The result: what `runtime.json` has, `exitCode` null where it isn't known, and more. Of a mere
    /// download whether the image is complete, its size, and what was moved.
    SxParserKit::SxSymbol toJson() const;

protected:
    void main() override;

private:
    class MountJob;
    class Sampler;
    struct EndOfDelay;

    void run();
    /// Takes over a drive that a run which was killed has left, or takes it away. Raises where that run's
    /// application goes on without its drive.
    bool adopt();
    /// Removes what the service of a former run has left that was killed.
    void removeLeftovers();
    /// Waits until the image is known to be right. To be called before the mount of an image that is
    /// complete, before a drive that takes writes into `img.zqf`, and before a drive is left.
    void awaitCheck();
    void mount();
    ZqDriveKinds::MountMode mountMode() const;
    void bringUp(ZqDriveKinds::MountMode mode);
    /// Makes calls of the drive service, again and again as long as it is silent and nobody stops the run.
    void patiently(const std::function<void()>& calls);
    void takeDriveAway();
    void tellWaiting(const SxString& line);
    bool hasOwnTrace() const;
    /// Ends the recording where it has lasted long enough.
    void limitTrace();
    /// Raises only where the service is silent, which ends it later.
    void endTrace() const;
    void awaitRoom();
    void feedDrive();
    void prepare();
    ZqDiskStatus requireDisk();
    /// Looks now and then whether the drive is there, and raises where it isn't.
    void watchDrive();
    /// Raises where the drive holds reads that nothing will answer any longer, as after a newer version of
    /// the image has come up on the server, of which nothing is fetched.
    void watchReads();
    void startApplication();
    /// Writes down the start of the application, and its processes, which change when a launcher hands over.
    /// The run after one that was killed can tell by these whether the application lives, and go on feeding
    /// it. What can't be written now, say on a full disk, is tried again later, and never ends the run.
    void noteApplication();
    /// Writes down that it has ended: what may still run of it is no longer an application.
    void noteEnd();
    void writeInfo();
    void follow();
    /// Suspends the application while the machine is about to sleep, and for an underflow where the record
    /// says so; else lets it go on. After a sleep it goes on unless an underflow keeps it suspended.
    void suspendProcess();
    bool isCalm() const;
    int64 frameFileMs() const;
    void lookForFrame();
    void complete();
    void end();
    void endDrive(bool keep);
    /// Keeps what has failed of the drive: with the drive goes who could tell it.
    void noteDrive(const ZqDiskStatus& disk);
    SxException driveFailed() const;
    void takeSample();
    void fillResult();
    void appendTransfer(SxParserKit::SxSymbol* root) const;
    int64 elapsedMs() const;
    bool isStopping() const { return stopFlag; }
    static SxException stopped();

    const Settings settings;
    const SxString image;
    std::atomic<bool> stopFlag{false};
    std::atomic<Phase> phase{Opening};
    std::atomic<bool> lostWrites{false};
    std::atomic<bool> searching{false}; ///< for the process that the record names
    const std::unique_ptr<ZqImageFeed> feed;
    SxPtr<ZqCoreAppGuard> guard;
    std::unique_ptr<Sampler> sampler;
    std::unique_ptr<ZqSleepDelay> sleepDelay;
    std::atomic<bool> isHalted{false}; ///< the application doesn't run, as the machine is about to sleep
    int64 suspendNs = 0;               ///< when it couldn't be suspended, or resumed, last; 0 for never
    SxString notedGroup;
    bool startNoted = false, mounted = false;
    int64 noteNs = 0;         ///< when noting failed last; 0 for never
    int64 traceEndNs = 0;     ///< when recording ends; 0 for no end, or where it has ended
    int64 driveNs = 0;        ///< when the drive was looked at last
    uint64 failedDriveNs = 0; ///< when the disk was made that `driveFailure` is of
    int64 lostNs = 0;         ///< since when it was seen to hold reads in vain; 0 for not now
    int64 beginNs = 0, beginMs = 0;
    int64 oldFrameMs = -1; ///< when the file of the first frame was written before the run; -1 for never
    Result result;

    mutable SxMutex mutex;
    SxString unnoted SX_GUARDED_BY(mutex); ///< what the run itself waits for, as a line
};
