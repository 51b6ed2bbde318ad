#include "DriveRun.h"

#include <csignal>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Drives whose disk is slow, and what programs have written to them when they are taken away.
class Flush : public DriveRun {
protected:
    static constexpr size_t SIZE = 24 << 20;

    void SetUp() override {
        DriveRun::SetUp();
        if (client.empty()) return;
        slow = dir.path("slow");
        setRate("");
        const fs::path library = fs::path(client).parent_path().parent_path() / "tests/slow_disk.so";
        ASSERT_TRUE(fs::exists(library));
        ::setenv("LD_PRELOAD", library.c_str(), 1);
        ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
        ::setenv("SLOW_DISK", slow.c_str(), 1);
        // Shorter than a flush takes here.
        ::setenv("TAVRIN_ZQDD_STALL_MS", "2500", 1);
        ::setenv("TAVRIN_ANSWER_S", "5", 1);
        // Gives the drive enough free room, which goes by the size of the application.
        std::ofstream(source + "/room").close();
        fs::resize_file(source + "/room", 400'000'000);
        image = build("image", "ext4");
        TestRandom random(11);
        saved = random.bytes(SIZE);
    }
    void TearDown() override {
        setRate("");
        DriveRun::TearDown();
        for (const char* name : {"LD_PRELOAD", "SLOW_DISK", "TAVRIN_ZQDD_STALL_MS", "TAVRIN_ANSWER_S"})
            ::unsetenv(name);
    }
    /// Bytes a second; "0" for a disk that stands still, an empty text for a fast one.
    void setRate(const string& rate) const { std::ofstream(slow) << rate; }
    /// Whether some of it has come to the disk.
    bool isWriting() const { return fs::exists(image + "/img.tmp") && fs::file_size(image + "/img.tmp") > 0; }
    /// Writes to the drive without a sync.
    void save() {
        app = mount(image, {"--mode", "rtw"});
        std::ofstream(app + "/saved", std::ios::binary) << saved;
    }
    bool isSaved() {
        app = mount(image, {"--mode", "rtw"});
        std::error_code none;
        const bool same =
            fs::file_size(app + "/saved", none) == SIZE && TempDir::readFile(app + "/saved") == saved;
        done({"umount", image});
        return same;
    }

    string slow, image, app, saved;
    const TempDir memory{"/dev/shm"};
};

/// A child process that holds a private copy of all mounts.
class OtherNamespace {
public:
    OtherNamespace() {
        int ready[2];
        if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
        pid = ::fork();
        if (pid == 0) {
            const bool made = ::unshare(CLONE_NEWNS) == 0 &&
                              ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
            [[maybe_unused]] const ssize_t told = ::write(ready[1], made ? "1" : "0", 1);
            ::alarm(100);
            for (;;)
                ::pause();
        }
        char made = 0;
        if (::read(ready[0], &made, 1) != 1 || made != '1') throw std::runtime_error("no mount namespace");
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~OtherNamespace() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    OtherNamespace(const OtherNamespace&) = delete;
    OtherNamespace& operator=(const OtherNamespace&) = delete;

private:
    pid_t pid = -1;
};

} // namespace

TEST_F(Flush, ASlowDiskGetsTheTimeThatItNeeds) {
    save();
    // The flush then takes about 10 s, longer than every limit.
    setRate(std::to_string(SIZE / 10));
    const int64 begin = SxClock::get().steadyNs();
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    EXPECT_GT(SxClock::get().steadyNs() - begin, 6'000'000'000) << "the disk wasn't slow";
    setRate("");
    EXPECT_TRUE(isSaved());
}

TEST_F(Flush, ADiskThatStandsStillEndsTheDriveAndSaysWhatIsLost) {
    // Not on a disk that other programs write to: their progress would count.
    fs::copy(image, memory.path("image"), fs::copy_options::recursive);
    image = memory.path("image");
    save();
    setRate("0");
    SxProcess umount("bash", {"-c", "exec \"$0\" umount \"$1\" 2>\"$2\"", SxString(client), SxString(image),
                              SxString(dir.path("told"))});
    umount.start();
    EXPECT_TRUE(eventually([&] {
        return fs::exists(dir.path("told")) &&
               (dir.read("told").size() > 0 || !statusOf(image).failure.isEmpty());
    }));
    // The service's threads can't end while the disk holds them.
    setRate("");
    EXPECT_EQ(umount.wait(), 1);
    EXPECT_THAT(dir.read("told"),
                HasSubstr("is lost as far as they hadn't synced it: the disk took no byte"));
    EXPECT_EQ(run({"status", image}).code, 1) << "the drive stays";
}

TEST_F(Flush, ACopyInAnotherMountNamespaceTakesNothingAway) {
    save();
    {
        const OtherNamespace other;
        EXPECT_THAT(done({"umount", image}), HasSubstr("Unmounted\n"));
    }
    EXPECT_TRUE(isSaved());
}

TEST_F(Flush, AnUnmountWhoseServiceIsKilledFailsWhereWritesMayBeLost) {
    for (const bool isBefore : {false, true}) {
        SCOPED_TRACE(isBefore ? "killed before" : "killed in the middle");
        save();
        const pid_t service = static_cast<pid_t>(statusOf(image).servicePid);
        setRate(std::to_string(SIZE / 10));
        SxProcess umount(SxString(client), {"umount", SxString(image)}, SxProcess::Silent);
        if (!isBefore) {
            umount.start();
            EXPECT_TRUE(eventually([&] { return statusOf(image).drive.isEmpty() || isWriting(); }));
        }
        ::kill(service, SIGKILL);
        setRate("");
        if (!isBefore) {
            EXPECT_EQ(umount.wait(), 1);
        }
        // The unmount that was cut off could no longer see what was lost; the next one tells it, once.
        const Outcome outcome = run({"umount", image});
        if (isBefore) {
            EXPECT_EQ(outcome.code, 1);
            EXPECT_THAT(outcome.err, HasSubstr("may be lost as far as they hadn't synced it"));
        }
        EXPECT_EQ(done({"umount", image}), "Not mounted\n");
    }
    mount(image, {"--mode", "ro"});
    ::kill(static_cast<pid_t>(statusOf(image).servicePid), SIGKILL);
    EXPECT_THAT(done({"umount", image}), HasSubstr("had left behind"));
}
