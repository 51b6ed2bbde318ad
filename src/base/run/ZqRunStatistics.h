#pragma once

#include "SxString.h"

#include <memory>

class ZqAppParams;
class ZqImageFeed;
class ZqRunDrive;
class ZqRunRecording;
class ZqRunWait;
class ZqStatsReporter;
struct ZqRunResult;
struct ZqRunSettings;

/// What is made of a run with an application: how good the image's order was for it, its record, and the
/// report to a statistics service, where the user has consented to that. Of the run's thread.
class ZqRunStatistics {
public:
    /// What is given must outlive this.
    ZqRunStatistics(const ZqRunSettings& settings_, ZqImageFeed* feed_, ZqRunWait* waits_,
                    ZqRunResult* result_);
    ~ZqRunStatistics();

    /// Before the server is asked: a wrong address is better told before a download than after it, and a user
    /// who refuses doesn't wait for one. Raises what is wrong with the wish.
    void check();
    /// The feed has the image, and its record tells of which application the run is. Raises where the user's
    /// wish can't be noted.
    void open();
    /// The feed couldn't be opened. Where the image is there, it was a run of its application all the same.
    void openWithoutFeed();
    /// The record of the application, from the feed or else from the image.
    const ZqAppParams& getApp() const;

    /// The drive is up, and its trace has begun a moment ago.
    void traceBegins();
    /// At the beginning of the run: notes which programs run, where that is to be told.
    void noteApps();
    /// The application runs. To be called every now and then; once is enough.
    void applicationRuns();
    /// What comes from now on can't be read by the application, or nobody would know. `elapsedMs`: of the
    /// run. The first call counts.
    void endJudgement(int64 elapsedMs);
    /// The run has ended, and all else of the result is known: judges, writes the files of the run, and
    /// reports. Nothing where it was never opened.
    void finish(const ZqRunDrive& drive, const ZqRunRecording& recording);

private:
    void judge(const ZqRunDrive& drive, const ZqRunRecording& recording);
    void noteVersions();
    void report();

    const ZqRunSettings& settings;
    const SxString image;
    ZqImageFeed* const feed;
    ZqRunWait* const waits;
    ZqRunResult* const result;
    const std::unique_ptr<ZqStatsReporter> reporter;
    std::unique_ptr<const ZqAppParams> known; ///< of an image that couldn't be opened
    bool isOpen = false, toldStart = false;
    uint64 nBefore = 0;  ///< blocks that were there before the run
    int64 clockMs = 0;   ///< machine's clock minus the steady one, at the trace's begin
    int64 judgedMs = -1; ///< of the run, until when the order is judged; -1 until that is known
};
