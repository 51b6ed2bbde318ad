#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxString.h"
#include "SxSystemThread.h"
#include "ZqTraceSources.h"

#include <vector>

/// Sweeps a folder of traces, one folder for each run, and folds them, one after the other in the order of
/// their start times, into one trace in there; the runs go, with their folders where those hold nothing else.
/// A trace that is damaged, so one that doesn't parse or is empty, is left out and goes too. Every other that
/// isn't joined stays: of a newer format, of another build than the newest run, of two with the same start
/// all but one, what a drive records into. What is no trace stays, too. Holds the shape of the image
/// exclusively.
///
/// Of a run its records are walked twice and never held; in memory are the first accesses to each block.
///
/// After a cut at any point the next sweep goes on from what is there: the result is complete, synced and in
/// its place, with a note of what went into it (see ZqTraceSources), before the first run goes.
class ZqTraceBuilder : public SxSystemThread {
public:
    /// `traceName`: the folder of the result in `tracesPath`, a plain name.
    ZqTraceBuilder(const SxString& imagePath, const SxString& tracesPath, const SxString& traceName);

    void stop() SX_EXCLUDES(mutex);
    /// Set by main() too where it gives up, so that behind the thread's end it means that no traces were
    /// joined. Safe from any thread.
    bool stopRequested() const SX_EXCLUDES(mutex);

    // Behind the thread's end.

    /// Why nothing was done though there might be something; empty where that isn't so.
    const SxString& getRefusal() const { return refusal; }
    /// Traces that are in the result now, the former result included; 0 where there was nothing to join.
    int64 getNJoined() const { return nJoined; }
    /// Traces that were damaged and went.
    int64 getNCorrupted() const { return nCorrupted; }
    /// A folder that stays where it is, but for a former result, which makes room under another name.
    struct Left {
        SxString name; ///< of its folder now
        SxString why;  ///< a clause
    };
    const std::vector<Left>& getLeft() const { return left; }
    /// Names of the folders that are gone: what was joined, and what was damaged.
    const SxList<SxString>& getRemoved() const { return removed; }

protected:
    void main() override;

private:
    struct Run;
    class Joined;

    void sweep();
    void giveUp(const SxString& why);
    /// The folders that take part.
    std::vector<Run> findRuns();
    void readRecords(std::vector<Run>* runs);
    /// Leaves out what can't go into one trace with the newest run.
    void choose(std::vector<Run>* runs);
    void leave(Run* run, const SxString& why);
    void tell(const ZqTraceSources::Gone& gone);
    void joinAll(std::vector<Run>* runs, Joined* joined);
    /// Says why the run can't be joined; empty where it can.
    SxString findObstacle(const Run& run, const Joined& joined) const;
    /// Puts the result in the place of the runs.
    void finish(const std::vector<Run>& runs, const Joined& joined);

    const SxString imagePath, tracesPath, traceName;

    mutable SxMutex mutex;
    bool stopFlag SX_GUARDED_BY(mutex) = false;

    SxString refusal;
    int64 nJoined = 0, nCorrupted = 0;
    std::vector<Left> left;
    SxList<SxString> removed;
};
