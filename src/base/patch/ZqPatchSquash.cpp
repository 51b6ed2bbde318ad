#include "ZqPatchSquash.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqPatchMap.h"

#include <algorithm>
#include <vector>

namespace {
constexpr const char* UNIT = "src/base/patch/ZqPatchSquash";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
} // namespace

SxArray<ZqFileCopyTask::Range> ZqPatchSquash::plan(SxArray<uint64>* idx, uint64 nBlocks) {
    const uint64 nUsed = ZqPatchMap::countUsed(*idx);
    std::vector<bool> isUsed(nBlocks);
    std::vector<int64> movers; // items, by their order
    for (int64 item = 0; item < idx->getSize(); ++item) {
        const uint64 slot = (*idx)(item);
        if (slot == ZqImage::NO_ENTRY) continue;
        if (slot >= nBlocks || isUsed[slot]) {
            throw SxException("New item " + SxString(item) + " has slot " + SxString(slot) +
                                  (slot >= nBlocks ? ", beyond the end of img.zqf" : ", as another one has"),
                              UNIT, __LINE__);
        }
        isUsed[slot] = true;
        if (slot >= nUsed) movers.push_back(item);
    }
    SxArray<ZqFileCopyTask::Range> ranges(static_cast<int64>(movers.size()));
    uint64 hole = 0;
    for (size_t k = 0; k < movers.size(); ++k, ++hole) {
        // There are as many holes below as blocks above.
        while (isUsed[hole])
            ++hole;
        uint64& slot = (*idx)(movers[k]);
        ranges(static_cast<int64>(k)) = {slot * BLOCK, hole * BLOCK, BLOCK};
        slot = hole;
    }
    return ranges;
}
