#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqAppParams.h"
#include "ZqBlockPrint.h"
#include "ZqBlocks.h"
#include "ZqOnDemandCallback.h"
#include "ZqRuntimeInfo.h"

#include <atomic>
#include <functional>
#include <memory>

class ZqAppWindow;
class ZqCoreAppGuard;
class ZqImageProgress;
class ZqOnDemandFetcher;
class ZqOnDemandSource;
class ZqOnDemandTable;
class ZqOrderHints;
class ZqRangeSource;
class ZqUnderflowDrive;
class ZqUnderflowFigures;

/// The job that watches for underflows: reads that the drive holds since their blocks aren't there yet. It
/// gets the missing stretches of `img.zqf` out of order where it can. Where it can't, it minimises the
/// application's window and, if `suspendDrive` says so, suspends the drive, until the download has caught up.
/// It keeps the statistics of that. It never acts on the process. The job brings no window back; its owner
/// does, by restoreWindow(). It doesn't throttle the writer while it fetches: who goes first is settled on
/// the link, where the ordered download and the fetches meet. It runs until it is stopped or the drive, once
/// an underflow has come, is gone.
///
/// A service that is silent is asked again, and nothing changes until it answers: what the service holds
/// stays held, so no underflow is taken to be over, and the job doesn't end, since it alone knows the window.
/// What a job that has failed left open, a window taken away or an underflow counted, the next one goes on
/// with. So a read that is held counts once, however often it is met: after the player has brought the window
/// back before its time, after a failure, after a restart.
///
/// It waits in looks of 10 ms: within the second of a turn with an underflow, the half second of a
/// minimising, the tenths of the delay before the window search. An idle turn costs two calls of the drive
/// service, a pass five and one for each stretch. What has just been asked isn't asked again. Durations are
/// taken on the steady clock, since the system's may jump.
///
/// The queries, stop(), maximizeApp(), setRangeSource(), setDownloadParams() and setHints() are safe from any
/// thread; start(), wait(), restart() and restoreWindow() belong to the owner's; everything else runs on the
/// job's own.
///
/// It keeps the turns. The window is ZqAppWindow's, what is wanted and fetched ZqOnDemandFetcher's, the
/// figures ZqUnderflowFigures', the drive's patience ZqUnderflowDrive's. None of them knows this class.
class ZqCoreUnderflowMgr : public SxSystemThread {
public:
    /// Fills the `size` bytes at `*data` with those of `img.zqf` from byte `offset` on. Gives 0, or 1 where
    /// it can't. Runs on a thread of its own, without a limit. A stop of the manager doesn't wait for it, its
    /// destructor does; until it has ended no other is called.
    using Callback = int (*)(uint64 offset, uint64 size, char** data, void* callbackData);
    using AsyncCallback = ZqOnDemandCallback;

    /// Bytes of one on-demand request; each starts at a multiple of it.
    static constexpr uint64 REQUEST_SIZE = ZqBlocks::STRETCH;

    /// The statistics of this run, for use while the job doesn't run; else see getRuntimeInfo().
    ZqRuntimeInfo runtimeInfo;

    /// `path`: the image folder. `guard` isn't used. `callback` and `callbackData` may be null.
    ZqCoreUnderflowMgr(const SxString& path_, const SxPtr<ZqCoreAppGuard>& guard,
                       const SxPtr<ZqImageProgress>& progress, const ZqAppParams& params,
                       Callback callback_ = nullptr, void* callbackData_ = nullptr);
    /// Waits for a callback that still runs.
    ~ZqCoreUnderflowMgr() override;

    /// Takes an earlier stop back, and runs the job.
    void start(Priority priority = 6) override;
    /// Asks the job to end, and gives up what it downloads, so that a run ends within a second also while its
    /// server stalls; it neither waits nor joins. A drive that the job suspended is resumed at its end.
    void stop();
    bool stopRequested() const { return stopFlag; }
    /// Stops the job, waits for it, and starts it as if no underflow had come yet: the delay before the
    /// window search counts afresh from the next one. Statistics go on.
    void restart();

    /// How the application is started, where a launcher has changed what the record says.
    void setApplication(const SxString& cmd, const SxString& name);
    /// Whether windows are looked for, true at first. While there is no application, any window in the
    /// foreground is the player's own.
    void setWindowSearch(bool on);
    /// `call` is called in each look while a read is held that only the ordered download can serve. On the
    /// manager's thread; to be set before its start.
    void setEdgeCall(std::function<void()> call);
    /// Where missing data come from if no callback was given. Raises where one was, or null is given.
    void setRangeSource(const SxPtr<ZqRangeSource>& source);
    /// The same for who has nothing but an address: that of `img.zqf`, and headers for each
    /// request. Raises "Cannot set ondemand download params" with the cause; then the manager
    /// stays as it was, with or without a callback.
    void setDownloadParams(const SxString& url, const SxList<SxString>& headers);

    /// What the order of the image knows of sessions: from now on stretches that a session most likely reads
    /// next come with those that reads wait for, where the source of ranges can keep them. Not null; to be
    /// called once at most.
    void setHints(const SxPtr<const ZqOrderHints>& hints);

    /// Whether the application counts as minimised, by this job or by the player.
    bool isMinimized() const;
    /// Whether there is an underflow that on-demand requests don't resolve.
    bool isUnderflow() const { return underflowFlag; }
    /// How often the window was minimised for an underflow.
    int64 getNTakenAway() const;
    /// Byte of `img.zqf` up to which the download must come to resolve it; 0 where there is none.
    uint64 getUnderflowResumeIdx() const;
    /// Seconds until the download is there; 0 where it is, or isn't known.
    uint64 getUnderflowETA() const;
    /// A copy of the statistics, with the duration so far of an underflow that is open: a game that is
    /// stopped because it waits is the very case that the figures are to show.
    ZqRuntimeInfo getRuntimeInfo() const;
    /// When a read was last seen to wait for its blocks, however short that was; steady clock in ns, 0 for
    /// never.
    int64 getLastWaitNs() const noexcept { return lastWaitNs; }

    /// Resolves an underflow at a time at which no window is to be minimised; blocks until it is resolved or
    /// the job is stopped.
    void checkInstantUnderflow();
    /// Waits, then looks for the application's window; underflows meanwhile are resolved. What has the
    /// foreground is that window. It is searched for only on a desktop on which nothing has the foreground.
    void findAppWindow(int64 delaySeconds);
    /// Minimises the application's window, and waits up to 500 ms for that. Raises "App minimization failed".
    void minimizeApp();
    /// Brings the window back, at the player's wish. Raises as minimizeApp() does.
    void maximizeApp();
    /// Brings the window back that was minimised for an underflow, once there is none. It doesn't raise: what
    /// fails is tried again by the next call. On the owner's thread.
    void restoreWindow();

    /// Fetches what held reads wait for and hands it to the drive, pass by pass. Gives true when no underflow
    /// is left, false when it can't go on, or is stopped; it doesn't raise.
    bool onDemand();
    /// Takes the next missing block from the drive's queue: the byte index in `img.zqf`, at most its size; 0
    /// where there is none.
    uint64 popOnDemandZqFByteIdx();
    /// The same for up to `count` of them; empty where there is no underflow.
    SxArray<uint64> popOnDemandZqFByteIndices(uint64 count);

protected:
    void main() override;

private:
    void watchUnderflows();
    void setUp();
    void awaitFirstUnderflow();
    void turn();
    /// A new underflow that on-demand requests don't resolve; gives whether it is still there.
    bool enterUnderflow();
    void leaveUnderflow();
    /// Looks at the drive, and notes the time where a read waits.
    bool isReadWaiting();
    bool hasDownloadPassed() const;
    /// Bytes of `img.zqf` that the ordered download has brought.
    uint64 nDownloaded() const;
    /// Fetches what is wanted. Gives false where it can't go on: what is left is the download's to bring.
    bool runPass();
    /// The same within the wait for the next turn, when other reads may be served. False where a call of the
    /// drive service has failed.
    bool runPassBetween();
    /// Waits until the delay before the window search is over, or there is a reason to end it.
    void passDelay(int64 seconds);
    /// Waits for the end of an instant underflow that began at `beginMs`. False where it lasts too long.
    bool awaitInstant(int64 beginMs);

    const SxString path;
    const SxPtr<ZqImageProgress> imageProgress;
    const ZqAppParams appParams;

    std::atomic<bool> underflowFlag{false}, stopFlag{false};
    std::atomic<bool> isRestarted{false}; ///< a stop that a start follows
    std::atomic<int64> lastWaitNs{0};
    bool resolved = true;   ///< the underflow that was seen last
    bool entered = false;   ///< an underflow that isn't over, for which the window goes
    bool driveGone = false; ///< since the start of the job
    int64 instantMs = 0;    ///< when an instant underflow began that was left to the turns; 0 none

    const std::unique_ptr<ZqUnderflowFigures> figures;
    const std::unique_ptr<ZqOnDemandTable> table;
    const std::unique_ptr<ZqOnDemandSource> source;
    const std::unique_ptr<ZqUnderflowDrive> drive;
    const std::unique_ptr<ZqAppWindow> window;
    const std::unique_ptr<ZqOnDemandFetcher> fetcher;
};
