#include "ZqReadChance.h"

#include <cstddef>

namespace {

__extension__ using Wide = unsigned __int128;

/// Cases that are taken together: those of `n` numbers of runs.
struct Pool {
    uint64 nRead = 0, nAll = 0;
    size_t n = 0;
};

bool isLess(const Pool& a, const Pool& b) {
    return Wide{a.nRead} * b.nAll < Wide{b.nRead} * a.nAll;
}

} // namespace

ZqReadChance::ZqReadChance(const std::vector<uint64>& counts) : nRuns(counts.size() - 1) {
    std::vector<Pool> pools;
    for (uint64 k = 0; k < nRuns; ++k) {
        const uint64 nRead = (k + 1) * counts[k + 1];
        pools.push_back({nRead, nRead + (nRuns - k) * counts[k], 1});
        while (pools.size() > 1 && !isLess(pools.end()[-2], pools.back())) {
            const Pool last = pools.back();
            pools.pop_back();
            pools.back() = {pools.back().nRead + last.nRead, pools.back().nAll + last.nAll,
                            pools.back().n + last.n};
        }
    }
    for (const Pool& pool : pools) {
        const Wide chance = pool.nAll > 0 ? Wide{pool.nRead} * CERTAIN / pool.nAll : Wide{0};
        byOthers.insert(byOthers.end(), pool.n, static_cast<uint64>(chance));
    }
}

uint64 ZqReadChance::of(uint64 n) const {
    if (n >= nRuns) return CERTAIN;
    if (n == 0) return byOthers.front();
    // n of R are n - n/R of R - 1: between n - 1 and n of these.
    return static_cast<uint64>((Wide{byOthers[n - 1]} * n + Wide{byOthers[n]} * (nRuns - n)) / nRuns);
}
