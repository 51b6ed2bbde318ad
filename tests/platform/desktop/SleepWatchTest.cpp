#include "SxTime.h"
#include "TestSleep.h"
#include "ZqSleepWatch.h"

#include <gtest/gtest.h>

namespace {

constexpr int64 LIMIT_MS = 20'000;

class SleepWatch : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = TestSleep::missing();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
    static bool becomes(ZqSleepWatch& watch, bool isComing, bool isHolding) {
        return SxWait::pass(
            LIMIT_MS, [&] { return watch.isSleepComing() == isComing && watch.isHolding() == isHolding; });
    }
    static bool hasDelays(const TestSleep& machine, int n) {
        return SxWait::pass(LIMIT_MS, [&] { return machine.nDelays() == n; });
    }
};

} // namespace

TEST_F(SleepWatch, HoldsUpEachSleepUntilItIsReleased) {
    TestSleep machine;
    ZqSleepWatch watch;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(becomes(watch, false, true)) << "sleep " << i;
        EXPECT_TRUE(hasDelays(machine, 1));
        machine.tell(true);
        ASSERT_TRUE(becomes(watch, true, true));
        EXPECT_EQ(machine.nDelays(), 1) << "let go unasked";
        watch.release();
        EXPECT_TRUE(hasDelays(machine, 0));
        // It isn't asked for again while the machine is about to sleep: that would hold up nothing.
        EXPECT_TRUE(becomes(watch, true, false));
        EXPECT_EQ(machine.nDelays(), 0);
        machine.tell(false);
    }
}

TEST_F(SleepWatch, ALoginManagerThatStartsAnewIsAskedAgain) {
    TestSleep machine;
    ZqSleepWatch watch;
    ASSERT_TRUE(becomes(watch, false, true));
    machine.tell(true);
    ASSERT_TRUE(becomes(watch, true, true));
    machine.restart(); // it will never tell that the machine has woken
    ASSERT_TRUE(becomes(watch, false, true));
    EXPECT_TRUE(hasDelays(machine, 1));
    machine.tell(true);
    EXPECT_TRUE(becomes(watch, true, true));
}

TEST_F(SleepWatch, ItsEndLetsTheMachineSleep) {
    TestSleep machine;
    {
        ZqSleepWatch watch;
        ASSERT_TRUE(becomes(watch, false, true));
    }
    EXPECT_TRUE(hasDelays(machine, 0));
}

TEST_F(SleepWatch, WithoutABusOrOnceItIsGoneNothingIsTold) {
    ZqSleepWatch early;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    EXPECT_FALSE(early.isSleepComing());
    EXPECT_FALSE(early.isHolding());
    ZqSleepWatch watch;
    {
        TestSleep machine;
        ASSERT_TRUE(becomes(watch, false, true));
        machine.tell(true);
        ASSERT_TRUE(becomes(watch, true, true));
    }
    EXPECT_TRUE(becomes(watch, false, false)) << "a machine whose bus is gone never tells that it has woken";
}
