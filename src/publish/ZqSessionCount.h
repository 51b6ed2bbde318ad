#pragma once

#include "SxTypes.h"

#include <array>
#include <vector>

/// How many different sessions runs are: a publisher may trace one level three times, and an order that comes
/// from it knows one level. Two runs are of one session where nine tenths of the stretches that either has
/// read on demand are those of both. That is estimated by signatures (MinHash), so that thousands of runs can
/// be compared; the same runs give the same number. Not locked.
class ZqSessionCount {
public:
    /// Adds a run, by the stretches that it has read on demand.
    void add(const std::vector<uint32>& stretches);
    uint64 get() const { return sessions.size(); }

private:
    using Signature = std::array<uint64, 40>;

    std::vector<Signature> sessions; ///< the first run of each
};
