#pragma once

#include "ZqOrderRuns.h"

/// What runs have read of each block: how many of them, how early, and which. Times don't count, but what a
/// run had read before a block: so neither waits nor a slow machine make a block late. It takes 16 bytes for
/// a block. All sums are whole numbers, so that they are the same on every machine. Not locked.
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
    /// Whether the mean of the first block's places in the runs is lower. Both were read.
    bool isEarlier(uint64 aRawIdx, uint64 bRawIdx) const {
        const Reads &a = reads[aRawIdx], &b = reads[bRawIdx];
        const uint64 left = a.getSum() * b.getN(), right = b.getSum() * a.getN();
        return left != right ? left < right : aRawIdx < bRawIdx;
    }
    /// For each number of runs, 0 included, how many blocks of content so many have read.
    std::vector<uint64> countByN(const ZqOrderImage& image) const;

private:
    /// Places in a run count blocks: an image of 2^31 blocks has 8 TiB, so the product of sum and number
    /// stays below 2^63.
    struct Reads {
        uint64 bits = 0;   ///< their number and the sum of their places
        uint64 sketch = 0; ///< in one with the other, since blocks lie far apart in memory
        uint64 getN() const { return bits >> SUM_BITS; }
        uint64 getSum() const { return bits & (ONE - 1); }
    };
    static constexpr int SUM_BITS = 48;
    static constexpr uint64 ONE = uint64{1} << SUM_BITS;

    std::vector<Reads> reads; ///< by RAW index
    size_t nRuns = 0;
};
