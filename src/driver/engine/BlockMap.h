#pragma once

#include "BlockIdx.h"
#include "DriveFile.h"
#include "SxArray.h"

#include <atomic>

/// Where each RAW block is: the image's map, `img.idx`, with the write layer's slots put over it, in 8 bytes
/// a block. Where a block has a slot, what `img.idx` says of it isn't kept in memory; readStored() fetches it
/// again. Entries are read and set from any thread.
class BlockMap {
public:
    /// One entry: nothing, a slot of the layer, or a ZqF index.
    class Place {
    public:
        constexpr explicit Place(uint64 bits_) : bits(bits_) {}
        constexpr Place(ZqfIdx zqfIdx) : bits(zqfIdx.value) {}
        constexpr Place(SlotIdx slot) : bits(slot.value | SLOT_BIT) {}

        constexpr bool isNothing() const { return bits == NOTHING; }
        constexpr bool isSlot() const { return (bits & SLOT_BIT) != 0 && bits != NOTHING; }
        constexpr bool isStored() const { return (bits & SLOT_BIT) == 0; }
        constexpr ZqfIdx zqfIdx() const { return {bits}; }
        constexpr SlotIdx slot() const { return {bits & ~SLOT_BIT}; }
        constexpr uint64 getBits() const { return bits; }

    private:
        uint64 bits;
    };

    /// The entry of a block that reads as zeros.
    static const Place NONE;

    /// Reads `img.idx`; raises, naming it, where it doesn't fit to a disk of `sizeRaw` bytes or has an entry
    /// beyond it, with `unique` also where two entries are equal.
    BlockMap(const std::string& folder, uint64 sizeRaw, bool unique);

    uint64 nRaw() const { return static_cast<uint64>(entries.getSize()); }
    /// One more than the highest ZqF index.
    uint64 nIncluded() const { return included; }

    Place get(RawIdx rawIdx) const {
        return Place(
            std::atomic_ref(entries(static_cast<int64>(rawIdx.value))).load(std::memory_order_acquire));
    }
    void set(RawIdx rawIdx, Place place) {
        std::atomic_ref(entries(static_cast<int64>(rawIdx.value)))
            .store(place.getBits(), std::memory_order_release);
    }
    /// Reads `n` entries from `first` on as the file has them, without slots. Raises.
    void readStored(RawIdx first, uint64 n, SxArray<uint64>* stored) const;

private:
    static constexpr uint64 NOTHING = ~uint64{0}, SLOT_BIT = uint64{1} << 63;

    void read(uint64 first, uint64 n, uint64* to) const;
    void check(bool unique);

    DriveFile file;
    mutable SxArray<uint64> entries; ///< by RAW index; through atomic_ref alone once it is checked
    uint64 included = 0;
};

inline constexpr BlockMap::Place BlockMap::NONE{NOTHING};
