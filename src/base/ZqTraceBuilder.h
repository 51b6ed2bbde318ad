#pragma once

#include "SxMutex.h"
#include "SxSystemThread.h"

#include <vector>

/// Sweeps a folder of traces, one folder for each run, and folds them, one behind the other in the order of
/// their start times, into one trace in there; the folders of the runs go. A trace that cannot be read is
/// left out and goes too. What a mounted drive records into, and what is no trace, stays. Holds the shape of
/// the image exclusively.
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
    /// Traces that could not be read and went.
    int64 getNCorrupted() const { return nCorrupted; }

protected:
    void main() override;

private:
    struct Run;
    class Joined;

    void sweep();
    void giveUp(const SxString& why);
    /// The folders that take part.
    std::vector<Run> findRuns() const;
    void readRecords(std::vector<Run>* runs);
    void join(std::vector<Run>* runs, Joined* joined);
    /// Puts the result in the place of the runs.
    void finish(const std::vector<Run>& runs, const Joined& joined) const;

    const SxString imagePath, tracesPath, traceName;

    mutable SxMutex mutex;
    bool stopFlag SX_GUARDED_BY(mutex) = false;

    SxString refusal;
    int64 nJoined = 0, nCorrupted = 0;
};
