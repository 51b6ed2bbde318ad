#pragma once

#include "SxFileIO.h"
#include "ZqPatchSizes.h"

#include <vector>

/// Gives the room of `patch.data` back to the disk as its parts are applied. Only for a file that has no
/// other name. One thread.
class ZqPatchRoomBack {
public:
    /// `data_`: the file; `progress_`: the descriptor of the patch that is being applied.
    ZqPatchRoomBack(const SxString& data_, const SxString& progress_,
                    const std::vector<ZqPatchSizes>& parts_);

    /// Gives back what no run needs any longer by now.
    void look();

private:
    const SxString data, progress;
    const std::vector<ZqPatchSizes>& parts;
    uint64 done = 0; ///< bytes
};
