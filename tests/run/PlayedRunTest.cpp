#include "StreamRun.h"
#include "ZqServiceFolder.h"
#include "ZqStreamRecord.h"

#include <sys/stat.h>

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

/// The kernel takes no image in memory, so all lies on a disk.
class PlayedDirectRun : public DriveRun {
protected:
    PlayedDirectRun() : DriveRun("/var/tmp") {}
};

TEST_F(PlayedDirectRun, ADriveThatCantBeTakenOverIsntTakenFromAGame) {
    dir.write("template.json", R"({"version": 2, "zqfVersion": 1, "guid": "",
        "app": {"cmd": "{{ZQDRIVE}}/TAVRIN-protected/app/play"}, "disk": {"mountMode": "ro"},
        "underflow": {"suspendDrive": false, "suspendProc": false, "minOnDemand": 1, "maxOnDemand": 2}})");
    const string pid = dir.path("pid"), go = dir.path("go");
    const string script =
        dir.write("game/play", "#!/bin/sh\necho $$ > '" + pid + ".made'\nmv '" + pid + ".made' '" + pid +
                                   "'\nuntil [ -e '" + go + "' ]; do sleep 0.1; done\n");
    ::chmod(script.c_str(), 0755);
    const string image = build("playable", "erofs", {"--app", dir.path("template.json")});
    const std::vector<string> play = {"run", image, "--no-trace", "--no-stats"};
    Client player(client, play, dir.path("said"));
    const auto isNoted = [&] {
        return fs::exists(pid) &&
               TempDir::readFile(image + "/stream.json").find("\"application\"") != string::npos;
    };
    ASSERT_TRUE(eventually(isNoted)) << player.says();
    const ZqDiskStatus disk = statusOf(image);
    player.signal(SIGKILL);
    player.end();
    const int64 process = std::stoi(TempDir::readFile(pid));
    if (disk.isServedByKernel) {
        ::kill(static_cast<pid_t>(disk.servicePid), SIGKILL);
        EXPECT_TRUE(eventually([&] { return !isRunning(disk.servicePid); }));
        std::ofstream(fs::path(disk.mountPath.str()).parent_path() / ZqServiceFolder::directName()) << "note";
        const string plays = "its application 'play' runs (process " + std::to_string(process) + ")";
        for (const auto& words :
             {play, std::vector<string>{"mount", image}, std::vector<string>{"umount", image}}) {
            SCOPED_TRACE(words[0]);
            const Outcome refused = run(words);
            EXPECT_EQ(refused.code, 1);
            EXPECT_THAT(refused.err, HasSubstr(plays));
            EXPECT_THAT(leftovers(), testing::Contains(HasSubstr("erofs")));
        }
    }
    done({"umount", image, "--force"});
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    dir.write("go", "");
    EXPECT_TRUE(eventually([&] { return !isRunning(process); }));
    EXPECT_EQ(run(play).code, 0) << "nobody plays";
    if (!disk.isServedByKernel) GTEST_SKIP() << "the kernel mounts no EROFS that is a file";
}
