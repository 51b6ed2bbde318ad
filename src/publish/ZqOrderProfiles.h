#pragma once

#include "ZqAppParams.h"

#include <map>
#include <vector>

/// When runs need how much of an image in some order, as load profiles: the blocks of the core come with the
/// download in order, what a run reads after these is fetched on demand. So a profile asks for the furthest
/// block of the core that is needed by then, and for the bytes of all stretches that are fetched by then,
/// which take the link from the download. A run whose level lies far back doesn't ask for all before it.
/// Times are whole seconds from a run's first read of content, cut, not rounded: what is read after 900 ms
/// must be there at the second's beginning. Not locked.
class ZqOrderProfiles {
public:
    using Profile = SxList<ZqLoadProfilePoint>;

    /// Blocks in the ZqF file: those of a mount, those of the core together with these, and all.
    ZqOrderProfiles(uint64 nFront_, uint64 nOrdered_, uint64 nBlocks);

    /// A run has read that block, so many milliseconds after its start; before it counts as at it. The
    /// earliest time of a block counts, which asks for too much rather than too little.
    void add(uint64 zqfIdx, int64 ms);
    /// The run has ended. Gives the stretches after the core that it has read, in the order of time.
    std::vector<uint32> endRun();

    /// The worst of the runs at each second.
    Profile getWorst() const;
    /// The median of the runs at each second; of an even number the larger one.
    Profile getMedian() const;

private:
    using Points = std::vector<ZqLoadProfilePoint>;

    /// A second's part of a run.
    struct Need {
        uint64 nBlocks = 0;    ///< ZqF blocks up to the furthest one of the core
        uint64 nStretches = 0; ///< fetched on demand
    };

    const uint64 nFront, nOrdered, sizeZqf;
    std::map<uint64, Need> needs;     ///< of this run, by second
    std::vector<uint32> firstSeconds; ///< by stretch: when this run reads it first
    std::vector<uint32> touched;      ///< stretches after the core that it reads
    std::map<uint64, uint64> worst;   ///< bytes by second
    std::vector<Points> runs;
};
