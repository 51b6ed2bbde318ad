#pragma once

#include "SxList.h"
#include "ZqLeftTrace.h"
#include "ZqOrderImage.h"
#include "ZqTraceItem.h"
#include "ZqTraceParams.h"
#include "ZqTraceRecords.h"

#include <functional>
#include <optional>
#include <span>
#include <vector>

/// The runs that an order comes from: single traces of one build. A trace that can't serve is left out and
/// named, so that one bad trace doesn't cost thousands of good ones. In whatever order they are named, they
/// come in the same. Not locked; it reads traces without their locks, and notices where one changes.
class ZqOrderRuns {
public:
    /// RAW indices of content that a run has read, each once, in the order of first reads.
    using Blocks = std::vector<uint64>;
    /// Told now and then of bytes of the traces that have been read; raises where the job is to stop.
    using Pace = std::function<void(uint64 nBytes)>;

    /// No more runs than that are counted for one block.
    static constexpr size_t MAX_RUNS = 65535;

    /// Reads the records of the trace folders `traces`. Raises where there are more than MAX_RUNS. This,
    /// read() and walk() raise what `pace_` raises.
    ZqOrderRuns(const SxList<SxString>& traces, const ZqOrderImage& image, Pace pace_);

    /// Reads all runs, one after the other, each from front to back, and shows each that can serve: its
    /// number among these, counted from 0, and its blocks. Raises where none can, with the reasons.
    void read(const std::function<void(size_t number, const Blocks& blocks)>& show);
    /// After that: shows all items of the run of that number again, some at a time. Raises where the trace
    /// has changed.
    void walk(size_t number, const std::function<void(std::span<const ZqTraceItem> items)>& look) const;
    /// Bytes that a pace is told of by read(), and walk() for each run.
    static uint64 countBytes(const SxList<SxString>& traces);

    /// Runs that can serve; before read() those that may.
    size_t getN() const { return runs.size(); }
    /// After read(), sorted.
    const std::vector<ZqLeftTrace>& getLeft() const { return left; }

private:
    struct Run {
        SxString trace, path; ///< the folder as it was given, and with its slash
        ZqTraceParams record;
        SxString digest; ///< MD5 text of img.trc
        /// The files as they were read.
        std::optional<ZqTraceRecords::Unchanged> files = {};
    };

    void addRun(const SxString& trace);
    /// Why the run can't serve; empty where it can. Its blocks go to `blocks`.
    SxString readRun(Run* run, Blocks* blocks);
    SxString digestOf(const SxString& items) const;
    /// What isn't read of a trace that was left out counts as if it had been.
    void passOver(const SxString& trace, uint64 nTimes) const;
    [[noreturn]] void refuse() const;

    const ZqOrderImage& image;
    const Pace pace;
    std::vector<Run> runs;
    std::vector<ZqLeftTrace> left;
    std::vector<bool> seen; ///< by RAW index: by the run that is read
};
