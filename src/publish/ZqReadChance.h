#pragma once

#include "SxTypes.h"

#include <vector>

/// How likely another run reads a block that so many of the known runs have read. That isn't their share:
/// each run reads blocks of its own, which no other wants. So each run is left out in turn: of the blocks
/// that k of the others have read, it has read some part. Blocks that c of R runs have read are seen so c
/// times as such of c - 1 others, by one who reads them, and R - c times as such of c others, by one who
/// doesn't; so it is enough to know how many blocks have been read by how many runs. What more have read is
/// taken to be no less likely: where it seems to be, as with a few sessions that are each of one of two
/// kinds, both count as one case. Whole numbers, so that it is the same on every machine.
class ZqReadChance {
public:
    static constexpr uint64 CERTAIN = 1'000'000'000;

    /// `counts`: by the number of runs, how many blocks so many have read.
    explicit ZqReadChance(const std::vector<uint64>& counts);

    /// Of CERTAIN, for a block that `n` runs have read. What all have read is certain, since nothing is known
    /// that speaks against it.
    uint64 of(uint64 n) const;

private:
    uint64 nRuns;
    std::vector<uint64> byOthers; ///< by how many of all but one have read a block
};
