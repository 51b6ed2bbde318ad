#pragma once

#include "ZqOrderHints.h"

/// Which stretches of an image runs read together, as the groups of its hints. A stretch joins the group of
/// the one before it where at least half of those who read one of the last few read it, too: so far does a
/// client look that announces what follows a read. A group's successors are those that the runs came to next.
/// Not locked.
///
/// How likely something is after n runs, of which k did it, is counted as k of n + 1: one run alone proves
/// little. With k of n, and with k + 1/2 of n + 1, an untraced session of one of the games of the benchmark
/// fetched a sixth more bytes on demand, of which it used none.
class ZqOrderGroups {
public:
    explicit ZqOrderGroups(uint64 nStretches);

    /// Adds the stretches that a run has read on demand, in the order of time, each once.
    void add(const std::vector<uint32>& stretches);

    std::vector<ZqOrderHints::Group> make() const;

private:
    static constexpr size_t REACH = ZqOrderHints::MAX_TOGETHER;
    /// What the runs' ways may take in memory, in stretches: beyond that successors come from the first runs
    /// alone.
    static constexpr size_t MAX_WAYS = 16 << 20;

    bool isLikely(uint64 nBoth, uint64 nFirst) const { return 2 * nBoth >= nFirst + 1; }
    bool joins(size_t stretch, size_t groupFirst) const;
    void addSuccessors(std::vector<ZqOrderHints::Group>* groups) const;

    struct Counts {
        uint32 n = 0;             ///< runs that read the stretch
        uint32 after[REACH] = {}; ///< of these, those that read the first, second ... after it
    };
    std::vector<Counts> counts; ///< by stretch
    std::vector<std::vector<uint32>> ways;
    size_t nWays = 0;
};
