#include "StreamRun.h"
#include "TestNotifications.h"

TEST_F(StreamRun, TheDesktopTellsHowARunFares) {
    const string reason = TestBus::missing();
    if (!reason.empty()) GTEST_SKIP() << reason;
    const TestBus bus("session");
    const TestNotifications desktop(bus);
    hold();
    auto player = start();
    EXPECT_TRUE(eventually([&] { return !desktop.getShown().empty(); })) << player->says();
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    ASSERT_EQ(desktop.getShown().size(), 1u);
    EXPECT_EQ(desktop.getShown()[0].title, "got");
    EXPECT_EQ(desktop.getShown()[0].text, "Ready to start");
    hold();
    player = start({"--no-notify"});
    EXPECT_TRUE(eventually([&] { return hasPlayed(); }));
    SxTime::msleep(300);
    release();
    player->end();
    EXPECT_EQ(desktop.getShown().size(), 1u) << "it wasn't to be told";
    string app = dir.read("served/app.json");
    app.replace(app.find("play.sh"), 7, "none.sh");
    dir.write("served/app.json", app);
    EXPECT_EQ(run({"run", dir.path("fresh"), "--now", "--url", server->getUrl().str()}).code, 1);
    ASSERT_EQ(desktop.getShown().size(), 2u);
    EXPECT_EQ(desktop.getShown()[1].title, "fresh");
    EXPECT_THAT(desktop.getShown()[1].text, testing::ContainsRegex("^Could not start: .*none.sh"));
}

TEST_F(StreamRun, TheDesktopTellsOfASilentServerThatAReadWaitsFor) {
    const string reason = TestBus::missing();
    if (!reason.empty()) GTEST_SKIP() << reason;
    const TestBus bus("session");
    const TestNotifications desktop(bus);
    server->setRate(2'000'000);
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << player->says();
    // Requests are taken, so each read is one of those that are answered on demand.
    server->setRate(1);
    resume();
    ASSERT_TRUE(SxWait::pass(40'000, [&] { return desktop.getShown().size() == 2; })) << player->says();
    EXPECT_THAT(desktop.getShown().back().text, testing::StartsWith("Waiting for the server: "));
    server->setRate(0);
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
}
