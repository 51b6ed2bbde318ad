#pragma once

#include "SxTypes.h"

#include <cstddef>
#include <vector>

/// How a run went, over its time, in bounded memory: when it is full, every second sample goes, so that a run
/// of hours takes no more than one of a minute. Times in milliseconds from the run's beginning. Not locked.
class ZqRunSeries {
public:
    struct Sample {
        int64 timeMs = 0;
        uint64 nThere = 0;        ///< bytes of `img.zqf`, up to which the drive's cursor goes
        uint64 nReceived = 0;     ///< bytes of the link
        uint64 nOnDemand = 0;     ///< of these, the ones that were fetched out of their order
        bool isUnderflow = false; ///< the application waits for data that can't be fetched on demand
    };
    /// An underflow; several where there became too many of them.
    struct Underflow {
        int64 fromMs, toMs;
        int64 waitedMs; ///< without the time between them
        int64 n;
    };

    explicit ZqRunSeries(int64 intervalMs_ = 20, size_t nMost_ = 2048)
        : intervalMs(intervalMs_),
          nMost(nMost_) {}

    /// Takes how things stand now. Underflows are followed by every call, however few of them stay as
    /// samples.
    void add(const Sample& sample);
    /// Moves all of it later, by `ms`.
    void shift(int64 ms);
    /// In order of time, up to the last one that was added.
    const std::vector<Sample>& getSamples() const { return samples; }
    const std::vector<Underflow>& getUnderflows() const { return underflows; }

private:
    void followUnderflow(const Sample& sample);
    void joinNearest();

    int64 intervalMs;
    size_t nMost;
    int64 dueMs = 0;
    bool isExtra = false; ///< the last sample stands there only until the next one
    bool isOpen = false;  ///< the last underflow goes on
    std::vector<Sample> samples;
    std::vector<Underflow> underflows;
};
