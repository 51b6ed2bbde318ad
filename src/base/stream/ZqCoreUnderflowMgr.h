#pragma once

#include "SxFileIO.h"
#include "SxMap.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqAppParams.h"
#include "ZqAvg.h"
#include "ZqBlocks.h"
#include "ZqDesktop.h"
#include "ZqMountMgr.h"
#include "ZqRuntimeInfo.h"

#include <atomic>
#include <map>
#include <vector>

class ZqCoreAppGuard;
class ZqImageProgress;
class ZqAddressSource;
class ZqRangeSource;

/// The job that watches for underflows: reads that the drive holds since their blocks aren't there yet. It
/// gets the missing stretches of `img.zqf` out of order where it can. Where it can't, it minimises the
/// application's window and, if `suspendDrive` says so, suspends the drive, until the download has caught up.
/// It keeps the statistics of that. It never acts on the process, and brings no window back; its owner does.
/// It doesn't throttle the writer while it fetches: who goes first is settled on the link, where the ordered
/// download and the fetches meet. It runs until it is stopped or the drive, once an underflow has come, is
/// gone.
///
/// A service that is silent is asked again, and nothing changes until it answers: what the service holds
/// stays held, so no underflow is taken to be over, and the job doesn't end, since it alone knows the window.
/// What a job that has failed left open, a window taken away or an underflow counted, the next one goes on
/// with. So a read that is held counts once, however often it is met: after the player has brought the window
/// back before its time, after a failure, after a restart.
///
/// It waits in looks of 10 ms: within the second of a turn with an
/// underflow, the half second of a minimising, the tenths of the delay before the window search. An idle turn
/// costs three calls of the drive service, a pass seven and one for each stretch. What has just been asked
/// isn't asked again. Durations are taken on the steady clock, since the system's may jump.
///
/// The queries, stop(), maximizeApp(), setRangeSource() and setDownloadParams() are safe from any thread;
/// start(), wait() and restart() belong to the owner's; everything else runs on the job's own.
class ZqCoreUnderflowMgr : public SxSystemThread {
public:
    /// Fills the `size` bytes at `*data` with those of `img.zqf` from byte `offset` on. Gives 0, or 1 where
    /// it can't. Runs on a thread of its own, without a limit. A stop of the manager doesn't wait for it, its
    /// destructor does; until it has ended no other is called.
    using Callback = int (*)(uint64 offset, uint64 size, char** data, void* callbackData);
    class AsyncCallback;

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

    /// Whether windows are looked for, true at first. While there is no application, any window in the
    /// foreground is the player's own.
    void setWindowSearch(bool on) { windowSearch = on; }
    /// `call` is called in each look while a read is held that only the ordered download can serve. On the
    /// manager's thread; to be set before its start.
    void setEdgeCall(std::function<void()> call) { edgeCall = std::move(call); }
    /// Where missing data come from if no callback was given. Raises where one was, or null is given.
    void setRangeSource(const SxPtr<ZqRangeSource>& source);
    /// The same for who has nothing but an address: that of `img.zqf`, and headers for each
    /// request. Raises "Cannot set ondemand download params" with the cause; then the manager
    /// stays as it was, with or without a callback.
    void setDownloadParams(const SxString& url, const SxList<SxString>& headers);

    /// Whether the application counts as minimised, by this job or by the player.
    bool isMinimized() const { return minimizedFlag; }
    /// Whether there is an underflow that on-demand requests don't resolve.
    bool isUnderflow() const { return underflowFlag; }
    /// How often the window was minimised for an underflow. Such a window is back, or may be brought back,
    /// once isUnderflow() is false.
    int64 getNTakenAway() const { return nTakenAway; }
    /// Byte of `img.zqf` up to which the download must come to resolve it; 0 where there is none.
    uint64 getUnderflowResumeIdx() const { return resumeIdx; }
    /// Seconds until the download is there; 0 where it is, or isn't known.
    uint64 getUnderflowETA() const;
    /// A copy of the statistics, with the duration so far of an underflow that is open: a game that is
    /// stopped because it waits is the very case that the figures are to show.
    ZqRuntimeInfo getRuntimeInfo() const SX_EXCLUDES(infoMutex);
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
    /// What main() remembers from turn to turn.
    struct Watch {
        int64 windowMs = 0;    ///< when the window was looked for last
        bool resolved = true;  ///< the underflow that was seen last
        int64 nRowFetches = 0; ///< fetches at the last row of `onDemand.dat`
    };
    /// Where the bytes of one pass come from.
    struct Source {
        Callback callback = nullptr;
        void* callbackData = nullptr;
        SxPtr<ZqRangeSource> ranges; ///< null with a callback of the client's
    };
    struct Pass;
    class Fetch;
    /// A stretch that held reads want.
    struct Want {
        int64 sinceMs = 0;      ///< a read has waited for it
        int64 reportedMs = 0;   ///< when the drive asked for it last
        int64 retryMs = 0;      ///< it isn't asked for before that
        bool hasFailed = false; ///< the last time
    };

    /// A block that a held read leaves to the ordered download.
    struct EdgeWait {
        int64 sinceMs = 0, reportedMs = 0;
    };

    /// Makes a call of the drive service, again and again as long as that is silent: a read that it holds
    /// stays held, so nothing has changed. Gives what the call gives; raises what else goes wrong, and the
    /// silence where the job is stopped in it.
    template<class Call>
    auto patiently(Call&& call) const {
        for (bool isTold = false;; isTold = true) {
            try {
                return call();
            } catch (const SxException& e) {
                if (!bearsSilence(e, isTold)) throw;
            }
        }
    }
    bool bearsSilence(const SxException& why, bool isTold) const;
    bool isDriveThere() const;
    /// Whether the drive holds a read for want of its blocks. It is asked in the way that raises where the
    /// service is silent, which doesn't mean that no read is held.
    bool isReadHeld() const;
    void watchUnderflows();
    void setUp();
    void openStatistics();
    void awaitFirstUnderflow();
    void turn(Watch* watch);
    void lookAtWindow(Watch* watch);
    /// Minimises what the desktop shows in the place of an application that doesn't answer.
    void minimizeGhost();
    /// A new underflow that on-demand requests don't resolve; gives whether it is still there.
    bool enterUnderflow();
    void leaveUnderflow(Watch* watch);
    bool hasDownloadPassed() const;
    /// Looks at the drive, and notes the time where a read waits.
    bool isReadWaiting();
    void resumeDrive();
    /// Counts an underflow that began at `sinceMs`, unless it is one that was counted before and isn't over.
    void countUnderflow(int64 size, int64 sinceMs) SX_EXCLUDES(infoMutex);
    /// Ends the underflow that was counted last, if it is open, also where a later fetch resolves it. A
    /// duration counts only where the underflow was counted.
    void timeUnderflow() SX_EXCLUDES(infoMutex);
    bool isCountOpen() const SX_EXCLUDES(infoMutex);
    void writeRow(Watch* watch);
    void report() const;

    /// Bytes of `img.zqf` that the ordered download has brought.
    uint64 nDownloaded() const;
    bool canFetch() const SX_EXCLUDES(downloadMutex);
    void requireNoCallback() const SX_REQUIRES(downloadMutex);
    Source getSource() const SX_EXCLUDES(downloadMutex);
    uint64 byteIdxOf(uint64 zqfIdx) const;
    SxArray<uint64> popQueue(uint64 count) const;
    /// Looks what is wanted, asks for it, and delivers what has come. Gives false where something can't be
    /// had for now; whatever else is wanted isn't held up by that, also between two turns.
    bool runPass();
    /// Runs a pass within the wait for the next turn. False where a call of the service has failed.
    bool runPassBetween();
    void noteQueue();
    /// The download has to come up to what is still wanted.
    void noteResume();
    /// Sleeps until the next look at the drive.
    void pause() const;
    void collect(const Pass& pass);
    /// Takes out of the wants what is no longer asked for.
    void dropUnwanted(const Pass& pass);
    bool hasFailedWant() const;
    /// Notes that a read waits for a block that the download is to bring; gives since when.
    int64 noteEdgeWait(const Pass& pass, uint64 byteIdx);
    /// Whether the download, which is about to bring a stretch, has kept a read waiting for too long.
    bool isOverdue(const Pass& pass, uint64 offset, const Want& want) const;
    /// Counts a read at the download's edge that has waited for so long.
    void countOverdue(const Pass& pass);
    /// Whether a stretch was delivered and isn't to be fetched again yet.
    bool isDelivered(const Pass& pass, uint64 offset);
    /// Fetches all that is wanted, one after the other; gives how many have come.
    int64 fetchByCallback(const Pass& pass, const Source& source);
    bool callBack(const Pass& pass, const Source& source, uint64 offset);
    /// Begins to fetch what is wanted, as much as is worth having on the wire together.
    void beginFetches(const Pass& pass, const SxPtr<ZqRangeSource>& from);
    void beginFetch(const Pass& pass, const SxPtr<ZqRangeSource>& from, uint64 offset, bool isApart);
    bool isUnderWay(uint64 offset) const;
    bool isUnderWayApart(uint64 offset) const;
    /// Waits until a fetch has ended, but no longer than the drive is left alone.
    void awaitFetch() const;
    /// Hands over what has come; gives how many stretches.
    int64 deliverFetches(const Pass& pass, ZqRangeSource* from);
    bool deliver(const Pass& pass, ZqRangeSource* from, const Fetch& fetch);
    /// Gives up what is on its way.
    void endFetches();
    SxArray<char> readExpected(const Pass& pass, uint64 offset, uint64 length);
    void noteFetched(uint64 offset);
    /// Leaves it for a while, if it is still wanted.
    void noteFailed(uint64 offset);
    void noteFetches(int64 n, int64 elapsedMs) SX_EXCLUDES(infoMutex);

    const SxString path;
    const SxPtr<ZqImageProgress> imageProgress;
    const ZqAppParams appParams;
    ZqMountMgr mountMgr;
    static constexpr int64 pollMs = 10;

    std::atomic<ZqDesktop::Handle> appWindow{0};
    std::atomic<bool> windowSearch{true}, minimizedFlag{false}, underflowFlag{false}, stopFlag{false};
    std::atomic<bool> takenAway{false};   ///< the window was, and isn't back
    std::atomic<bool> isRestarted{false}; ///< a stop that a start follows
    std::atomic<uint64> resumeIdx{0};
    std::atomic<int64> nTakenAway{0}, lastWaitNs{0};
    bool entered = false; ///< an underflow that isn't over, for which the window goes
    /// By this job, and not resumed yet. It is resumed as soon as no underflow is left, whichever way that
    /// went, and at the job's end.
    bool driveSuspended = false;
    bool driveGone = false; ///< since the start of the job
    int64 instantMs = 0;    ///< when an instant underflow began that was left to the turns; 0 none
    SxFileIO refFile, statFile;
    static constexpr int64 NEVER = -1;
    /// Steady time, ms: a jump of the system's clock would add rows to `onDemand.dat`, or leave some out.
    int64 statStart = NEVER, lastStatRow = NEVER;

    mutable SxMutex infoMutex;                     ///< over changes of runtimeInfo by the job
    int64 openMs SX_GUARDED_BY(infoMutex) = NEVER; ///< when the underflow that is open began, steady ms

    mutable SxMutex downloadMutex;
    Callback callback SX_GUARDED_BY(downloadMutex);
    void* callbackData SX_GUARDED_BY(downloadMutex);
    SxPtr<ZqRangeSource> ranges SX_GUARDED_BY(downloadMutex);
    SxPtr<ZqAddressSource> address SX_GUARDED_BY(downloadMutex); ///< the same, where it is one of an address

    SxPtr<AsyncCallback> asyncCallback;
    SxMap<uint64, Want> wants;         ///< by the stretch's offset, in the order in which they were asked for
    std::vector<SxPtr<Fetch>> fetches; ///< that were begun and aren't delivered
    uint64 queueLen = 0, passCount = 0;
    std::function<void()> edgeCall;
    int64 fetchedMs = 0; ///< when the last fetch ended
    uint64 edgeIdx = 0;  ///< byte that the download has to bring for what is held and left to it
    std::map<uint64, EdgeWait> edgeWaits;   ///< by byte index
    bool isEdgeCounted = false;             ///< the underflow that is open was counted by countOverdue()
    SxHashTable<uint64, int64> deliveredMs; ///< when, by the stretch's offset
    ZqAvg fetchTimes, fetchSizes, queueLens, requestIndices;
    /// Time for one fetch in passes of n + 1 fetches, ms.
    SxArray<ZqAvg> batchTimes;
};

/// One call of a callback, on a thread of its own.
class ZqCoreUnderflowMgr::AsyncCallback : public SxSystemThread {
public:
    AsyncCallback(Callback callback_, uint64 offset_, uint64 size_, void* callbackData_);
    /// Waits for the callback's end.
    ~AsyncCallback() override;

    /// What the callback gave; -1 until then, and where it raised.
    int getReturnCode() const SX_EXCLUDES(resultMutex);
    bool isFinished() const SX_EXCLUDES(resultMutex);
    /// The bytes, once it has finished.
    const SxPtr<SxArray<char>>& getBuffer() const { return buffer; }

protected:
    void main() override;

private:
    const Callback callback;
    void* const callbackData;
    const uint64 offset, size;
    SxPtr<SxArray<char>> buffer;
    mutable SxMutex resultMutex;
    int returnCode SX_GUARDED_BY(resultMutex) = -1;
    bool finishedFlag SX_GUARDED_BY(resultMutex) = false;
};

/// Writes the first 4096 bytes of `data` into the log as a hex dump, 16 bytes a line.
void blockPrint(const SxArray<char>& data);
