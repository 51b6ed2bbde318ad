#include "ZqBlockUse.h"

#include <algorithm>

void ZqBlockUse::add(size_t number, const ZqOrderRuns::Blocks& blocks) {
    const uint64 bit = uint64{1} << number % 64;
    uint64 place = 0;
    for (const uint64 rawIdx : blocks) {
        Reads& of = reads[rawIdx];
        const uint64 n = of.getN(), least = n > 0 ? std::min(place, of.getPlace()) : place;
        of.bits = (n + 1) * ONE + least;
        ++place;
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
