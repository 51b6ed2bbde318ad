#include "DriveRun.h"
#include "ZqImageLock.h"
#include "ZqServiceFolder.h"
#include "zqdevctl.h"

#include <csignal>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

/// Drives that the kernel serves by itself. It takes no image in memory, so all lies on a disk.
class DirectRun : public DriveRun {
protected:
    DirectRun() : DriveRun("/var/tmp") {}

    void SetUp() override {
        DriveRun::SetUp();
        if (IsSkipped()) return;
        image = build("image", "erofs");
        mount(image);
        const bool isServed = statusOf(image).isServedByKernel;
        done({"umount", image});
        // That it doesn't take this one is a failure.
        if (!isServed && logHas("The kernel takes no image from that disk"))
            GTEST_SKIP() << "the kernel mounts no EROFS that is a file";
        ASSERT_TRUE(isServed);
    }

    /// An app.json with a program of the drive and a redirected file.
    void writeTemplate() const {
        dir.write("template.json", R"({"version": 2, "zqfVersion": 1, "guid": "",
            "app": {"cmd": "{{ZQDRIVE}}/TAVRIN-protected/app/play"}, "disk": {"mountMode": "ro"},
            "underflow": {"suspendDrive": false, "suspendProc": false, "minOnDemand": 1, "maxOnDemand": 2},
            "filemap": [{"from": "app/start.cfg"}]})");
    }
    /// Where the first drive of a service is mounted.
    static string volumePath() {
        return ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::MOUNTS + "/1/" +
               ZqServiceFolder::VOLUME;
    }
    static bool logHas(const string& text) {
        const string log = TempDir::readFile(ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log");
        return log.find(text) != string::npos;
    }
    /// Whether a mount with these words is served by the kernel; leaves nothing.
    bool isDirect(const string& of, const std::vector<string>& more = {}) {
        mount(of, more);
        const bool isServed = statusOf(of).isServedByKernel;
        done({"umount", of});
        return isServed;
    }
    static void killService(const string& of) {
        const int64 pid = statusOf(of).servicePid;
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        EXPECT_TRUE(eventually([&] { return !isRunning(pid); }));
    }

    /// The client, in a process that has lost a right or more, or its mount namespace.
    Outcome runWith(std::vector<string> prefix, const std::vector<string>& words) const {
        prefix.insert(prefix.end(), {"timeout", "60", client});
        prefix.insert(prefix.end(), words.begin(), words.end());
        return runBare(prefix);
    }
    Outcome runBare(const std::vector<string>& words) const {
        SxList<SxString> arguments = {"-c", "\"$@\" >'" + dir.path("out") + "' 2>'" + dir.path("err") + "'",
                                      "bash"};
        for (const string& word : words)
            arguments << SxString(word);
        const int code = SxProcess("bash", arguments).run();
        return {code, dir.read("out"), dir.read("err")};
    }
    Outcome runElsewhere(const std::vector<string>& words) const {
        return runWith({"unshare", "-m", "--propagation", "private"}, words);
    }

    /// Mounts `image` in another mount namespace, which lives until a file "go" is there. A file "ready" has
    /// the process in it. "seen" is what that reads from the drive at its end.
    std::thread mountThere() const {
        for (const char* name : {"ready", "go"})
            fs::remove(dir.path(name));
        std::thread there([this] {
            SxProcess process("unshare",
                              {"-m", "--propagation", "private", "bash", "-c",
                               "\"$1\" mount \"$2\" --quiet && echo -n $$ > made && mv made ready && "
                               "until [ -e go ]; do sleep 0.1; done; cat \"$3\" > seen",
                               "bash", SxString(client), SxString(image), SxString(volumePath() + START)});
            process.setWorkingDirectory(SxString(dir.path("")));
            process.run();
        });
        EXPECT_TRUE(eventually([&] { return fs::exists(dir.path("ready")); }));
        return there;
    }

    static constexpr const char* START = "/TAVRIN-protected/app/start.cfg";
    string image;
};

/// The services that take drives over can be kept from opening an image.
class HeldTakeOver : public DirectRun {
protected:
    void SetUp() override {
        DirectRun::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        ASSERT_TRUE(eventually([] { return processesOf(false).empty(); }));
        other = build("other", "erofs");
        ::setenv("LD_PRELOAD", (fs::path(client).parent_path().parent_path() / "tests/slow_disk.so").c_str(),
                 1);
        ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
        ::setenv("SLOW_OPEN", dir.path("held").c_str(), 1);
    }
    void TearDown() override {
        hold("");
        DirectRun::TearDown();
        for (const char* name : {"LD_PRELOAD", "SLOW_OPEN"})
            ::unsetenv(name);
    }
    /// Nothing below the folder can be opened or looked at by the service; an empty text lets all be opened.
    void hold(const string& folder) const { std::ofstream(dir.path("held")) << folder; }
    /// Has a service begin to take the drive of `image` over, which takes it away meanwhile.
    void giveUp() {
        mount(image);
        killService(image);
        hold(image);
        EXPECT_THAT(done({"umount", image}), HasSubstr("Removed what a service that was killed had left"));
        EXPECT_THAT(leftovers(), testing::IsEmpty());
    }

    string other;
};

} // namespace

TEST_F(DirectRun, ACompleteImageHasTheSameFiles) {
    const string app = mount(image);
    EXPECT_EQ(TempDir::snapshotOf(app), TempDir::snapshotOf(source));
    const string status = done({"status", image, "--json"});
    for (const char* text : {"\"served\": \"kernel\"", "\"reads\": null", "\"bytesFromFile\": null"})
        EXPECT_THAT(status, HasSubstr(text));
    // What needs sight of the reads.
    const ZqMountMgr manager;
    EXPECT_THROW(manager.suspend(SxString(image)), SxException);
    EXPECT_THROW(manager.monitorOn(SxString(image), SxString(dir.path("trace")), "monitoring", 0),
                 SxException);
    EXPECT_THROW(manager.setQACursor(SxString(image), 1), SxException);
    EXPECT_TRUE(logHas("The kernel serves the drive, so its reads can't be suspended"));
    EXPECT_FALSE(manager.isUnderflow(SxString(image)));
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    EXPECT_TRUE(isDirect(image, {"--fail-on-missing"}));
}

TEST_F(DirectRun, AWriteThatItsFileSystemDoesntTakeMarksNoImage) {
    const Outcome refused = run({"mount", image, "--mode", "rw"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("can't be written to"));
    EXPECT_FALSE(fs::exists(image + "/stream.json") &&
                 TempDir::readFile(image + "/stream.json").find("written") != string::npos);
}

TEST_F(DirectRun, TheServiceServesWhatTheKernelCant) {
    EXPECT_FALSE(isDirect(image, {"--trace", dir.path("trace")}));
    EXPECT_FALSE(isDirect(build("ext4", "ext4")));
    {
        const TempDir memory(TempDir::inMemory());
        fs::copy(image, memory.path("image"), fs::copy_options::recursive);
        EXPECT_FALSE(isDirect(memory.path("image")));
    }
    EXPECT_TRUE(isDirect(image)) << "it isn't for good";
    // With its file alone on that disk, it isn't the disk that the kernel refuses. The service stays for it.
    const string other = build("other", "erofs");
    mount(other);
    {
        const TempDir memory(TempDir::inMemory());
        fs::copy(image, memory.path("image"), fs::copy_options::recursive);
        const string zqf = memory.path("image/img.zqf");
        ASSERT_EQ(::mount((image + "/img.zqf").c_str(), zqf.c_str(), nullptr, MS_BIND, nullptr), 0);
        EXPECT_FALSE(isDirect(memory.path("image")));
        EXPECT_EQ(::umount(zqf.c_str()), 0);
    }
    EXPECT_TRUE(isDirect(image));
    done({"umount", other});
    mount(image, {"--mode", "rtw"});
    EXPECT_FALSE(statusOf(image).isServedByKernel);
    done({"umount", image});
    EXPECT_TRUE(isDirect(image)) << "nothing was written";
    fs::permissions(image + "/img.zqf", fs::perms::group_write, fs::perm_options::add);
    EXPECT_FALSE(isDirect(image)) << "who may change it can't see that it is read";
    fs::permissions(image + "/img.zqf", fs::perms::group_write, fs::perm_options::remove);
    EXPECT_TRUE(isDirect(image));
    // Its blocks are all there, and something follows them.
    std::ofstream(image + "/img.zqf", std::ios::app) << "more";
    EXPECT_FALSE(isDirect(image));
    EXPECT_TRUE(logHas("bytes, which aren't its"));
}

TEST_F(DirectRun, OpenFilesStayReadableAfterTheDrive) {
    const string app = mount(image);
    std::ifstream open(app + "/big.pak", std::ios::binary);
    string bytes(16 << 20, '\0');
    open.read(bytes.data(), 4096);
    EXPECT_THAT(done({"umount", image}), HasSubstr("Files that are still open can be read on"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    // The image can be mounted again at once, and is changed by nobody.
    EXPECT_TRUE(isDirect(image));
    const string refused = "is still open in another program or in the kernel";
    EXPECT_THAT(run({"image", "optimize", image, image}).err, HasSubstr(refused));
    EXPECT_THAT(run({"image", "split", image, "--part-size", "8000000"}).err, HasSubstr(refused));
    open.read(bytes.data() + 4096, static_cast<std::streamsize>(bytes.size()) - 4096);
    EXPECT_TRUE(bytes == TempDir::readFile(source + "/big.pak"));
    open.close();
    done({"image", "split", image, "--part-size", "8000000"});
}

TEST_F(DirectRun, WhoCantSeeThatTheKernelReadsAnImageDoesntChangeIt) {
    const std::vector<string> job = {"image", "optimize", image, image};
    const auto runBlind = [&] { return runWith({"setpriv", "--bounding-set=-lease"}, job); };
    const string unseen = "only the owner of that file can see";
    for (const fs::path& file : fs::recursive_directory_iterator(image))
        ASSERT_EQ(::chown(file.c_str(), 1000, 1000), 0);
    for (const bool isKilled : {false, true}) {
        SCOPED_TRACE(isKilled ? "the service was killed" : "the drive was detached");
        EXPECT_THAT(runBlind().err, testing::Not(HasSubstr(unseen))) << "nobody reads it";
        std::ifstream open(mount(image) + "/big.pak", std::ios::binary);
        fs::permissions(image + "/img.zqf", fs::perms::others_write, fs::perm_options::add);
        if (isKilled) {
            killService(image);
        } else {
            done({"umount", image});
        }
        EXPECT_THAT(runBlind().err, HasSubstr(unseen));
        open.close();
        done({"umount", image});
        fs::permissions(image + "/img.zqf", fs::perms::others_write, fs::perm_options::remove);
        // Whoever can see that nobody reads it any longer says so to all others.
        EXPECT_THAT(run(job).err, testing::Not(HasSubstr(unseen)));
    }
}

TEST_F(DirectRun, ADriveOutlivesItsService) {
    const string app = mount(image);
    const ZqDiskStatus before = statusOf(image);
    killService(image);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    ASSERT_TRUE(fs::is_symlink(dir.path("root/dosdevices/d:")));
    const ZqDiskStatus after = statusOf(image);
    EXPECT_NE(after.servicePid, before.servicePid);
    EXPECT_EQ(after.drive, "D:");
    EXPECT_TRUE(after.isServedByKernel && after.ready);
    EXPECT_EQ(after.madeNs, before.madeNs);
    // It is taken over with its locks.
    EXPECT_THAT(run({"image", "optimize", image, image}).err, HasSubstr("drive service"));
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_TRUE(lettersOfDrives().empty());
}

TEST_F(DirectRun, AServiceWaitsForWhoHasTheImageOfADriveThatItTakesOver) {
    const string app = mount(image);
    killService(image);
    // As a job that is about to find out that the image is read.
    SxPtr<ZqImageLock> job =
        ZqImageLock::await(SxString(image), ZqImageLock::Drive, ZqImageLock::Exclusive, "job", 0);
    std::thread end([&] {
        SxTime::msleep(1500);
        job = nullptr;
    });
    const int64 beginNs = SxClock::get().steadyNs();
    EXPECT_EQ(statusOf(image).drive, "D:");
    EXPECT_GT(SxClock::get().steadyNs() - beginNs, 1'000'000'000);
    end.join();
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    killService(image);
    EXPECT_THAT(run({"image", "split", image, "--part-size", "8000000"}).err,
                HasSubstr("is still open in another program"));
    // Whoever wants it to go needn't wait.
    job = ZqImageLock::await(SxString(image), ZqImageLock::Drive, ZqImageLock::Exclusive, "job", 0);
    done({"umount", image, "--hard"});
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_TRUE(lettersOfDrives().empty());
}

TEST_F(DirectRun, ADriveOfAnotherMountNamespaceIsLeftAlone) {
    std::thread there = mountThere();
    killService(image);
    EXPECT_THAT(done({"status"}), HasSubstr("Nothing is mounted"));
    const string other = build("other", "erofs");
    const string app = mount(other);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    EXPECT_THAT(run({"image", "split", image, "--part-size", "8000000"}).err,
                HasSubstr("is still open in another program"));
    dir.write("go", "");
    there.join();
    EXPECT_EQ(dir.read("seen"), "volume=3\n") << "the drive was taken away";
    done({"umount", other});
    ASSERT_TRUE(eventually([] { return processesOf(false).empty(); }));
    // Its last process has ended, and so has the drive.
    done({"umount", image});
    EXPECT_TRUE(isDirect(image));
}

TEST_F(DirectRun, WhatIsLeftOfAnEndedMountNamespaceCanBeRemoved) {
    const string zqf = image + "/img.zqf", moved = dir.path("moved");
    const fs::path folder = fs::path(volumePath()).parent_path(), names = folder / ZqServiceFolder::KERNEL;
    const auto damage = [&] {
        for (const auto& entry : fs::directory_iterator(folder)) {
            const string name = entry.path().filename();
            if (name.starts_with(ZqServiceFolder::DIRECT)) std::ofstream(entry.path()) << "note";
        }
    };
    const std::tuple<const char*, std::function<void()>, std::function<void()>> cases[] = {
        {"without its file", [&] { fs::rename(zqf, moved); }, [&] { fs::rename(moved, zqf); }},
        {"with another file",
         [&] {
             fs::copy_file(zqf, moved);
             fs::rename(moved, zqf);
         },
         [] {}},
        {"with a damaged note", damage, [] {}},
    };
    for (const auto& [name, spoil, mend] : cases) {
        SCOPED_TRACE(name);
        std::thread there = mountThere();
        killService(image);
        spoil();
        EXPECT_THAT(run({"umount", image, "--hard"}).err, HasSubstr("The kernel still has it (erofs-"));
        dir.write("go", "");
        there.join();
        const string kept = TempDir::readFile(names);
        for (const char* other : {"", "note"}) {
            std::ofstream(names) << other;
            EXPECT_THAT(run({"umount", image, "--hard"}).err,
                        HasSubstr("Whether the kernel still has it can't be told: "));
        }
        std::ofstream(names) << kept;
        done({"umount", image, "--hard"});
        EXPECT_THAT(leftovers(), testing::IsEmpty());
        mend();
        EXPECT_TRUE(isDirect(image));
    }
}

TEST_F(DirectRun, AServiceThatIsKilledInAnyStepOfTheUnmountLeavesNoHalfDrive) {
    writeTemplate();
    const string game = build("playable", "erofs", {"--app", dir.path("template.json")});
    for (int ms = 0; ms < 60; ms += 4) {
        SCOPED_TRACE(ms);
        const string app = mount(game);
        std::ofstream(app + "/start.cfg") << ms;
        std::thread killer([ms] {
            SxTime::msleep(ms);
            for (const pid_t pid : processesOf(false))
                ::kill(pid, SIGKILL);
        });
        run({"umount", game});
        killer.join();
        mount(game);
        std::ofstream(app + "/start.cfg", std::ios::app) << " saved";
        ASSERT_EQ(TempDir::readFile(app + "/start.cfg"), std::to_string(ms) + " saved")
            << "it is no longer redirected";
        done({"umount", game});
    }
}

TEST_F(DirectRun, AGameAndItsSavesOutliveTheService) {
    writeTemplate();
    const string started = dir.path("started"), go = dir.path("go");
    const string script =
        dir.write("game/play", "#!/bin/sh\ncd \"${0%/*}\"\necho saved > start.cfg\ntouch '" + started +
                                   "'\nuntil [ -e '" + go + "' ]; do sleep 0.1; done\ncmp big.pak '" +
                                   source + "/big.pak' && cat start.cfg > '" + dir.path("played") + "'\n");
    ::chmod(script.c_str(), 0755);
    const string game = build("playable", "erofs", {"--app", dir.path("template.json")});
    for (const bool isEnded : {false, true}) {
        SCOPED_TRACE(isEnded ? "the drive is taken away, too" : "the service alone");
        std::thread killer([&] {
            EXPECT_TRUE(eventually([&] { return fs::exists(started); }));
            EXPECT_TRUE(statusOf(game).isServedByKernel);
            killService(game);
            if (isEnded) ::umount2(statusOf(game).mountPath.ascii(), MNT_DETACH);
            EXPECT_TRUE(eventually([&] { return isEnded == statusOf(game).image.isEmpty(); }));
            dir.write("go", "");
        });
        const Outcome outcome = run({"run", game, "--no-trace", "--no-stats"});
        killer.join();
        if (isEnded) {
            EXPECT_NE(outcome.code, 0) << "a drive that has gone ends its run";
        } else {
            EXPECT_EQ(outcome.code, 0) << outcome.err;
            EXPECT_EQ(dir.read("played"), "saved\n");
        }
        EXPECT_THAT(leftovers(), testing::IsEmpty());
        for (const string& file : {started, go})
            fs::remove(file);
    }
    EXPECT_EQ(TempDir::readFile(mount(game) + "/start.cfg"), "saved\n");
    done({"umount", game});
}

TEST_F(DirectRun, ADriveThatCantBeTakenOverStaysUntilSomebodyWantsItToGo) {
    const string moved = dir.path("moved"), zqf = image + "/img.zqf", note = ZqServiceFolder::directName();
    const string file = fs::path(volumePath()).parent_path() / note;
    const std::tuple<const char*, std::function<void()>, std::function<void()>> cases[] = {
        {"moved", [&] { fs::rename(image, moved); }, [&] { fs::rename(moved, image); }},
        {"without its file", [&] { fs::rename(zqf, moved); }, [&] { fs::rename(moved, zqf); }},
        {"changed", [&] { std::fstream(zqf, std::ios::in | std::ios::out) << '\0'; }, [] {}},
        {"with another map",
         [&] {
             fs::copy_file(image + "/img.idx", moved);
             fs::rename(moved, image + "/img.idx");
         },
         [] {}},
        {"with a damaged note", [&] { std::ofstream(file) << "note"; }, [] {}},
        {"under something else",
         [&] { ASSERT_EQ(::mount("none", volumePath().c_str(), "tmpfs", 0, nullptr), 0); }, [] {}},
    };
    for (const auto& [name, spoil, mend] : cases) {
        SCOPED_TRACE(name);
        const string app = mount(image);
        std::ifstream open(app + "/big.pak", std::ios::binary);
        killService(image);
        spoil();
        for (const string& status : {done({"status"}), done({"status", image})}) {
            EXPECT_THAT(status, HasSubstr(image + ": D: at " + volumePath()));
            EXPECT_THAT(status, HasSubstr("not taken over by the drive service: "));
            EXPECT_THAT(status, HasSubstr("to remove it: tavrin umount " + image));
        }
        EXPECT_THAT(leftovers(), testing::Contains(HasSubstr("erofs")));
        EXPECT_TRUE(open.good() && open.get() != EOF);
        const Outcome removed = run({"umount", image});
        EXPECT_THAT(removed.out, HasSubstr("Removed what a service that was killed had left"));
        EXPECT_THAT(removed.out + removed.err, HasSubstr("The drive was in use: it was detached. Files"));
        EXPECT_THAT(leftovers(), testing::IsEmpty());
        EXPECT_TRUE(lettersOfDrives().empty());
        mend();
    }
    // A mount of the image takes it away, too.
    mount(image);
    killService(image);
    fs::last_write_time(zqf, fs::file_time_type::clock::now());
    EXPECT_THAT(done({"mount", image}), HasSubstr("Mounted as D:"));
    EXPECT_TRUE(statusOf(image).notTaken.isEmpty());
    done({"umount", image});
    // Another image in the place of the former.
    const string other = build("other", "erofs");
    mount(image);
    killService(image);
    fs::rename(image, moved);
    fs::rename(other, image);
    const Outcome removed = run({"umount", image});
    EXPECT_THAT(removed.out, HasSubstr("Removed what a service that was killed had left"));
    EXPECT_EQ((removed.out + removed.err).find("in use"), string::npos) << "nobody has it open";
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_TRUE(isDirect(image));
}

TEST_F(DirectRun, AServiceOfAnotherMountNamespaceLeavesADriveAlone) {
    const string other = build("other", "erofs");
    fs::create_directory(dir.path("nothing"));
    const string app = mount(image);
    killService(image);
    const auto requireThere = [&] {
        EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
        EXPECT_TRUE(lettersOfDrives().contains("d:"));
    };
    // From there the image looks as if it had gone, or as if nobody read it.
    for (const string& instead : {dir.path("nothing"), other}) {
        SCOPED_TRACE(instead);
        const Outcome outcome =
            runWith({"unshare", "-m", "--propagation", "private", "bash", "-c",
                     "mount --bind '" + instead + "' '" + image + "' && exec \"$@\"", "bash"},
                    {"mount", build("third", "erofs")});
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        requireThere();
        done({"umount", dir.path("third")});
        fs::remove_all(dir.path("third"));
        ASSERT_TRUE(eventually([] { return processesOf(false).empty(); }));
    }
    const string elsewhere = "is mounted in another mount namespace";
    EXPECT_THAT(runElsewhere({"status"}).err + runElsewhere({"status"}).out, HasSubstr(elsewhere));
    // One that serves nothing makes way.
    for (const char* verb : {"umount", "mount"}) {
        const Outcome outcome = runElsewhere({verb, image});
        EXPECT_EQ(outcome.code, 1);
        EXPECT_THAT(outcome.err, HasSubstr("it " + elsewhere));
        requireThere();
    }
    EXPECT_TRUE(statusOf(image).notTaken.isEmpty());
    killService(image);
    // One that serves something doesn't.
    ASSERT_EQ(runElsewhere({"mount", other}).code, 0);
    EXPECT_THAT(done({"status", image}), HasSubstr("not taken over by the drive service: it " + elsewhere));
    for (const char* verb : {"umount", "mount"}) {
        SCOPED_TRACE(verb);
        const Outcome outcome = run({verb, image});
        EXPECT_EQ(outcome.code, 1);
        EXPECT_THAT(outcome.err, HasSubstr("it " + elsewhere));
    }
    requireThere();
    done({"umount", other});
    EXPECT_THAT(done({"umount", image}), HasSubstr("Unmounted"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

TEST_F(DirectRun, ADriveThatAnotherMachineRootKeepsFromBeingTakenOverSaysSo) {
    mount(image);
    killService(image);
    useRoot("second");
    done({"mount", image});
    useRoot("root");
    const string waits = "Image '" + image + "' is in use by process ";
    for (const string& status : {done({"status"}), done({"status", image})}) {
        EXPECT_THAT(status, HasSubstr(image + ": D: at " + volumePath()));
        EXPECT_THAT(status, HasSubstr("not taken over by the drive service: " + waits));
    }
    EXPECT_THAT(run({"mount", image}).err, HasSubstr("hasn't taken that drive over: " + waits));
    useRoot("second");
    done({"umount", image});
    useRoot("root");
    EXPECT_TRUE(eventually([&] { return statusOf(image).notTaken.isEmpty(); }));
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
}

TEST_F(HeldTakeOver, WhatIsGivenUpTouchesNoOtherDrive) {
    giveUp();
    const string app = mount(other);
    const int64 service = statusOf(other).servicePid;
    hold("");
    // Its own drive comes once the former one's take-over has ended.
    EXPECT_TRUE(eventually([&] { return run({"mount", image}).code == 0; }));
    EXPECT_EQ(statusOf(image).servicePid, service);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    EXPECT_NE(statusOf(image).drive, statusOf(other).drive);
    for (const string& each : {image, other})
        EXPECT_EQ(done({"umount", each}), "Unmounted\n");
    EXPECT_TRUE(lettersOfDrives().empty());
}

TEST_F(HeldTakeOver, AServiceDoesntEndBeforeWhatIsGivenUp) {
    ::setenv("TAVRIN_ZQDD_IDLE_MS", "1", 1);
    giveUp();
    EXPECT_THAT(run({"mount", image}).err, HasSubstr("is still being taken over: somebody has it"));
    const string app = mount(other);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    done({"umount", other});
    hold("");
    EXPECT_TRUE(eventually([] { return processesOf(false).empty(); }));
}

TEST_F(DirectRun, AMountThatIsStoppedInAnyStepLeavesNothing) {
    int nStopped = 0;
    const string other = build("other", "erofs");
    mount(other); // the service stays, with all that it has open
    const fs::path open = "/proc/" + std::to_string(statusOf(other).servicePid) + "/fd";
    const auto hasFileOf = [&](const string& folder) {
        return std::any_of(fs::directory_iterator(open), fs::directory_iterator(), [&](const auto& fd) {
            std::error_code gone;
            return fs::read_symlink(fd.path(), gone).string().starts_with(folder + "/");
        });
    };
    for (int ms = 10; ms < 400; ms += 15) {
        SCOPED_TRACE(ms);
        const string script =
            "\"$@\" & sleep " + std::to_string(ms / 1000.0) + "; kill -TERM $! 2>/dev/null; wait $!";
        const Outcome outcome = runBare({"bash", "-c", script, "bash", client, "mount", image});
        const bool isMounted = !statusOf(image).image.isEmpty();
        EXPECT_TRUE(isMounted || eventually([&] { return !hasFileOf(image); })) << "it keeps metadata open";
        EXPECT_EQ(isMounted, outcome.code == 0) << outcome.out << outcome.err;
        if (outcome.err == "tavrin: stopped\n") ++nStopped;
        if (isMounted) done({"umount", image});
    }
    EXPECT_GT(nStopped, 0);
    done({"umount", other});
}

TEST_F(DirectRun, AServiceThatIsKilledInAnyStepOfTheMountLeavesNothing) {
    for (int ms = 0; ms < 120; ms += 6) {
        SCOPED_TRACE(ms);
        std::thread killer([ms] {
            SxTime::msleep(ms);
            for (const pid_t pid : processesOf(false))
                ::kill(pid, SIGKILL); // its helper dies with it
        });
        const Outcome mounted = run({"mount", image});
        killer.join();
        const Outcome unmounted = run({"umount", image});
        SCOPED_TRACE(mounted.out + mounted.err + unmounted.out + unmounted.err);
        ASSERT_THAT(leftovers(), testing::IsEmpty())
            << TempDir::readFile(ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log");
        ASSERT_TRUE(lettersOfDrives().empty());
    }
    EXPECT_TRUE(isDirect(image));
}
