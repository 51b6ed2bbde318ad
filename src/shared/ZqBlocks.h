#pragma once

#include "SxTypes.h"

/// Sizes that all parts of the system share, in bytes.
namespace ZqBlocks {
/// A block: what a drive is read and written by, and what the index spaces of BlockIdx.h count.
constexpr uint64 SIZE = 4096;
/// A stretch: what is fetched, kept and checked as one, and a frame of the packed form holds; 50 blocks.
constexpr uint64 STRETCH = 50 * SIZE;
/// What a megabit is in bytes; speeds are stated in megabit per second.
constexpr double PER_MEGABIT = 125'000;
/// The unit of the sizes that records state as "MB".
constexpr uint64 MEGABYTE = 1'000'000;
} // namespace ZqBlocks
