#pragma once

#include "ZqOnDemandHints.h"
#include "ZqOnDemandSource.h"
#include "ZqOnDemandWants.h"
#include "ZqRangeFetches.h"
#include "ZqReferenceImage.h"

#include <functional>

class ZqImageProgress;
class ZqRangeFetch;
class ZqUnderflowDrive;
class ZqUnderflowFigures;

/// Fetches what held reads wait for, pass by pass: it pops the drive's queue, turns the blocks into
/// stretches, fetches those that the ordered download doesn't have, and delivers what has come. `source`,
/// getResumeIdx() and setHints() are safe from any thread, all else belongs to the job's. It raises what the
/// drive raises.
///
/// What hints name is begun with what a read waits for, and kept by the source. It gets to the drive only
/// when a read asks for it: from what is kept that takes milliseconds, the drive would store it once more,
/// and nobody could tell whether the hint was of use.
class ZqOnDemandFetcher {
public:
    /// What a pass came to.
    struct Outcome {
        bool isPossible = false; ///< there is a source that can be asked, and the job isn't stopped
        int64 nDelivered = 0;    ///< stretches
        bool hasFailed = false;  ///< something can't be had for now
        bool isWanted = false;   ///< a stretch is still wanted
        bool isUnderWay = false; ///< a stretch is on its way
    };

    /// `drive`, `figures` and `isStopped` outlive this object. `progress` may be null. `sizeZqf`: bytes of
    /// the whole `img.zqf`.
    ZqOnDemandFetcher(ZqUnderflowDrive* drive, ZqUnderflowFigures* figures, ZqOnDemandSource* source,
                      const SxPtr<ZqImageProgress>& progress, uint64 sizeZqf,
                      const std::atomic<bool>& isStopped);
    /// Waits for a callback that still runs.
    ~ZqOnDemandFetcher();

    /// `call` is called in each look while a read is held that only the ordered download can serve. To be set
    /// before the job's start.
    void setEdgeCall(std::function<void()> call) { edgeCall = std::move(call); }
    /// What the order knows of sessions, from now on.
    void setHints(const SxPtr<const ZqOrderHints>& known) { hints.set(known); }
    /// As getUnderflowResumeIdx() of the job has it.
    uint64 getResumeIdx() const { return wants.getResumeIdx(); }

    /// A job begins on the image folder `path`.
    void begin(const SxString& path);
    /// Looks what is wanted, asks for it, and delivers what has come. Whatever is wanted isn't held up by
    /// what can't be had for now, also between two turns.
    Outcome runPass();
    /// What is left is the ordered download's to bring.
    void leaveToDownload() { wants.leaveToDownload(); }
    /// No read is held any longer.
    void settle();
    /// Sleeps until the next look at the drive.
    void pause() const;
    /// The job ends: gives up what is on its way.
    void end();

private:
    /// What a pass works on; the source stays the same in it, whatever is set meanwhile.
    struct Work {
        const ZqOnDemandPass& pass;
        const ZqOnDemandSource::Choice& from;
    };

    bool isPossible(const Work& work) const;
    void collect(const ZqOnDemandPass& pass);
    /// Counts a read at the download's edge that has waited for too long.
    void countOverdue(const ZqOnDemandPass& pass);
    /// Fetches all that is wanted, one after the other; gives how many have come.
    int64 fetchByCallback(const Work& work);
    bool callBack(const Work& work, uint64 offset);
    /// Begins to fetch what is wanted, as much as is worth having on the wire together.
    void beginFetches(const Work& work);
    /// Hands over what has come; gives how many stretches.
    int64 deliverFetches(const Work& work);
    bool deliver(const Work& work, const ZqRangeFetch& fetch);
    void noteDelivered(uint64 offset);
    void notePass(int64 nDelivered, int64 beginMs);

    ZqUnderflowDrive& drive;
    ZqUnderflowFigures& figures;
    ZqOnDemandSource& source;
    const SxPtr<ZqImageProgress> imageProgress;
    const uint64 sizeZqf;
    const std::atomic<bool>& isStopped;

    ZqOnDemandWants wants;
    ZqOnDemandHints hints;
    ZqRangeFetches fetches;
    ZqReferenceImage reference;
    SxPtr<ZqOnDemandCallback> callback; ///< the call that was begun last
    std::function<void()> edgeCall;
    uint64 nPasses = 0;
    int64 fetchedMs = 0;        ///< when the last fetch ended
    bool isEdgeCounted = false; ///< the underflow that is open was counted by countOverdue()
};
