#include "SxDeadline.h"
#include "SxTime.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

TEST(Wait, APassLooksEveryTenMillisecondsAndIncludesItsLooks) {
    constexpr int64 NEVER = 1'000'000;
    const struct {
        int64 passMs, readyAtMs, lookTakesMs, tookMs;
        int nLooks;
    } cases[] = {
        {1000, 0, 0, 0, 1},    // there before the first sleep
        {1000, 55, 0, 60, 7},  // goes on as soon as the state is there
        {25, NEVER, 0, 25, 4}, // the last look is at the end
        {1000, NEVER, 15, 1015, 41},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.passMs << " ms, ready at " << c.readyAtMs);
        VirtualClock clock;
        int nLooks = 0;
        const bool ready = SxWait::pass(c.passMs, [&] {
            ++nLooks;
            if (c.lookTakesMs > 0) SxTime::msleep(c.lookTakesMs);
            return clock.elapsedMs() >= c.readyAtMs;
        });
        EXPECT_EQ(ready, c.readyAtMs != NEVER);
        EXPECT_EQ(clock.elapsedMs(), c.tookMs);
        EXPECT_EQ(nLooks, c.nLooks);
    }
}

TEST(Deadline, NothingIsGivenUpForATimeInWhichNobodyLooked) {
    constexpr int64 LIMIT_MS = 1000;
    struct Look {
        int64 afterMs;
        uint64 progress;
    };
    const struct {
        const char* what;
        std::vector<Look> looks;
        int64 leftMs;
    } cases[] = {
        {"stands still", {{400, 1}, {400, 1}, {400, 1}}, -200},
        {"goes on", {{400, 1}, {400, 2}, {400, 2}}, 600},
        {"nobody looked", {{400, 1}, {1500, 1}}, LIMIT_MS},
        {"nobody looked at first", {{1500, 1}}, LIMIT_MS},
        {"stands still after that, too", {{1500, 1}, {600, 1}, {600, 1}}, -200},
        {"each look takes too long", {{1500, 1}, {1500, 1}}, -500},
        {"each look takes too long, and all goes on", {{1500, 1}, {1500, 2}}, LIMIT_MS},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const VirtualClock clock;
        SxDeadline deadline(LIMIT_MS);
        for (const Look& look : c.looks) {
            SxTime::msleep(look.afterMs);
            deadline.note(look.progress);
        }
        EXPECT_EQ(deadline.getLeftMs(), c.leftMs);
    }
}
