#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxString.h"
#include "SxSystemThread.h"
#include "ZqTraceSources.h"

#include <vector>

class ZqTraceOrigins;

/// Sweeps a folder of traces, one folder for each run, and folds them, one after the other in the order of
/// their start times, into one trace in there. Holds the shape of the image exclusively, which keeps off a
/// mounted drive of it. A drive of another image may record in there, too; its trace is told by
/// ZqTraceRecords::isRecording().
///
/// The runs stay, since an order is made of single runs and not of what they were joined to (see
/// ZqTraceParams::refuseSeries()). The record of the result names them, and what it names isn't joined again
/// (see ZqTraceOrigins). What is a series itself serves no order, and is removed once it is in the result,
/// with its folder where that holds nothing else; so is a former result. How many runs stay isn't decided
/// here (see ZqRunTraces).
///
/// A damaged trace, which is one that doesn't parse or is empty, is left out and removed, too. Every other
/// trace that can't be joined stays and is named in the result: one of a newer format; a run of another build
/// than the newest one, since joined with it it would name other blocks; all but one of the same start; a
/// series of which the result has some runs already; items that aren't those of their record; blocks that no
/// disk has; what a drive records into. Of the folder `traceName`, what isn't a former result that went in
/// makes room under a name of its own. A folder with neither of the two files of a trace that isn't empty is
/// somebody else's and stays.
///
/// Where the disk fails, a schema isn't found, memory is short, or a first run that claims to last for ages
/// leaves no time for those after it, the build fails and nothing changes: that says nothing of a trace.
///
/// Of a run its records are walked twice and never held. In memory are the first accesses to each block,
/// since repeats go in the end, with the times of the first and the last access and the number of blocks so
/// far. The result is that of appending run by run through files, at one write instead of one for each run.
///
/// After a cut at any point the next sweep goes on from what is there. Before the first folder is removed,
/// the result is complete, synced and in its place, with a note of what is to go (see ZqTraceSources).
class ZqTraceBuilder : public SxSystemThread {
public:
    /// `traceName`: the folder of the result in `tracesPath`, a plain name.
    ZqTraceBuilder(const SxString& imagePath, const SxString& tracesPath, const SxString& traceName);

    void stop() SX_EXCLUDES(mutex);
    /// Set by main() too where it gives up, so that after the thread's end it means that no traces were
    /// joined. Safe from any thread.
    bool stopRequested() const SX_EXCLUDES(mutex);

    // After the thread's end.

    /// Why nothing was done though there might be something; empty where that isn't so.
    const SxString& getRefusal() const { return refusal; }
    /// Traces that were joined now, the former result included; 0 where there was nothing to join.
    int64 getNJoined() const { return nJoined; }
    /// Traces that went into one of these before, or into the result where there was nothing to join.
    int64 getNHeld() const { return nHeld; }
    /// Traces that were damaged and went.
    int64 getNCorrupted() const { return nCorrupted; }
    /// A folder that stays and wasn't joined, or has made room for the result under another name.
    struct Left {
        SxString name; ///< of its folder now
        SxString why;  ///< a clause
    };
    const std::vector<Left>& getLeft() const { return left; }
    /// Names of the folders that are gone: series that were joined, and what was damaged.
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
    /// Leaves out what can't go into one trace with the newest run, and what is in one of the traces already.
    void choose(std::vector<Run>* runs);
    void chooseBuild(std::vector<Run>* runs);
    /// What went into the series that are to be joined. Leaves out those that share some of it.
    ZqTraceOrigins chooseSeries(std::vector<Run>* runs);
    void passOver(std::vector<Run>* runs, const ZqTraceOrigins& origins);
    void chooseStarts(std::vector<Run>* runs);
    void leave(Run* run, const SxString& why);
    void tell(const ZqTraceSources::Gone& gone);
    /// Gives false where it left out a series: then what went into that is to be chosen anew.
    bool joinAll(std::vector<Run>* runs, Joined* joined);
    /// Says why the run can't be joined; empty where it can.
    SxString findObstacle(const Run& run, const Joined& joined) const;
    /// Puts the result in its place, and removes what is to go.
    void finish(const std::vector<Run>& runs, const Joined& joined);
    ZqTraceSources listWhatGoes(const std::vector<Run>& runs, bool hasResult);

    const SxString imagePath, tracesPath, traceName;

    mutable SxMutex mutex;
    bool stopFlag SX_GUARDED_BY(mutex) = false;

    SxString refusal;
    int64 nJoined = 0, nHeld = 0, nCorrupted = 0;
    std::vector<Left> left;
    SxList<SxString> removed;
};
