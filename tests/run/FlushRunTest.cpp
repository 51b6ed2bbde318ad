#include "DriveRun.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
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
        // Short beside what a flush takes here.
        ::setenv("TAVRIN_ZQDD_STALL_MS", "2500", 1);
        ::setenv("TAVRIN_ANSWER_S", "5", 1);
        // An application too large for a drive without room.
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
    // About 10 s, beyond every limit.
    setRate(std::to_string(SIZE / 10));
    const int64 begin = SxClock::get().steadyNs();
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    EXPECT_GT(SxClock::get().steadyNs() - begin, 6'000'000'000) << "the disk wasn't slow";
    setRate("");
    EXPECT_TRUE(isSaved());
}

TEST_F(Flush, ADiskThatStandsStillEndsTheDriveAndSaysWhatIsLost) {
    save();
    setRate("0");
    SxProcess umount("bash", {"-c", "exec \"$0\" umount \"$1\" 2>\"$2\"", SxString(client), SxString(image),
                              SxString(dir.path("told"))});
    umount.start();
    EXPECT_TRUE(eventually([&] {
        return fs::exists(dir.path("told")) &&
               (dir.read("told").size() > 0 || !statusOf(image).failure.isEmpty());
    }));
    // Its threads can't end while the disk holds them.
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
        // What the one that was cut off could no longer see, the next one tells, once.
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

namespace {

/// A memory group of the first or the second kind, as the machine has it.
class MemoryGroup {
public:
    explicit MemoryGroup(uint64 bytes) {
        const string root = "/sys/fs/cgroup/";
        const bool isFirst = fs::exists(root + "memory/memory.limit_in_bytes");
        folder = root + (isFirst ? "memory/" : "") + "tavrin-test-" + std::to_string(::getpid());
        std::error_code error;
        if (!fs::create_directory(folder, error)) return;
        limit = folder + (isFirst ? "/memory.limit_in_bytes" : "/memory.max");
        std::ofstream(limit) << bytes;
        std::ifstream(limit) >> set;
    }
    ~MemoryGroup() {
        std::ofstream(fs::path(folder).parent_path() / "cgroup.procs") << ::getpid();
        SxWait::pass(10'000, [this] { return ::rmdir(folder.c_str()) == 0 || errno != EBUSY; });
    }
    MemoryGroup(const MemoryGroup&) = delete;
    MemoryGroup& operator=(const MemoryGroup&) = delete;
    bool isThere() const { return set > 0; }
    void enter(int64 pid) const { std::ofstream(folder + "/cgroup.procs") << pid << std::flush; }

private:
    string folder, limit;
    uint64 set = 0;
};

} // namespace

TEST_F(Flush, ServiceAndWriterShareALittleMemory) {
    // The service has this right if the test has it.
    if (::prctl(PR_SET_IO_FLUSHER, 1, 0, 0, 0) != 0)
        GTEST_SKIP() << "no process can be kept out of reclaim: " << std::strerror(errno);
    ::prctl(PR_SET_IO_FLUSHER, 0, 0, 0, 0);
    const MemoryGroup group(48 << 20);
    if (!group.isThere()) GTEST_SKIP() << "no memory group can be made";
    app = mount(image, {"--mode", "rtw"});
    group.enter(statusOf(image).servicePid);
    const pid_t writer = ::fork();
    if (writer == 0) {
        ::alarm(90);
        group.enter(::getpid());
        for (int i = 0; i < 8; ++i)
            std::ofstream(app + "/saved" + std::to_string(i), std::ios::binary) << saved;
        ::_exit(0);
    }
    int status = -1;
    EXPECT_TRUE(SxWait::pass(80'000, [&] { return ::waitpid(writer, &status, WNOHANG) == writer; }))
        << "it hangs";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
    app = mount(image, {"--mode", "ro"});
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(TempDir::readFile(app + "/saved" + std::to_string(i)) == saved) << i;
    done({"umount", image});
}
