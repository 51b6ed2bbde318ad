#pragma once

#include "ZqOrderRuns.h"

/// What runs have read of each block: how many of them, how early, and which. Times don't count, but what a
/// run had read before a block: so neither waits nor a slow machine make a block late. It takes 16 bytes for
/// a block. Not locked.
///
/// The run that needs a block first says how early it is, and of SEVERAL runs or more the second one, so that
/// one odd run alone moves nothing. By the mean of the runs, a block that some of them need at their start
/// and the others late lay in the middle, and those waited for all before it: sessions of the benchmark that
/// eleven others were traced beside took 0.99 of their ideal instead of 0.90, and up to 18 % more had to be
/// there before a safe start.
class ZqBlockUse {
public:
    explicit ZqBlockUse(uint64 nRaw);

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
    /// Whether the first block is needed earlier than the second one. Both were read.
    bool isEarlier(uint64 aRawIdx, uint64 bRawIdx) const {
        const uint64 a = reads[aRawIdx].getPlace(), b = reads[bRawIdx].getPlace();
        return a != b ? a < b : aRawIdx < bRawIdx;
    }
    /// For each number of runs, 0 included, how many blocks of content so many have read.
    std::vector<uint64> countByN(const ZqOrderImage& image) const;

private:
    static constexpr uint64 SEVERAL = 4;
    static constexpr int PLACE_BITS = 24;

    struct Reads {
        uint64 bits = 0;   ///< the number of runs, and the two lowest of their places
        uint64 sketch = 0; ///< in one with the other, since blocks lie far apart in memory
        uint64 getN() const { return bits >> 2 * PLACE_BITS; }
        uint64 getFirst() const { return bits >> PLACE_BITS & MASK; }
        uint64 getSecond() const { return bits & MASK; }
        uint64 getPlace() const { return getN() < SEVERAL ? getFirst() : getSecond(); }
        void add(uint64 place);

    private:
        static constexpr uint64 MASK = (uint64{1} << PLACE_BITS) - 1;
    };

    /// Places count blocks of a run, and more than one block together where an image has more than places.
    const int shift;
    std::vector<Reads> reads; ///< by RAW index
    size_t nRuns = 0;
};
