#include "StreamRun.h"
#include "ZqStreamRecord.h"

using testing::AllOf;
using testing::Not;

// An unmount of an image that somebody plays.

TEST_F(StreamRun, WhatIsPlayedIsNotUnmountedUnasked) {
    hold();
    auto player = start();
    ASSERT_TRUE(eventually([&] { return hasPlayed(); })) << player->says();
    ZqStreamRecord record;
    record.read(SxString(got));
    const string process = std::to_string(SxProcessGroup::fromText(record.application).getId());
    for (const bool isKilled : {false, true}) {
        if (isKilled) {
            player->signal(SIGKILL);
            player->end();
        }
        const Outcome refused = run({"umount", got});
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err,
                    AllOf(HasSubstr("'play.sh' runs (process " + process + ")"), HasSubstr("--force")));
        const string holder = "by process " + std::to_string(player->getId()) + " (run)";
        EXPECT_EQ(refused.err.find(holder) != string::npos, !isKilled) << refused.err;
        EXPECT_EQ(refused.err.find("though its run was killed") != string::npos, isKilled) << refused.err;
        const Outcome kept = run({"remove", got, "--yes"});
        EXPECT_EQ(kept.code, 1);
        EXPECT_THAT(kept.err, AllOf(HasSubstr("'play.sh' runs"), Not(HasSubstr("umount"))));
        EXPECT_TRUE(isMounted());
    }
    // What can't be told isn't taken for an image that nobody plays.
    const string whole = dir.read("got/stream.json");
    dir.write("got/stream.json", "{");
    const Outcome untold = run({"umount", got});
    EXPECT_EQ(untold.code, 1);
    EXPECT_THAT(untold.err, AllOf(HasSubstr("can't be told"), HasSubstr("stream.json")));
    dir.write("got/stream.json", whole);
    player = start();
    EXPECT_TRUE(eventually([&] { return run({"umount", got}).err.find("(run)") != string::npos; }));
    EXPECT_THAT(done({"umount", got, "--force"}), HasSubstr("Unmounted"));
    EXPECT_EQ(player->end(), 1);
    release();
}

TEST_F(StreamRun, ARunThatHasNoApplicationYetPlays) {
    server->setRate(500'000);
    const auto player = start({});
    ASSERT_TRUE(eventually([&] { return statusOf(got).ready; })) << player->says();
    const Outcome refused = run({"umount", got});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, AllOf(HasSubstr("(run)"), Not(HasSubstr("play.sh"))));
    done({"umount", got, "--hard"});
    EXPECT_EQ(player->end(), 1);
}
