#pragma once

#include "SxSystemThread.h"
#include "ZqFeedStatus.h"
#include "ZqRunResult.h"
#include "ZqRunSettings.h"
#include "ZqStartForecast.h"
#include "ZqTracePolicy.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>

class ZqAppParams;
class ZqAppSuspension;
class ZqApplicationNote;
class ZqCoreAppGuard;
class ZqFirstFrame;
class ZqHeldReads;
class ZqFirstWindow;
class ZqGameOutput;
class ZqImageFeed;
class ZqRunDrive;
class ZqOutputKeeper;
class ZqRunNotes;
class ZqRunRecording;
class ZqRunSampler;
class ZqRunStatistics;
class ZqRunWait;
class ZqSleepDelay;

/// One run of a streamed application, from its server to its end: completes the image, makes a drive of it,
/// starts the application when enough is there, answers its underflows, and takes the drive away. Or, without
/// an application, the drive of a mount that is fed. What has gone wrong stays as the thread's exception;
/// what has ended the download is told after the application's end, since that plays from what is there. All
/// operations are safe from any thread, but for those of SxSystemThread.
class ZqRun : public SxSystemThread {
public:
    using Settings = ZqRunSettings;
    using Result = ZqRunResult;
    static constexpr int64 TRACE_MS = ZqRunSettings::TRACE_MS;
    static constexpr int64 N_TRACES = ZqRunSettings::N_TRACES;

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

    explicit ZqRun(const Settings& settings_);
    ~ZqRun() override;

    /// Ends the run and its application, within a second.
    void stop();
    /// Kills the application alone, whatever the run's thread waits for.
    void killApplication();
    Phase getPhase() const { return phase; }
    ZqFeedStatus getStatus() const;
    /// Whether the application runs, or has run; not yet where its program is still to be loaded.
    bool hasStarted() const { return started; }
    /// What the load profile says of a start with what is there now, where the link brings `rate` bytes a
    /// second. Needs a phase after Opening.
    ZqStartForecast forecast(double rate) const;
    /// Seconds until the application starts, by what a link of `rate` bytes a second still has to bring; none
    /// where that rate isn't above 0, and but before the start, after the phase Opening.
    std::optional<double> estimateStart(double rate) const;
    /// Seconds until all of the image is there, likewise; 0 where that isn't known. After the phase Opening.
    double estimateRest(double rate) const;
    /// Whether the run records a trace, and why. None before the phase Mounting, for a run that has nothing
    /// to decide (it has no application, goes on with that of a former run, or was given the folder of its
    /// trace), and where a full disk leaves no choice (`lacksTraceRoom` of the result).
    std::optional<ZqTracePolicy::Decision> getTraceDecision() const;
    /// Whether the drive of a former run was found to have gone with writes that its programs hadn't synced.
    bool hasLostWrites() const;
    /// The next piece of what the application says; empty where all that it has said so far was given. For
    /// one thread, and only with `readsOutput` of the settings, without which most of a long output may be
    /// gone already.
    std::string readOutput();
    /// Tag of a run's exception: the run has come to its end, but a read or write of its drive has failed.
    static constexpr const char* DRIVE_FAILED = "DriveFailed";
    /// Tag of a run's exception: no authority that is trusted vouches for the server.
    static const char* const UNTRUSTED;
    /// Meaningful once the run has ended.
    const Result& getResult() const { return result; }
    /// The result: the record of the run. Of a mere download whether the image is complete, its size, and
    /// what was moved.
    SxParserKit::SxSymbol toJson() const;

protected:
    void main() override;

private:
    void run();
    /// Raises where the application can't be started, or there can't be a drive.
    void requireStart();
    /// Takes over the drive and the application that a run which was killed has left, or takes the drive away
    /// where it has no application. Raises where that run's application goes on without its drive.
    bool adopt();
    /// Waits until the image is known to be right. To be called before the mount of an image that is
    /// complete, before a drive that takes writes into `img.zqf`, and before a drive is left.
    void awaitCheck();
    void awaitBytes();
    void mount(bool wasComplete);
    void feedDrive();
    void prepare();
    void startApplication();
    void follow();
    bool isPlay() const;
    void noteApplication();
    void suspendProcess();
    bool isCalm() const;
    void complete();
    void end();
    void keepOutput();
    void endOutput();
    void writeInfo();
    void fillResult();
    void takeFormerRecord();
    void goOnWithWaits();
    void goOn();
    /// Has the record written as it is now.
    void noteRun();
    int64 elapsedMs() const;

    const Settings settings;
    const SxString image;
    std::atomic<Phase> phase{Opening};
    std::atomic<bool> searching{false}; ///< for the process that the record names
    std::atomic<bool> started{false};
    const std::unique_ptr<ZqRunWait> waits;
    const std::unique_ptr<ZqImageFeed> feed;
    const std::unique_ptr<ZqHeldReads> held;
    const std::unique_ptr<ZqRunDrive> drive;
    const std::unique_ptr<ZqRunRecording> recording;
    const std::unique_ptr<ZqApplicationNote> note;
    const std::unique_ptr<ZqAppSuspension> suspension;
    const std::unique_ptr<ZqRunNotes> notes;
    const std::shared_ptr<ZqGameOutput> output;
    std::unique_ptr<ZqOutputKeeper> outputKeeper; ///< where the output has a file
    const std::unique_ptr<ZqRunStatistics> statistics;
    std::unique_ptr<const ZqAppParams> launched; ///< the record as the application is started by it
    std::unique_ptr<ZqCoreAppGuard> guard;
    std::atomic<ZqCoreAppGuard*> startedGuard{nullptr}; ///< the same, once it has been started
    std::unique_ptr<ZqFirstFrame> firstFrame;
    std::unique_ptr<ZqFirstWindow> firstWindow;
    std::unique_ptr<ZqRunSampler> sampler;
    std::unique_ptr<ZqSleepDelay> sleepDelay;
    std::optional<ZqTracePolicy::Decision> traceDecision; ///< set before the phase Mounting, and never later
    std::optional<ZqRunRecord> former; ///< of the killed run whose application this one has gone on with
    int64 formerGapMs = 0;             ///< from that record to the beginning of this run
    int64 beginNs = 0, beginMs = 0;
    Result result;
};
