#include "ZqPatchRoomBack.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqBlocks.h"
#include "ZqPatchProgress.h"

#include <algorithm>

ZqPatchRoomBack::ZqPatchRoomBack(const SxString& data_, const SxString& progress_,
                                 const std::vector<ZqPatchSizes>& parts_)
    : data(data_),
      progress(progress_),
      parts(parts_) {
}

void ZqPatchRoomBack::look() {
    ZqPatchProgress now;
    try {
        now.read(progress);
    } catch (const SxException&) {
        // It isn't there before the beginning and after the end.
        return;
    }
    // What a part needs was copied out before it is applied, and its number is on the device by the time of
    // the next step.
    if (now.stage == ZqPatchProgress::PrepareOldData) return;
    const size_t nDone = now.stage >= ZqPatchProgress::FinalizePatch ? parts.size() : now.part;
    uint64 end = 0;
    for (size_t i = 0; i < std::min(nDone, parts.size()); ++i)
        end += parts[i].patchSize;
    end -= end % ZqBlocks::SIZE;
    if (end <= done) return;
    SxFileIO file(data, "r+b");
    // A file system that can't keeps the room until the end.
    SxOs::get().punchHole(file.getFd(), static_cast<int64>(done), static_cast<int64>(end - done));
    done = end;
}
