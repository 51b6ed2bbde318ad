#pragma once

#include "SxTypes.h"

#include <tsl/robin_set.h>
#include <vector>

/// Hash of a 64-bit index. Mixes all its bits, by a number that differs from table to table: so whoever makes
/// a hostile file can't choose indices that fall on each other.
struct SxIndexHash {
    SxIndexHash();

    uint64 seed;
    size_t operator()(uint64 index) const noexcept {
        index = (index ^ seed) * 0x9E3779B97F4A7C15;
        index = (index ^ (index >> 32)) * 0xD6E8FEB86659FD93;
        return index ^ (index >> 32);
    }
};

/// Set of 64-bit indices, such as those of blocks: a bit for each index below a bound, since a bit set beats
/// every hash set by an order of magnitude (bench/bench_sets.cpp), and a hash set for those above, so that
/// one wild index costs only its own place. Not locked.
class SxIndexSet {
public:
    /// `nMost`: how many indices there may be. The bits grow with the largest index, up to 64 for each of
    /// these, or 8 MiB where that is more.
    explicit SxIndexSet(int64 nMost);

    /// Adds `index`; gives whether it is new.
    bool insert(uint64 index) {
        if (index >= bound) return others.insert(index).second;
        if (index >= bits.size()) grow(index);
        auto bit = bits[index];
        const bool isNew = !bit;
        bit = true;
        return isNew;
    }

    bool contains(uint64 index) const {
        if (index >= bound) return others.contains(index);
        return index < bits.size() && bits[index];
    }

private:
    void grow(uint64 index);

    uint64 bound;
    std::vector<bool> bits;
    tsl::robin_set<uint64, SxIndexHash> others;
};
