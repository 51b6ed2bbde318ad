#include "SxIndexSet.h"

#include <algorithm>
#include <random>

namespace {

constexpr uint64 BITS_FOR_EACH = 64;
constexpr uint64 BITS_ALWAYS = (uint64{8} << 20) * 8;

uint64 newSeed() {
    std::random_device random;
    return (uint64{random()} << 32) | random();
}

} // namespace

SxIndexHash::SxIndexHash() : seed(newSeed()) {
}

SxIndexSet::SxIndexSet(int64 nMost)
    : bound(std::max(BITS_ALWAYS, static_cast<uint64>(nMost) * BITS_FOR_EACH)) {
    // The set's own limit would leave the table half empty at best: twice the memory for little speed.
    others.max_load_factor(0.8F);
}

void SxIndexSet::grow(uint64 index) {
    bits.resize(std::min(bound, std::max<uint64>(index + 1, bits.size() * 2)));
}
