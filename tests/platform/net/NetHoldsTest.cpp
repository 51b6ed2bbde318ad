#include "ZqNetHolds.h"

#include <gtest/gtest.h>
#include <optional>

namespace {

using Kind = ZqNetHolds::Kind;

constexpr int64 MS = 1'000'000, TRIP = 20 * MS;

class NetHolds : public testing::Test {
protected:
    bool isHeld(Kind kind) const {
        const auto isOnTheWire = [this](Kind of, bool hasBegun) {
            return of == onTheWire && (!hasBegun || answerComes);
        };
        return holds.mustHold(kind, isOnTheWire, now);
    }

    ZqNetHolds holds;
    int64 now = 1'000'000 * MS;
    std::optional<Kind> onTheWire;
    bool answerComes = false;
};

} // namespace

TEST_F(NetHolds, InTheCoreTheStreamWaitsForAnAnswerAlone) {
    onTheWire = Kind::OnDemand;
    EXPECT_TRUE(isHeld(Kind::Ordered));
    holds.share(true);
    EXPECT_FALSE(isHeld(Kind::Ordered));
    // What comes along is worth less than the core.
    EXPECT_TRUE(isHeld(Kind::Ahead));
    answerComes = true;
    EXPECT_TRUE(isHeld(Kind::Ordered));
    onTheWire.reset();
    holds.noteAnswer(TRIP, now);
    EXPECT_FALSE(isHeld(Kind::Ordered));
    onTheWire = Kind::Ahead;
    EXPECT_FALSE(isHeld(Kind::Ordered));
    // A limit holds for it, too.
    holds.setRateLimit(1000);
    holds.noteTaken(1000, now);
    EXPECT_TRUE(isHeld(Kind::Ordered));
    holds.setRateLimit(0);
    holds.share(false);
    EXPECT_TRUE(isHeld(Kind::Ordered));
}

TEST_F(NetHolds, AfterTheCoreItLeavesTheLinkToTheNextRequestUnlessSomebodyWaits) {
    holds.noteAnswer(TRIP, now);
    now += 9 * TRIP;
    EXPECT_TRUE(isHeld(Kind::Ordered));
    EXPECT_FALSE(isHeld(Kind::Ahead));
    holds.hasten(now);
    EXPECT_FALSE(isHeld(Kind::Ordered));
    EXPECT_TRUE(isHeld(Kind::Ahead));
    now += 2 * TRIP;
    holds.hasten(now - 1000 * MS);
    EXPECT_FALSE(isHeld(Kind::Ordered));
}

TEST_F(NetHolds, WhoAsksWithoutEndDoesntKeepTheStreamBack) {
    int64 heldNs = 0;
    for (int i = 0; i < 3000; ++i) {
        holds.noteAnswer(TRIP, now);
        // Five round trips to the next answer.
        for (int step = 0; step < 5; ++step) {
            heldNs += isHeld(Kind::Ordered) ? TRIP : 0;
            now += TRIP;
        }
    }
    // 10 s at first, then less than two thirds of the time.
    EXPECT_LT(heldNs, 10'000 * MS + 3000 * 5 * TRIP * 2 / 3);
    EXPECT_GT(heldNs, 10'000 * MS);
}

TEST_F(NetHolds, ALinkIsAtTheLimitWhereItBringsMore) {
    constexpr int64 LIMIT = 1'000'000; // bytes a second
    holds.setRateLimit(LIMIT);
    const auto take = [&](int64 perSecond) {
        for (int i = 0; i < 50; ++i, now += 20 * MS) {
            if (!isHeld(Kind::Ordered)) holds.noteTaken(perSecond / 50, now);
        }
    };
    take(LIMIT * 9 / 10);
    EXPECT_FALSE(holds.isAtLimit(now));
    take(LIMIT * 3);
    EXPECT_TRUE(holds.isAtLimit(now));
    now += 3000 * MS;
    take(LIMIT * 9 / 10);
    EXPECT_FALSE(holds.isAtLimit(now)) << "the link has become slower";
}
