#pragma once

#include "ZqPatchSide.h"

#include <vector>

/// What goes into one part of a patch, by items.
struct ZqPatchPart {
    std::vector<uint32> oldItems; ///< what the new ones are like, ascending
    std::vector<uint32> newItems;
};

/// Divides the new blocks that the old image doesn't have into parts, each with the old blocks that they are
/// like: those at the same place among their neighbours, and those that have the same bytes anywhere.
class ZqPatchPlan {
public:
    struct Limits {
        uint32 nNew = 8192;  ///< new blocks of a part, at most: 32 MiB
        uint32 nOld = 16384; ///< old ones, about, without the gaps between them
    };

    ZqPatchPlan(const ZqPatchSide& older_, const ZqPatchSide& newer_, const std::vector<uint32>& matched_);

    /// The parts with the old blocks that `likeness` finds.
    std::vector<ZqPatchPart> make(const ZqBlockLikeness& likeness, const Limits& limits,
                                  ZqTaskMon* progress) const;
    /// The parts without old blocks, where streams are the new data itself.
    std::vector<ZqPatchPart> makeOfNew(const Limits& limits) const;
    uint32 getNChanged() const { return static_cast<uint32>(changed.size()); }

private:
    /// A new item, and where its old one would be by the matches before and after it; NONE where there is no
    /// such place, or its block has another place now.
    struct Changed {
        uint32 item, fromBefore = ZqPatchSide::NONE, fromAfter = ZqPatchSide::NONE;
    };
    class OldItems;

    void findPlaces();
    void groupCopies();
    uint32 sizeOfPart(const Limits& limits) const;

    const ZqPatchSide &older, &newer;
    const std::vector<uint32>& matched;
    std::vector<Changed> changed; ///< in the order in which they go into parts
};
