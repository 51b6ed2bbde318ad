#include "ZqMoveRounds.h"

#include "ZqBlocks.h"

namespace {
constexpr const char* UNIT = "src/base/optimize/ZqMoveRounds";
} // namespace

ZqMoveRounds::ZqMoveRounds(ZqMovePlan* plan_, SxFileIO* image, SxFileIO* heads_, ZqMoveProgress* howFar_,
                           ZqBlockMover::StopTest isStopped, Advance onPlace_, const Advance& onWritten)
    : plan(plan_),
      heads(heads_),
      howFar(howFar_),
      onPlace(std::move(onPlace_)),
      mover(*plan, image, heads, std::move(isStopped), [this, onWritten](uint64 bytes) {
          onWritten(bytes);
          onPlace(bytes);
      }) {
}

void ZqMoveRounds::run() {
    const uint64 begun = howFar->get().round;
    uint64 round = 0;
    for (; plan->nextRound(); ++round) {
        if (round < begun) {
            pass(plan->getNBatches());
        } else {
            doRound(round);
        }
    }
    if (begun > round) throw wrongProgress();
}

void ZqMoveRounds::doRound(uint64 round) {
    ZqMoveProgress::State state = howFar->get();
    if (state.phase == ZqMoveProgress::Heads) {
        state = {ZqMoveProgress::Batches, round, 0, mover.setHeadsAside()};
        howFar->set(state);
    } else if (mover.hashHeads() != state.headsHash) {
        throw SxException(
            "'" + heads->getFilePath() +
                "' isn't what was set aside: the optimisation can't go on with it, and the image must be "
                "fetched or built anew",
            UNIT, __LINE__);
    }
    if (state.batch > plan->getNBatches()) throw wrongProgress();
    pass(state.batch);
    while (state.batch < plan->getNBatches()) {
        mover.doBatch(state.batch);
        ++state.batch;
        howFar->set(state);
    }
    // From here on the heads may be written over.
    howFar->set({ZqMoveProgress::Heads, round + 1, 0, 0});
}

/// The first batches of the round were done before.
void ZqMoveRounds::pass(uint64 nBatches) {
    for (uint64 batch = 0; batch < nBatches; ++batch)
        onPlace(plan->getBatch(batch).size() * ZqBlocks::SIZE);
}

SxException ZqMoveRounds::wrongProgress() const {
    return SxException("'" + howFar->getPath() + "' tells of steps that this order doesn't take", UNIT,
                       __LINE__);
}
