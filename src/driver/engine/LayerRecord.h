#pragma once

#include "BlockIdx.h"

#include <bit>

/// One record of the index of a write layer, as it stands in `img.tix`: a RAW block and its slot, with a
/// check value. Zeros aren't a record.
class LayerRecord {
public:
    /// In the place of a slot: the block reads as zeros.
    static constexpr SlotIdx ZEROS{~uint32{0}};

    LayerRecord() = default;
    LayerRecord(RawIdx rawIdx_, SlotIdx slot_);

    RawIdx getBlock() const { return {little(rawIdx)}; }
    SlotIdx getSlot() const { return {little(slot)}; }
    bool isZeros() const { return getSlot() == ZEROS; }
    /// Whether the check value fits.
    bool isWhole() const;

    /// A number in the byte order of the file, or back.
    static constexpr uint64 little(uint64 value) {
        return std::endian::native == std::endian::big ? __builtin_bswap64(value) : value;
    }
    static constexpr uint32 little(uint32 value) {
        return std::endian::native == std::endian::big ? __builtin_bswap32(value) : value;
    }

private:
    uint64 rawIdx = 0;
    uint32 slot = 0, check = 0;
};

static_assert(sizeof(LayerRecord) == 16);
