#include "ZqMoveRounds.h"

#include "ZqBlockProbe.h"
#include "ZqBlocks.h"

namespace {
constexpr const char* UNIT = "src/base/optimize/ZqMoveRounds";
} // namespace

ZqMoveRounds::ZqMoveRounds(ZqMovePlan* plan_, SxFileIO* image_, SxFileIO* heads_, ZqMoveProgress* howFar_,
                           ZqBlockMover::StopTest isStopped, Advance onPlace_, const Advance& onWritten)
    : plan(plan_),
      image(image_),
      heads(heads_),
      howFar(howFar_),
      onPlace(std::move(onPlace_)),
      mover(*plan, image, heads, std::move(isStopped), [this, onWritten](uint64 bytes) {
          onWritten(bytes);
          onPlace(bytes);
      }) {
}

void ZqMoveRounds::run() {
    const ZqMoveProgress::State begun = howFar->get();
    uint64 round = 0;
    for (; plan->nextRound(); ++round) {
        if (round >= begun.round) {
            doRound(round);
            continue;
        }
        const bool isNext = round + 1 == begun.round;
        if (isNext && (begun.phase == ZqMoveProgress::Heads || begun.batch == 0)) {
            requireDone(plan->getNBatches(), begun.probe);
        }
        pass(plan->getNBatches());
    }
    if (begun.round > round) throw wrongProgress();
}

void ZqMoveRounds::doRound(uint64 round) {
    ZqMoveProgress::State state = howFar->get();
    if (state.phase == ZqMoveProgress::Heads) {
        state = {ZqMoveProgress::Batches, round, 0, mover.setHeadsAside(), state.probe};
        howFar->set(state);
    } else {
        if (state.batch > plan->getNBatches()) throw wrongProgress();
        requireDone(state.batch, state.probe);
        if (mover.hashHeads() != state.headsHash) {
            throw SxException(
                "'" + heads->getFilePath() +
                    "' isn't what was set aside: the optimisation can't go on with it, and the image "
                    "must be fetched or built anew",
                UNIT, __LINE__);
        }
    }
    pass(state.batch);
    while (state.batch < plan->getNBatches()) {
        mover.doBatch(state.batch);
        state.probe = ZqBlockProbe::of(image, plan->getBatch(state.batch));
        ++state.batch;
        howFar->set(state);
    }
    // From here on the heads may be written over.
    howFar->set({ZqMoveProgress::Heads, round + 1, 0, 0, state.probe});
}

/// What the last of so many batches has written stays as it is, whatever comes after it.
void ZqMoveRounds::requireDone(uint64 nBatches, uint64 probe) {
    if (nBatches == 0 || ZqBlockProbe::of(image, plan->getBatch(nBatches - 1)) == probe) return;
    throw SxException(
        "'" + image->getFilePath() +
            "' isn't the file of which blocks have moved: if it was brought back as it was before, "
            "remove optimize.lock and optimize.work beside it",
        UNIT, __LINE__);
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
