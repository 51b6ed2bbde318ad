#include "StreamRun.h"
#include "SxMd5.h"
#include "ZqStreamRecord.h"

// What a run makes of an image that is complete, and right, wrong or another one.

TEST_F(StreamRun, OnlyAnImageWithItsDigestCountsAsComplete) {
    const string right = dir.read("served/app.json");
    string wrong = right;
    const size_t at = wrong.find(SxMd5::file(SxString(served + "/img.zqf")).str());
    ASSERT_NE(at, string::npos);
    wrong[at] = wrong[at] == '0' ? '1' : '0';
    dir.write("served/app.json", wrong);
    // At the end of the download, at the next run, and offline.
    for (int i = 0; i < 3; ++i) {
        if (i == 2) server->stop();
        const auto player = start({"--now", "--keep-mounted"});
        EXPECT_EQ(player->end(), 1) << i << player->says();
        EXPECT_THAT(player->says(), HasSubstr("what the server gave isn't the image"));
        EXPECT_FALSE(i > 0 && hasStarted());
        EXPECT_FALSE(isMounted());
        fs::remove(played + ".started");
        fs::remove(played);
    }
    // A check that was cut off is made up for, and not made again.
    dir.write("got/app.json", right);
    const auto player = start({"--now", "--keep-mounted"});
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
    EXPECT_TRUE(isMounted());
    EXPECT_THAT(dir.read("got/stream.json"), HasSubstr("\"verified\""));
    done({"umount", got});
    EXPECT_EQ(fs::status(got + "/stream.json").permissions(), fs::perms(0600));
    const auto time = fs::last_write_time(got + "/img.zqf");
    std::fstream file(got + "/img.zqf", std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(-1, std::ios::end);
    file.put('\x55');
    file.close();
    fs::last_write_time(got + "/img.zqf", time);
    EXPECT_EQ(start()->end(), 0);
    // One that was changed since is looked at again.
    fs::last_write_time(got + "/img.zqf", time + std::chrono::seconds(1));
    const auto changed = start();
    EXPECT_EQ(changed->end(), 1);
    EXPECT_THAT(changed->says(), HasSubstr("to download it anew, remove img.zqf"));
    fs::remove(got + "/img.zqf");
    dir.write("served/app.json", right);
    server->start();
    EXPECT_EQ(start({"--now", "--keep-mounted"})->end(), 0);
    expectComplete();
    done({"umount", got});
}

TEST_F(StreamRun, AnImageWithoutAnAddressIsComparedOnceBeforeItPlays) {
    const string zqf = served + "/img.zqf";
    done({"run", served});
    expectPlayed();
    EXPECT_THAT(dir.read("served/stream.json"), HasSubstr("\"verified\""));
    const auto time = fs::last_write_time(zqf);
    std::fstream file(zqf, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(-1, std::ios::end);
    file.put('\x55');
    file.close();
    fs::last_write_time(zqf, time);
    done({"run", served});
    fs::remove(played + ".started");
    fs::last_write_time(zqf, time + std::chrono::seconds(1));
    for (const char* verb : {"run", "fetch"}) {
        const Outcome refused = run({verb, served});
        EXPECT_EQ(refused.code, 1) << verb;
        EXPECT_THAT(refused.err, HasSubstr("tavrin: '" + zqf + "' has the digest "));
        EXPECT_THAT(refused.err, HasSubstr("the file is damaged, or was changed since it was made"));
        EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
        EXPECT_FALSE(hasStarted());
    }
    done({"run", served, "--no-verify"});
    EXPECT_TRUE(hasStarted());
    EXPECT_EQ(run({"run", served}).code, 1) << "what wasn't compared counts as right only where that is said";
}

TEST_F(StreamRun, WhatIsWrongOfACompleteImageIsFetchedAnew) {
    done({"image", "pack", served, "--level", "1"});
    ASSERT_EQ(start()->end(), 0);
    expectPlayed();
    const uint64 size = fs::file_size(got + "/img.zqf");
    for (const uint64 at : {uint64{0}, size / 2, size - 1}) {
        std::fstream file(got + "/img.zqf", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(at));
        file.put('\x55');
    }
    const uint64 nBefore = server->getNBytes();
    const auto player = start();
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
    expectComplete();
    EXPECT_LT(server->getNBytes() - nBefore, 4 * 206'464U);
    EXPECT_THAT(dir.read("got/stream.json"), HasSubstr("\"verified\""));
}

TEST_F(StreamRun, AnotherImageOnTheServerIsRefused) {
    server->setRate(3'000'000);
    const auto player = start();
    ASSERT_TRUE(eventually([&] { return hasStarted(); }));
    player->signal(SIGINT);
    EXPECT_EQ(player->end(), 0);
    offerOtherVersion();
    const auto next = start();
    EXPECT_EQ(next->end(), 1);
    EXPECT_THAT(next->says(), HasSubstr("has another version"));
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, AnImageThatADriveWritesIntoIsntComparedAgain) {
    served = build("written", "ext4", {"--cmd", "{{ZQDRIVE}}/TAVRIN-protected/app/play.sh"});
    ZqAppParams app(SxString(served + "/"));
    app.mountMode = ZqMountMgr::ReadWrite;
    app.write();
    server = std::make_unique<ZqFileServer>(SxString(served));
    server->start();
    // Once while it arrives, which the drive waits for, and once when it is there.
    for (int i = 0; i < 2; ++i) {
        const auto player = start();
        EXPECT_EQ(player->end(), 0) << player->says();
        expectPlayed();
        EXPECT_FALSE(dir.read("got/img.zqf") == dir.read("written/img.zqf"));
        EXPECT_THAT(dir.read("got/stream.json"), HasSubstr("\"written\": true"));
    }
    fs::remove(got + "/img.zqf");
    done({"run", got, "--now"});
    EXPECT_THAT(dir.read("got/stream.json"), HasSubstr("\"verified\""));
}

TEST_F(StreamRun, WhatADriveWroteDuringTheComparisonIsNotCalledWrong) {
    fs::copy(served, got);
    ZqImageFeed::Settings settings = feedSettings();
    settings.isDownloadOnly = true;
    ZqImageFeed feed(settings);
    feed.open(nullptr);
    ZqStreamRecord::noteWrites(SxString(got));
    std::fstream(got + "/img.zqf", std::ios::in | std::ios::out | std::ios::binary).put('\x55');
    feed.start();
    feed.fetchRecords(nullptr);
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return feed.isVerified() || feed.hasFailed(); }));
    EXPECT_NO_THROW(feed.requireAlive());
}

TEST_F(StreamRun, MendingThatWaitsKeepsNothingElseFromBeingSeen) {
    done({"image", "pack", served, "--level", "1"});
    const uint64 size = fs::file_size(served + "/img.zqf");
    server->setRate(3'000'000);
    hold();
    const auto player = start();
    ASSERT_TRUE(
        SxWait::pass(30'000, [&] { return hasStarted() && fs::file_size(got + "/img.zqf") > 3 * 204'800; }));
    {
        std::fstream file(got + "/img.zqf", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(204'800);
        file << "wrong";
    }
    const auto isThere = [&] { return fs::file_size(got + "/img.zqf") == size; };
    while (!isThere() && player->isRunning())
        SxTime::msleep(1);
    server->setRate(1);
    server->stop();
    EXPECT_TRUE(SxWait::pass(20'000, [&] {
        return player->says().find("waiting for the server: ") != string::npos;
    })) << player->says();
    fs::rename(got + "/img.zqf", got + "/elsewhere");
    EXPECT_TRUE(SxWait::pass(20'000, [&] {
        return player->says().find("was removed while it was downloaded") != string::npos;
    })) << player->says();
    fs::rename(got + "/elsewhere", got + "/img.zqf");
    release();
    EXPECT_EQ(player->end(), 1) << player->says();
}

TEST_F(StreamRun, MendingAheadOfTheDriveSaysThatItWaits) {
    done({"image", "pack", served, "--level", "1"});
    ASSERT_EQ(start()->end(), 0);
    expectPlayed();
    std::fstream file(got + "/img.zqf", std::ios::in | std::ios::out | std::ios::binary);
    file.put('\x55');
    file.close();
    const uint64 nBefore = server->getNBytes();
    server->setRate(20'000);
    const auto player = start();
    // After the table, within the stretch.
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return server->getNBytes() - nBefore > 20'000; }))
        << player->says();
    server->stop();
    EXPECT_TRUE(SxWait::pass(20'000, [&] {
        return player->says().find("waiting for the server: ") != string::npos;
    })) << player->says();
    EXPECT_FALSE(isMounted());
    server->setRate(0);
    server->start();
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
    expectComplete();
}
