#pragma once

#include "ZqBlockMover.h"
#include "ZqMovePlan.h"
#include "ZqMoveProgress.h"

/// Brings the blocks of a file to a new order, round by round and batch by batch, from where it was cut off:
/// what is done is noted before anything relies on it. See ZqMovePlan for why a batch can be done again. One
/// thread.
class ZqMoveRounds {
public:
    /// Is told of so many bytes more that are in their place.
    using Advance = std::function<void(uint64 bytes)>;

    /// All stay the caller's. `heads` has the blocks that are set aside, `howFar` what was noted of the plan;
    /// `onPlace` hears of what is in its place already, too, `onWritten` of that alone which is written now.
    ZqMoveRounds(ZqMovePlan* plan_, SxFileIO* image_, SxFileIO* heads_, ZqMoveProgress* howFar_,
                 ZqBlockMover::StopTest isStopped, Advance onPlace_, const Advance& onWritten);

    /// Returns with all blocks in their places, on the device. Raises with the tag "Stopped" after a stop,
    /// and where heads or progress aren't those of this plan, or the file isn't what they tell of, naming it.
    void run();

private:
    void doRound(uint64 round);
    void pass(uint64 nBatches);
    void requireDone(uint64 nBatches, uint64 probe);
    SxException wrongProgress() const;

    ZqMovePlan* const plan;
    SxFileIO *const image, *const heads;
    ZqMoveProgress* const howFar;
    const Advance onPlace;
    ZqBlockMover mover;
};
