#include "SxTime.h"
#include "TestNotifications.h"
#include "VirtualClock.h"
#include "ZqRunNotices.h"

#include <chrono>

namespace {

constexpr int64 STEP_MS = 250;

class RunNotices : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = TestBus::missing();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
    /// Lets so much time of the run pass.
    void pass(ZqRun::Phase newPhase, const char* waiting, int64 ms) {
        phase = newPhase;
        status.waiting = waiting;
        status.isUnderflow = isHeld;
        for (int64 nowMs = 0; nowMs < ms; nowMs += STEP_MS) {
            notices->look(phase, phase >= ZqRun::Running, status);
            SxTime::msleep(STEP_MS);
        }
    }
    /// Whether so many are shown, which comes from another process, in its own time.
    bool hasShown(const TestNotifications& desktop, size_t n) {
        for (int i = 0; i < 1000 && desktop.getShown().size() < n; ++i) {
            notices->look(phase, phase >= ZqRun::Running, status);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return desktop.getShown().size() == n;
    }
    static std::string last(const TestNotifications& desktop) { return desktop.getShown().back().text; }

    std::unique_ptr<ZqRunNotices> notices;
    ZqRun::Phase phase = ZqRun::Opening;
    bool isHeld = true; ///< the application waits for data
    ZqFeedStatus status;
};

constexpr const char* AWAY = "waiting for the server: no data";

} // namespace

TEST_F(RunNotices, TellHowARunFaresAndNoMoreThanOnceInTenSeconds) {
    const TestBus bus("session");
    const TestNotifications desktop(bus);
    const VirtualClock clock;
    notices = std::make_unique<ZqRunNotices>("/games/my <game>/");
    pass(ZqRun::Loading, "", 1000);
    pass(ZqRun::Loading, "waiting for room on the disk", 5000);
    pass(ZqRun::Running, "", 500);
    ASSERT_TRUE(hasShown(desktop, 1));
    EXPECT_EQ(desktop.getShown()[0].title, "my <game>");
    EXPECT_EQ(last(desktop), "Ready to start");
    // A server that is away for a moment, and one that is back before its turn comes.
    pass(ZqRun::Running, AWAY, 2000);
    pass(ZqRun::Running, "", 500);
    pass(ZqRun::Running, AWAY, 4000);
    pass(ZqRun::Running, "", 10'000);
    ASSERT_TRUE(hasShown(desktop, 1));
    // One that nobody waits for.
    isHeld = false;
    pass(ZqRun::Running, AWAY, 15'000);
    ASSERT_TRUE(hasShown(desktop, 1));
    isHeld = true;
    pass(ZqRun::Running, AWAY, 4000);
    ASSERT_TRUE(hasShown(desktop, 2));
    EXPECT_EQ(last(desktop), "Waiting for the server: no data");
    EXPECT_EQ(desktop.getShown()[1].replaced, 1u) << "they would pile up";
    pass(ZqRun::Running, "", 5000);
    ASSERT_TRUE(hasShown(desktop, 2)) << "too soon";
    // It is away again when the turn comes of what says that it is back.
    pass(ZqRun::Running, AWAY, 10'000);
    ASSERT_TRUE(hasShown(desktop, 2));
    pass(ZqRun::Running, "", 1000);
    ASSERT_TRUE(hasShown(desktop, 3));
    EXPECT_EQ(last(desktop), "Running again");
    pass(ZqRun::Completing, AWAY, 14'000);
    ASSERT_TRUE(hasShown(desktop, 4));
    notices->end("");
    for (int i = 0; i < 1000 && !desktop.isClosed(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(desktop.isClosed()) << "nothing waits by now";
    EXPECT_EQ(desktop.getShown().size(), 4u);
}

TEST_F(RunNotices, WhatKeepsARunFromStartingIsToldAtOnceAndInPlainText) {
    const TestBus bus("session");
    const TestNotifications desktop(bus);
    const VirtualClock clock;
    notices = std::make_unique<ZqRunNotices>(".");
    pass(ZqRun::Opening, AWAY, 4000);
    ASSERT_TRUE(hasShown(desktop, 1));
    notices->end(SxString("there is no <b>program</b> & 'x\ny\xff'" + std::string(2000, 'x')));
    ASSERT_TRUE(hasShown(desktop, 2));
    EXPECT_EQ(desktop.getShown()[1].replaced, 1u);
    const std::string begin = "Could not start: there is no &lt;b&gt;program&lt;/b&gt; &amp; 'x\\ny";
    EXPECT_EQ(last(desktop).substr(0, begin.size()), begin);
    EXPECT_LT(last(desktop).size(), 500u);
}

TEST_F(RunNotices, ABusThatIsAwayOrSilentCostsNothing) {
    const auto expectQuick = [this](const char* what) {
        const auto begin = std::chrono::steady_clock::now();
        notices = std::make_unique<ZqRunNotices>("/games/doom");
        for (const ZqRun::Phase each : {ZqRun::Loading, ZqRun::Running, ZqRun::Running, ZqRun::Completing})
            notices->look(each, each >= ZqRun::Running, status);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200)) << what;
        notices->end("why");
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500)) << what;
    };
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    expectQuick("no bus");
    {
        const TestBus bus("session");
        expectQuick("nobody who shows them");
    }
    TestBus bus("session");
    bus.silence();
    expectQuick("a silent bus");
}
