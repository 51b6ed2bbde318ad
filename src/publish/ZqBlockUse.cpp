#include "ZqBlockUse.h"

#include <algorithm>

namespace {

/// So many blocks before its turn one is asked for.
constexpr uint64 FAR = 32;

} // namespace

void ZqBlockUse::add(size_t number, const ZqOrderRuns::Blocks& blocks) {
    const uint64 bit = uint64{1} << number % 64;
    for (uint64 place = 0; place < blocks.size(); ++place) {
        // They lie far apart in memory, and half of the time would go for waiting for them.
        if (place + FAR < blocks.size()) __builtin_prefetch(&reads[blocks[place + FAR]], 1);
        Reads& of = reads[blocks[place]];
        const uint64 n = of.getN(), least = n > 0 ? std::min(place, of.getPlace()) : place;
        of.bits = (n + 1) * ONE + least;
        of.sketch |= bit;
    }
    ++nRuns;
}

std::vector<uint64> ZqBlockUse::countByN(const ZqOrderImage& image) const {
    std::vector<uint64> counts(nRuns + 1);
    for (uint64 rawIdx = 0; rawIdx < reads.size(); ++rawIdx) {
        if (image.included[rawIdx]) ++counts[reads[rawIdx].getN()];
    }
    // No run counts a block of the front.
    counts[0] -= static_cast<uint64>(image.front.getSize());
    return counts;
}
