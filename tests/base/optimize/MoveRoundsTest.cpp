#include "../BaseTest.h"
#include "MoveOrders.h"
#include "ZqMoveRounds.h"

#include <cstring>

namespace {

constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 PLAN = 77;
using State = ZqMoveProgress::State;

std::string blockOf(uint64 number) {
    std::string block(BLOCK, '\0');
    for (size_t at = 0; at < BLOCK; at += sizeof number)
        std::memcpy(block.data() + at, &number, sizeof number);
    return block;
}

/// Moves the file "watched/img" by the order, from wherever it was cut off.
void moveAll(const TempDir& dir, const MoveOrder& order, const ZqMovePlan::Limits& limits) {
    ZqMovePlan plan(order.source, limits);
    SxFileIO image(dir.path("watched/img"), "r+b"), heads(dir.path("watched/heads"), "r+b");
    ZqMoveProgress progress = ZqMoveProgress::open(dir.path("watched/progress"));
    progress.requirePlan(PLAN);
    uint64 inPlace = 0;
    ZqMoveRounds(
        &plan, &image, &heads, &progress, [] { return false; }, [&](uint64 bytes) { inPlace += bytes; },
        [](uint64) {})
        .run();
    EXPECT_EQ(inPlace, plan.getNMoved() * BLOCK);
}

void prepare(const TempDir& dir, size_t n) {
    std::string bytes;
    for (size_t i = 0; i < n; ++i)
        bytes += blockOf(i);
    dir.write("watched/img", bytes);
    dir.write("watched/heads", "");
    ZqMoveProgress::create(dir.path("watched/progress"), PLAN, {});
}

void expectMoved(const TempDir& dir, const MoveOrder& order) {
    const std::string bytes = dir.read("watched/img");
    for (size_t to = 0; to < order.source.size(); ++to) {
        if (order.source[to] == ZqMovePlan::NONE) continue;
        ASSERT_EQ(bytes.substr(to * BLOCK, BLOCK), blockOf(order.source[to])) << "block " << to;
    }
}

} // namespace

TEST(MoveRounds, APowerCutAtAnyStepLosesNoBlock) {
    TestRandom random(6);
    TRACE_SEED(random);
    const auto orders = allMoveOrders(random, 90);
    for (size_t i = 0; i < orders.size(); ++i) {
        bool cut = true;
        for (int64 step = 1; cut && !HasFailure(); ++step) {
            for (uint64 seed = 0; seed < 4; ++seed) {
                SCOPED_TRACE(testing::PrintToString(orders[i]) + " cut at step " + std::to_string(step) +
                             ", seed " + std::to_string(seed));
                const TempDir dir;
                prepare(dir, orders[i].source.size());
                cut = false;
                // The second cut strikes what goes on after the first.
                for (const int64 at : {step, int64{1} + static_cast<int64>(random.below(6))}) {
                    FaultOs os(dir.path("watched"));
                    os.cutPowerAt(at);
                    const std::string failure = failureOf([&] { moveAll(dir, orders[i], {20, 4}); });
                    cut = cut || os.isCut();
                    EXPECT_EQ(os.isCut(), !failure.empty()) << failure;
                    std::mt19937_64 chance(seed);
                    os.crash(seed ? &chance : nullptr);
                }
                moveAll(dir, orders[i], {20, 4});
                expectMoved(dir, orders[i]);
            }
        }
    }
}

TEST(MoveProgress, TellsTheLastStateOrNothing) {
    const TempDir dir;
    const SxString path = dir.path("progress");
    ZqMoveProgress::create(path, PLAN, {});
    EXPECT_EQ(ZqMoveProgress::open(path).get(), State());
    const State first{ZqMoveProgress::Batches, 3, 4, 5, 6}, second{ZqMoveProgress::Batches, 3, 5, 5, 7};
    for (const State& state : {first, second}) {
        ZqMoveProgress::open(path).set(state);
        EXPECT_EQ(ZqMoveProgress::open(path).get(), state);
    }
    EXPECT_THAT(failureOf([&] { ZqMoveProgress::open(path).requirePlan(PLAN + 1); }), HasSubstr("another"));

    // The record before would have a batch done again too late.
    const std::string whole = dir.read("progress");
    std::vector<std::string> damaged = {whole.substr(0, 30), whole.substr(0, BLOCK), whole + "0",
                                        std::string(), std::string(2 * BLOCK, '\0')};
    for (const size_t at : {size_t{40}, BLOCK + 40}) {
        damaged.push_back(whole);
        damaged.back()[at] = static_cast<char>(whole[at] ^ 1);
    }
    for (const std::string& bytes : damaged) {
        dir.write("progress", bytes);
        EXPECT_THAT(failureOf([&] { ZqMoveProgress::open(path); }), HasSubstr("damaged"));
    }
}
