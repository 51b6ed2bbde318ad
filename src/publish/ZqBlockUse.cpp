#include "ZqBlockUse.h"

#include <algorithm>
#include <bit>

namespace {

/// So many blocks before its turn one is asked for.
constexpr uint64 FAR = 32;

} // namespace

ZqBlockUse::ZqBlockUse(uint64 nRaw)
    : shift(std::max(static_cast<int>(std::bit_width(nRaw)) - PLACE_BITS, 0)),
      reads(nRaw) {
}

void ZqBlockUse::Reads::add(uint64 place) {
    const uint64 n = getN();
    const uint64 first = n > 0 ? std::min(getFirst(), place) : place;
    const uint64 later = n > 0 ? std::max(getFirst(), place) : place;
    const uint64 second = n > 1 ? std::min(getSecond(), later) : later;
    bits = (n + 1) << 2 * PLACE_BITS | first << PLACE_BITS | second;
}

void ZqBlockUse::add(size_t number, const ZqOrderRuns::Blocks& blocks) {
    const uint64 bit = uint64{1} << number % 64;
    for (uint64 place = 0; place < blocks.size(); ++place) {
        // They lie far apart in memory, and half of the time would go for waiting for them.
        if (place + FAR < blocks.size()) __builtin_prefetch(&reads[blocks[place + FAR]], 1);
        Reads& of = reads[blocks[place]];
        of.add(place >> shift);
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
