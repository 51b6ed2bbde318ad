#pragma once

#include "ZqBlocks.h"

#include <compare>

/// All that one request may span: 1 MiB, and a block more where it isn't aligned.
inline constexpr uint32 MAX_REQUEST = 1 << 20;
inline constexpr uint32 MAX_REQUEST_BLOCKS = MAX_REQUEST / ZqBlocks::SIZE + 1;

/// A block's index, as a type of its own for each index space, so that the two can't be mixed.
template<class Space>
struct BlockIdx {
    uint64 value = 0;

    constexpr bool operator==(const BlockIdx&) const = default;
    constexpr auto operator<=>(const BlockIdx& other) const { return value <=> other.value; }
    constexpr BlockIdx operator+(uint64 n) const { return {value + n}; }
    constexpr int64 byte() const { return static_cast<int64>(value * ZqBlocks::SIZE); }
};

/// Place on the application's disk.
using RawIdx = BlockIdx<struct RawSpace>;
/// Place in `img.zqf`.
using ZqfIdx = BlockIdx<struct ZqfSpace>;
/// Place in `img.tmp`, the data of the write layer.
using SlotIdx = BlockIdx<struct SlotSpace>;

/// Number of blocks that `bytes` bytes touch, counted from a block's begin.
constexpr uint64 blocksFor(uint64 bytes) {
    return bytes / ZqBlocks::SIZE + (bytes % ZqBlocks::SIZE != 0);
}
