#pragma once

#include "SxString.h"
#include "ZqDriveKinds.h"
#include "ZqLaunchValues.h"

#include <atomic>
#include <functional>
#include <optional>

class ZqHeldReads;
class ZqImageFeed;
class ZqRunWait;
struct ZqDiskStatus;
struct ZqRunSettings;

/// The drive of a run or of a fed mount: how it comes up, is looked after, and goes. A service that is silent
/// is asked again by all that changes the drive, until the run is stopped. The operations belong to the run's
/// thread, but for holdsReads() and hasLostWrites(), which are safe from any.
class ZqRunDrive {
public:
    /// What is given must outlive this.
    ZqRunDrive(const ZqRunSettings& settings_, ZqImageFeed* feed_, ZqRunWait* waits_, ZqHeldReads* held_);

    /// How to mount, by the settings or else the record.
    ZqDriveKinds::MountMode mode() const;

    /// Whether programs may write to it. A title of the Epic launcher's may always, into a layer.
    bool isWritable() const;
    /// Whether a run that was killed has left a drive that can be taken over. One that isn't ready, or that
    /// `isUsed` doesn't know as used, is taken away. Raises where this run can't use it, and where an
    /// application lives that plays from one that isn't ready.
    bool findFormer(const std::function<bool()>& isUsed);
    /// Goes on with that drive.
    void takeOver();
    /// Removes what the service of a former run has left that was killed.
    void removeLeftovers();
    /// Mounts. `traceFolder`: of the trace that begins with it; empty for none. Raises what has ended the
    /// download meanwhile, too.
    void bringUp(const SxString& traceFolder);
    /// How the application is started from the drive that bringUp() has mounted.
    const ZqLaunchValues& getLaunch() const { return launch; }
    /// To be called once the drive is up, since it was mounted with what was there a moment before.
    void alignCursor();
    /// Whether it is still there.
    bool isUp();
    /// The path of its volume; raises where it has gone.
    SxString require();
    /// Looks now and then whether the drive is there, and raises where it isn't.
    void watch();
    /// Takes over which reads have waited up to now. Doesn't raise.
    void takeHeldReads();
    /// The application has ended, and none of its reads waits any longer.
    void endHeldReads();
    /// Raises where the drive holds reads that nothing will answer any longer, as after a newer version of
    /// the image has come up on the server, of which nothing is fetched.
    void watchReads();
    /// Takes the drive away, or leaves it. Does nothing where there was none. Raises where what was written
    /// to it may be lost.
    void end(bool keep);

    /// Whether reads wait for blocks, as far as the service tells.
    bool holdsReads() const;
    /// Whether the drive of a former run was found to have gone with writes that its programs hadn't synced.
    bool hasLostWrites() const { return lostWrites; }
    /// The first read or write that failed; empty where none has.
    const SxString& getFailure() const { return failure; }
    /// Where end() has left it; empty where it is gone.
    const SxString& getMountPath() const { return mountPath; }
    /// What its reads waited, in this run.
    struct Waits {
        uint64 n = 0;  ///< reads
        uint64 ms = 0; ///< for how long, all together
    };
    /// As far as was seen; all of them once the drive has been taken away. None where it was never seen.
    const std::optional<Waits>& getWaits() const { return readWaits; }
    /// Adds those that a run which was killed had noted of its application.
    void addWaits(const Waits& noted) { earlier = noted; }
    /// Whether the drive still recorded into a trace then.
    bool wasTraced() const { return traced; }
    /// The drive's letter, where a runner has taken it and it couldn't be put back; else empty.
    const SxString& getLostLetter() const { return lostLetter; }
    /// Whether files of a drive that takes writes were open when it was taken away.
    bool wasBusy() const { return busy; }

private:
    void takeAway();
    void requireUnused() const;
    bool removeLeft() const;
    void endOnce(bool keep);
    void note(const ZqDiskStatus& disk);
    void noteWaits(const ZqDiskStatus& disk);
    void lookAtHeldReads();
    void watchLetter();

    const ZqRunSettings& settings;
    const SxString image;
    ZqImageFeed* const feed;
    ZqRunWait* const waits;
    ZqHeldReads* const held;
    bool mounted = false; ///< by this run, or taken over
    bool busy = false;
    SxString failure, mountPath;
    uint64 failedNs = 0; ///< when the disk was made that `failure` is of
    ZqLaunchValues launch;
    SxString lostLetter;
    Waits before;  ///< of the drive when it was taken over
    Waits earlier; ///< of this run's application before that
    std::optional<Waits> readWaits;
    bool traced = false;
    int64 nPutBack = 0;      ///< how often the letter was put back
    bool wasSettled = false; ///< no read had to wait any longer at the last look
    int64 watchNs = 0;       ///< when the drive was looked at last
    int64 lostNs = 0;        ///< since when it was seen to hold reads in vain; 0 for not now
    std::atomic<bool> lostWrites{false};
};
