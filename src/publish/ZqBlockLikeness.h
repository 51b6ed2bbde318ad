#pragma once

#include "ZqPatchSide.h"

#include <array>
#include <span>
#include <vector>

/// Finds the blocks of the old image that have bytes in common with a block of the new one, wherever they lie
/// and however far they were shifted. Of each block it knows two of its stretches of 32 bytes, those with the
/// least and the greatest rolling hash: two blocks that share most of their bytes share one of them most of
/// the time. Takes 16 bytes a block. One thread while it is filled; find() is safe from any.
class ZqBlockLikeness {
public:
    using Marks = std::array<uint32, 2>;

    /// The marks of a block.
    static Marks of(const char* block);

    /// Room for the blocks of `nSlots` slots.
    void begin(uint32 nSlots) { marks.resize(nSlots); }
    void take(uint32 slot, const char* block) { marks[slot] = of(block); }
    /// All of the image was taken.
    void finish(const ZqPatchSide& older);
    /// Appends the old items that share a mark; of those that share one, the `N_MOST` nearest to `near` in
    /// the image, and none where so many share it that it tells nothing.
    void find(const Marks& wanted, uint32 near, std::vector<uint32>* items) const;

private:
    static constexpr size_t N_MOST = 2;
    static constexpr size_t N_COMMON = 64;

    uint32 markAt(uint32 entry) const { return marks[slots[entry / 2]][entry % 2]; }

    std::vector<Marks> marks;    ///< by slot
    std::vector<uint32> entries; ///< an item times two, and which of its marks, by the mark
    std::span<const uint32> slots;
};
