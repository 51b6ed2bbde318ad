#pragma once

#include "ZqPatchProgress.h"
#include "ZqPatchSizes.h"

#include <span>

/// How many bytes of the disk a patch still takes beside what it has taken, at its highest. The old data of
/// all parts leaves the image first; each part's goes once its new data is there. Parts are added in their
/// order. Raises on sizes that no disk has.
class ZqPatchRoom {
public:
    /// From that step on, see ZqPatchProgress. `isReplace_`: streams are the new data itself.
    ZqPatchRoom(uint32 stage_, uint32 part_, bool isReplace_)
        : stage(stage_),
          first(part_),
          isReplace(isReplace_) {}

    /// All that a patch of these parts still takes of the image's disk, from the state that `at` notes:
    /// beside the parts the image's growth and, unless it is there, the new map. `nOld`, `nNew`: items of
    /// both versions.
    static uint64 need(std::span<const ZqPatchSizes> parts, const ZqPatchProgress& at, bool isReplace,
                       uint64 nOld, uint64 nNew, bool hasMap);

    void add(const ZqPatchSizes& part);
    uint64 peak() const;

private:
    const uint32 stage, first;
    const bool isReplace;
    uint32 nParts = 0;
    int64 oldToCome = 0; ///< bytes that are still copied out
    int64 given = 0;     ///< bytes that parts before have given back
    int64 highest = 0;   ///< what a part takes beyond that
};
