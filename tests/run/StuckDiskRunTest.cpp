#include "DriveRun.h"
#include "SmallDisk.h"
#include "ZqDriveWire.h"
#include "ZqServiceFolder.h"

#include <csignal>
#include <fstream>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// One of two images lies on a disk that answers nothing.
class StuckDisk : public DriveRun {
protected:
    void SetUp() override {
        DriveRun::SetUp();
        if (client.empty()) return;
        const fs::path library = fs::path(client).parent_path().parent_path() / "tests/slow_disk.so";
        ASSERT_TRUE(fs::exists(library));
        ::setenv("LD_PRELOAD", library.c_str(), 1);
        ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
        ::setenv("SLOW_DISK", dir.path("rate").c_str(), 1);
        ::setenv("SLOW_OPEN", dir.path("held").c_str(), 1);
        ::setenv("NO_THREADS", dir.path("no threads").c_str(), 1);
        stuck = build("stuck", "ext4");
        other = build("other", "erofs");
    }
    void TearDown() override {
        hold("");
        setRate("");
        DriveRun::TearDown();
        for (const char* name : {"LD_PRELOAD", "SLOW_DISK", "SLOW_OPEN", "NO_THREADS"})
            ::unsetenv(name);
    }
    /// Nothing below the folder can be opened or looked at by the service; an empty text lets all be opened.
    void hold(const string& folder) const { std::ofstream(dir.path("held")) << folder; }
    /// "0 FOLDER" for a disk below that folder that takes no byte, an empty text for one that does.
    void setRate(const string& rate) const { std::ofstream(dir.path("rate")) << rate; }
    /// A client that goes on beside the test.
    std::unique_ptr<SxProcess> start(const std::vector<string>& words) const {
        SxList<SxString> list;
        for (const string& word : words)
            list << SxString(word);
        auto process = std::make_unique<SxProcess>(SxString(client), list, SxProcess::Silent);
        process->start();
        return process;
    }
    /// Does all that one does with a drive, with the other image. It must take less time than it would if one
    /// call of the client came to its limit.
    void expectOtherServed() {
        const int64 beginNs = SxClock::get().steadyNs();
        EXPECT_EQ(TempDir::readFile(mount(other) + "/start.cfg"), "volume=3\n");
        EXPECT_THAT(done({"status"}), HasSubstr(other));
        EXPECT_EQ(done({"umount", other}), "Unmounted\n");
        EXPECT_LT(SxClock::get().steadyNs() - beginNs, 15'000'000'000);
    }

    /// Whether the volume is still mounted; asks nobody but the kernel.
    static bool isMounted(const string& volume) {
        std::ifstream table("/proc/self/mountinfo");
        for (string line; std::getline(table, line);) {
            if (line.find(" " + volume + " ") != string::npos) return true;
        }
        return false;
    }

    string stuck, other;
    const TempDir memory{"/dev/shm"}; ///< other programs' progress would count on a disk that they write to
};

/// A client of the service that takes no answer, as one that was stopped.
class DeafClient {
public:
    DeafClient() {
        const string path = ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::SOCKET;
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const timeval limit = {1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("there is no service");
        // Asks until the service takes no further request, since it waits for its answers to be taken.
        while (ZqDriveWire::send(fd, static_cast<unsigned>(ZqDriveWire::Call::Ping), ""))
            continue;
    }
    ~DeafClient() { ::close(fd); }
    DeafClient(const DeafClient&) = delete;
    DeafClient& operator=(const DeafClient&) = delete;

private:
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

/// A service that ends, and has two drives with written data to take away while a third image is stuck.
class EndOfStuckDisk : public StuckDisk {
protected:
    /// Writes to two drives of sound disks, of which one hasn't the room for it.
    void write() {
        written = build("written", "ext4");
        lost = dir.path("small/image");
        fs::copy(written, lost, fs::copy_options::recursive);
        content = TestRandom(14).bytes(8 << 20);
        std::ofstream(mount(lost, {"--mode", "rtw"}) + "/large") << string(24 << 20, 'x');
        std::ofstream(mount(written, {"--mode", "rtw"}) + "/saved", std::ios::binary) << content;
        volume = statusOf(written).mountPath.str();
        service = statusOf(written).servicePid;
    }
    /// Has the service end; what isn't stuck goes at once.
    void expectEnd() const {
        const string left = ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::LEFT;
        const int64 beginNs = SxClock::get().steadyNs();
        ::kill(static_cast<pid_t>(service), SIGTERM);
        EXPECT_TRUE(eventually([&] { return !isMounted(volume); }));
        EXPECT_TRUE(eventually([&] {
            return fs::exists(left) && TempDir::readFile(left).find("written " + lost) != string::npos;
        })) << "what is lost isn't known to whoever comes after it";
        EXPECT_LT(SxClock::get().steadyNs() - beginNs, 10'000'000'000);
        EXPECT_TRUE(isRunning(service)) << "nothing was stuck";
    }
    /// Sockets of the service.
    size_t countConnections() const {
        size_t n = 0;
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(service) + "/fd")) {
            std::error_code gone;
            if (fs::read_symlink(entry.path(), gone).string().starts_with("socket:")) ++n;
        }
        return n;
    }
    void expectKept() {
        EXPECT_TRUE(TempDir::readFile(mount(written, {"--mode", "rtw"}) + "/saved") == content);
        EXPECT_EQ(done({"umount", written}), "Unmounted\n");
        const Outcome outcome = run({"umount", lost});
        EXPECT_EQ(outcome.code, 1);
        EXPECT_THAT(outcome.err, HasSubstr("may be lost as far as they hadn't synced it"));
    }

    const SmallDisk small{dir.path("small"), "32m"};
    string written, lost, content, volume;
    int64 service = 0;
};

} // namespace

TEST_F(EndOfStuckDisk, AnUnmountThatHangsHoldsUpNoOtherDriveOfAServiceThatEnds) {
    const string app = mount(stuck, {"--trace", dir.path("trace")});
    write();
    setRate("0 " + dir.path("trace"));
    TempDir::readFile(app + "/big.pak");
    const auto umount = start({"umount", stuck, "--quiet"});
    SxTime::msleep(500); // by then it should hang; where it doesn't yet, the rest holds all the same
    expectEnd();
    // Whatever shuts a machine down does so in the end.
    ::kill(static_cast<pid_t>(service), SIGKILL);
    umount->wait();
    setRate("");
    expectKept();
}

TEST_F(EndOfStuckDisk, AMountThatHangsHoldsUpNoOtherDriveOfAServiceThatEndsAndLeavesNothing) {
    write();
    const DeafClient deaf;
    hold(stuck + "/");
    const size_t nBefore = countConnections();
    const string mounts = ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::MOUNTS;
    const auto countDisks = [&] {
        return std::distance(fs::directory_iterator(mounts), fs::directory_iterator());
    };
    const auto nDisks = countDisks();
    const auto first = start({"mount", stuck, "--quiet"});
    // Whoever has the number is the first one.
    ASSERT_TRUE(eventually([&] { return countDisks() > nDisks; }));
    SxProcess second("bash", {"-c", "exec \"$0\" mount \"$1\" 2>\"$2\"", SxString(client), SxString(stuck),
                              SxString(dir.path("told"))});
    second.start();
    // On a busy machine it takes seconds until both are there.
    EXPECT_TRUE(eventually([&] { return countConnections() >= nBefore + 2; }));
    SxTime::msleep(500); // by then they should be held
    const int64 beginNs = SxClock::get().steadyNs();
    expectEnd();
    EXPECT_EQ(second.wait(), 1);
    EXPECT_THAT(dir.read("told"),
                HasSubstr("The drive service (process " + std::to_string(service) + ") ends"));
    EXPECT_LT(SxClock::get().steadyNs() - beginNs, 10'000'000'000) << "it has waited for the first one";
    EXPECT_TRUE(first->isRunning());
    hold("");
    EXPECT_EQ(first->wait(), 1);
    EXPECT_TRUE(eventually([&] { return !isRunning(service); }))
        << "it waits for a client that takes no answer";
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_TRUE(lettersOfDrives().empty());
    expectKept();
}

/// Without threads the drives go one after the other.
TEST_F(EndOfStuckDisk, AServiceThatGetsNoThreadTakesAllItsDrivesAwayAndTellsWhatIsLost) {
    write();
    dir.write("no threads", "");
    ::kill(static_cast<pid_t>(service), SIGTERM);
    EXPECT_TRUE(eventually([&] { return !isRunning(service); }));
    fs::remove(dir.path("no threads"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    expectKept();
}

TEST_F(StuckDisk, AnImageThatCantBeOpenedYetHoldsUpNoOther) {
    hold(stuck + "/");
    const auto first = start({"mount", stuck, "--quiet"});
    const auto second = start({"mount", stuck, "--quiet"});
    SxTime::msleep(500); // by then it should be held; where it isn't yet, the rest holds all the same
    expectOtherServed();
    EXPECT_TRUE(first->isRunning()) << "nothing was held";
    hold("");
    EXPECT_EQ(first->wait(), 0);
    EXPECT_EQ(second->wait(), 0) << "one of its own image waits for it";
    EXPECT_TRUE(statusOf(stuck).ready);
    done({"umount", stuck});
}

TEST_F(StuckDisk, AMountedImageThatCantBeReachedHoldsUpNoOther) {
    Feeder feeder(stuck);
    const string app = mount(stuck);
    // What lies in memory goes into a file of the image's disk as soon as another image is mounted.
    ZqMountMgr().setCacheSize(64 << 20);
    feeder.start();
    TempDir::readFile(app + "/big.pak");
    feeder.stop();
    hold(stuck + "/");
    setRate("0 " + stuck);
    SxTime::msleep(300); // by then its regular work should wait for it; where it doesn't, the rest holds, too
    expectOtherServed();
    EXPECT_EQ(statusOf(stuck).failure, "");
    hold("");
    setRate("");
    EXPECT_EQ(done({"umount", stuck}), "Unmounted\n");
}

TEST_F(StuckDisk, ATraceThatCantBeWrittenHoldsUpNoOtherDrive) {
    const string app = mount(stuck, {"--trace", dir.path("trace")});
    mount(other);
    const string volume = statusOf(other).mountPath.str();
    setRate("0 " + dir.path("trace"));
    TempDir::readFile(app + "/big.pak");
    // The regular work of this drive writes its trace; that of the other finds that somebody has unmounted
    // it.
    SxTime::msleep(500);
    ASSERT_EQ(::umount2(volume.c_str(), MNT_DETACH), 0);
    const int64 beginNs = SxClock::get().steadyNs();
    EXPECT_TRUE(eventually([&] { return statusOf(other).image.isEmpty(); }));
    EXPECT_LT(SxClock::get().steadyNs() - beginNs, 8'000'000'000);
    const auto umount = start({"umount", stuck, "--quiet"});
    SxTime::msleep(500);
    expectOtherServed();
    EXPECT_TRUE(umount->isRunning()) << "nothing was held";
    setRate("");
    EXPECT_EQ(umount->wait(), 0);
}

TEST_F(StuckDisk, ADiskThatAnswersNothingIsGivenUpAfterTheLimit) {
    const string image = memory.path("image");
    fs::copy(stuck, image, fs::copy_options::recursive);
    ::setenv("TAVRIN_ZQDD_STALL_MS", "2500", 1);
    std::ofstream(mount(image, {"--mode", "rtw"}) + "/saved") << string(4 << 20, 's');
    ::unsetenv("TAVRIN_ZQDD_STALL_MS");
    const ZqDiskStatus disk = statusOf(image);
    setRate("0 " + image);
    const auto umount = start({"umount", image, "--quiet"});
    EXPECT_TRUE(eventually([&] { return !isMounted(disk.mountPath.str()); }));
    EXPECT_TRUE(eventually([&] { return !fs::is_symlink(dir.path("root/dosdevices/d:")); }));
    EXPECT_TRUE(umount->isRunning()) << "nothing was stuck";
    setRate("");
    EXPECT_EQ(umount->wait(), 1) << "what was written is lost";
}

TEST_F(StuckDisk, ADriveThatNoThreadCouldTakeDownGoesLater) {
    mount(other);
    const string volume = statusOf(other).mountPath.str();
    const string log = ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log";
    dir.write("no threads", "");
    ASSERT_EQ(::umount2(volume.c_str(), 0), 0);
    EXPECT_TRUE(
        eventually([&] { return TempDir::readFile(log).find("Cannot start a thread") != string::npos; }));
    fs::remove(dir.path("no threads"));
    EXPECT_TRUE(eventually([&] { return leftovers().empty(); }));
    EXPECT_TRUE(eventually([&] { return statusOf(other).image.isEmpty(); }));
}

TEST_F(StuckDisk, AReadAheadThatCouldntBeSetIsSetLater) {
    Feeder feeder(stuck);
    mount(stuck);
    const string file = (fs::path(statusOf(stuck).mountPath.str()).parent_path() / "front/disk").string();
    string setting;
    for (const auto& device : fs::directory_iterator("/sys/block")) {
        std::ifstream backing(device.path() / "loop/backing_file");
        string path;
        if (std::getline(backing, path) && path == file) setting = device.path() / "queue/read_ahead_kb";
    }
    const auto readAhead = [&] {
        int kib = 0;
        std::ifstream(setting) >> kib;
        return kib;
    };
    ASSERT_EQ(readAhead(), 16);
    // For a moment the system refuses the setting.
    dir.write("refused", "7\n");
    ASSERT_EQ(::mount(dir.path("refused").c_str(), setting.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(::mount(nullptr, setting.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    feeder.grow(1 << 20);
    const string log = ZqServiceFolder::of(ZqMachineRoot::get().str()) + "zqdd.log";
    EXPECT_TRUE(eventually(
        [&] { return TempDir::readFile(log).find("its read-ahead can't be set") != string::npos; }));
    ASSERT_EQ(::umount2(setting.c_str(), 0), 0);
    EXPECT_TRUE(eventually([&] { return readAhead() == 1024; })) << readAhead();
    done({"umount", stuck});
}

/// The application, or whoever reads a drive that is fed, gets an I/O error; the client that has mounted the
/// drive must say why.
TEST_F(StuckDisk, AReadThatFailsIsToldAtTheEnd) {
    dir.write("game/play.sh", "#!/bin/sh\n"
                              "echo \"-1 $BAD_IMAGE\" >\"$SLOW_DISK\"\n"
                              "cat big.pak >/dev/null\n"
                              "echo >\"$SLOW_DISK\"\n"
                              "exit 3\n");
    fs::permissions(dir.path("game/play.sh"), fs::perms(0755));
    const string bad = build("bad", "erofs", {"--cmd", "{{ZQDRIVE}}/TAVRIN-protected/app/play.sh"});
    ::setenv("BAD_IMAGE", (bad + "/img.zqf").c_str(), 1);
    const Outcome played = run({"run", bad, "--report", dir.path("report.json")});
    EXPECT_EQ(played.code, 1);
    EXPECT_THAT(played.out, HasSubstr("ended with code 3"));
    EXPECT_THAT(played.err,
                testing::AllOf(HasSubstr("A read or write of the drive of"), HasSubstr("img.zqf")));
    EXPECT_THAT(dir.read("report.json"), HasSubstr("\"driveFailure\": \"Cannot read 'img.zqf'"));

    const auto feeder = start({"mount", bad, "--url", "http://127.0.0.1:9/"});
    ASSERT_TRUE(eventually([&] { return statusOf(bad).ready; }));
    setRate("-1 " + bad + "/img.zqf");
    std::ifstream pak(statusOf(bad).mountPath.str() + "/TAVRIN-protected/app/big.pak", std::ios::binary);
    string byte(1, '\0');
    EXPECT_FALSE(pak.read(byte.data(), 1)) << "it is still in a cache";
    pak.close();
    setRate("");
    EXPECT_THAT(statusOf(bad).failure.str(), HasSubstr("img.zqf"));
    SxTime::msleep(500); // the feeder looks five times in that; after that there is no drive to look at
    done({"umount", bad});
    EXPECT_EQ(feeder->wait(), 1);
    ::unsetenv("BAD_IMAGE");
}
