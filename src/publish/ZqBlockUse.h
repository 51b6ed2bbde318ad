#pragma once

#include "ZqOrderRuns.h"

/// What runs have read of each block: how many of them, how early, and which. Times don't count, but what a
/// run had read before a block: so neither waits nor a slow machine make a block late. It takes 16 bytes for
/// a block. Not locked.
///
/// The run that needs a block first says how early it is. By the mean of the runs, a block that one of them
/// needs at its start and the others late lay in the middle, and that one waited for all before it: sessions
/// of the benchmark that eleven others were traced beside took 0.99 of their ideal instead of 0.90, and up to
/// 18 % more had to be there before a safe start.
class ZqBlockUse {
public:
    explicit ZqBlockUse(uint64 nRaw) : reads(nRaw) {}

    /// Adds a run, by its number; at most ZqOrderRuns::MAX_RUNS.
    void add(size_t number, const ZqOrderRuns::Blocks& blocks);
    size_t getNRuns() const { return nRuns; }

    /// How many runs have read the block.
    uint64 getN(uint64 rawIdx) const { return reads[rawIdx].getN(); }
    /// Which runs have: a bit for each. Beyond 64 runs some share a bit.
    uint64 getSketch(uint64 rawIdx) const { return reads[rawIdx].sketch; }
    /// Whether the same runs have read both, as far as their sketches tell.
    bool isTogether(uint64 aRawIdx, uint64 bRawIdx) const {
        return getSketch(aRawIdx) == getSketch(bRawIdx) && getN(aRawIdx) == getN(bRawIdx);
    }
    /// Whether a run has read the first block before any run has read as much as before the second one. Both
    /// were read.
    bool isEarlier(uint64 aRawIdx, uint64 bRawIdx) const {
        const uint64 a = reads[aRawIdx].getPlace(), b = reads[bRawIdx].getPlace();
        return a != b ? a < b : aRawIdx < bRawIdx;
    }
    /// For each number of runs, 0 included, how many blocks of content so many have read.
    std::vector<uint64> countByN(const ZqOrderImage& image) const;

private:
    struct Reads {
        uint64 bits = 0;   ///< their number, and the lowest of their places, which count a run's blocks
        uint64 sketch = 0; ///< in one with the other, since blocks lie far apart in memory
        uint64 getN() const { return bits >> PLACE_BITS; }
        uint64 getPlace() const { return bits & (ONE - 1); }
    };
    static constexpr int PLACE_BITS = 48;
    static constexpr uint64 ONE = uint64{1} << PLACE_BITS;

    std::vector<Reads> reads; ///< by RAW index
    size_t nRuns = 0;
};
