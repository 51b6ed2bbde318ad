#include "MoveOrders.h"
#include "ZqMovePlan.h"

#include <gmock/gmock.h>
#include <set>

namespace {

using Position = ZqMovePlan::Position;

/// A file that holds, by position, the position that each block had at first.
using Blocks = std::vector<Position>;

Blocks readBatch(const ZqMovePlan& plan, uint64 batch, const Blocks& file, const Blocks& heads) {
    Blocks read;
    for (const Position to : plan.getBatch(batch)) {
        const auto slot = plan.headAt(plan.sourceOf(to));
        read.push_back(slot ? heads[*slot] : file[plan.sourceOf(to)]);
    }
    return read;
}

void writeBatch(const ZqMovePlan& plan, uint64 batch, const Blocks& read, Blocks* file) {
    for (size_t i = 0; i < read.size(); ++i)
        (*file)[plan.getBatch(batch)[i]] = read[i];
}

struct Figures {
    uint64 nRounds = 0, nWritten = 0, nHeads = 0, maxBatches = 0;
};

/// Moves by the plan, each batch two times, as after a kill.
Figures move(const MoveOrder& order, const ZqMovePlan::Limits& limits) {
    Figures figures;
    ZqMovePlan plan(order.source, limits);
    Blocks file(order.source.size());
    std::iota(file.begin(), file.end(), 0);
    std::set<Position> written;
    while (plan.nextRound()) {
        ++figures.nRounds;
        EXPECT_LE(plan.getHeads().size(), plan.getMaxHeads());
        figures.nHeads += plan.getHeads().size();
        figures.maxBatches = std::max(figures.maxBatches, plan.getNBatches());
        Blocks heads;
        for (const Position position : plan.getHeads())
            heads.push_back(file[position]);
        for (uint64 batch = 0; batch < plan.getNBatches(); ++batch) {
            const Blocks read = readBatch(plan, batch, file, heads);
            writeBatch(plan, batch, read, &file);
            EXPECT_EQ(readBatch(plan, batch, file, heads), read) << "batch " << batch << " isn't repeatable";
            for (const Position to : plan.getBatch(batch))
                EXPECT_TRUE(written.insert(to).second) << to << " is written twice";
        }
    }
    figures.nWritten = written.size();
    EXPECT_EQ(figures.nWritten, plan.getNMoved());
    for (uint32 to = 0; to < file.size(); ++to) {
        if (order.source[to] == ZqMovePlan::NONE) continue;
        EXPECT_EQ(file[to], order.source[to]) << "at " << to;
    }
    return figures;
}

} // namespace

TEST(MovePlan, EachBlockComesToItsPlaceInOneStep) {
    TestRandom random(3);
    TRACE_SEED(random);
    for (const uint32 n : {0U, 1U, 2U, 7U, 64U, 65U, 1000U, 5000U}) {
        for (const MoveOrder& order : allMoveOrders(random, n)) {
            for (const ZqMovePlan::Limits limits : {ZqMovePlan::Limits{}, ZqMovePlan::Limits{1, 1},
                                                    ZqMovePlan::Limits{3, 2}, ZqMovePlan::Limits{70, 4}}) {
                SCOPED_TRACE(testing::PrintToString(order) + ", heads " + std::to_string(limits.nHeads));
                move(order, limits);
            }
        }
    }
}

TEST(MovePlan, HeadsAreFewAndRoundsHoldWhatTheyCan) {
    TestRandom random(4);
    TRACE_SEED(random);
    constexpr uint32 N = 40'000;
    const auto orders = allMoveOrders(random, N);
    for (const MoveOrder& order : orders) {
        SCOPED_TRACE(order.name);
        const Figures figures = move(order, {2000, 32});
        const double perBlock =
            static_cast<double>(figures.nHeads) / static_cast<double>(std::max<uint64>(figures.nWritten, 1));
        const bool isPairs = order.name == "exchange" || order.name == "reversal";
        EXPECT_LE(perBlock, isPairs ? 0.5 : 0.1);
        EXPECT_LE(figures.nRounds, isPairs ? 11U : 3U);
        EXPECT_LE(figures.maxBatches, 200U);
    }
}

TEST(MovePlan, ARoundHoldsNoMoreStepsThanMemoryIsToBeTakenFor) {
    // Each second position gets the block after it: paths of one step, without heads.
    constexpr uint32 N = 6 << 20;
    MoveOrder order{"short paths", std::vector<Position>(N, ZqMovePlan::NONE)};
    for (uint32 to = 0; to < N; to += 2)
        order.source[to] = to + 1;
    ZqMovePlan plan(order.source, {});
    uint64 nSteps = 0;
    while (plan.nextRound()) {
        EXPECT_LE(plan.getBatch(0).size(), uint64{1} << 21);
        nSteps += plan.getBatch(0).size();
    }
    EXPECT_EQ(nSteps, N / 2);
}

TEST(MovePlan, BlocksThatMoveAsARunAreInTheSameBatch) {
    constexpr uint32 RUN = 50, N_RUNS = 400;
    TestRandom random(5);
    TRACE_SEED(random);
    MoveOrder order{"whole runs", {}};
    const SxArray<uint64> runs = random.permutation(N_RUNS);
    for (const uint64 run : runs) {
        for (uint32 i = 0; i < RUN; ++i)
            order.source.push_back(static_cast<uint32>(run * RUN + i));
    }
    ZqMovePlan plan(order.source, {2000, 32});
    uint64 nBlocks = 0, nPieces = 0;
    while (plan.nextRound()) {
        for (uint64 batch = 0; batch < plan.getNBatches(); ++batch) {
            const std::span<const Position> to = plan.getBatch(batch);
            const std::set<Position> sorted(to.begin(), to.end());
            nBlocks += sorted.size();
            for (const Position position : sorted)
                nPieces += position == 0 || !sorted.contains(position - 1);
        }
    }
    EXPECT_GT(nBlocks / nPieces, RUN * 2 / 3) << nBlocks << " blocks in " << nPieces << " pieces";
}
