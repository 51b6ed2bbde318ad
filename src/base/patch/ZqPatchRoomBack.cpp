#include "ZqPatchRoomBack.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqBlocks.h"
#include "ZqLog.h"
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
    // One that was lost is on its way again.
    if (end <= done || SxFSAction::sizeOf(data) < static_cast<int64>(end)) return;
    try {
        SxFileIO file(data, "r+b");
        SxStat info;
        // A file system that can't keeps the room until the end.
        if (SxOs::get().statFd(file.getFd(), &info) == 0 && info.nNames == 1)
            SxOs::get().punchHole(file.getFd(), static_cast<int64>(done), static_cast<int64>(end - done));
    } catch (const SxException& e) {
        // The patch needs no room for this, and at its end the file goes as a whole.
        zqLogMsg("base", "ZqPatchRoomBack : " + e.toString(SxException::ShowMessage, ": "));
    }
    done = end;
}
