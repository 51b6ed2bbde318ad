#include "StreamRun.h"
#include "SxMd5.h"
#include "ZqStreamRecord.h"

// What may pass ends neither a run nor its application.

namespace {

constexpr int64 LONG_MS = 40'000;

bool says(const Client& player, const string& words) {
    return SxWait::pass(LONG_MS, [&] { return player.says().find(words) != string::npos; });
}

} // namespace

TEST_F(StreamRun, NoFaultOfItsServerEndsAGame) {
    struct Case {
        const char* name;
        ZqFileServer::Fault fault;
        bool packed;
    };
    // One of each kind of failure, in both forms of the image.
    const Case cases[] = {
        {"a page to log in to", ZqFileServer::Login, false},
        {"refused", ZqFileServer::Error403, true},
        {"half of the files", ZqFileServer::Truncate, false},
        {"other bytes", ZqFileServer::Changed, true},
    };
    done({"image", "pack", served, "--level", "1"});
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        fs::remove_all(got);
        const string pack = served + "/img.zqf.zst", away = dir.path("away");
        if (fs::exists(pack) && !one.packed) fs::rename(pack, away);
        if (fs::exists(away) && one.packed) fs::rename(away, pack);
        server->setRate(2'000'000);
        pause();
        const auto player = start({"--now", "--complete"});
        ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return hasStarted(); })) << player->says();
        server->stop();
        server->setFault(one.fault);
        server->start();
        EXPECT_TRUE(says(*player, "waiting for the server: ")) << player->says();
        resume();
        EXPECT_TRUE(SxWait::pass(LONG_MS, [&] { return statusOf(got).nHeld > 0; })) << player->says();
        EXPECT_FALSE(hasPlayed());
        server->setFault(one.fault, false);
        server->setRate(0);
        EXPECT_EQ(player->end(LONG_MS), 0) << player->says();
        expectPlayed();
        expectComplete();
        fs::remove(played + ".paused");
    }
}

TEST_F(StreamRun, AStartThatNeedsNothingMoreComesWithoutItsServer) {
    const uint64 nAll = fs::file_size(served + "/img.zqf") / 4096 * 4096, nPlayed = nAll - 40'960;
    string app = dir.read("served/app.json");
    app.insert(app.find('{') + 1,
               "\"loadprofile\": [{\"time\": 9, \"size\": " + std::to_string(nPlayed) + "}],");
    dir.write("served/app.json", app);
    server->stop();
    for (const uint64 nThere : {nPlayed - 4096, nPlayed}) {
        SCOPED_TRACE(nThere);
        fs::remove_all(got);
        fs::copy(served, got);
        fs::resize_file(got + "/img.zqf", nThere);
        const auto player = start({});
        ASSERT_TRUE(says(*player, ", offline for ")) << player->says();
        player->signal(SIGINT);
        EXPECT_EQ(player->end(), nThere == nPlayed ? 0 : 1) << player->says();
        EXPECT_EQ(player->says().find("start of the application") != string::npos, nThere == nPlayed)
            << player->says();
    }
}

TEST_F(StreamRun, AServerThatNeverHasRangesIsToldBeforeThereIsADrive) {
    server->setFault(ZqFileServer::Whole);
    server->setRate(2'000'000);
    const auto player = start();
    EXPECT_EQ(player->end(LONG_MS), 1) << player->says();
    EXPECT_NE(player->says().find("request for a range with the whole file"), string::npos) << player->says();
    EXPECT_FALSE(hasStarted());
}

TEST_F(StreamRun, AServerThatHasNoRangesForTheMomentKeepsNobodyFromPlaying) {
    fs::copy(served, got);
    fs::resize_file(got + "/img.zqf", 2'000'000);
    server->setFault(ZqFileServer::Whole);
    {
        ZqImageFeed feed(feedSettings());
        feed.open(nullptr);
        feed.start();
        ASSERT_TRUE(eventually([&] { return feed.getStatus().waiting.str().find("range") != string::npos; }))
            << feed.getStatus().waiting;
        EXPECT_NO_THROW(feed.requireRanges(nullptr));
    }
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return statusOf(got).nHeld > 0; })) << player->says();
    server->setFault(ZqFileServer::Whole, false);
    resume();
    EXPECT_EQ(player->end(LONG_MS), 0) << player->says();
    expectPlayed();
}

TEST_F(StreamRun, AFedMountOutlivesAFileThatIsAway) {
    server->setRate(2'000'000);
    Client feeder(client, {"mount", got, "--url", server->getUrl().str()}, dir.path("fed"));
    ASSERT_TRUE(eventually([&] { return statusOf(got).ready; })) << feeder.says();
    server->stop();
    fs::rename(served + "/img.zqf", served + "/away");
    server->start();
    EXPECT_TRUE(says(feeder, "waiting for the server: ")) << feeder.says();
    EXPECT_TRUE(isMounted());
    fs::rename(served + "/away", served + "/img.zqf");
    server->setRate(0);
    const string app = statusOf(got).mountPath.str() + "/TAVRIN-protected/app/";
    EXPECT_TRUE(SxMd5::file(SxString(app + "big.pak")) == SxMd5::file(SxString(source + "/big.pak")));
    done({"umount", got});
    EXPECT_EQ(feeder.end(), 0) << feeder.says();
}

TEST_F(StreamRun, ANewerVersionEndsTheRunBehindItsGame) {
    server->setRate(2'000'000);
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return hasPaused(); })) << player->says();
    server->stop();
    const string zqf = dir.read("served/img.zqf");
    offerOtherVersion();
    server->start();
    EXPECT_TRUE(says(*player, "the download has ended: ")) << player->says();
    // A line in a file is whole, however long it is.
    EXPECT_TRUE(says(*player, "start with an empty folder  ")) << player->says();
    EXPECT_TRUE(player->isRunning());
    EXPECT_TRUE(isMounted());
    dir.write("played.quit", "");
    resume();
    EXPECT_EQ(player->end(), 1) << player->says();
    EXPECT_THAT(player->says(), testing::AllOf(HasSubstr("The application has ended with code 7"),
                                               HasSubstr("has another version")));
    EXPECT_FALSE(isMounted());
    EXPECT_TRUE(zqf.starts_with(dir.read("got/img.zqf"))) << "it holds nothing of the other version";
}

TEST_F(StreamRun, ASilentServiceEndsNothing) {
    server->setRate(3'000'000);
    hold();
    ::setenv("TAVRIN_ANSWER_S", "1", 1);
    const auto player = start();
    ::unsetenv("TAVRIN_ANSWER_S");
    ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return hasStarted(); })) << player->says();
    const auto service = static_cast<pid_t>(statusOf(got).servicePid);
    ASSERT_GT(service, 0);
    ::kill(service, SIGSTOP);
    // Longer than an answer may take.
    EXPECT_TRUE(says(*player, "waiting for the drive service")) << player->says();
    ::kill(service, SIGCONT);
    EXPECT_TRUE(SxWait::pass(LONG_MS, [&] { return hasPlayed(); })) << player->says();
    release();
    EXPECT_EQ(player->end(LONG_MS), 0) << player->says();
    EXPECT_THAT(player->says(), HasSubstr("The application has ended with code 7"));
    expectPlayed();
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, ASilentServiceIsTakenOverWithItsApplication) {
    hold();
    const auto first = start();
    ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return hasPlayed(); })) << first->says();
    ASSERT_TRUE(eventually([&] { return dir.read("got/stream.json").find("application") != string::npos; }));
    const auto service = static_cast<pid_t>(statusOf(got).servicePid);
    ASSERT_GT(service, 0);
    first->signal(SIGKILL);
    first->end();
    ::kill(service, SIGSTOP);
    ::setenv("TAVRIN_ANSWER_S", "1", 1);
    const auto next = start({"--trace-seconds", "2"});
    ::unsetenv("TAVRIN_ANSWER_S");
    EXPECT_TRUE(says(*next, "waiting for the drive service")) << next->says();
    ::kill(service, SIGCONT);
    EXPECT_TRUE(says(*next, "running")) << next->says();
    // In the time at which the trace is to end.
    ::kill(service, SIGSTOP);
    EXPECT_FALSE(SxWait::pass(4'000, [&] { return !next->isRunning(); })) << next->says();
    ::kill(service, SIGCONT);
    EXPECT_TRUE(SxWait::pass(LONG_MS, [&] { return !ZqMountMgr().isMonitored(SxString(got)); }));
    release();
    EXPECT_EQ(next->end(LONG_MS), 0) << next->says();
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, NothingIsTakenFromAServerWhoseVersionIsUnknown) {
    for (const bool isOther : {false, true}) {
        SCOPED_TRACE(isOther ? "another version" : "the same version");
        fs::remove_all(got);
        fs::copy(served, got);
        fs::resize_file(got + "/img.zqf", 2'000'000);
        pause();
        // In the place of all but the blocks stands a page to log in to.
        const string app = dir.read("served/app.json");
        dir.write("served/app.json", "<html></html>");
        const auto player = start();
        ASSERT_TRUE(SxWait::pass(LONG_MS, [&] { return statusOf(got).nHeld > 0; })) << player->says();
        EXPECT_TRUE(says(*player, "waiting for the server: ")) << player->says();
        EXPECT_EQ(fs::file_size(got + "/img.zqf"), 2'000'000u);
        dir.write("served/app.json", app);
        if (isOther) {
            offerOtherVersion();
            EXPECT_TRUE(says(*player, "the download has ended: ")) << player->says();
        }
        resume();
        EXPECT_EQ(player->end(LONG_MS), isOther ? 1 : 0) << player->says();
        if (isOther) {
            // Its read is held, and nothing will answer it.
            EXPECT_THAT(player->says(), testing::AllOf(HasSubstr("waits for data that no longer come"),
                                                       HasSubstr("has another version")));
            EXPECT_FALSE(isMounted());
            EXPECT_EQ(fs::file_size(got + "/img.zqf"), 2'000'000u);
        } else {
            expectPlayed();
        }
        fs::remove(played + ".started");
        fs::remove(played + ".paused");
    }
}

TEST_F(StreamRun, AFeedMayGoWhileItsRequestsAreUnderWay) {
    // A complete image that is wrong is mended over a link of its own, and that ends at any moment.
    done({"image", "pack", served, "--level", "1"});
    fs::copy(served, got);
    fs::remove(got + "/img.zqf.zst");
    const SxString image(got);
    ZqStreamRecord record;
    record.url = server->getUrl();
    record.write(image);
    server->setLatency(15);
    for (int i = 0; i < 60; ++i) {
        std::fstream(got + "/img.zqf", std::ios::in | std::ios::out).seekp(i * 204'800L) << "wrong" << i;
        ZqImageFeed::Settings settings;
        settings.image = image;
        ZqImageFeed feed(settings);
        feed.open(nullptr);
        feed.start();
        SxTime::msleep(90 + i % 20);
        feed.stop();
    }
}

TEST_F(StreamRun, NoReadWaitsForeverForAVersionThatHasGone) {
    server->setRate(2'000'000);
    Client feeder(client, {"mount", got, "--url", server->getUrl().str()}, dir.path("fed"));
    ASSERT_TRUE(eventually([&] { return statusOf(got).ready; })) << feeder.says();
    server->stop();
    offerOtherVersion();
    server->start();
    EXPECT_TRUE(says(feeder, "the download has ended: ")) << feeder.says();
    // What is there may be read on, as long as nobody wants more.
    EXPECT_FALSE(SxWait::pass(7'000, [&] { return !feeder.isRunning(); })) << feeder.says();
    const string file = statusOf(got).mountPath.str() + "/TAVRIN-protected/app/big.pak";
    SxProcess reader("bash", {"-c", SxString("cat '" + file + "' >/dev/null")});
    reader.start();
    EXPECT_EQ(feeder.end(LONG_MS), 1) << feeder.says();
    feeder.signal(SIGINT);
    EXPECT_THAT(feeder.says(), testing::AllOf(HasSubstr("wait for data that no longer come"),
                                              HasSubstr("has another version")));
    EXPECT_NE(reader.wait(), 0);
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, APageInThePlaceOfTheFirstRecordIsCalledThat) {
    server->setFault(ZqFileServer::Login);
    const auto player = start();
    EXPECT_EQ(player->end(), 1) << player->says();
    EXPECT_THAT(player->says(), HasSubstr("answers with a web page instead of"));
}
