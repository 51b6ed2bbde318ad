#pragma once

#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqMovePlan.h"

/// Carries out the steps of a plan in one file, the heads' blocks in another one, by runs of blocks that are
/// neighbours. One thread.
class ZqBlockMover {
public:
    /// Asked between pieces of at most 64 MiB; true ends the call with an SxException of the tag "Stopped".
    using StopTest = std::function<bool()>;
    /// Is told of so many bytes more that have been written to the file.
    using Counter = std::function<void(uint64 bytes)>;

    /// The files stay the caller's, open for reading and writing.
    ZqBlockMover(const ZqMovePlan& plan_, SxFileIO* image_, SxFileIO* heads_, StopTest isStopped_,
                 Counter count_);

    /// Sets the heads of the plan's round aside, on the device at the end, and gives their XXH64.
    uint64 setHeadsAside();
    /// The XXH64 of the blocks that lie there for the plan's round.
    uint64 hashHeads();
    /// Does a batch of the plan's round, on the device at the end.
    void doBatch(uint64 batch);

private:
    /// A block to be copied; a source from `HEAD` on is a head's slot.
    struct Step {
        uint64 from;
        ZqMovePlan::Position to;
    };
    static constexpr uint64 HEAD = uint64{1} << 32;
    static constexpr size_t PIECE = 16384; ///< blocks

    void read();
    void write();
    void refuseStop() const;
    char* place(size_t step) { return buffer.data() + step * ZqBlocks::SIZE; }

    const ZqMovePlan& plan;
    SxFileIO *const image, *const heads;
    const StopTest isStopped;
    const Counter count;
    std::vector<Step> steps; ///< of the piece, in the order of `buffer`
    std::vector<uint32> byTarget;
    std::vector<char> buffer;
};
