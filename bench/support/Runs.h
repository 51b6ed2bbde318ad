#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

namespace bench {

/// A map of `nBlocks` blocks, from RAW to ZqF: the RAW order is cut into runs of `nRun` blocks, which are
/// stored shuffled.
inline std::vector<uint64> mapInRuns(uint64 nBlocks, uint64 nRun) {
    std::vector<uint64> runs((nBlocks + nRun - 1) / nRun), map(nBlocks);
    std::iota(runs.begin(), runs.end(), 0);
    std::shuffle(runs.begin(), runs.end(), std::mt19937_64(1));
    uint64 zqfIdx = 0;
    for (const uint64 run : runs) {
        for (uint64 rawIdx = run * nRun; rawIdx < std::min(nBlocks, (run + 1) * nRun); ++rawIdx)
            map[rawIdx] = zqfIdx++;
    }
    return map;
}

} // namespace bench
