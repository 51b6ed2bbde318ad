#pragma once

#include "SxFileIO.h"
#include "ZqAppParams.h"
#include "ZqMovePlan.h"
#include "ZqStretchStore.h"

#include <memory>

/// Carries what a run has kept beyond the end of `img.zqf` over to another order: stretches are numbered by
/// position. What the new `img.zqf` doesn't reach is kept there, too, as far as it makes whole stretches.
/// One thread.
class ZqAheadCarry {
public:
    /// `image` is the folder of the old order, with its trailing slash, `source` the block that belongs at
    /// each new position.
    ZqAheadCarry(const SxString& image, const ZqAppParams& oldApp,
                 const std::vector<ZqMovePlan::Position>& source_);

    /// Blocks that write() would keep for an `img.zqf` of `nTarget` blocks.
    uint64 countKept(const ZqAppParams& newApp, uint64 nTarget) const;
    /// Makes the files of the new order in `target`, and gives how many blocks they hold. A disk that has no
    /// room for them costs what doesn't fit. `isStopped`: asked for each stretch, and ends it.
    uint64 write(const SxString& target, const ZqAppParams& newApp, uint64 nTarget,
                 const std::function<bool()>& isStopped);
    /// Blocks of the old order that are there, in the file or kept.
    uint64 countThere() const;

private:
    bool isThere(ZqMovePlan::Position from) const;
    bool read(ZqMovePlan::Position from, char* to);
    bool isWhole(uint64 first, uint64 end) const;
    SxPtr<SxArray<char>> compose(uint64 first, uint64 end);

    const std::vector<ZqMovePlan::Position>& source;
    SxFileIO zqf;
    uint64 nInFile = 0, nInImage = 0; ///< blocks: that are there, and of the complete file
    std::unique_ptr<ZqStretchStore> old;
    std::vector<bool> kept; ///< stretches of the old order
    uint64 lastIdx = 0;     ///< the one that was read last
    SxPtr<SxArray<char>> last;
};
