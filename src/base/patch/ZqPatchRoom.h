#pragma once

#include "ZqPatchProgress.h"
#include "ZqPatchSizes.h"

#include <span>

/// How many bytes of the disk a patch still takes beside what it has taken, at its highest. The old data of
/// all parts leaves the image first; each part's goes once its new data is there.
namespace ZqPatchRoom {
/// Bytes for records and notes, which need() doesn't count.
constexpr uint64 RECORDS = 1 << 20;

/// What there is when a patch begins or goes on.
struct State {
    ZqPatchProgress at;
    bool isReplace = false; ///< the streams are the new data itself
    uint64 partFiles = 0;   ///< bytes of the current part's files, which are made anew or used
    uint64 growth = 0;      ///< bytes that the image still grows by
    uint64 sizeIdx = 0;     ///< of the new map, bytes
    bool hasMap = false;    ///< the new map is there
};

/// Raises on sizes that no disk has.
uint64 need(std::span<const ZqPatchSizes> parts, const State& state);
} // namespace ZqPatchRoom
