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
