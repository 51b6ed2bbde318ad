#include "DriveRun.h"
#include "Instrumented.h"
#include "SmallDisk.h"
#include "ZqServiceFolder.h"
#include "zqdevctl.h"

#include <csignal>
#include <fstream>
#include <sys/mount.h>
#include <sys/resource.h>

namespace {

class LostDrive : public DriveRun {
protected:
    /// As a power cut: mounts, processes and what lies in memory go, links on the disk stay.
    static void cutPower(const string& image) {
        const ZqDiskStatus disk = statusOf(image);
        ::kill(static_cast<pid_t>(disk.servicePid), SIGKILL);
        EXPECT_TRUE(eventually([&] { return !isRunning(disk.servicePid); }));
        const fs::path own = fs::path(disk.mountPath.str()).parent_path();
        EXPECT_EQ(::umount2(disk.mountPath.ascii(), MNT_DETACH), 0);
        EXPECT_EQ(::umount2((own / ZqServiceFolder::FRONT).c_str(), MNT_DETACH), 0);
        fs::remove_all(ZqServiceFolder::of(ZqMachineRoot::get().str()));
    }
};

} // namespace

TEST_F(LostDrive, aPowerCutLeavesNothingThatStopsTheNextMount) {
    const string image = build("image", "ext4");
    const fs::path letters = dir.path("root/dosdevices");
    mount(image);
    cutPower(image);
    ASSERT_TRUE(fs::is_symlink(letters / "d:")) << "nothing is left to be tested";
    EXPECT_THAT(done({"status"}), HasSubstr("The letter D: is of a drive service"));
    mount(image);
    EXPECT_EQ(statusOf(image).drive, "D:") << "the letter isn't free again";
    cutPower(image);
    EXPECT_EQ(done({"umount", image}), "Not mounted\n");
    EXPECT_TRUE(lettersOfDrives().empty());
}

TEST_F(LostDrive, aLinkThatLooksLikeTheDriveIsNotTakenForIt) {
    // As a service of another user of this machine root makes it: the same device id, an earlier letter.
    const string image = build("image", "ext4");
    const fs::path other = dir.path("other/mnt/1"), letters = dir.path("root/dosdevices");
    fs::create_directories(other / ZqServiceFolder::VOLUME);
    dir.write("other/mnt/1/identity", "VOLM\nZqDD\n1\n");
    fs::create_directories(letters);
    fs::create_directory_symlink(other / ZqServiceFolder::VOLUME, letters / "d:");
    mount(image);
    EXPECT_EQ(statusOf(image).drive, "E:");
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    EXPECT_TRUE(fs::is_symlink(letters / "d:"));
}

TEST_F(LostDrive, whatSomebodyUnmountedIsNoticedAndMountedAnew) {
    for (const char* type : {"ext4", "erofs"}) {
        const string image = build(string("image-") + type, type);
        for (const bool file : {false, true}) {
            SCOPED_TRACE(string(type) + (file ? ", the file" : ", the volume"));
            const string app = mount(image);
            const string volume = statusOf(image).mountPath.str();
            const string front = (fs::path(volume).parent_path() / ZqServiceFolder::FRONT).string();
            if (file) {
                ::umount2(front.c_str(), MNT_FORCE); // ends the connection, whether or not the mount goes
            } else {
                ASSERT_EQ(::umount2(volume.c_str(), 0), 0);
            }
            // At once, whether or not the service has noticed: never is the drive that has gone taken for
            // one.
            mount(image);
            EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
            ASSERT_EQ(::umount2(volume.c_str(), MNT_DETACH), 0);
            const int64 beginNs = SxClock::get().steadyNs();
            EXPECT_TRUE(eventually([&] { return statusOf(image).image.isEmpty(); }));
            EXPECT_LT(SxClock::get().steadyNs() - beginNs, 5'000'000'000)
                << "of which 2 s may go by unnoticed";
            EXPECT_THAT(leftovers(), testing::IsEmpty());
            // The image's locks are free.
            done({"image", "verify", image, "--quiet"});
        }
    }
}

TEST_F(LostDrive, whatWentWithADriveIsToldOnce) {
    const string image = build("image", "ext4");
    const string lost = "may be lost as far as they hadn't synced it";
    // The next umount tells it as a failure, or the next mount does.
    for (const char* next : {"umount", "mount"}) {
        for (const bool isKilled : {false, true}) {
            SCOPED_TRACE(string(next) + (isKilled ? ", killed" : ", unmounted"));
            const string app = mount(image, {"--mode", "rtw"});
            std::ofstream(app + "/saved") << string(1 << 20, 's');
            const ZqDiskStatus disk = statusOf(image);
            const fs::path own = fs::path(disk.mountPath.str()).parent_path();
            if (isKilled) {
                ::kill(static_cast<pid_t>(disk.servicePid), SIGKILL);
            } else {
                ::umount2((own / ZqServiceFolder::FRONT).c_str(), MNT_FORCE);
            }
            EXPECT_TRUE(eventually([&] { return statusOf(image).image.isEmpty(); }));
            const bool isMount = string(next) == "mount";
            const Outcome outcome = run({next, image});
            EXPECT_EQ(outcome.code, isMount ? 0 : 1);
            EXPECT_THAT(outcome.err, HasSubstr(lost));
            EXPECT_EQ(done({"umount", image}), isMount ? "Unmounted\n" : "Not mounted\n");
            const Outcome again = run({"mount", image});
            EXPECT_EQ(again.code, 0);
            EXPECT_EQ(again.err, "");
            done({"umount", image});
        }
    }
}

TEST_F(LostDrive, whatAProgramHasOpenOnADetachedVolumeIsWrittenToTheDisk) {
    const string image = build("image", "ext4", {"--free", std::to_string(64 << 20)});
    const string content = TestRandom(11).bytes(24 << 20);
    const string app = mount(image, {"--mode", "rtw"});
    std::ofstream open(app + "/saved", std::ios::binary);
    open << content << std::flush;
    ASSERT_EQ(::umount2(statusOf(image).mountPath.ascii(), MNT_DETACH), 0);
    EXPECT_TRUE(eventually([&] { return statusOf(image).image.isEmpty(); }));
    open.close();
    EXPECT_EQ(done({"umount", image}), "Not mounted\n");
    EXPECT_TRUE(TempDir::readFile(mount(image, {"--mode", "rtw"}) + "/saved") == content);
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
}

TEST_F(LostDrive, aServiceThatCannotReadTheMountTableKeepsItsDrive) {
    // A sanitizer needs descriptors itself, and without them takes sound objects for faults.
    if (IS_INSTRUMENTED) GTEST_SKIP() << "a sanitizer needs descriptors, too";
    const string image = build("image", "ext4");
    const string app = mount(image);
    const auto service = static_cast<pid_t>(statusOf(image).servicePid);
    const string log = ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log";
    rlimit former = {};
    ASSERT_EQ(::prlimit(service, RLIMIT_NOFILE, nullptr, &former), 0);
    const rlimit none = {3, former.rlim_max};
    ASSERT_EQ(::prlimit(service, RLIMIT_NOFILE, &none, nullptr), 0);
    EXPECT_TRUE(eventually([&] {
        return TempDir::readFile(log).find("mountinfo': Too many open files") != string::npos;
    })) << TempDir::readFile(log);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
    ASSERT_EQ(::prlimit(service, RLIMIT_NOFILE, &former, nullptr), 0);
    EXPECT_EQ(statusOf(image).failure, "");
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
}

TEST_F(LostDrive, whatIsLostAsTheServiceTakesItsDrivesAwayIsTold) {
    const string disk = dir.path("disk"), image = disk + "/image";
    const string built = build("built", "ext4");
    for (const bool isReset : {false, true}) {
        SCOPED_TRACE(isReset ? "reset" : "ended");
        const SmallDisk small(disk, "32m");
        fs::copy(built, image);
        std::ofstream(mount(image, {"--mode", "rtw"}) + "/large") << string(12 << 20, 'x');
        if (isReset) {
            EXPECT_NE(zqDriveReset(), 0);
            EXPECT_THAT(ZqVolume::getLastFailure().str(),
                        testing::AllOf(HasSubstr(image), HasSubstr("is lost")));
        } else {
            const int64 pid = statusOf(image).servicePid;
            ::kill(static_cast<pid_t>(pid), SIGTERM);
            EXPECT_TRUE(eventually([&] { return !isRunning(pid); }));
            const Outcome outcome = run({"umount", image});
            EXPECT_EQ(outcome.code, 1);
            EXPECT_THAT(outcome.err, HasSubstr("may be lost as far as they hadn't synced it"));
        }
        EXPECT_EQ(done({"umount", image}), "Not mounted\n") << "it is told once";
    }
}

TEST_F(LostDrive, whatIsUsedWhenAllOfItsDriveWasDetachedIsTakenDownAndKeepsItsData) {
    const string content = TestRandom(12).bytes(8 << 20);
    for (const string type : {"ext4", "erofs"}) {
        SCOPED_TRACE(type);
        const bool isWritten = type == "ext4";
        const string image =
            isWritten ? build(type, type, {"--free", std::to_string(64 << 20)}) : build(type, type);
        const string app = mount(image, {"--mode", isWritten ? "rtw" : "ro"});
        std::ifstream reader(app + "/big.pak", std::ios::binary);
        std::ofstream writer;
        if (isWritten) {
            writer.open(app + "/saved", std::ios::binary);
            writer << content << std::flush;
        }
        // As somebody does by hand, or the system with the folder of a user's session.
        const fs::path volume = statusOf(image).mountPath.str();
        ASSERT_EQ(::umount2(volume.c_str(), MNT_DETACH), 0);
        ASSERT_EQ(::umount2((volume.parent_path() / ZqServiceFolder::FRONT).c_str(), MNT_DETACH), 0);
        const int64 beginNs = SxClock::get().steadyNs();
        EXPECT_TRUE(eventually([&] { return statusOf(image).image.isEmpty(); }));
        EXPECT_LT(SxClock::get().steadyNs() - beginNs, 5'000'000'000) << "of which 2 s may go by unnoticed";
        done({"image", "verify", image, "--quiet"});
        reader.close();
        writer.close();
        EXPECT_TRUE(eventually([] { return leftovers().empty(); }));
        EXPECT_EQ(done({"umount", image}), "Not mounted\n");
        if (!isWritten) continue;
        EXPECT_TRUE(TempDir::readFile(mount(image, {"--mode", "rtw"}) + "/saved") == content);
        EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    }
}
