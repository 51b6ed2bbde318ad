#pragma once

#include "SxProcessGroup.h"

class ZqRunWait;

/// The note of an image's application in `stream.json`: its processes, which change when a launcher hands
/// over. The run after one that was killed can tell by these whether the application lives, and go on feeding
/// it. What can't be written now, say on a full disk, is tried again later, and never ends the run. Of the
/// run's thread.
class ZqApplicationNote {
public:
    /// `waits_` is told what can't be noted, and must outlive this.
    ZqApplicationNote(SxString image_, ZqRunWait* waits_);

    /// Reads which application a former run has noted. Raises as ZqStreamRecord does.
    void read();
    const SxProcessGroup& getFormer() const { return former; }
    /// Raises where that lives. For one whose drive has gone, since the service was killed, too: a second
    /// application would write the same saves. It isn't ended here, since it may still have something to save
    /// elsewhere.
    void requireNoFormer() const;
    /// This run goes on with what the former one has begun, and with its note.
    void adopt();

    /// Writes down the start of an application, whether its run records a trace, and its processes where
    /// these have changed.
    void note(const SxProcessGroup& group, bool isTraced);
    /// Writes down that it has ended: what may still run of it is no longer an application.
    void noteEnd(const SxProcessGroup& group) const;
    /// Applications that were started so far, with the one that was noted or adopted last; 0 without one.
    int64 getStarts() const { return nStarts; }
    /// Of those that former runs have started, how many came after the last one that was traced.
    int64 getUntraced() const { return nUntraced; }

private:
    const SxString image;
    ZqRunWait* const waits;
    SxProcessGroup former;
    int64 nFormerStarts = 0, nStarts = 0, nUntraced = 0;
    bool isNoted = false, isAdopted = false;
    SxString noted;   ///< the group that was written last
    int64 failNs = 0; ///< when that failed last; 0 for never
};
