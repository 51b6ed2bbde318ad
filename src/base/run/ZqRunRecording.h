#pragma once

#include "SxString.h"
#include "ZqRunTraces.h"
#include "ZqTracePolicy.h"

#include <optional>

class ZqImageFeed;
class ZqRunWait;
struct ZqRunSettings;

/// The recording of a run's trace: whether there is one, where it goes, that there is room for it, and when
/// it ends. The drive service records; a mount is told the folder. Of the run's thread.
class ZqRunRecording {
public:
    explicit ZqRunRecording(const ZqRunSettings& settings);

    /// Raises where the run is to write into the image's folder and what it writes there is somewhere else.
    void requireFolder() const;
    /// Decides whether the run records a trace among the image's; to be called once, before awaitRoom().
    /// `build`: `checksums.mnt`. `wasComplete`: the image was so when the run began. `nUntraced`: see
    /// ZqStreamRecord.
    void decide(const SxString& build, bool wasComplete, int64 nUntraced);
    /// What was decided, and came of it; none where there was nothing to decide, or where the run doesn't
    /// record for want of room.
    const std::optional<ZqTracePolicy::Decision>& getDecision() const { return decision; }
    /// Waits until the image's disk has room for the record of a trace, without which a mount fails, or until
    /// `feed` has all of the image, which is played without a trace then. Raises where the download has
    /// ended, or the run is stopped.
    void awaitRoom(const ZqImageFeed& feed, ZqRunWait* waits);
    bool lacksRoom() const { return lacking; }

    /// Before the mount that begins the recording.
    void begin();
    /// It has failed.
    void drop();
    /// It has succeeded: the trace counts among the image's, and the oldest of these go.
    void keep();
    /// Where the trace goes, from begin() on; empty for no trace.
    const SxString& getFolder() const { return folder; }

    /// From now on there is play to be recorded. `isAdopted`: that of a run which was killed, and may have
    /// left its trace running.
    void startPlay(bool isAdopted);
    /// To be called every now and then: ends the recording where it has lasted long enough. Gives whether it
    /// did so now.
    bool limit();
    /// Whether it did so, or the end of the play has.
    bool hasEnded() const { return ended; }
    /// Ends it; the drive stays. Raises only where the service is silent, which ends it later.
    void end();

private:
    SxString newFolder() const;

    const SxString image;
    const SxString wanted; ///< folder
    const int64 limitMs;   ///< of play; 0 for none
    const int64 nMost;     ///< traces that stay
    const bool isPlay;     ///< there is an application
    const ZqTracePolicy::Wish wish;
    const bool mayOwn; ///< the trace, if there is one, is among the image's
    bool own = false;  ///< there is one, and it is
    bool lacking = false, ended = false;
    std::optional<ZqTracePolicy::Decision> decision;
    SxString folder;
    int64 endNs = 0; ///< when recording ends; 0 for no end, or where it has ended
    ZqRunTraces traces;
};
