#pragma once

#include "SxArray.h"
#include "ZqPatchInfo.h"

#include <functional>
#include <span>

/// Where the blocks of the next version lie in `img.zqf`. An item is a block by its RAW index, a slot a place
/// by its ZqF index. An item that both versions have keeps its slot; new data goes into the lowest free ones.
namespace ZqPatchMap {
using StopTest = std::function<bool()>;

/// The `img.idx` of the new version, of `nNew` items. `oldIdx` is that of the old one, whose `img.zqf` has
/// `nBlocks` blocks, `map` its `map.idx`: for each old item the new one with the same bytes, all ones for
/// none. Raises, naming the item, where the three don't fit each other: an index beyond its table, an item
/// given twice, an old item without a slot, more new items than slots. Empty after a stop.
SxArray<uint64> generate(const SxArray<uint64>& oldIdx, uint64 nBlocks, const SxArray<uint64>& map,
                         uint64 nNew, std::span<const ZqPatchInfo> parts, const StopTest& isStopped);

/// How many items lie at or beyond slot `end`.
uint64 countBeyond(const SxArray<uint64>& idx, uint64 end);
/// How many items have a slot.
uint64 countUsed(const SxArray<uint64>& idx);
} // namespace ZqPatchMap
