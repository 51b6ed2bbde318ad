#include "SxTime.h"
#include "VirtualClock.h"

#include <gmock/gmock.h>
#include <vector>

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

TEST(Wait, PassesReportEachOneThatEndedWithoutTheState) {
    VirtualClock clock;
    std::vector<int64> ended;
    const auto isReady = [&] { return clock.elapsedMs() >= 2500; };
    EXPECT_TRUE(SxWait::passes(5, 1000, isReady, [&](int64 i) { ended.push_back(i); }));
    EXPECT_THAT(ended, testing::ElementsAre(0, 1));
    EXPECT_EQ(clock.elapsedMs(), 2500);
}
